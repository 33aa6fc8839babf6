// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <string>
#include <sys/types.h>

namespace kelm_agent
{

// Throws kelm::error.
std::string read_whole_file(const std::string &path);

// Whoever reads the file finds the old content or the new one, never a part. Throws kelm::error.
void replace_whole_file(const std::string &path, const std::string &content, mode_t mode);

} // namespace kelm_agent

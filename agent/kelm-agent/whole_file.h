// SPDX-License-Identifier: GPL-2.0
#ifndef KELM_AGENT_WHOLE_FILE_H
#define KELM_AGENT_WHOLE_FILE_H

#include <sys/types.h>

#include <string>

namespace kelm_agent
{

// Throws kelm::error.
std::string read_whole_file(const std::string &path);

// Whoever reads the file finds the old content or the new one, never a part. Throws kelm::error.
void replace_whole_file(const std::string &path, const std::string &content, mode_t mode);

} // namespace kelm_agent

#endif

// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <string>

#include "libkelm/bytes.h"

namespace kelm
{

// A secret from a file, "-" for standard input. One line break at the end does not count.
// `is_exposed` tells whether the file is open to other users. Throws error when the file cannot be
// read, or is far too long for a key.
bytes read_key_file(const std::string &path, bool &is_exposed);

} // namespace kelm

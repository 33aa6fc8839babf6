// SPDX-License-Identifier: GPL-2.0
//
// Times as people type and read them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kelm.h"

namespace kelm
{

// "300ms", "1.5s", "250us", "2min"; the unit may only be missing from 0. Nothing if the text is no
// such time, or one of 2^32 microseconds (about 71 minutes) or more.
std::optional<kelm_microsecs> parse_duration(const std::string &text);

// "750us", "98.1ms", "1.5s", "2min 3s", "5h 12min"
std::string format_duration(std::uint64_t microseconds);

} // namespace kelm

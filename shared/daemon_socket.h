// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <string_view>

namespace kelm
{

// The abstract name of kelmd's socket; one per network namespace, as netlink units are. It has
// neither terminator nor padding.
inline constexpr std::string_view daemon_socket_name = "kelm-netlink-31";

} // namespace kelm

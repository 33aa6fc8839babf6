// SPDX-License-Identifier: GPL-2.0
#include "platform/sim/frame.h"

#include <arpa/inet.h>
#include <cstring>

#include "platform/sim/failure.h"

namespace sim
{

in6_addr address(std::string_view text)
{
    const std::string full = text.find(':') == std::string_view::npos
                                 ? "::ffff:" + std::string(text)
                                 : std::string(text);
    in6_addr result{};
    if (inet_pton(AF_INET6, full.c_str(), &result) != 1)
        fatal("%s is no address", full.c_str());
    return result;
}

std::string to_string(const in6_addr &address)
{
    char text[INET6_ADDRSTRLEN];
    if (IN6_IS_ADDR_V4MAPPED(&address))
        return inet_ntop(AF_INET, address.s6_addr + 12, text, sizeof text);
    return inet_ntop(AF_INET6, &address, text, sizeof text);
}

} // namespace sim

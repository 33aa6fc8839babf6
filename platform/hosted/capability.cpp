// SPDX-License-Identifier: GPL-2.0
#include "platform/capability.h"

#include <utility>

#include "platform/hosted/netlink.h"

namespace hosted
{

namespace
{

thread_local netlink_port *current_sender = nullptr;

} // namespace

netlink_port *exchange_current_sender(netlink_port *sender)
{
    return std::exchange(current_sender, sender);
}

} // namespace hosted

bool capable(int capability)
{
    return hosted::current_sender != nullptr && hosted::current_sender->sender_capable(capability);
}

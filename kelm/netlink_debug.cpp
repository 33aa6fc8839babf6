// SPDX-License-Identifier: GPL-2.0
//
// Debug levels: one for the module, and up to 100 for single sessions, which can only add to it.
#include "kelm/netlink_debug.h"

#include "kelm/guard.h"
#include "kelm/kelm_internal.h"
#include "kelm/log.h"
#include "kelm/message.h"
#include "platform/capability.h"
#include "platform/err.h"

constinit kelm_debug_config kelm_debugs = {};

namespace
{
struct kelm_session_debug {
    std::uint32_t discriminator; // 0 marks a free entry
    std::uint8_t debug_level;
};

constinit kelm_session_debug kelm_levels[KELM_MAX_SESSION_DEBUGS] = {}; // by kelm_debugs.lock

kelm_session_debug *find_entry(std::uint32_t discriminator)
{
    for (kelm_session_debug &entry : kelm_levels)
        if (entry.discriminator == discriminator)
            return &entry;
    return nullptr;
}

// The entry of a session, or null. The caller holds kelm_debugs.lock.
kelm_session_debug *__find_debug(std::uint32_t discriminator)
{
    return discriminator != 0 ? find_entry(discriminator) : nullptr;
}

void clear_session_levels()
{
    bh_guard lock(kelm_debugs.lock);
    for (kelm_session_debug &entry : kelm_levels)
        entry = {};
    kelm_debugs.count = 0;
}

// Logged if the level before or after lets it through.
void set_global_level(std::uint16_t level)
{
    const auto stored = static_cast<std::uint8_t>(level);
    if (stored > 1)
        kelm_debugs.global_level = stored;
    netlink_log(2, "Set global debug level to %u", level);
    kelm_debugs.global_level = stored;
}

void remove_session_level(std::uint32_t discriminator)
{
    bh_guard lock(kelm_debugs.lock);
    kelm_session_debug *entry = __find_debug(discriminator);
    if (entry == nullptr)
        return;
    netlink_log(2, "Clear session %u debug", discriminator);
    *entry = {};
    if (kelm_debugs.count > 0)
        --kelm_debugs.count;
}

int set_session_level(std::uint32_t discriminator, std::uint16_t level)
{
    {
        bh_guard lock(kelm_debugs.lock);
        kelm_session_debug *entry = __find_debug(discriminator);
        if (entry == nullptr) {
            entry = find_entry(0);
            if (entry == nullptr) {
                netlink_log(2, "Maximum number of sessions reached.");
                return -ENOSR;
            }
            ++kelm_debugs.count;
        }
        *entry = {discriminator, static_cast<std::uint8_t>(level)};
    }
    netlink_log(2, "Set debug level for discriminator %u to %u", discriminator, level);
    netlink_log_session(discriminator, 3, "Session debugs count now %u",
                        static_cast<unsigned>(kelm_debugs.count.load()));
    return 0;
}
} // namespace

void debug_init()
{
    kelm_debugs.global_level = 1;
    spin_lock_init(&kelm_debugs.lock, rank_debug, "kelm_debugs");
    clear_session_levels();
}

bool session_level_reaches(std::uint32_t discriminator, std::uint8_t target_level)
{
    bh_guard lock(kelm_debugs.lock);
    const kelm_session_debug *entry = __find_debug(discriminator);
    return entry != nullptr && entry->debug_level >= target_level;
}

int set_debug_level(kelm_vrf *, sk_buff *, const nlmsghdr *hdr)
{
    const auto *msg = request_body<kelm_msg_set_debug_level>(hdr);
    if (msg == nullptr)
        return -EINVAL;
    const std::uint32_t discriminator = msg->header.discriminator;
    if (msg->flags & KELM_DEBUG_CLEAR_SESSIONS) {
        netlink_log(2, "Clearing session specific debugs");
        clear_session_levels();
        if (discriminator == 0)
            return 0;
    } else if (discriminator == 0 && !capable(CAP_NET_ADMIN)) {
        return -EPERM;
    }
    netlink_log(2, "Setting debug level for discriminator %u to %u", discriminator,
                msg->debug_level);
    if (discriminator == 0) {
        set_global_level(msg->debug_level);
        return 0;
    }
    if (msg->debug_level == 0) {
        remove_session_level(discriminator);
        return 0;
    }
    return set_session_level(discriminator, msg->debug_level);
}

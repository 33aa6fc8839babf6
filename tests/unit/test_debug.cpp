// SPDX-License-Identifier: GPL-2.0
//
// Debug levels: of the module, and of single sessions.
#include <algorithm>
#include <cerrno>

#include "engine_fixture.h"
#include "kelm/log.h"

namespace
{

using namespace sim;

struct debug : testing::Test {
    // What the log says since the last time.
    strings lines()
    {
        strings result;
        for (const log_line &line : w.log()) {
            EXPECT_EQ(line.level, 6) << line.text;
            result.push_back(line.text);
        }
        w.clear_log();
        return result;
    }

    world w;
    agent &a = w.open_agent(w.initial());
    agent &unprivileged = w.open_agent(w.initial(), {.privileged = false});
};

TEST_F(debug, changes_are_logged_at_the_level_that_holds_then)
{
    const std::string request = "kelm Netlink: Setting debug level for discriminator ";
    const std::string global = "kelm Netlink: Set global debug level to ";
    const std::string session = "kelm Netlink: Set debug level for discriminator ";
    const std::string count = "): Session debugs count now 1";
    const struct {
        std::uint16_t level;
        std::uint32_t discriminator;
        strings lines;
    } changes[] = {
        {0, 0, {}},
        {1, 0, {}},
        {2, 0, {global + "2"}},
        {2, 0, {request + "0 to 2", global + "2"}},
        {1, 0, {request + "0 to 1", global + "1"}},
        {0x102, 0, {global + "258"}}, // cut to 2
        {3, 7, {request + "7 to 3", session + "7 to 3", "kelm Netlink (7" + count}},
        {2, 8, {request + "8 to 2", session + "8 to 2"}}, // too low for the count's line
        {0, 7, {request + "7 to 0", "kelm Netlink: Clear session 7 debug"}},
        {0, 7, {request + "7 to 0"}}, // there is none any more
        {3, 8, {request + "8 to 3", session + "8 to 3", "kelm Netlink (8" + count}},
        {0, 8, {request + "8 to 0", "kelm Netlink: Clear session 8 debug"}},
        {3, 9, {request + "9 to 3", session + "9 to 3", "kelm Netlink (9" + count}},
    };
    EXPECT_TRUE(should_log(0, 1));
    EXPECT_FALSE(should_log(0, 2));
    for (const auto &[level, discriminator, expected] : changes) {
        ASSERT_EQ(set_debug_level(a, level, discriminator), 0);
        EXPECT_EQ(lines(), expected) << "to level " << level;
        for (std::uint8_t target = 1; target <= 3; ++target)
            EXPECT_EQ(should_log(discriminator, target),
                      std::max(level & 0xff, discriminator == 0 ? 0 : 2) >= target);
    }
}

TEST_F(debug, session_level_only_adds_to_the_global_one)
{
    const std::pair<kelm_msg_set_debug_level, std::string> requests[] = {
        // discriminator, flags, level; what sessions 0, 7 and 8 are logged at then
        {{{7}, 0, 3, {}}, "131"},
        {{{0}, 0, 3, {}}, "333"},
        {{{7}, 0, 1, {}}, "333"},
        {{{0}, 0, 0, {}}, "010"},
        {{{7}, 0, 0x1ff, {}}, "030"}, // cut to 255
        {{{0}, 0, 1, {}}, "131"},
        {{{8}, KELM_DEBUG_CLEAR_SESSIONS, 2, {}}, "112"},
        {{{0}, KELM_DEBUG_CLEAR_SESSIONS, 3, {}}, "111"}, // leaves the global level as it is
    };
    for (const auto &[request, levels] : requests) {
        SCOPED_TRACE(&request - &requests[0].first);
        const bool global = request.header.discriminator == 0 && request.flags == 0;
        if (global) {
            EXPECT_EQ(ask(unprivileged, KELM_MSG_SET_DEBUG_LEVEL, request), -EPERM);
        }
        EXPECT_EQ(ask(global ? a : unprivileged, KELM_MSG_SET_DEBUG_LEVEL, request), 0);
        std::string met;
        for (const std::uint32_t disc : {0U, 7U, 8U})
            met += std::to_string(should_log(disc, 1) + should_log(disc, 2) + should_log(disc, 3));
        EXPECT_EQ(met, levels);
    }
}

TEST_F(debug, at_most_100_sessions_have_a_level)
{
    for (std::uint32_t discriminator = 1; discriminator <= KELM_MAX_SESSION_DEBUGS; ++discriminator)
        ASSERT_EQ(set_debug_level(a, 2, discriminator), 0);
    ASSERT_EQ(set_debug_level(a, 2), 0);
    EXPECT_EQ(set_debug_level(a, 3, 101), -ENOSR);
    EXPECT_EQ(lines().back(), "kelm Netlink: Maximum number of sessions reached.");
    EXPECT_EQ(set_debug_level(a, 3, 50), 0);
    EXPECT_EQ(set_debug_level(a, 0, 50), 0);
    EXPECT_EQ(set_debug_level(a, 3, 101), 0);
    EXPECT_EQ(set_debug_level(a, 3, 50), -ENOSR);
    ASSERT_EQ(set_debug_level(a, 1), 0);
    for (std::uint32_t discriminator = 1; discriminator <= 101; ++discriminator)
        EXPECT_EQ(should_log(discriminator, 2), discriminator != 50);
}

} // namespace

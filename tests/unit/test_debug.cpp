// SPDX-License-Identifier: GPL-2.0
//
// Debug levels: of the module, and of single sessions.
#include <cerrno>

#include "engine_fixture.h"
#include "kelm/log.h"

namespace
{

using namespace sim;
using strings = std::vector<std::string>;

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

    // What it says of a change.
    strings lines_of(std::uint16_t level, std::uint32_t discriminator = 0, std::uint32_t flags = 0)
    {
        w.clear_log();
        EXPECT_EQ(set_debug_level(a, level, discriminator, flags), 0);
        return lines();
    }

    world w;
    agent &a = w.open_agent(w.initial());
    agent &unprivileged = w.open_agent(w.initial(), {.privileged = false});
};

TEST_F(debug, global_level_is_1_at_first_and_its_changes_are_logged_from_2_on)
{
    EXPECT_TRUE(should_log(0, 1));
    EXPECT_FALSE(should_log(0, 2));
    const std::string request = "kelm Netlink: Setting debug level for discriminator 0 to ";
    const std::string done = "kelm Netlink: Set global debug level to ";
    const std::pair<std::uint16_t, strings> cases[] = {
        {0, {}},
        {1, {}},
        {2, {done + "2"}},
        {2, {request + "2", done + "2"}},
        {1, {request + "1", done + "1"}},
        {0x102, {done + "258"}}, // cut to 2
        {0, {request + "0", done + "0"}},
    };
    for (const auto &[level, log] : cases) {
        EXPECT_EQ(lines_of(level), log) << "to level " << level;
        for (std::uint8_t target = 1; target <= 3; ++target)
            EXPECT_EQ(should_log(0, target), (level & 0xff) >= target);
    }
}

TEST_F(debug, session_level_only_adds_to_the_global_one)
{
    ASSERT_EQ(set_debug_level(a, 3, 7), 0);
    EXPECT_TRUE(should_log(7, 3));
    EXPECT_FALSE(should_log(8, 2));
    EXPECT_TRUE(should_log(8, 1));
    ASSERT_EQ(set_debug_level(a, 3), 0);
    ASSERT_EQ(set_debug_level(a, 1, 7), 0);
    EXPECT_TRUE(should_log(7, 3));
    ASSERT_EQ(set_debug_level(a, 0), 0);
    EXPECT_TRUE(should_log(7, 1));
    EXPECT_FALSE(should_log(7, 2));
    EXPECT_FALSE(should_log(0, 1)) << "free entries are nobody's";
    ASSERT_EQ(set_debug_level(a, 0x1ff, 7), 0); // cut to 255
    EXPECT_TRUE(should_log(7, 255));
}

TEST_F(debug, session_level_brings_the_lines_about_that_session)
{
    ASSERT_EQ(set_debug_level(a, 2, 7), 0);
    ASSERT_EQ(set_session(a, 8), 0);
    EXPECT_EQ(lines(), strings{});
    ASSERT_EQ(set_session(a, 7), 0);
    const strings logged = lines();
    EXPECT_FALSE(logged.empty());
    for (const std::string &line : logged)
        EXPECT_EQ(line.find("kelm Rx (7): "), 0U) << line;
}

TEST_F(debug, requests_are_logged_at_3)
{
    ASSERT_EQ(set_debug_level(a, 3), 0);
    lines();
    EXPECT_EQ(ask(a, 32, bytes(4)), -ENOMSG);
    EXPECT_EQ(lines(), (strings{"kelm Netlink: Received netlink message (len 20)",
                                "kelm Netlink: Message has type 32"}));
    EXPECT_EQ(ask(a, KELM_MSG_RX_SYNC, bytes(4)), -EPERM);
    EXPECT_EQ(lines(),
              (strings{"kelm Netlink: Received netlink message (len 20)",
                       "kelm Netlink: Message has type 24", "kelm Netlink: Found existing vrf"}));
}

TEST_F(debug, session_changes_are_logged)
{
    const std::string request = "kelm Netlink: Setting debug level for discriminator ";
    const std::string done = "kelm Netlink: Set debug level for discriminator ";
    ASSERT_EQ(set_debug_level(a, 2), 0);
    EXPECT_EQ(lines_of(3, 7), (strings{request + "7 to 3", done + "7 to 3",
                                       "kelm Netlink (7): Session debugs count now 1"}));
    // The level is too low for the count's line.
    EXPECT_EQ(lines_of(2, 8), (strings{request + "8 to 2", done + "8 to 2"}));
    EXPECT_EQ(lines_of(0, 7), (strings{request + "7 to 0", "kelm Netlink: Clear session 7 debug"}));
    EXPECT_EQ(lines_of(0, 7), strings{request + "7 to 0"}); // there is none any more
    // 8 has an entry already, and 9 takes over the one that it gives up.
    EXPECT_EQ(lines_of(3, 8).back(), "kelm Netlink (8): Session debugs count now 1");
    lines_of(0, 8);
    EXPECT_EQ(lines_of(3, 9).back(), "kelm Netlink (9): Session debugs count now 1");
    EXPECT_EQ(lines_of(1, 0, KELM_DEBUG_CLEAR_SESSIONS),
              strings{"kelm Netlink: Clearing session specific debugs"});
}

TEST_F(debug, privilege_is_for_the_global_level_alone)
{
    EXPECT_EQ(set_debug_level(unprivileged, 3), -EPERM);
    EXPECT_FALSE(should_log(0, 2));
    EXPECT_EQ(set_debug_level(unprivileged, 3, 7), 0);
    EXPECT_TRUE(should_log(7, 3));

    // Clearing leaves the global level as it is.
    EXPECT_EQ(set_debug_level(unprivileged, 3, 0, KELM_DEBUG_CLEAR_SESSIONS), 0);
    EXPECT_FALSE(should_log(7, 2));
    EXPECT_FALSE(should_log(0, 2));
    EXPECT_TRUE(should_log(0, 1));

    ASSERT_EQ(set_debug_level(a, 3, 7), 0);
    EXPECT_EQ(set_debug_level(unprivileged, 2, 8, KELM_DEBUG_CLEAR_SESSIONS), 0);
    EXPECT_FALSE(should_log(7, 2));
    EXPECT_TRUE(should_log(8, 2));
}

TEST_F(debug, at_most_100_sessions_have_a_level)
{
    for (std::uint32_t discriminator = 1; discriminator <= KELM_MAX_SESSION_DEBUGS; ++discriminator)
        ASSERT_EQ(set_debug_level(a, 2, discriminator), 0);
    ASSERT_EQ(set_debug_level(a, 2), 0);
    lines();
    EXPECT_EQ(set_debug_level(a, 3, 101), -ENOSR);
    EXPECT_EQ(lines().back(), "kelm Netlink: Maximum number of sessions reached.");
    EXPECT_FALSE(should_log(101, 3));
    EXPECT_EQ(set_debug_level(a, 3, 50), 0);
    EXPECT_TRUE(should_log(50, 3));
    EXPECT_EQ(set_debug_level(a, 0, 50), 0);
    EXPECT_EQ(set_debug_level(a, 3, 101), 0);
    EXPECT_TRUE(should_log(101, 3));
    EXPECT_EQ(set_debug_level(a, 3, 50), -ENOSR);

    ASSERT_EQ(set_debug_level(a, 1), 0);
    for (std::uint32_t discriminator = 1; discriminator <= 101; ++discriminator) {
        EXPECT_EQ(should_log(discriminator, 2), discriminator != 50);
        EXPECT_EQ(set_debug_level(a, 0, discriminator), 0);
        EXPECT_FALSE(should_log(discriminator, 2));
    }
}

} // namespace

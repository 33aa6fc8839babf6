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

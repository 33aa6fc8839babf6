// SPDX-License-Identifier: GPL-2.0
//
// The transmit path becomes ready: by the agent or by the first datagram, once, for all vrfs,
// while vrfs come and go.
#include <set>

#include "platform/sim/net.h"
#include "wire_fixture.h"

namespace
{

using namespace sim;

// The namespaces that packets went out in, by name and discriminator.
std::multiset<std::string> sent(world &w)
{
    std::multiset<std::string> result;
    for (const frame &each : w.take_frames())
        result.insert(each.netns->name + " " +
                      std::to_string(ntohl(ctrl_in(each.data).my_discriminator)));
    return result;
}

TEST(path_ready, starts_every_packet_of_every_vrf_once)
{
    world w({.namespaces = {"red", "blue"}});
    std::multiset<std::string> all;
    for (const char *name : {"initial", "red", "blue"}) {
        agent &a = w.open_agent(w.find(name));
        for (const std::uint32_t disc : {1U, 33U, 0xffffffffU}) {
            ASSERT_EQ(set_packet(a, disc), 0);
            all.insert(std::string(name) + " " + std::to_string(disc));
        }
    }
    w.advance(1000);
    EXPECT_TRUE(w.frames().empty());
    agent &a = w.open_agent(w.find("red"), {.privileged = false});
    ASSERT_EQ(set_debug_level(w.open_agent(w.initial()), 2), 0);
    EXPECT_EQ(path_ready(a, 1), -ENODATA);
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(path_ready(a), 0);
    EXPECT_EQ(sent(w), all);
    // The first datagram only says so.
    EXPECT_TRUE(receive(w, 1));
    EXPECT_TRUE(receive(w, 1));
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(w.logged("kelm Rx: Tx path ready from kernel"), 1U);
    EXPECT_EQ(w.logged("kelm Tx: Setting kelm_tx_path_ready"), 2U);
}

// At each lock point of the walk: a namespace comes and gets a packet, a packet is set and one is
// deleted in a vrf, a vrf is swept, the path is declared ready once more.
TEST(path_ready, whatever_is_set_during_the_walk_is_sent)
{
    std::uint64_t k = 1;
    for (;; ++k) {
        SCOPED_TRACE(testing::Message() << "lock point " << k);
        world w({.namespaces = {"red", "blue"}, .seed = k});
        agent &a = w.open_agent(w.initial());
        agent &red = w.open_agent(w.find("red"));
        agent &blue = w.open_agent(w.find("blue"));
        agent &other = w.open_agent(w.initial()); // an agent is one thread
        for (agent *each : {&a, &red, &blue}) {
            ASSERT_EQ(set_packet(*each, 1), 0);
            ASSERT_EQ(set_packet(*each, 2), 0);
        }
        bool walking = true;
        w.at_lock_point(k, [&] {
            if (!walking)
                return;
            agent &fresh = w.open_agent(w.create_namespace("green"));
            EXPECT_EQ(set_packet(fresh, 1), 0);
            EXPECT_EQ(set_packet(other, 3), 0);
            EXPECT_EQ(delete_packet(red, 1), 0);
            EXPECT_EQ(path_ready(blue), 0);
            EXPECT_EQ(set_packet(blue, 1), 0);
        });
        if (k % 2 == 0)
            ASSERT_EQ(path_ready(a), 0);
        else
            ASSERT_TRUE(receive(w, 9));
        walking = false;
        if (w.actions_left() != 0)
            break;
        // By the end of the first period everything that exists has been sent, and only that.
        w.take_frames();
        w.advance(600);
        const std::multiset<std::string> met = sent(w);
        for (const char *each :
             {"initial 1", "initial 2", "initial 3", "red 2", "blue 1", "blue 2", "green 1"}) {
            EXPECT_GE(met.count(each), 1U) << each;
            EXPECT_LE(met.count(each), 3U) << each;
        }
        EXPECT_EQ(met.count("red 1"), 0U);
        EXPECT_EQ(w.timers(), 7U);
    }
    EXPECT_GT(k, 30U);
}

} // namespace

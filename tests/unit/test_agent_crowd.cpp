// SPDX-License-Identifier: GPL-2.0
//
// kelm-agent with many sessions, on a fake kelm and a virtual clock: storms of events, overruns,
// what kelm has lost, restarts. What it asks of kelm is counted.
#include <filesystem>
#include <gtest/gtest.h>

#include "fake_kelm.h"
#include "kelm-agent/change_stream.h"
#include "virtual_loop.h"

namespace
{

using namespace kelm_agent;
using namespace std::chrono_literals;

// What the agent logs.
class captured_log
{
  public:
    captured_log() { testing::internal::CaptureStderr(); }
    ~captured_log() { testing::internal::GetCapturedStderr(); }
    std::size_t count(const std::string &words)
    {
        text_ += testing::internal::GetCapturedStderr();
        testing::internal::CaptureStderr();
        std::size_t found = 0;
        for (auto at = text_.find(words); at != std::string::npos; at = text_.find(words, at + 1))
            ++found;
        return found;
    }

  private:
    std::string text_;
};

struct agent_crowd : testing::Test {
    void start(std::size_t count)
    {
        agent_config config;
        for (std::size_t i = 0; i < count; ++i) {
            session_config session;
            session.name = "s" + std::to_string(i);
            session.local = *kelm::ip_address::parse("10.0.0.1");
            session.peer = *kelm::ip_address::parse("10.1." + std::to_string(i / 250) + "." +
                                                    std::to_string(i % 250 + 1));
            session.timing.desired_min_tx = session.timing.required_min_rx = interval;
            config.sessions.push_back(session);
        }
        agent_options options;
        options.state_file = directory / "state.json";
        options.open = [this](const std::string &, std::uint32_t groups) {
            auto opened = kelm.open();
            opened->set_groups(groups);
            return opened;
        };
        running = std::make_unique<agent>(loop, log, options, config);
        loop.run(100ms);
    }

    void hear(const session_driver &by, std::uint8_t state, bool knows_us = true, bool poll = false,
              bool final = false, std::uint8_t ttl = 255)
    {
        kelm::packet_settings packet;
        packet.source = by.config().peer;
        packet.destination = by.config().local;
        packet.ethernet.emplace();
        packet.ttl = ttl;
        packet.bfd.state = state;
        packet.bfd.poll = poll;
        packet.bfd.final = final;
        packet.bfd.my_discriminator = 9;
        packet.bfd.your_discriminator = knows_us ? by.bfd().discriminator() : 0;
        packet.bfd.min_tx_interval = packet.bfd.min_rx_interval = interval;
        kelm.hear(packet);
    }

    void hear_all(std::uint8_t state, bool knows_us = true, bool final = false)
    {
        for (const auto &[key, driver] : running->sessions().all())
            hear(*driver, state, knows_us, false, final);
    }

    void bring_up(std::size_t count)
    {
        start(count);
        hear_all(BFD_STATE_DOWN, false);
        loop.run(1s);
        hear_all(BFD_STATE_UP);
        loop.run(1s);
        hear_all(BFD_STATE_UP, true, true);
        loop.run(1s);
        ASSERT_EQ(count_in(BFD_STATE_UP), count);
        kelm.requests.clear();
    }

    std::size_t count_in(std::uint8_t state) const
    {
        std::size_t count = 0;
        for (const auto &[key, driver] : running->sessions().all())
            count += driver->bfd().state().state == state ? 1U : 0U;
        return count;
    }

    session_driver &at(std::size_t i) const
    {
        return *std::next(running->sessions().all().begin(), static_cast<std::ptrdiff_t>(i))
                    ->second;
    }

    ~agent_crowd() override
    {
        running.reset();
        std::filesystem::remove_all(directory);
    }

    kelm_microsecs interval = 300'000;
    captured_log said;
    logger log{log_form::text};
    std::string path = (std::filesystem::temp_directory_path() / "kelm-crowd-XXXXXX").string();
    std::filesystem::path directory = mkdtemp(path.data());
    virtual_loop loop;
    libkelm_fake::fake_kelm kelm{loop};
    std::unique_ptr<agent> running;
};

// A failed session's packet is replaced, and its receive session made anew.
constexpr std::size_t requests_of_a_failure = 3;

TEST_F(agent_crowd, events_past_the_queues_room_lead_to_one_reconciliation)
{
    constexpr std::size_t count = 2000;
    bring_up(count);
    kelm.room = 500;
    for (const auto &[key, driver] : running->sessions().all())
        kelm.fail(driver->bfd().discriminator());
    loop.run(500ms);
    EXPECT_EQ(count_in(BFD_STATE_DOWN), count);
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 1U);
    EXPECT_EQ(kelm.changes(), requests_of_a_failure * count);
    EXPECT_EQ(said.count("events were lost"), 1U);
}

TEST_F(agent_crowd, a_reconciliation_sends_differences_only)
{
    bring_up(1000);
    kelm.room = 0;
    for (const std::size_t failed : {3U, 500U, 999U})
        kelm.fail(at(failed).bfd().discriminator());
    hear(at(7), BFD_STATE_DOWN);
    hear(at(8), BFD_STATE_UP); // what it has said before
    kelm.room = 5000;
    kelm.lose();
    loop.run(500ms);
    EXPECT_EQ(count_in(BFD_STATE_DOWN), 4U);
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 1U);
    EXPECT_LE(kelm.changes(), 4 * requests_of_a_failure);
    kelm.requests.clear();
    kelm.lose();
    loop.run(200ms);
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 1U);
    EXPECT_EQ(kelm.changes(), 0U);
}

TEST_F(agent_crowd, overruns_meanwhile_ask_for_one_more_and_not_at_once)
{
    bring_up(100);
    kelm.latency = 200ms;
    for (int i = 0; i < 20; ++i) {
        kelm.lose();
        loop.run(10ms);
    }
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 1U);
    loop.run(150ms);
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 1U) << "as long as the first one took";
    loop.run(1s);
    EXPECT_EQ(kelm.requests[KELM_MSG_SYNC], 2U);
    EXPECT_EQ(said.count("events were lost"), 2U);
}

// What is told meanwhile is neither lost nor outdated by the dump.
TEST_F(agent_crowd, events_during_a_reconciliation)
{
    bring_up(3);
    kelm.latency = 100ms;
    kelm.lose();
    loop.run(50ms);
    hear(at(0), BFD_STATE_DOWN);
    hear(at(1), BFD_STATE_UP, true, true);
    kelm.fail(at(2).bfd().discriminator());
    loop.run(1s);
    EXPECT_EQ(at(0).bfd().state().state, BFD_STATE_DOWN);
    EXPECT_EQ(at(1).bfd().state().state, BFD_STATE_UP);
    EXPECT_EQ(at(2).bfd().state().diag, BFD_DIAG_CTRL_TIMEOUT);
}

TEST_F(agent_crowd, what_is_told_together_is_acted_on_once)
{
    bring_up(10);
    for (int i = 0; i < 100; ++i)
        hear(at(4), BFD_STATE_UP, true, i == 50);
    loop.run(1s);
    EXPECT_EQ(kelm.changes(), 1U) << "the answer to the Poll";
    // But nothing that the state machine must see is left out.
    hear(at(5), BFD_STATE_DOWN);
    hear(at(5), BFD_STATE_INIT);
    loop.run(1s);
    EXPECT_EQ(at(5).past().down_count, 1U);
    EXPECT_TRUE(at(5).bfd().is_up());
}

TEST_F(agent_crowd, a_failure_that_is_over_at_once_leaves_no_latched_packet)
{
    interval = 1'000'000; // the same when Down: the session is Up again with the very packet
    bring_up(1);
    kelm.fail(at(0).bfd().discriminator());
    hear(at(0), BFD_STATE_DOWN);
    hear(at(0), BFD_STATE_INIT);
    loop.run(100ms);
    EXPECT_TRUE(at(0).bfd().is_up());
    EXPECT_GT(kelm.requests[KELM_MSG_TX_SET_PACKET], 0U);
}

TEST_F(agent_crowd, a_failure_of_an_earlier_life_is_ignored)
{
    start(1);
    hear_all(BFD_STATE_DOWN, false);
    loop.run(1s);
    ASSERT_EQ(at(0).bfd().state().state, BFD_STATE_INIT);
    kelm.latency = 50ms;
    hear_all(BFD_STATE_DOWN, false); // it has lost us: the receive session is made anew
    kelm.room = 0;
    const kelm::bytes before = kelm.sessions.at(at(0).bfd().discriminator()).failure;
    kelm.room = 10;
    loop.run(10ms);
    kelm.tell(before);
    loop.run(1s);
    EXPECT_EQ(at(0).bfd().state().state, BFD_STATE_INIT);
    kelm.fail(at(0).bfd().discriminator());
    loop.run(1s);
    EXPECT_EQ(at(0).bfd().state().state, BFD_STATE_DOWN);
}

TEST_F(agent_crowd, what_kelm_has_lost_is_made_again)
{
    constexpr std::size_t count = 500;
    bring_up(count);
    const std::uint32_t both = at(1).bfd().discriminator();
    kelm.packets.erase(both);
    kelm.sessions.erase(both);
    kelm.sessions.erase(at(2).bfd().discriminator());
    kelm.packets.erase(at(3).bfd().discriminator());
    loop.run(10s);
    EXPECT_EQ(kelm.sessions.size(), count);
    EXPECT_EQ(kelm.packets.size(), count);
    EXPECT_TRUE(kelm.sessions.at(both).timer_active) << "if the peer is dead, it is noticed now";
    EXPECT_EQ(said.count("kelm has lost s1"), 1U);
    EXPECT_EQ(count_in(BFD_STATE_UP), count) << "the peers may have noticed nothing";
    EXPECT_LE(kelm.changes(), 6U);

    // A packet that kelm had no reason to pass up tells at once; so does an answer.
    hear(at(1), BFD_STATE_UP); // the first one it hears
    loop.run(100ms);
    kelm.sessions.erase(both);
    hear(at(1), BFD_STATE_UP);
    loop.run(100ms);
    EXPECT_TRUE(kelm.sessions.contains(both));
    kelm.packets.erase(both);
    kelm.sessions.erase(both);
    running->refresh_statistics({at(1).config().name}, [] {});
    loop.run(100ms);
    EXPECT_TRUE(kelm.sessions.contains(both) && kelm.packets.contains(both));

    kelm.packets.clear();
    kelm.sessions.clear();
    loop.run(10s);
    EXPECT_EQ(kelm.sessions.size(), count);
    EXPECT_EQ(said.count("kelm has lost all 500 sessions"), 1U);

    // A look that kelm refuses says nothing about anything.
    kelm.dump_error = -ENOMEM;
    const std::size_t changes = kelm.changes();
    loop.run(30s, [] { return false; });
    EXPECT_EQ(kelm.changes(), changes);
    EXPECT_EQ(said.count("kelm has lost all"), 1U);
}

TEST_F(agent_crowd, all_peers_are_told_of_the_end)
{
    constexpr std::size_t count = 1000;
    bring_up(count);
    kelm.latency = 20ms;
    bool is_done = false;
    running->shut_down([&] { is_done = true; });
    EXPECT_TRUE(loop.run(3s, [&] { return is_done; }));
    EXPECT_EQ(kelm.requests[KELM_MSG_TX_SET_PACKET], count);
    EXPECT_TRUE(kelm.packets.empty() && kelm.sessions.empty());
}

TEST_F(agent_crowd, a_killed_agent_goes_on_where_it_was)
{
    constexpr std::size_t count = 300;
    bring_up(count);
    running.reset();
    start(count);
    loop.run(1s);
    EXPECT_EQ(count_in(BFD_STATE_UP), count);
    EXPECT_EQ(said.count("300 still up"), 1U);
    EXPECT_EQ(kelm.changes(), 2 * count);
    EXPECT_EQ(kelm.sessions.size(), count);
}

TEST_F(agent_crowd, source_ports_are_unique)
{
    constexpr std::size_t count = 2000;
    start(count);
    std::set<std::uint32_t> ports;
    for (const auto &[key, driver] : running->sessions().all())
        ports.insert(driver->bfd().discriminator() % 16384);
    EXPECT_EQ(ports.size(), count);
}

// Nobody who asks about the sessions waits for a kelm that does not answer.
TEST_F(agent_crowd, statistics_do_not_wait_for_kelm)
{
    bring_up(10);
    kelm.latency = 5s;
    bool is_answered = false;
    running->refresh_statistics(running->sessions().names(), [&] { is_answered = true; });
    EXPECT_TRUE(loop.run(100ms, [&] { return is_answered; }));
}

TEST_F(agent_crowd, packets_from_too_far_away_change_nothing)
{
    start(1);
    const session_driver &driver = *running->sessions().find("s0");
    agent_config config;
    config.sessions = {driver.config()};
    config.sessions[0].minimum_ttl = 200;
    running->reconfigure(config, [] {});
    loop.run(1s);
    for (std::uint8_t ttl = 199; ttl <= 200; ++ttl) {
        hear(driver, BFD_STATE_DOWN, true, false, false, ttl);
        loop.run(1s);
        EXPECT_EQ(driver.bfd().state().state, ttl < 200 ? BFD_STATE_DOWN : BFD_STATE_INIT);
    }
}

// It hears of the sessions first, and of its end last.
TEST_F(agent_crowd, a_subscriber_that_does_not_read_is_dropped)
{
    constexpr std::size_t most_kept = 5 << 20;
    start(20);
    const std::vector<std::string> names = running->sessions().names();
    stream_server::writer next;
    change_stream::send(*running, names, true, [&](stream_server::writer answer) {
        next = std::move(answer);
        return [] {};
    });
    std::string told = *next();
    EXPECT_EQ(std::ranges::count(told, '\n'), 20);
    EXPECT_EQ(next(), std::nullopt);
    for (int i = 0; i < 1500; ++i)
        for (const auto &name : names)
            running->set_admin_down(name, i % 2 == 0);
    told = *next();
    EXPECT_LT(told.size(), most_kept);
    EXPECT_NE(told.rfind("\"ok\":false"), std::string::npos);
    EXPECT_GT(told.rfind("\"ok\":false"), told.rfind("\"change\""));
    EXPECT_EQ(next(), "");
}

} // namespace

// SPDX-License-Identifier: GPL-2.0
//
// What kelmctl's live screen shows, for given statistics.
#include <algorithm>
#include <gtest/gtest.h>

#include "kelmctl/top_view.h"
#include "libkelm/packet.h"

namespace
{

using namespace kelmctl;

constexpr kelm_time noon = {.sec = 1'000'000, .nsec = 0};

kelm_msg_rx_stats received(std::uint32_t discriminator, std::uint64_t count, kelm_time now)
{
    kelm_msg_rx_stats rx = {};
    rx.header.discriminator = discriminator;
    rx.num_received = count;
    rx.avg_period = 290'000;
    rx.max_period = 301'000;
    rx.last_rx_time = {now.sec - 1, 900'000'000};
    rx.timestamp_secs = now.sec;
    return rx;
}

kelm_msg_tx_stats sent(std::uint32_t discriminator, std::uint64_t count, kelm_time now)
{
    kelm_msg_tx_stats tx = {};
    tx.header.discriminator = discriminator;
    tx.num_sent = count;
    tx.avg_lateness = 262'000;
    tx.max_lateness = 612'000;
    tx.sent_within_2p = 2;
    tx.sent_within_3p = 1;
    tx.timestamp_secs = now.sec;
    return tx;
}

kelm::packet_change heard(const char *from, const char *to, std::uint8_t state)
{
    kelm::packet_settings settings;
    settings.source = *kelm::ip_address::parse(from);
    settings.destination = *kelm::ip_address::parse(to);
    settings.bfd.state = state;
    const auto built = kelm::build_packet(settings);
    return {.discriminator = 0,
            .ifindex = 7,
            .member_ifindex = 0,
            .l3_offset = built.ip_hdr_offset,
            .bfd_offset = built.latch_offset,
            .frame = built.packet};
}

// Session 5 is up, 6 has failed, 7 measures an echo, 8 is only sent.
top_sample sample(kelm_time now, std::uint64_t count)
{
    top_sample made;
    made.taken = now;
    made.links = {{7, "eth0"}};
    for (const std::uint32_t discriminator : {5U, 6U, 7U}) {
        made.stats.sessions[{0, discriminator}] = received(discriminator, count, now);
        made.states[discriminator].timer_active = discriminator != 6;
    }
    for (const std::uint32_t discriminator : {5U, 6U, 8U})
        made.stats.packets[{0, discriminator}] = sent(discriminator, 2 * count, now);
    made.states[5].last_frame = heard("10.0.0.2", "10.0.0.1", BFD_STATE_UP);
    made.states[6].last_frame = heard("fd00:1:2:3:4:5:6:7", "fd00::1", BFD_STATE_UP);
    kelm_msg_rx_stats &failed = made.stats.sessions[{0, 6}];
    failed.num_timeout = 1;
    failed.last_state_change = now;
    made.stats.sessions[{0, 7}].last_rtt = 1234;
    made.stats.modules[0].rfc_drops = 4;
    return made;
}

std::vector<std::string> texts(const std::vector<top_line> &lines)
{
    std::vector<std::string> all;
    std::ranges::transform(lines, std::back_inserter(all), &top_line::text);
    return all;
}

struct kelmctl_top : testing::Test {
    static void SetUpTestSuite()
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
    const top_sample before = sample(noon, 100);
    const top_sample now = sample({.sec = noon.sec + 2, .nsec = 0}, 107);
};

TEST_F(kelmctl_top, eighty_columns_hold_what_matters)
{
    const std::vector<std::string> wanted = {
        "kelm 13:46:42  3 sessions, 1 failed  3 packets, 9 sent late",
        "received: 4 invalid, 0 for no session  events undelivered: 0",
        "",
        "SESSION  PEER                STATE   TX/S  LATE  TX MAX  RX/S      RTT  FAILED",
        "      6  fd00:1:2:3:4:5:6:7  failed   7.0     3   612ms   3.5        -       1",
        "      5  10.0.0.2            up       7.0     3   612ms   3.5        -       0",
        "      7  -                   -          -     -       -   3.5  1.234ms       0",
        "      8  -                   -        7.0     3   612ms     -        -       -",
    };
    const auto lines = top_lines(now, &before, {.columns = 80, .rows = 24});
    EXPECT_EQ(texts(lines), wanted);
    EXPECT_EQ(lines[3].look, top_line::style::heading);
    EXPECT_EQ(lines[4].look, top_line::style::alarm);
    EXPECT_EQ(lines[5].look, top_line::style::plain);
}

TEST_F(kelmctl_top, two_hundred_columns_hold_everything)
{
    const auto lines = texts(top_lines(now, &before, {.columns = 200, .rows = 24}));
    EXPECT_EQ(lines.at(3),
              "SESSION  PEER                DEV   STATE   DIAG           TIMER    TX/S  LATE  "
              "TX AVG  TX MAX  ERRORS  LATCHES  RX/S  RX AVG  RX MAX      RTT  "
              "FAILED  AUTH FAILED       LAST");
    EXPECT_EQ(lines.at(5),
              "      5  10.0.0.2            eth0  up      no-diagnostic  running   7.0     3  "
              " 262ms   612ms       0        0   3.5   290ms   301ms        -  "
              "     0            0  100ms ago");
    EXPECT_LE(std::ranges::max(lines, {}, &std::string::size).size(), 200U);
    const auto dated = texts(top_lines(now, &before, {.columns = 220, .timestamps = true}));
    EXPECT_TRUE(dated.at(5).ends_with("1970-01-12T13:46:41.900000")) << dated.at(5);
}

// At any size, nothing is wider or longer than the screen.
TEST_F(kelmctl_top, screens_of_every_size_hold)
{
    for (std::size_t columns = 1; columns < 200; ++columns)
        for (const auto &line : texts(top_lines(now, &before, {.columns = columns, .rows = 24})))
            EXPECT_LE(line.size(), columns);
    for (std::size_t rows = 1; rows < 8; ++rows) {
        const auto lines = texts(top_lines(now, &before, {.columns = 80, .rows = rows}));
        EXPECT_EQ(lines.size(), rows);
        EXPECT_EQ(lines.back(), "... and " + std::to_string(8 - rows + 1) + " more");
    }
    EXPECT_EQ(texts(top_lines(now, &before, {.columns = 80, .rows = 8})),
              texts(top_lines(now, &before, {.columns = 80, .rows = 9})));
}

std::string table_of(const top_sample &now, const top_sample *before)
{
    std::string all;
    for (const auto &line : texts(top_lines(now, before, {.columns = 60})))
        all += line + '\n';
    return all;
}

// Without an earlier sample, with the same one, or after a clear, there is no rate to tell.
TEST_F(kelmctl_top, rates_need_two_samples)
{
    EXPECT_NE(table_of(now, &before).find(" 7.0 "), std::string::npos);
    const top_sample cleared = sample({.sec = noon.sec + 4, .nsec = 0}, 3);
    for (const std::string &table :
         {table_of(now, nullptr), table_of(now, &now), table_of(cleared, &now)})
        EXPECT_NE(table.find("5  10.0.0.2            up      - "), std::string::npos) << table;
}

TEST_F(kelmctl_top, failure_ends_with_the_next_packet_or_a_running_timer)
{
    top_sample heard_again = now;
    heard_again.stats.sessions[{0, 6}].last_rx_time = {now.taken.sec, 1};
    top_sample configured = now;
    configured.states[6].timer_active = true;
    EXPECT_NE(table_of(now, nullptr).find("failed  "), std::string::npos);
    for (const auto &sample : {heard_again, configured})
        EXPECT_EQ(table_of(sample, nullptr).find("failed  -"), std::string::npos);
}

} // namespace

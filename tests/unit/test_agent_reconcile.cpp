// SPDX-License-Identifier: GPL-2.0
//
// What kelm-agent finds when it starts: its own records, kelm's dump, packets of unknown origin.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

#include "kelm-agent/authentic.h"
#include "kelm-agent/member_listener.h"
#include "kelm-agent/reconcile.h"
#include "kelm/kelm_bfd_common_utils.h"

namespace
{

using namespace kelm_agent;

constexpr std::uint32_t ifindex = 4;
constexpr std::uint32_t discriminator = 77;

session_config config_of(const char *local, const char *peer,
                         std::uint8_t auth_type = BFD_AUTH_NONE)
{
    session_config config;
    config.name = "s";
    config.local = *kelm::ip_address::parse(local);
    config.peer = *kelm::ip_address::parse(peer);
    config.required_ttl = KELM_AUTH_TTL_255;
    config.auth.type = auth_type;
    if (auth_type != BFD_AUTH_NONE)
        config.auth.keys.push_back({1, {'k', 'e', 'y'}});
    return config;
}

addressing addresses_at(std::uint32_t index)
{
    addressing addresses;
    addresses.transmit_ifindex = addresses.receive_ifindex = index;
    return addresses;
}

// What the peer of such a session sends, as kelm passes it up.
kelm::packet_change frame_from_peer(const session_config &config, std::uint32_t your_discriminator,
                                    std::uint16_t port = kelm::port_single_hop)
{
    kelm::packet_settings packet;
    packet.source = config.peer;
    packet.destination = config.local;
    packet.destination_port = port;
    packet.ethernet.emplace();
    packet.bfd.state = BFD_STATE_DOWN;
    packet.bfd.my_discriminator = 9;
    packet.bfd.your_discriminator = your_discriminator;
    packet.auth.type = config.auth.type;
    if (!config.auth.keys.empty())
        packet.auth = {config.auth.type, config.auth.keys[0].id, config.auth.keys[0].secret};
    const auto built = kelm::build_packet(packet);
    return {your_discriminator, ifindex, 0, built.ip_hdr_offset, built.latch_offset, built.packet};
}

inventory inventory_of(const std::vector<kelm::report> &dump)
{
    inventory all;
    for (const auto &report : dump)
        all.add(report);
    return all;
}

TEST(agent_reconcile, a_session_is_recognised_by_its_last_packet)
{
    const auto config = config_of("10.0.0.1", "10.0.0.2");
    auto of_another_session = frame_from_peer(config, 99);
    of_another_session.discriminator = 10;
    const std::vector<kelm::report> dump = {
        of_another_session,
        kelm_msg_rx_sync{{10}, 1},
        kelm_msg_tx_sync{{10}},
        frame_from_peer(config_of("10.0.0.1", "10.0.0.3"), 11),
        kelm_msg_rx_sync{{11}, 1},
        kelm_msg_tx_sync{{11}},
        frame_from_peer(config, 12, kelm::port_multihop),
        kelm_msg_rx_sync{{12}, 1},
        kelm_msg_tx_sync{{12}},
        frame_from_peer(config, discriminator),
        kelm_msg_rx_sync{{discriminator}, 1},
        kelm_msg_tx_sync{{discriminator}},
        kelm_msg_rx_sync{{14}, 0},
    };
    const inventory all = inventory_of(dump);
    EXPECT_EQ(all.entries().size(), 5U);
    EXPECT_EQ(all.recognise(config, {}), discriminator);
    EXPECT_EQ(all.recognise(config, addresses_at(ifindex)), discriminator);
    EXPECT_EQ(all.recognise(config, addresses_at(5)), std::nullopt);

    const remains left = remains_of(all.at(discriminator), nullptr);
    EXPECT_TRUE(left.timer_active);
    EXPECT_EQ(left.heard->my_discriminator, 9U);
    EXPECT_FALSE(left.state);
    EXPECT_FALSE(remains_of(all.at(14), nullptr).heard);

    const std::vector<kelm::report> half(dump.begin() + 9, dump.begin() + 11);
    EXPECT_EQ(inventory_of(half).recognise(config, {}), std::nullopt) << "half a session is none";

    auto on_member_link = config;
    on_member_link.kind = session_kind::lag;
    auto frame = frame_from_peer(config, 12, kelm::port_lag);
    for (const std::uint32_t member : {0U, ifindex, ifindex + 1}) {
        frame.member_ifindex = member;
        const inventory one =
            inventory_of({frame, kelm_msg_rx_sync{{12}, 1}, kelm_msg_tx_sync{{12}}});
        EXPECT_EQ(one.recognise(on_member_link, addresses_at(ifindex)).has_value(),
                  member == ifindex);
    }
}

bool believes(const session_config &config, const kelm::packet_change &change,
              const addressing &addresses = {})
{
    std::optional<std::uint32_t> any;
    return is_authentic(config, addresses, change, true, any);
}

TEST(agent_reconcile, packets_are_checked_whoever_they_are_for)
{
    const auto config = config_of("10.0.0.1", "10.0.0.2");
    auto change = frame_from_peer(config, 0);
    EXPECT_TRUE(believes(config, change));
    EXPECT_TRUE(believes(config, frame_from_peer(config, discriminator)));
    EXPECT_FALSE(believes(config, change, addresses_at(5)));
    EXPECT_FALSE(believes(config_of("10.0.0.1", "10.0.0.3"), change));
    EXPECT_FALSE(believes(config_of("10.0.0.3", "10.0.0.2"), change));
    EXPECT_FALSE(believes(config, frame_from_peer(config, discriminator, kelm::port_multihop)));
    EXPECT_FALSE(believes(config_of("10.0.0.1", "10.0.0.2", BFD_AUTH_KEYED_MD5), change));
    auto on_member_link = config;
    on_member_link.kind = session_kind::lag;
    for (const std::uint32_t member : {0U, ifindex, ifindex + 1}) {
        auto frame = frame_from_peer(config, discriminator, kelm::port_lag);
        frame.member_ifindex = member;
        EXPECT_EQ(believes(on_member_link, frame, addresses_at(ifindex)), member != ifindex + 1);
    }
    // kelm has checked an echo and cleared its time stamp.
    auto echo = config_of("10.0.0.1", "10.0.0.2", BFD_AUTH_KEYED_MD5);
    echo.kind = session_kind::echo;
    echo.source = echo.peer;
    auto reflected = frame_from_peer(echo, discriminator, kelm::port_echo);
    EXPECT_FALSE(believes(echo, reflected));
    std::fill_n(reflected.frame.begin() + reflected.bfd_offset + 4, 4, 0);
    EXPECT_TRUE(believes(echo, reflected));

    auto headless = change;
    headless.l3_offset = static_cast<std::uint32_t>(change.frame.size());
    EXPECT_FALSE(believes(config, headless));
    change.frame[14 + 8] = 254; // TTL
    EXPECT_FALSE(believes(config, change));
    for (std::size_t length = 0; length < change.frame.size(); ++length) {
        auto cut = change;
        cut.frame.resize(length);
        cut.bfd_offset =
            std::min<std::uint32_t>(cut.bfd_offset, static_cast<std::uint32_t>(length));
        cut.l3_offset = std::min<std::uint32_t>(cut.l3_offset, static_cast<std::uint32_t>(length));
        EXPECT_FALSE(believes(config, cut));
    }
}

// Signs as kelm does it, but with a number of our choice for the keyed types as well.
void sign(kelm::packet_change &change, const session_config &config, std::uint32_t sequence)
{
    const kelm::auth_settings auth = {config.auth.type, 1, config.auth.keys[0].secret};
    kelm::packet_settings packet;
    packet.source = config.peer;
    packet.destination = config.local;
    packet.auth = auth;
    const auto built = kelm::build_packet(packet);
    kelm_auth_process(change.frame.data(), change.frame.size(), change.bfd_offset,
                      KELM_TX_SESSION_L2, auth.type | 1, &sequence, &built.auth_hdr,
                      [](kelm_trace_type, std::uint32_t, const char *) {});
}

TEST(agent_reconcile, an_old_packet_is_not_taken_twice)
{
    constexpr std::uint8_t meticulous = BFD_AUTH_METICULOUS_SHA1;
    constexpr std::uint8_t keyed = BFD_AUTH_KEYED_MD5;
    const struct {
        std::uint8_t auth_type;
        std::uint32_t your_discriminator;
        bool is_up;
        std::uint32_t sequence;
        bool accepted;
    } cases[] = {
        {meticulous, 0, false, 0xfffffff0, true},
        {meticulous, 0, false, 0xfffffff0, false},
        {meticulous, discriminator, true, 0xfffffff0, false},
        {meticulous, discriminator, true, 0xffffffef, false},
        {meticulous, discriminator, true, 0xffffffff, true},
        {meticulous, 0, true, 5, true},
        {meticulous, 0, true, 0xffffffff, false},
        {keyed, 0, false, 5, true},
        {keyed, discriminator, true, 5, true},
        {keyed, 0, true, 5, false},
        {keyed, discriminator, true, 4, false},
        {keyed, 0, true, 6, true},
    };
    std::optional<std::uint32_t> last;
    for (const auto &c : cases) {
        const auto config = config_of("10.0.0.1", "10.0.0.2", c.auth_type);
        auto change = frame_from_peer(config, c.your_discriminator);
        sign(change, config, c.sequence);
        EXPECT_EQ(is_authentic(config, {}, change, c.is_up, last), c.accepted) << c.sequence;
        change.frame.back() ^= 1;
        std::optional<std::uint32_t> none;
        EXPECT_FALSE(is_authentic(config, {}, change, c.is_up, none));
        EXPECT_FALSE(none) << "a forged packet leaves no trace";
    }
}

TEST(agent_reconcile, packets_on_a_member_link)
{
    for (const bool is_v4 : {true, false}) {
        const auto config = is_v4 ? config_of("10.0.0.1", "10.0.0.2") : config_of("::1", "::2");
        auto change = frame_from_peer(config, 0, kelm::port_lag);
        const auto found = undirected_lag_packet(change.frame);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->bfd_offset, change.bfd_offset);
        auto padded = change.frame;
        padded.resize(padded.size() + 10);
        EXPECT_EQ(undirected_lag_packet(padded)->frame, change.frame);
        for (std::size_t length = 0; length < change.frame.size(); ++length)
            EXPECT_FALSE(undirected_lag_packet(kelm::byte_view(change.frame).first(length)));
        EXPECT_FALSE(undirected_lag_packet(frame_from_peer(config, 5, kelm::port_lag).frame));
        EXPECT_FALSE(undirected_lag_packet(frame_from_peer(config, 0).frame));
    }
}

std::string content(const std::filesystem::path &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(agent_reconcile, the_record_survives_being_written_and_read)
{
    std::string name = (std::filesystem::temp_directory_path() / "kelm-state-XXXXXX").string();
    const std::filesystem::path directory = mkdtemp(name.data());
    const std::string path = directory / "state.json";
    EXPECT_TRUE(load_state(path).sessions.empty());

    saved_state state;
    saved_session &saved = state.sessions["s"];
    saved.identity = identity_text(config_of("10.0.0.1", "10.0.0.2"));
    saved.netns = "left";
    saved.discriminator = 0xffffffff;
    saved.state = BFD_STATE_UP;
    saved.admin_down = true;
    saved.in_effect = {100'000, 200'000};
    saved.past.up_count = 3;
    saved.past.down_count = 2;
    saved.past.last_down_diag = BFD_DIAG_CTRL_TIMEOUT;
    saved.past.last_down_reason = "\"quoted\"";
    saved.past.since = wall_time(std::chrono::microseconds(1'700'000'000'123'456));
    saved.past.last_down = wall_time(std::chrono::microseconds(1'600'000'000'123'456));
    state.orphans = {{"left", 5}};
    save_state(path, state);

    // What the second writing finds is what the first has written.
    const saved_state again = load_state(path);
    EXPECT_EQ(again.sessions.at("s").past.since, saved.past.since);
    EXPECT_EQ(again.orphans, state.orphans);
    save_state(directory / "again.json", again);
    EXPECT_EQ(content(directory / "again.json"), content(path));

    const std::string good = content(path);
    const auto with = [&](const std::string &key, const std::string &value) {
        const std::size_t at = good.find("\"" + key + "\":") + key.size() + 3;
        return good.substr(0, at) + value + good.substr(good.find_first_of(",}", at));
    };
    std::ofstream(path) << with("state", "2");
    EXPECT_EQ(load_state(path).sessions.at("s").state, BFD_STATE_INIT);
    const std::string damaged[] = {"",
                                   "{",
                                   "[]",
                                   R"({"version": 1})",
                                   R"({"version":2,"sessions":{},"orphans":[]})",
                                   R"({"version":1,"sessions":{"s":5},"orphans":[]})",
                                   with("since_us", "9223372036854775807"),
                                   with("since_us", "-1"),
                                   with("last_down_us", "1e300"),
                                   with("state", "999"),
                                   with("state", "4"),
                                   with("discriminator", "4294967296"),
                                   with("tx_us", "0.5"),
                                   with("up_count", "-1"),
                                   with("identity", "7")};
    for (const auto &bad : damaged) {
        std::ofstream(path) << bad;
        EXPECT_THROW(load_state(path), std::runtime_error) << bad;
    }
    std::filesystem::remove_all(directory);
}

} // namespace

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/kelm_sync.h"

#include <algorithm>
#include <cerrno>

#include "kelm-agent/matching.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

// RFC 5881 section 4: from 49152 up, the same for all packets of a session. That of a session that
// an earlier run of the agent has begun follows from its discriminator.
std::uint16_t source_port(const session_config &config, std::uint32_t discriminator)
{
    constexpr std::uint32_t first = 49152;
    constexpr std::uint32_t count = 65536 - first;
    if (config.kind == session_kind::sbfd)
        return kelm::port_sbfd_initiator; // replies come there
    return static_cast<std::uint16_t>(first + discriminator % count);
}

std::uint8_t receive_type(session_kind kind)
{
    switch (kind) {
    case session_kind::single_hop:
        return KELM_RX_SESSION_BFD;
    case session_kind::echo:
        return KELM_RX_SESSION_ECHO;
    case session_kind::lag:
        return KELM_RX_SESSION_LAG;
    case session_kind::multihop:
        return KELM_RX_SESSION_MULTIHOP;
    case session_kind::sbfd:
        return KELM_RX_SESSION_SBFD_INITIATOR;
    }
    return KELM_RX_SESSION_BFD;
}

kelm::auth_settings auth_settings(std::uint8_t type, const auth_key &key)
{
    return {type, key.id, key.secret};
}

kelm::auth_settings sending_auth(const authentication &auth)
{
    if (auth.keys.empty())
        return {auth.type, 0, {}};
    return auth_settings(auth.type, auth.keys.at(auth.sending));
}

// RFC 5880 section 6.8.7: what does not wait for its turn. The end of a Poll Sequence does.
bool is_news(const kelm::bfd_fields &now, const kelm::bfd_fields &before)
{
    kelm::bfd_fields same_poll = now;
    same_poll.poll = before.poll;
    return same_poll != before || (now.poll && !before.poll);
}

// Makes a request whose refusal for this reason is as good as success.
void execute_unless(kelm::client &client, const kelm::request &request, int harmless)
{
    try {
        client.execute(request);
    } catch (const kelm::refused &refusal) {
        if (refusal.number() != harmless)
            throw;
    }
}

} // namespace

kelm::request transmit_request(const session_config &config, std::uint32_t discriminator,
                               const addressing &addresses, const transmission &wanted,
                               std::uint8_t flags)
{
    const bool is_echo = config.kind == session_kind::echo;
    const kelm::packet_settings packet = {
        .source = is_echo ? arrival_source(config) : config.local,
        .destination = is_echo ? config.local : config.peer, // the neighbour sends it back
        .source_port = source_port(config, discriminator),
        .destination_port = destination_port(config.kind),
        .ttl = config.ttl,
        .ethernet = addresses.ethernet,
        .bfd = wanted.bfd,
        .auth = sending_auth(config.auth),
    };
    const kelm::built_packet built = kelm::build_packet(packet);
    kelm_msg_tx_set_packet settings = {};
    settings.header.discriminator = discriminator;
    settings.ifindex = addresses.transmit_ifindex;
    settings.jitter_type = wanted.jitter;
    settings.period = wanted.period;
    settings.latch_period = wanted.latch_period;
    settings.latch_state = BFD_STATE_DOWN;
    settings.flags = static_cast<std::uint8_t>(flags | (is_echo ? KELM_TX_MYDISC_RTT : 0));
    built.apply_to(settings, config.auth.type);
    return kelm::set_packet(settings, built.packet);
}

kelm_msg_rx_set_session receive_settings(const session_config &config, const addressing &addresses)
{
    kelm_msg_rx_set_session settings = {};
    settings.auth.ifindex = addresses.receive_ifindex;
    settings.auth.type = config.auth.type;
    settings.auth.flags = config.required_ttl;
    for (std::size_t i = 0; i < config.auth.keys.size(); ++i)
        settings.auth_key[i] = kelm::key_slot(auth_settings(config.auth.type, config.auth.keys[i]));
    return settings;
}

kelm::request receive_request(const session_config &config, std::uint32_t discriminator,
                              const addressing &addresses, const reception &wanted,
                              std::span<const std::uint32_t> latched)
{
    kelm_msg_rx_set_session settings = receive_settings(config, addresses);
    settings.header.discriminator = discriminator;
    settings.type = receive_type(config.kind);
    settings.flags =
        static_cast<std::uint8_t>((wanted.timer_active ? KELM_RX_TIMER_ACTIVE : 0) |
                                  (config.kind == session_kind::echo ? KELM_RX_MYDISC_RTT : 0));
    settings.multiplier = wanted.multiplier;
    settings.period = wanted.period;
    settings.latch_diagnostic = wanted.latch_diag;
    std::ranges::copy(latched, settings.latch_tx_packets);
    return kelm::set_session(settings, kelm::failure_message(discriminator));
}

void kelm_sync::apply(kelm::client &client, const session_config &config,
                      const addressing &addresses, const desired_state &wanted)
{
    // The receive session links the packet: it comes after a new one, and before a deletion.
    if (wanted.transmit)
        apply_transmit(client, config, addresses, wanted);
    if (wanted.receive)
        apply_receive(client, config, addresses, wanted);
    else if (has_session_)
        delete_session(client);
    if (!wanted.transmit && has_packet_)
        delete_packet(client);
}

void kelm_sync::apply_transmit(kelm::client &client, const session_config &config,
                               const addressing &addresses, const desired_state &wanted)
{
    transmission packet = *wanted.transmit;
    const kelm::request periodic = transmit_request(config, discriminator_, addresses, packet, 0);
    if (periodic.body == packet_request_ && !wanted.is_final)
        return;
    const bool is_urgent =
        wanted.is_final || (sent_ && !packet.is_silent && is_news(packet.bfd, sent_->bfd));
    packet_request_.clear();
    // After an out-of-band transmission kelm returns to the rhythm that it had before: a faster one
    // must be set first.
    if (!is_urgent || !sent_ || packet.period < sent_->period)
        client.execute(periodic);
    has_packet_ = true;
    if (is_urgent) {
        packet.bfd.final = wanted.is_final;
        client.execute(
            transmit_request(config, discriminator_, addresses, packet, KELM_TX_SEND_OOB));
    }
    sent_ = wanted.transmit;
    packet_request_ = periodic.body;
}

void kelm_sync::apply_receive(kelm::client &client, const session_config &config,
                              const addressing &addresses, const desired_state &wanted)
{
    // A latched packet has no Your Discriminator, and could come back to no session and from no
    // reflector.
    std::vector<std::uint32_t> latched;
    if (wanted.transmit && !is_alone(config.kind))
        latched.push_back(discriminator_);
    if (wanted.receive->also_latched != 0)
        latched.push_back(wanted.receive->also_latched);
    const kelm::request request =
        receive_request(config, discriminator_, addresses, *wanted.receive, latched);
    if (wanted.renew && has_session_)
        delete_session(client);
    if (request.body == session_request_ && !wanted.rearm)
        return;
    session_request_.clear();
    client.execute(request);
    has_session_ = true;
    session_request_ = request.body;
}

void kelm_sync::delete_packet(kelm::client &client)
{
    execute_unless(client, kelm::delete_packet(discriminator_), ENOENT);
    has_packet_ = false;
    sent_.reset();
    packet_request_.clear();
}

void kelm_sync::delete_session(kelm::client &client)
{
    execute_unless(client, kelm::delete_session(discriminator_), ENOENT);
    has_session_ = false;
    session_request_.clear();
}

void kelm_sync::remove(kelm::client &client)
{
    if (has_session_)
        delete_session(client);
    if (has_packet_)
        delete_packet(client);
}

void kelm_sync::assume(bool has_packet, bool has_session)
{
    has_packet_ = has_packet;
    has_session_ = has_session;
    sent_.reset();
    packet_request_.clear();
    session_request_.clear();
}

} // namespace kelm_agent

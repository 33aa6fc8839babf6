// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/kelm_sync.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kelm-agent/matching.h"

namespace kelm_agent
{

namespace
{

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

// A failure message that ends with the life of the session that fails.
kelm::bytes failure_message(std::uint32_t discriminator, std::uint32_t life)
{
    kelm::bytes message = kelm::failure_message(discriminator);
    const auto *const bytes = reinterpret_cast<const std::uint8_t *>(&life);
    message.insert(message.end(), bytes, bytes + sizeof life);
    const auto length = static_cast<std::uint32_t>(message.size());
    std::memcpy(message.data() + offsetof(nlmsghdr, nlmsg_len), &length, sizeof length);
    return message;
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
        .source_port = source_port(config.kind, discriminator),
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
                              std::span<const std::uint32_t> latched, std::uint32_t life)
{
    kelm_msg_rx_set_session settings = receive_settings(config, addresses);
    settings.header.discriminator = discriminator;
    settings.type = static_cast<std::uint8_t>(config.kind);
    settings.flags =
        static_cast<std::uint8_t>((wanted.timer_active ? KELM_RX_TIMER_ACTIVE : 0) |
                                  (config.kind == session_kind::echo ? KELM_RX_MYDISC_RTT : 0));
    settings.multiplier = wanted.multiplier;
    settings.period = wanted.period;
    settings.latch_diagnostic = wanted.latch_diag;
    std::ranges::copy(latched, settings.latch_tx_packets);
    return kelm::set_session(settings, failure_message(discriminator, life));
}

void kelm_sync::owe(const desired_state &wanted)
{
    owed_.is_final |= wanted.is_final;
    owed_.rearm |= wanted.rearm;
    owed_.renew |= wanted.renew;
}

void kelm_sync::apply(const session_config &config, const addressing &addresses,
                      const desired_state &wanted)
{
    owe(wanted);
    is_behind_ = !is_settled();
    if (is_behind_)
        return;
    desired_state all = wanted;
    all.is_final = owed_.is_final;
    all.rearm = owed_.rearm;
    all.renew = owed_.renew;
    owed_ = {};
    // The receive session links the packet: it comes after a new one, and before a deletion.
    if (all.transmit)
        apply_transmit(config, addresses, all);
    if (all.receive)
        apply_receive(config, addresses, all);
    else if (has_session_)
        delete_session();
    if (!all.transmit && has_packet_)
        delete_packet();
}

void kelm_sync::apply_transmit(const session_config &config, const addressing &addresses,
                               const desired_state &wanted)
{
    transmission packet = *wanted.transmit;
    kelm::request periodic = transmit_request(config, discriminator_, addresses, packet, 0);
    if (periodic.body == packet_request_ && !wanted.is_final)
        return;
    const bool is_urgent =
        wanted.is_final ||
        (!packet.is_silent &&
         (sent_ ? is_news(packet.bfd, sent_->bfd) : !has_packet_ && packet.period == idle_period));
    // After an out-of-band transmission kelm returns to the schedule that it had before: a faster
    // one must be set first.
    if (!is_urgent || !sent_ || packet.period < sent_->period)
        ask(periodic);
    has_packet_ = true;
    if (is_urgent) {
        packet.bfd.final = wanted.is_final;
        ask(transmit_request(config, discriminator_, addresses, packet, KELM_TX_SEND_OOB));
    }
    sent_ = wanted.transmit;
    packet_request_ = std::move(periodic.body);
}

void kelm_sync::apply_receive(const session_config &config, const addressing &addresses,
                              const desired_state &wanted)
{
    // A latched packet has no Your Discriminator, and could come back to no session and from no
    // reflector.
    std::array<std::uint32_t, 2> latched = {};
    std::size_t count = 0;
    if (wanted.transmit && !is_alone(config.kind))
        latched[count++] = discriminator_;
    if (wanted.receive->also_latched != 0)
        latched[count++] = wanted.receive->also_latched;
    const std::span<const std::uint32_t> packets(latched.data(), count);
    kelm::request request =
        receive_request(config, discriminator_, addresses, *wanted.receive, packets, 0);
    if (wanted.renew && has_session_)
        delete_session();
    if (request.body == session_request_ && !wanted.rearm)
        return;
    session_request_ = request.body;
    if (wanted.renew || wanted.rearm || life_ == 0)
        ++life_;
    ask(receive_request(config, discriminator_, addresses, *wanted.receive, packets, life_));
    has_session_ = true;
}

void kelm_sync::delete_packet()
{
    ask(kelm::delete_packet(discriminator_));
    has_packet_ = false;
    sent_.reset();
    packet_request_.clear();
}

void kelm_sync::delete_session()
{
    ask(kelm::delete_session(discriminator_));
    is_renewing_ = true;
    has_session_ = false;
    session_request_.clear();
}

bool kelm_sync::remove()
{
    if (has_session_)
        delete_session();
    if (has_packet_)
        delete_packet();
    return !is_settled();
}

void kelm_sync::assume(bool has_packet, bool has_session)
{
    distrust();
    has_packet_ = has_packet;
    has_session_ = has_session;
    under_way_ = 0;
    is_renewing_ = false;
    verdict_ = {};
    self_ = std::make_shared<kelm_sync *>(this);
}

// Both may exist, and may be anything.
void kelm_sync::distrust()
{
    has_packet_ = has_session_ = true;
    is_certain_ = false;
    sent_.reset();
    packet_request_.clear();
    session_request_.clear();
}

// What an earlier run of the agent has made says nothing of its life, or something of its own.
bool kelm_sync::is_of_this_life(const kelm::session_failure &failure) const
{
    const auto life = kelm::read_as<std::uint32_t>(failure.rest);
    return life_ == 0 || (life && *life == life_);
}

void kelm_sync::ask(const kelm::request &request)
{
    ++under_way_;
    round_ = vrf_.round();
    vrf_.ask(request, [self = std::weak_ptr(self_), type = request.type](int error) {
        if (const auto sync = self.lock())
            (*sync)->on_answer(type, error);
    });
}

void kelm_sync::on_answer(std::uint16_t type, int error)
{
    --under_way_;
    round_ = vrf_.round();
    if (type == KELM_MSG_RX_DELETE_SESSION) {
        is_renewing_ = false;
        renewed_in_ = round_;
    }
    const bool is_deletion =
        type == KELM_MSG_RX_DELETE_SESSION || type == KELM_MSG_TX_DELETE_PACKET;
    if (is_deletion && error == ENOENT) {
        if (is_certain_)
            verdict_.missing = type == KELM_MSG_RX_DELETE_SESSION ? "receive session" : "packet";
    } else if (type == KELM_MSG_RX_SET_SESSION && error == ENXIO && is_certain_) {
        verdict_.missing = "packet";
    } else if (error != 0) {
        verdict_.refusal.emplace(type, discriminator_, error);
    }
    if (under_way_ == 0)
        conclude();
}

void kelm_sync::conclude()
{
    const verdict reached = std::exchange(verdict_, {});
    if (reached.refusal || !reached.missing.empty())
        distrust();
    if (reached.refusal)
        return listener_.on_refused(*reached.refusal);
    if (!reached.missing.empty())
        return listener_.on_missing(reached.missing);
    is_certain_ = true;
    listener_.on_settled();
}

} // namespace kelm_agent

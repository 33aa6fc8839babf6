// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/session.h"

#include <algorithm>

#include "kelm/kelm_bfd_common_utils.h"

namespace kelm_agent
{

namespace
{

// For a packet that kelm sends at its next tick to be on its way.
constexpr std::chrono::seconds last_words_time{1};
constexpr steady_time as_soon_as_possible{};

condition next_condition(session_kind kind, condition now, std::uint8_t received)
{
    return kind == session_kind::sbfd ? after_reflection(now, received)
                                      : after_packet(now, received);
}

std::uint8_t timeout_diag(session_kind kind)
{
    return kind == session_kind::echo ? BFD_DIAG_ECHO_FAIL : BFD_DIAG_CTRL_TIMEOUT;
}

// Whether we can have been Up when a peer in this state sent a packet.
bool suggests_up(std::uint8_t peer_state)
{
    return peer_state == BFD_STATE_UP || peer_state == BFD_STATE_INIT;
}

} // namespace

session::session(session_config config, std::uint32_t discriminator)
    : config_(std::move(config)), discriminator_(discriminator),
      timing_(config_.timing, config_.multiplier, is_alone(config_.kind)),
      is_idle_(!config_.guards.empty())
{
    if (config_.admin_down)
        condition_ = administratively_down();
}

desired_state session::current() const
{
    return decide();
}

// The timer is running if the peer is heard, and its last packet is known. Only our own record says
// that we were Down nevertheless.
desired_state session::adopt(const remains &left, steady_time now)
{
    has_spoken_ = left.has_packet;
    if (left.admin_down)
        condition_ = administratively_down();
    if (is_admin_down() || is_idle_)
        return settle();
    if (!left.heard) {
        if (left.state == BFD_STATE_UP && !left.has_packet) // kelm was restarted meanwhile
            condition_.diag = BFD_DIAG_FORWARDING_RESET;
        return settle();
    }

    const std::uint8_t recorded = left.state.value_or(BFD_STATE_UP);
    const bool was_down = recorded == BFD_STATE_DOWN || recorded == BFD_STATE_ADMIN_DOWN;
    kelm::bfd_fields heard = *left.heard;
    heard.poll = heard.final = false; // the peer repeats an unanswered Poll
    if (!suggests_up(heard.state) && left.state == BFD_STATE_UP)
        condition_.diag = BFD_DIAG_NEIGH_DOWN;
    if (was_down || !suggests_up(heard.state))
        return packet(heard, now);

    hear(heard);
    become({BFD_STATE_UP, BFD_DIAG_NONE});
    timing_.resume(left.in_effect.value_or(config_.timing));
    if (!left.timer_active)
        return timeout(now);
    manage_poll(false, {});
    return settle();
}

desired_state session::packet(const kelm::bfd_fields &heard, steady_time now)
{
    if (is_admin_down() || is_idle_)
        return settle();
    hear(heard);
    become(next_condition(config_.kind, condition_, heard.state));

    const bool is_stranger = heard.your_discriminator == 0;
    const bool answering = heard.poll && !is_alone(config_.kind);
    if (heard.final && polling_) {
        polling_ = false;
        timing_.poll_ends();
        // A late answer to this Poll Sequence must not end the next one.
        poll_due_.reset();
        if (timing_.needs_poll())
            poll_due_ = now + std::chrono::microseconds(timing_.transmit_interval());
    }
    manage_poll(answering, now);
    return settle({.transmit = {},
                   .receive = {},
                   .is_final = answering,
                   // kelm did not recognise the packet as this session's
                   .rearm = is_stranger,
                   // The next packet of a peer that has lost us may equal the last one passed up:
                   // only a new receive session passes it up.
                   .renew = is_stranger});
}

// A detection time without a packet fails the session. After another one the peer's sequence
// numbers may restart (RFC 5880 section 6.8.1, bfd.AuthSeqKnown). kelm's timer cannot measure that
// one: it is restarted by packets that we reject.
desired_state session::timeout(steady_time now)
{
    if (!is_heard_)
        return settle();
    is_heard_ = false;
    forget_due_ = now + std::chrono::microseconds(timing_.detection_time());
    remote_discriminator_ = 0;
    remote_demand_ = false;
    become(after_timeout(condition_, timeout_diag(config_.kind)));
    // The peer's first packet after that may equal the last one passed up.
    return settle({.transmit = {}, .receive = {}, .renew = true});
}

// The peer may have restarted unnoticed.
desired_state session::forgotten()
{
    forget_peer();
    has_spoken_ = false;
    become(after_timeout(condition_, BFD_DIAG_FORWARDING_RESET));
    return settle({.transmit = {}, .receive = {}, .renew = true, .forget_sequence = true});
}

desired_state session::set_admin_down(bool down)
{
    if (down == is_admin_down())
        return settle();
    // The peer must recognise our AdminDown packets by their discriminator. Afterwards it must be
    // discovered again, since it may have restarted.
    if (!down)
        forget_peer();
    is_heard_ = false;
    forget_due_.reset();
    become(down ? administratively_down() : administratively_enabled());
    return settle({.transmit = {}, .receive = {}, .renew = !down, .forget_sequence = !down});
}

desired_state session::echo_failed()
{
    become(after_timeout(condition_, BFD_DIAG_ECHO_FAIL));
    return settle();
}

desired_state session::guard(bool active, kelm_microsecs interval,
                             std::uint32_t guarded_discriminator)
{
    guarded_discriminator_ = guarded_discriminator;
    timing_.configure({interval, interval}, config_.multiplier);
    if (active == is_idle_ && !is_admin_down()) {
        forget_peer();
        become({});
    }
    is_idle_ = !active;
    return settle();
}

desired_state session::reconfigure(session_config config)
{
    const bool admin_changed = config.admin_down != config_.admin_down;
    config_ = std::move(config);
    timing_.configure(config_.timing, config_.multiplier);
    if (admin_changed)
        return set_admin_down(config_.admin_down);
    manage_poll(false, {});
    return settle();
}

desired_state session::wake(steady_time now)
{
    if (poll_due_ && *poll_due_ <= now)
        poll_due_.reset();
    manage_poll(false, now);
    if (rest_due_ && *rest_due_ <= now) {
        is_resting_ = *rest_due_ != as_soon_as_possible;
        rest_due_ = is_resting_ ? std::nullopt : std::optional(now + last_words_time);
    }
    if (!forget_due_ || *forget_due_ > now)
        return settle();
    forget_due_.reset();
    return settle({.transmit = {}, .receive = {}, .renew = true, .forget_sequence = true});
}

std::optional<steady_time> session::due() const
{
    std::optional<steady_time> earliest;
    for (const auto &each : {poll_due_, forget_due_, rest_due_})
        if (each && (!earliest || *each < *earliest))
            earliest = each;
    return earliest;
}

void session::become(condition next)
{
    condition_ = next;
    timing_.set_up(is_up());
    if (!is_up()) {
        polling_ = false;
        poll_due_.reset();
    }
}

void session::forget_peer()
{
    is_heard_ = has_heard_peer_ = false;
    forget_due_.reset();
    remote_discriminator_ = 0;
    remote_demand_ = false;
    remote_ = {};
}

void session::hear(const kelm::bfd_fields &heard)
{
    is_heard_ = has_heard_peer_ = true;
    forget_due_.reset();
    remote_ = {heard.state, heard.diag};
    if (config_.kind == session_kind::echo)
        return;         // our own packet
    has_spoken_ = true; // or is about to
    remote_discriminator_ = heard.my_discriminator;
    remote_min_echo_rx_ = heard.min_echo_rx_interval;
    remote_demand_ = heard.demand_mode && !is_alone(config_.kind);
    timing_.hear({heard.detect_multiplier, heard.min_tx_interval, heard.min_rx_interval});
}

// A packet must not have both the Poll and the Final bit: our Poll waits while we answer.
void session::manage_poll(bool answering, std::optional<steady_time> now)
{
    if (!polling_ && !timing_.needs_poll())
        return;
    if (answering && !poll_due_)
        poll_due_ = *now + std::chrono::microseconds(timing_.transmit_interval());
    if (poll_due_ || polling_)
        return;
    polling_ = true;
    timing_.poll_begins();
}

// RFC 5880 section 6.8.7: a peer may want no periodic packets. What there is to say is sent out of
// band, and a moment later the packet is taken from kelm, whose longest period is 71 minutes. A
// packet with sequence numbers stays: kelm alone knows the next one.
desired_state session::settle(desired_state so_far)
{
    const kelm::bfd_fields says = control_packet();
    const bool has_news = so_far.is_final || says != said_;
    said_ = says;
    if (is_alone(config_.kind) || transmits_periodically() ||
        kelm_auth_has_seq_num(config_.auth.type)) {
        is_resting_ = false;
        rest_due_.reset();
    } else if (has_news) {
        is_resting_ = false;
        rest_due_ = as_soon_as_possible;
    }
    return decide(so_far);
}

desired_state session::decide(desired_state so_far) const
{
    if (is_idle_)
        return so_far;
    if (has_packet())
        so_far.transmit = wanted_transmission();
    if (!is_admin_down())
        so_far.receive = wanted_reception();
    return so_far;
}

// Without a peer there is no one to tell that we are down, and echo packets cease then (RFC 5880
// section 6.8.16). A passive end that has lost its peer is silent, but keeps its packet, and with
// it the sequence number that the peer expects.
bool session::has_packet() const
{
    if (is_alone(config_.kind))
        return !is_admin_down();
    return !is_resting_ && (may_speak() || has_spoken_);
}

// RFC 5880 section 6.8.7
bool session::may_speak() const
{
    return !config_.passive || remote_discriminator_ != 0;
}

bool session::transmits_periodically() const
{
    const bool demanded = remote_demand_ && is_up() && remote_.state == BFD_STATE_UP && !polling_;
    return timing_.peer_listens() && !demanded && may_speak();
}

transmission session::wanted_transmission() const
{
    return {
        .bfd = control_packet(),
        .period = transmits_periodically() ? timing_.transmit_interval() : idle_period,
        .jitter = static_cast<std::uint16_t>(timing_.multiplier() == 1 ? BFD_TX_JITTER_75_90
                                                                       : BFD_TX_JITTER_75),
        // Packets that kelm sends after a failure until we react are periodic, too.
        .latch_period = timing_.peer_listens()
                            ? std::max({slow_interval, config_.timing.desired_min_tx,
                                        timing_.peer().required_min_rx})
                            : idle_period,
        .is_silent = !may_speak(),
    };
}

reception session::wanted_reception() const
{
    const bool can_fail = condition_.state == BFD_STATE_INIT || is_up();
    return {
        .timer_active = is_heard_,
        .multiplier = std::max<std::uint8_t>(timing_.receive_multiplier(), 1),
        .period = timing_.receive_interval(),
        .latch_diag = can_fail ? timeout_diag(config_.kind) : std::uint8_t{BFD_DIAG_NONE},
        .also_latched = is_up() ? guarded_discriminator_ : 0,
    };
}

kelm::bfd_fields session::control_packet() const
{
    kelm::bfd_fields packet = {
        .diag = condition_.diag,
        .state = condition_.state,
        .poll = polling_ && !poll_due_,
        .final = false,
        .demand_mode = false,
        .detect_multiplier = timing_.multiplier(),
        .my_discriminator = discriminator_,
        .your_discriminator = remote_discriminator_,
        .min_tx_interval = timing_.advertised().desired_min_tx,
        .min_rx_interval = timing_.advertised().required_min_rx,
        .min_echo_rx_interval = config_.min_echo_rx,
    };
    if (config_.kind == session_kind::sbfd) {
        packet.demand_mode = true; // RFC 7880 section 7.3.2: tells us from a reflector
        packet.your_discriminator = config_.remote_discriminator;
    }
    if (config_.kind == session_kind::echo) {
        packet.your_discriminator = discriminator_;
        // RFC 9747 section 2: unused here, but must be set.
        packet.min_tx_interval = packet.min_rx_interval = slow_interval;
        packet.min_echo_rx_interval = 0;
    }
    return packet;
}

} // namespace kelm_agent

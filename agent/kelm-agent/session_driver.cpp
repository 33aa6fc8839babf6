// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/session_driver.h"

#include <algorithm>
#include <utility>

#include "kelm-agent/authentic.h"
#include "kelm-agent/matching.h"
#include "kelm-agent/reason.h"
#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

// Long enough for a packet that kelm sends at its next tick to be on its way; and as long as nobody
// should wait for an end.
constexpr std::chrono::milliseconds shortest_admin_down_hold{200};
constexpr std::chrono::seconds longest_admin_down_hold{10};
constexpr std::chrono::seconds retry_interval{1};

// RFC 5880 section 6.8.16: the peer is to hear AdminDown for the time that it takes it to miss us.
std::chrono::microseconds admin_down_hold(const session &bfd)
{
    const std::uint64_t missed =
        std::uint64_t{bfd.timing().multiplier()} * bfd.timing().transmit_interval();
    const bool is_missed = bfd.is_up() && !is_alone(bfd.config().kind);
    const std::chrono::microseconds wanted(is_missed ? missed : 0);
    return std::clamp<std::chrono::microseconds>(wanted, shortest_admin_down_hold,
                                                 longest_admin_down_hold);
}

// What is wanted after both.
desired_state followed_by(const desired_state &earlier, desired_state later)
{
    later.is_final |= earlier.is_final;
    later.rearm |= earlier.rearm;
    later.renew |= earlier.renew;
    return later;
}

} // namespace

session_driver::session_driver(event_loop &loop, const logger &log, listener &listening,
                               vrf &lives_in, session_config config, std::uint32_t discriminator)
    : loop_(loop), log_(log), listener_(listening), vrf_(lives_in),
      bfd_(std::move(config), discriminator), member_(loop)
{
    sync_.emplace(vrf_, discriminator, static_cast<kelm_sync::listener &>(*this));
    history_.since = std::chrono::system_clock::now();
}

void session_driver::set_discriminator(std::uint32_t discriminator)
{
    bfd_ = session(bfd_.config(), discriminator);
    sync_.emplace(vrf_, discriminator, static_cast<kelm_sync::listener &>(*this));
}

std::string session_driver::problem() const
{
    if (!vrf_.is_connected())
        return "not connected to kelm";
    return refusal_.empty() ? addressing_problem_ : refusal_;
}

saved_session session_driver::record() const
{
    if (saved_)
        return *saved_;
    return {identity_text(config()),
            config().netns,
            bfd_.discriminator(),
            bfd_.state().state,
            is_taken_down_,
            bfd_.timing().in_effect(),
            history_};
}

// -- events of kelm

void session_driver::keep(const kelm::packet_change &change, const kelm::frame_info &frame)
{
    hear_member(); // what its member link has brought meanwhile is older
    take(change, frame);
}

void session_driver::take(const kelm::packet_change &change, const kelm::frame_info &frame)
{
    if (!addressing_ || !is_authentic(config(), *addressing_, change, bfd_.is_up(), last_sequence_))
        return;
    if (!is_news(change, frame) && bfd_.is_up() && sync_->is_settled())
        listener_.on_suspicion(*this);
    inbox_.add_packet(frame.bfd.fields);
}

// kelm passes a session's packet up when it differs from the one before. Of an echo, what it
// compares is not what it passes up.
bool session_driver::is_news(const kelm::packet_change &change, const kelm::frame_info &frame)
{
    const kelm::bfd_fields &fields = frame.bfd.fields;
    if (fields.your_discriminator == 0 || config().kind == session_kind::echo)
        return true;
    const kelm::bytes before = std::exchange(last_passed_up_, essence(change));
    return fields.poll || fields.final || last_passed_up_ != before;
}

void session_driver::keep(const kelm::session_failure &failure)
{
    if (sync_->is_of_this_life(failure))
        inbox_.add_failure();
    else
        inbox_.add_old_failure();
}

void session_driver::act()
{
    if (inbox_.is_empty() || !has_begun_)
        return;
    const auto now = loop_.now();
    desired_state wanted = bfd_.current();
    for (const inbox::entry &each : inbox_.take_all()) {
        // kelm has latched the packet, which what follows may lead back to as it was.
        if (each.kind != inbox::entry::packet)
            sync_->packet_may_differ();
        if (each.kind == inbox::entry::old_failure)
            continue;
        const kelm_microsecs waited = bfd_.timing().detection_time();
        const desired_state next =
            each.kind == inbox::entry::packet
                ? advance([&](session &s) { return s.packet(each.fields, now); }, heard_reason)
                : advance([&](session &s) { return s.timeout(now); },
                          [&](const session &) { return silence_reason(waited); });
        wanted = followed_by(wanted, next);
    }
    finish(wanted);
}

// -- the state machine

void session_driver::handle(const event &happened, const reason_maker &reason)
{
    finish(advance(happened, reason));
}

desired_state session_driver::advance(const event &happened, const reason_maker &reason)
{
    const condition before = bfd_.state();
    const intervals in_effect_before = bfd_.timing().in_effect();
    const desired_state wanted = happened(bfd_);
    if (wanted.forget_sequence)
        last_sequence_.reset();
    if (bfd_.timing().in_effect() != in_effect_before)
        listener_.on_record_change();
    if (bfd_.state().state != before.state) {
        const std::string why = reason(bfd_);
        add_change(before, why);
        listener_.on_state_change();
        tell_change(before, why);
    }
    if (bfd_.state() != before) {
        look_again_later();
        fail_guarded(before);
    }
    return wanted;
}

void session_driver::finish(const desired_state &wanted)
{
    if (wanted.renew)
        last_passed_up_.clear();
    apply(wanted);
    set_timer();
    if (guard_ != nullptr)
        guard_->update_echo();
}

void session_driver::apply(const desired_state &wanted)
{
    if (stage_ == stage::deleting)
        return;
    if (vrf_.is_connected() && addressing_ && has_begun_)
        sync_->apply(config(), *addressing_, wanted);
    else
        sync_->owe(wanted);
}

void session_driver::add_change(const condition &before, const std::string &reason)
{
    const condition &now = bfd_.state();
    history_.add({std::chrono::system_clock::now(), before.state, now.state, now.diag, reason});
}

void session_driver::tell_change(const condition &before, const std::string &reason)
{
    const condition &now = bfd_.state();
    const auto state = state_name(now.state);
    const auto previous = state_name(before.state);
    log_.info("session " + config().name + ": " + state + " (was " + previous + "): " + reason,
              {{"session", config().name},
               {"state", state},
               {"previous_state", previous},
               {"diagnostic", diag_words(now.diag)},
               {"reason", reason},
               {"peer", config().peer.text()}});
    listener_.on_change(*this, history_.changes().back());
}

void session_driver::set_timer()
{
    if (stage_ != stage::running)
        return;
    const auto due = bfd_.due();
    if (due == timer_due_)
        return;
    timer_due_ = due;
    timer_ = {};
    if (!due)
        return;
    const auto left = std::chrono::ceil<std::chrono::microseconds>(*due - loop_.now());
    timer_ = loop_.after(std::max(left, std::chrono::microseconds(0)), [this] {
        timer_due_.reset();
        handle([this](session &s) { return s.wake(loop_.now()); },
               [](const session &) { return ""; });
    });
}

// -- what kelm answers

void session_driver::on_settled()
{
    refusal_.clear();
    if (stage_ == stage::deleting)
        delete_all();
    else if (sync_->is_behind())
        apply(bfd_.current());
}

void session_driver::on_refused(const kelm::refused &refusal)
{
    if (refusal_ != refusal.what())
        log_.warning("session " + config().name + ": " + refusal.what());
    refusal_ = refusal.what();
    if (stage_ == stage::deleting)
        return listener_.on_removed(*this, false);
    retry_ = loop_.after(retry_interval, [this] { apply(bfd_.current()); });
}

void session_driver::on_missing(const std::string &what)
{
    if (stage_ == stage::deleting)
        return delete_all();
    log_.warning("session " + config().name + ": kelm no longer has its " + what +
                 ", which another program must have deleted; making it again");
    apply(bfd_.current());
}

// -- beginning, loss and end

void session_driver::begin()
{
    has_begun_ = true;
    (void)inbox_.take_all();
    update_addressing();
    finish(bfd_.current());
}

void session_driver::adopt(const kelm_entry &left)
{
    has_begun_ = true;
    (void)inbox_.take_all();
    const std::optional<saved_session> saved = std::exchange(saved_, std::nullopt);
    listener_.on_record_change();
    if (saved) {
        history_ = saved->past;
        is_taken_down_ = saved->admin_down;
    }
    sync_->assume(left.has_packet, left.has_session);
    (void)run_echo();
    const desired_state wanted =
        bfd_.adopt(remains_of(left, saved ? &*saved : nullptr), loop_.now());
    const condition before = {saved ? saved->state : bfd_.state().state, BFD_DIAG_NONE};
    const std::string reason =
        left.has_session || left.has_packet ? "state found at restart" : "state found at start";
    add_change(before, reason);
    if (before.state != bfd_.state().state)
        tell_change(before, reason);
    // A packet that is older than the last one heard is none of the peer's.
    if (left.frame && addressing_)
        (void)is_authentic(config(), *addressing_, *left.frame, bfd_.is_up(), last_sequence_);
    if (left.frame)
        last_passed_up_ = essence(*left.frame);
    finish(wanted);
    fail_guarded(before);
}

bool session_driver::is_missing(const kelm_entry &in_kelm) const
{
    const desired_state expected = bfd_.current();
    return addressing_ && (expected.receive.has_value() != in_kelm.has_session ||
                           expected.transmit.has_value() != in_kelm.has_packet);
}

bool session_driver::is_silent(const kelm_entry &in_kelm) const
{
    const desired_state expected = bfd_.current();
    return expected.receive && expected.receive->timer_active && in_kelm.has_session &&
           !in_kelm.timer_active;
}

void session_driver::reconnect(const kelm_entry &in_kelm)
{
    sync_->assume(in_kelm.has_packet, in_kelm.has_session);
    (void)inbox_.take_all();
    if (is_missing(in_kelm))
        return handle([](session &s) { return s.forgotten(); },
                      [](const session &) { return "kelm lost the session"; });
    if (in_kelm.frame)
        if (const auto frame = kelm::decode_frame(*in_kelm.frame))
            take(*in_kelm.frame, *frame);
    if (is_silent(in_kelm))
        inbox_.add_failure();
    act();
    finish(bfd_.current());
}

// What is kept has been told since the backlog was dropped. The dump's packet is among it, or
// older. A receive session that was made anew meanwhile passes up the next packet anyway.
void session_driver::catch_up(const kelm_entry &in_kelm, std::uint64_t round)
{
    const auto frame = in_kelm.frame ? kelm::decode_frame(*in_kelm.frame) : std::nullopt;
    const bool is_known = !frame || !sync_->is_same_session_since(round) ||
                          essence(*in_kelm.frame) == last_passed_up_ ||
                          inbox_.contains_packet(frame->bfd.fields);
    if (!is_known) {
        const auto newer = inbox_.take_all();
        take(*in_kelm.frame, *frame);
        inbox_.add_all(newer);
    }
    act();
    mend(in_kelm, round);
}

bool session_driver::mend(const kelm_entry &in_kelm, std::uint64_t round)
{
    if (!has_begun_ || has_kept() || stage_ != stage::running || !sync_->is_settled_since(round))
        return false;
    if (is_missing(in_kelm)) {
        sync_->assume(in_kelm.has_packet, in_kelm.has_session);
        last_passed_up_.clear();
        apply(bfd_.current());
        return true;
    }
    if (is_silent(in_kelm)) {
        inbox_.add_failure();
        act();
    }
    return false;
}

void session_driver::on_kelm_gone()
{
    if (has_begun_)
        handle([](session &s) { return s.forgotten(); },
               [](const session &) { return "kelm is gone"; });
}

void session_driver::on_disconnected()
{
    member_.leave();
    if (stage_ == stage::deleting)
        listener_.on_removed(*this, false);
}

void session_driver::reconfigure(session_config config)
{
    log_.info("session " + config.name + ": configuration changed", {{"session", config.name}});
    if (config.admin_down != bfd_.config().admin_down)
        is_taken_down_ = false;
    add_change(bfd_.state(), "configuration changed");
    handle([&](session &s) { return s.reconfigure(std::move(config)); },
           [](const session &s) {
               return s.is_admin_down() ? "disabled by configuration" : "enabled by configuration";
           });
    update_addressing();
}

void session_driver::set_admin_down(bool down)
{
    is_taken_down_ = down;
    listener_.on_record_change();
    handle([&](session &s) { return s.set_admin_down(down); },
           [&](const session &) {
               return down ? "disabled by administrator" : "enabled by administrator";
           });
}

std::chrono::microseconds session_driver::stop()
{
    const auto hold = admin_down_hold(bfd_);
    handle([](session &s) { return s.set_admin_down(true); },
           [](const session &) { return "agent stopped"; });
    return hold;
}

void session_driver::retire()
{
    const auto hold = admin_down_hold(bfd_);
    unpair();
    (void)inbox_.take_all();
    finish(bfd_.set_admin_down(true));
    stage_ = stage::leaving;
    timer_ = loop_.after(hold, [this] { remove(); });
}

void session_driver::remove()
{
    if (std::exchange(stage_, stage::deleting) == stage::deleting)
        return;
    timer_ = {};
    if (!vrf_.is_connected() || !has_begun_)
        listener_.on_removed(*this, false);
    else if (sync_->is_settled())
        delete_all();
}

void session_driver::delete_all()
{
    if (!sync_->remove())
        listener_.on_removed(*this, true);
}

// -- addressing

void session_driver::update_addressing()
{
    const auto before = addressing_;
    look_up_addressing();
    if (addressing_ && addressing_ != before)
        apply(bfd_.current());
}

void session_driver::look_up_addressing()
{
    if (!vrf_.is_connected())
        return;
    const std::string before = addressing_problem_;
    addressing_ =
        find_addressing(config(), vrf_.links(), vrf_.neighbour_table(), addressing_problem_);
    listen_to_member();
    if (!addressing_ && addressing_problem_ != before)
        log_.warning("session " + config().name + ": " + addressing_problem_);
    look_again_later();
}

// A neighbour's Ethernet address comes late, and may become another one.
void session_driver::look_again_later()
{
    look_again_ = {};
    if (config().kind != session_kind::echo || (addressing_ && bfd_.is_up()))
        return;
    look_again_ = loop_.after(retry_interval, [this] { update_addressing(); });
}

// -- the member link of a LAG session

void session_driver::listen_to_member()
{
    if (config().kind != session_kind::lag || !addressing_)
        return;
    try {
        member_.listen(vrf_.netns(), addressing_->transmit_ifindex, [this] {
            hear_member();
            act();
        });
    } catch (const kelm::error &problem) {
        addressing_.reset();
        addressing_problem_ = problem.what();
    }
}

void session_driver::hear_member()
{
    if (addressing_ && vrf_.is_connected())
        member_.hear(config(), *addressing_,
                     [this](const auto &change, const auto &frame) { take(change, frame); });
}

// -- the echo function

void session_driver::pair(session_driver &guarded, session_driver &guard)
{
    guarded.guard_ = &guard;
    guard.guarded_ = &guarded;
}

void session_driver::unpair()
{
    if (guard_ != nullptr)
        guard_->guarded_ = nullptr;
    if (guarded_ != nullptr)
        guarded_->guard_ = nullptr;
    guard_ = guarded_ = nullptr;
}

void session_driver::update_echo()
{
    if (guarded_ != nullptr && guarded_->bfd_.is_up())
        look_up_addressing();
    handle([this](session &) { return run_echo(); },
           [](const session &) { return "guarded session is not up"; });
}

// RFC 5880 section 6.8.9: echo packets are sent while the session is Up and the peer wants them,
// and not more often than it wants them.
desired_state session_driver::run_echo()
{
    if (guarded_ == nullptr)
        return bfd_.current();
    const session &guarded = guarded_->bfd_;
    const kelm_microsecs least = guarded.remote_min_echo_rx();
    return bfd_.guard(guarded.is_up() && least != 0,
                      std::max(config().timing.desired_min_tx, least), guarded.discriminator());
}

void session_driver::fail_guarded(const condition &before)
{
    const bool has_failed = before.state == BFD_STATE_UP && bfd_.state().diag == BFD_DIAG_ECHO_FAIL;
    if (has_failed && guarded_ != nullptr)
        guarded_->handle([](session &s) { return s.echo_failed(); },
                         [](const session &) { return "echo packets no longer return"; });
}

} // namespace kelm_agent

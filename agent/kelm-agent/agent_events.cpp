// SPDX-License-Identifier: GPL-2.0
//
// The agent, as far as events of kelm and of the network interfaces are concerned.
#include "kelm-agent/addressing.h"
#include "kelm-agent/agent.h"
#include "kelm-agent/authentic.h"
#include "kelm-agent/matching.h"
#include "kelm-agent/reason.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

constexpr int most_frames_a_round = 64; // others are to have their turn too

} // namespace

void agent::on_report(vrf &home, const kelm::report &report)
{
    if (const auto *change = std::get_if<kelm::packet_change>(&report)) {
        // What its member link has brought meanwhile is older.
        if (managed_session *const managed = find(home, change->discriminator))
            hear_member(*managed);
        on_packet(home, *change);
    } else if (const auto *failure = std::get_if<kelm::session_failure>(&report))
        on_failure(home, failure->discriminator);
    else if (std::holds_alternative<kelm::overrun>(report))
        reconcile(home);
}

managed_session *agent::find(const vrf &home, std::uint32_t discriminator)
{
    const auto found = by_discriminator_.find(discriminator);
    return found != by_discriminator_.end() && found->second->home == &home ? found->second
                                                                            : nullptr;
}

managed_session *agent::find_by_address(const vrf &home, const kelm::packet_change &change,
                                        const kelm::frame_info &frame)
{
    const auto source = frame.source.view();
    const auto [first, last] = by_peer_.equal_range({source.begin(), source.end()});
    for (auto each = first; each != last; ++each) {
        managed_session &managed = *each->second;
        if (managed.home == &home && managed.addresses &&
            is_addressed_to(managed.bfd.config(), *managed.addresses, change, frame))
            return &managed;
    }
    return nullptr;
}

void agent::on_packet(vrf &home, const kelm::packet_change &change)
{
    const auto frame = kelm::decode_frame(change);
    if (!frame)
        return;
    const kelm::bfd_fields &fields = frame->bfd.fields;
    managed_session *managed = fields.your_discriminator != 0
                                   ? find(home, fields.your_discriminator)
                                   : find_by_address(home, change, *frame);
    if (managed == nullptr || !managed->addresses)
        return;
    if (!is_authentic(managed->bfd.config(), *managed->addresses, change, managed->bfd.is_up(),
                      managed->last_sequence))
        return;
    handle(
        *managed, [&](session &s) { return s.packet(fields, std::chrono::steady_clock::now()); },
        heard_reason);
}

void agent::on_failure(vrf &home, std::uint32_t discriminator)
{
    managed_session *const managed = find(home, discriminator);
    if (managed == nullptr)
        return;
    const kelm_microsecs waited = managed->bfd.timing().detection_time();
    handle(
        *managed, [](session &s) { return s.timeout(std::chrono::steady_clock::now()); },
        [=](const session &) { return silence_reason(waited); });
}

void agent::on_links_changed(vrf &home)
{
    for (auto &[name, managed] : sessions_) {
        if (managed.home == &home && home.is_connected() && !managed.bfd.config().interface.empty())
            update_addressing(managed);
    }
}

void agent::update_addressing(managed_session &managed)
{
    const auto before = managed.addresses;
    look_up_addressing(managed);
    if (managed.addresses && managed.addresses != before)
        carry_out(managed, managed.bfd.current());
}

void agent::look_up_addressing(managed_session &managed)
{
    const std::string before = managed.obstacle;
    managed.addresses = find_addressing(managed.bfd.config(), managed.home->links(),
                                        managed.home->around(), managed.obstacle);
    if (!managed.addresses && managed.obstacle != before)
        log_.warning("session " + managed.bfd.config().name + ": " + managed.obstacle);
    look_again_later(managed);
    listen_to_member(managed);
}

// A neighbour's Ethernet address comes late, and may become another one.
void agent::look_again_later(managed_session &managed)
{
    managed.look_again = {};
    if (managed.bfd.config().kind != session_kind::echo ||
        (managed.addresses && managed.bfd.is_up()))
        return;
    managed.look_again = loop_.after(std::chrono::seconds(1), [this, &managed] {
        if (managed.home->is_connected())
            update_addressing(managed);
    });
}

void agent::listen_to_member(managed_session &managed)
{
    if (managed.bfd.config().kind != session_kind::lag || !managed.addresses)
        return;
    const std::uint32_t ifindex = managed.addresses->transmit_ifindex;
    if (managed.member && managed.member->member() == ifindex)
        return;
    managed.on_member = {};
    try {
        managed.member.emplace(managed.home->netns(), ifindex);
    } catch (const kelm::error &problem) {
        managed.addresses.reset();
        managed.obstacle = problem.what();
        log_.warning("session " + managed.bfd.config().name + ": " + problem.what());
        return;
    }
    managed.on_member =
        loop_.on_io(managed.member->fd(), EPOLLIN, [this, &managed] { hear_member(managed); });
}

void agent::leave_members(const vrf &home)
{
    for (auto &[name, managed] : sessions_)
        if (managed.home == &home) {
            managed.on_member = {};
            managed.member.reset();
        }
}

void agent::hear_member(managed_session &managed)
{
    for (int i = 0; i < most_frames_a_round && managed.member && managed.addresses; ++i) {
        auto change = managed.member->next();
        if (!change || !managed.home->is_connected())
            return;
        change->ifindex = managed.addresses->receive_ifindex;
        on_packet(*managed.home, *change);
    }
}

void agent::attend_guard(const managed_session &guarded)
{
    const auto found = sessions_.find(guard_name(guarded.bfd.config().name));
    if (found == sessions_.end())
        return;
    if (guarded.bfd.is_up() && found->second.home->is_connected())
        look_up_addressing(found->second);
    handle(
        found->second, [&](session &) { return direct_guard(found->second); },
        [](const session &) { return "the session that it guards is not up"; });
}

// RFC 5880 section 6.8.9: echo packets are sent while the session is Up and the peer wants them,
// and not more often than it wants them.
desired_state agent::direct_guard(managed_session &guard)
{
    const auto found = sessions_.find(guard.bfd.config().guards);
    if (found == sessions_.end())
        return guard.bfd.current();
    const session &guarded = found->second.bfd;
    const kelm_microsecs least = guarded.remote_min_echo_rx();
    return guard.bfd.guard(guarded.is_up() && least != 0,
                           std::max(guard.bfd.config().timing.desired_min_tx, least),
                           guarded.discriminator());
}

void agent::fail_guarded(managed_session &guard, const condition &before)
{
    const bool has_failed =
        before.state == BFD_STATE_UP && guard.bfd.state().diag == BFD_DIAG_ECHO_FAIL;
    const auto guarded = sessions_.find(guard.bfd.config().guards);
    if (!has_failed || guarded == sessions_.end())
        return;
    handle(
        guarded->second, [](session &s) { return s.echo_failed(); },
        [](const session &) { return "its echo does not come back any more"; });
}

} // namespace kelm_agent

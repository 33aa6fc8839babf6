// SPDX-License-Identifier: GPL-2.0
//
// The agent, as far as the connection to kelm comes and goes: what is found there is compared with
// what should be.
#include <algorithm>

#include "kelm-agent/addressing.h"
#include "kelm-agent/agent.h"
#include "kelm-agent/authentic.h"
#include "libkelm/error.h"
#include "libkelm/names.h"

namespace kelm_agent
{

void agent::on_connected(vrf &home)
{
    leave_members(home); // it may be another namespace than before
    try {
        mark();
        home.requests().execute(kelm::tx_path_ready());
        reconcile(home);
        sweep_when_all_are_connected();
    } catch (const kelm::error &problem) {
        home.disconnect(problem.what());
    }
}

// Nothing is sent or heard any more. Sessions of an earlier run, not looked at yet, may wait.
void agent::on_gone(vrf &home)
{
    leave_members(home);
    for (auto &[name, managed] : sessions_)
        if (managed.home == &home && managed.has_begun)
            handle(
                managed, [](session &s) { return s.forgotten(); },
                [](const session &) { return "kelm is gone"; });
}

void agent::reconcile(vrf &home)
{
    const inventory all = take_inventory(home.requests().dump(kelm::sync(0)));
    for (auto &[name, managed] : sessions_) {
        if (managed.home != &home || !home.is_connected())
            continue;
        look_up_addressing(managed);
        if (managed.has_begun)
            resynchronise(managed, all);
        else
            resume(managed, all);
    }
    for (auto &[name, managed] : sessions_)
        attend_guard(managed);
    if (home.is_connected())
        delete_strangers(home, all);
}

// The first look at what an earlier run of the agent may have left.
void agent::resume(managed_session &managed, const inventory &all)
{
    managed.has_begun = true;
    const std::optional<saved_session> saved = std::exchange(managed.saved, std::nullopt);
    must_save_ = true;
    if (saved) {
        managed.past = saved->past;
        managed.is_taken_down = saved->admin_down;
    } else {
        choose_discriminator(managed, all);
    }

    const auto entry = all.find(managed.bfd.discriminator());
    const bool is_there = entry != all.end();
    const found left = is_there ? entry->second : found{};
    managed.port.assume(left.has_packet, left.has_session);
    (void)direct_guard(managed);
    const desired_state wanted = managed.bfd.adopt(remains_of(left, saved ? &*saved : nullptr),
                                                   std::chrono::steady_clock::now());
    const condition &now = managed.bfd.state();
    const condition before = {saved ? saved->state : now.state, BFD_DIAG_NONE};
    const std::string how = is_there ? "the agent was restarted" : "the agent was started";
    if (before.state != now.state)
        note_change(managed, before, "it was found so when " + how);
    else
        managed.past.add({std::chrono::system_clock::now(), now.state, now.state, now.diag, how});
    if (is_there)
        log_.info("session " + managed.bfd.config().name + ": goes on " +
                  kelm::name_of(kelm::state_names, now.state) + " after the agent's restart");
    // A packet that is older than the last one heard is none of the peer's.
    if (left.frame && managed.addresses)
        (void)is_authentic(managed.bfd.config(), *managed.addresses, *left.frame,
                           managed.bfd.is_up(), managed.last_sequence);
    carry_out(managed, wanted);
    set_alarm(managed);
    fail_guarded(managed, before);
}

// For a session of which there is no record: that of its like in kelm, or a new one.
void agent::choose_discriminator(managed_session &managed, const inventory &all)
{
    while (all.contains(managed.bfd.discriminator())) // somebody else's
        change_discriminator(managed, new_discriminator());
    if (!managed.addresses)
        return;
    const auto known = recognise(managed.bfd.config(), *managed.addresses, all);
    if (known && !by_discriminator_.contains(*known))
        change_discriminator(managed, *known);
}

// kelm has been out of reach, or events have been lost.
void agent::resynchronise(managed_session &managed, const inventory &all)
{
    const auto entry = all.find(managed.bfd.discriminator());
    const desired_state expected = managed.bfd.current();
    const found now = entry == all.end() ? found{} : entry->second;
    managed.port.assume(now.has_packet, now.has_session);
    if (expected.receive.has_value() != now.has_session ||
        expected.transmit.has_value() != now.has_packet) {
        handle(
            managed, [](session &s) { return s.forgotten(); },
            [](const session &) {
                return "kelm has lost the session; it may have been restarted";
            });
        return;
    }
    if (now.frame)
        on_packet(*managed.home, *now.frame);
    if (expected.receive && expected.receive->timer_active && !now.timer_active)
        on_failure(*managed.home, managed.bfd.discriminator());
    carry_out(managed, managed.bfd.current());
}

// What is ours and no longer wanted; with --sole-agent, all that is not ours.
void agent::delete_strangers(vrf &home, const inventory &all)
{
    for (const auto &[discriminator, entry] : all) {
        if (!is_unwanted(home, discriminator))
            continue;
        kelm_sync stranger(discriminator);
        stranger.assume(entry.has_packet, entry.has_session);
        stranger.remove(home.requests());
        log_.info(home.title() + ": deleted session " + std::to_string(discriminator) +
                  ", which is not configured");
    }
    std::erase_if(orphans_, [&](const orphan &each) {
        return each.netns == home.netns() && !is_leaving(each.discriminator);
    });
    must_save_ = true;
}

bool agent::is_leaving(std::uint32_t discriminator) const
{
    return std::ranges::any_of(leaving_, [=](const managed_session &managed) {
        return managed.bfd.discriminator() == discriminator;
    });
}

bool agent::is_unwanted(const vrf &home, std::uint32_t discriminator)
{
    const orphan ours = {home.netns(), discriminator};
    if (is_leaving(discriminator) || find(home, discriminator) != nullptr)
        return false;
    return options_.sole_agent || std::ranges::find(orphans_, ours) != orphans_.end();
}

// The mark phase covers all namespaces: it begins with the first request and ends when each
// namespace of ours has had one.
void agent::mark()
{
    if (sweep_ != sweep::not_marked)
        return;
    const auto connected =
        std::ranges::find_if(vrfs_, [](const auto &entry) { return entry.second->is_connected(); });
    connected->second->requests().execute(kelm::sync(KELM_SYNC_MARK));
    sweep_ = sweep::marked;
}

void agent::sweep_when_all_are_connected()
{
    const bool all_connected =
        std::ranges::all_of(vrfs_, [](const auto &entry) { return entry.second->is_connected(); });
    if (sweep_ != sweep::marked || !all_connected)
        return;
    vrfs_.begin()->second->requests().execute(kelm::sync(KELM_SYNC_SWEEP));
    sweep_ = sweep::not_wanted;
    log_.info("cleared kelm of the sessions in namespaces that are not configured");
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/agent.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <sys/random.h>

#include "kelm-agent/addressing.h"
#include "kelm-agent/matching.h"
#include "kelm-agent/reason.h"
#include "libkelm/error.h"
#include "libkelm/names.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

// Long enough for a packet that kelm sends at its next tick to be on its way; and as long as nobody
// should wait for an end.
constexpr std::chrono::milliseconds shortest_farewell{200};
constexpr std::chrono::seconds longest_farewell{10};
constexpr std::chrono::seconds retry_interval{1};

// What packets of the peer come from.
kelm::bytes sender_key(const session_config &config)
{
    const auto view = arrival_source(config).view();
    return {view.begin(), view.end()};
}

// RFC 5880 section 6.8.16: the peer is to hear AdminDown for the time that it takes it to miss us.
std::chrono::microseconds farewell(const session &bfd)
{
    const std::uint64_t missed =
        std::uint64_t{bfd.timing().multiplier()} * bfd.timing().transmit_interval();
    const bool is_missed = bfd.is_up() && !is_alone(bfd.config().kind);
    const std::chrono::microseconds wanted(is_missed ? missed : 0);
    return std::clamp<std::chrono::microseconds>(wanted, shortest_farewell, longest_farewell);
}

// A namespace that is gone has taken its sessions with it.
bool namespace_exists(const std::string &netns)
{
    try {
        kelm::in_netns(netns, [] {});
        return true;
    } catch (const kelm::error &problem) {
        return problem.number() != ENOENT;
    }
}

} // namespace

agent::agent(event_loop &loop, const logger &log, agent_options options, const agent_config &config)
    : loop_(loop), log_(log), options_(std::move(options))
{
    if (options_.sole_agent)
        sweep_ = sweep::not_marked;
    try {
        saved_state left = load_state(options_.state_file);
        saved_ = std::move(left.sessions);
        orphans_ = std::move(left.orphans);
    } catch (const std::runtime_error &problem) {
        log_.warning("cannot use " + options_.state_file + ": " + problem.what() +
                     "; sessions of an earlier run are recognised by their addresses");
    }
    on_idle_ = loop_.on_idle([this] {
        has_saved_ahead_ = false;
        save();
    });
    for (const auto &session : config.sessions)
        add(session);
    for (const auto &[name, saved] : saved_)
        orphans_.push_back({saved.netns, saved.discriminator});
    std::erase_if(orphans_, [](const orphan &each) { return !namespace_exists(each.netns); });
    for (const auto &each : orphans_)
        (void)home_of(each.netns);
    saved_.clear();
    must_save_ = true;
    save();
}

vrf &agent::home_of(const std::string &netns)
{
    auto &home = vrfs_[netns];
    if (!home)
        home = std::make_unique<vrf>(
            loop_, log_, netns,
            vrf::observer{
                .connected = [this](vrf &v) { on_connected(v); },
                .gone = [this](vrf &v) { on_gone(v); },
                .reported = [this](vrf &v, const kelm::report &r) { on_report(v, r); },
                .links_changed = [this](vrf &v) { on_links_changed(v); },
            });
    return *home;
}

void agent::add(const session_config &config)
{
    const auto saved = saved_.extract(config.name);
    const bool is_ours = saved && saved.mapped().identity == identity_text(config);
    if (saved && !is_ours)
        orphans_.push_back({saved.mapped().netns, saved.mapped().discriminator});
    const std::uint32_t discriminator =
        is_ours ? saved.mapped().discriminator : new_discriminator();

    vrf &home = home_of(config.netns);
    managed_session &added =
        sessions_.try_emplace(config.name, config, discriminator, home).first->second;
    added.past.since = std::chrono::system_clock::now();
    if (is_ours)
        added.saved = std::move(saved.mapped());
    enter(added);
    must_save_ = true;
    if (home.is_connected()) {
        added.has_begun = true;
        look_up_addressing(added);
        if (is_taken(added))
            change_discriminator(added, new_discriminator());
        carry_out(added, added.bfd.current());
    }
}

void agent::enter(managed_session &entered)
{
    by_discriminator_[entered.bfd.discriminator()] = &entered;
    by_peer_.emplace(sender_key(entered.bfd.config()), &entered);
}

void agent::forget(const managed_session &gone)
{
    by_discriminator_.erase(gone.bfd.discriminator());
    std::erase_if(by_peer_, [&](const auto &entry) { return entry.second == &gone; });
}

void agent::change_discriminator(managed_session &changed, std::uint32_t discriminator)
{
    forget(changed);
    changed.bfd = session(changed.bfd.config(), discriminator);
    changed.port = kelm_sync(discriminator);
    enter(changed);
    must_save_ = true;
}

// RFC 5880 section 10: unpredictable. Unique among our own here; whether another agent has it is
// asked when kelm can be asked.
std::uint32_t agent::new_discriminator() const
{
    std::uint32_t drawn = 0;
    do {
        if (getrandom(&drawn, sizeof drawn, 0) != sizeof drawn)
            kelm::throw_errno(errno, "no random numbers");
    } while (drawn == 0 || by_discriminator_.contains(drawn));
    return drawn;
}

bool agent::is_taken(managed_session &asking) const
{
    try {
        (void)asking.home->requests().statistics(asking.bfd.discriminator(), 0);
        return true;
    } catch (const kelm::refused &) {
        return false;
    } catch (const kelm::error &problem) {
        asking.home->disconnect(problem.what());
        return false;
    }
}

void agent::reconfigure(const agent_config &config)
{
    std::map<std::string, const session_config *> wanted;
    for (const auto &each : config.sessions)
        wanted.emplace(each.name, &each);

    std::vector<std::string> gone;
    for (const auto &[name, managed] : sessions_) {
        const auto found = wanted.find(name);
        if (found == wanted.end() ||
            identity_text(*found->second) != identity_text(managed.bfd.config()))
            gone.push_back(name);
    }
    for (const auto &name : gone)
        retire(name);
    for (const auto &[name, session] : wanted) {
        const auto known = sessions_.find(name);
        if (known == sessions_.end())
            add(*session);
        else if (known->second.bfd.config() != *session)
            update(known->second, *session);
    }
    for (const auto &[name, managed] : sessions_)
        attend_guard(managed); // which may be new, or of another interval
    must_save_ = true;
}

void agent::update(managed_session &changed, const session_config &config)
{
    log_.info("session " + config.name + ": configuration changed", {{"session", config.name}});
    const condition before = changed.bfd.state();
    if (changed.bfd.config().admin_down != config.admin_down)
        changed.is_taken_down = false;
    changed.past.add({std::chrono::system_clock::now(), before.state, before.state, before.diag,
                      "the configuration was changed"});
    handle(
        changed, [&](session &s) { return s.reconfigure(config); },
        [](const session &s) {
            return s.is_admin_down() ? "the configuration takes it down"
                                     : "the configuration lets it come up";
        });
}

// The peer is told; a moment later kelm forgets the session.
void agent::retire(const std::string &name)
{
    auto node = sessions_.extract(name);
    managed_session &managed = node.mapped();
    log_.info("session " + name + ": removed", {{"session", name}});
    forget(managed);
    orphans_.push_back({managed.home->netns(), managed.bfd.discriminator()});
    const auto time = farewell(managed.bfd);
    carry_out(managed, managed.bfd.set_admin_down(true));
    for (auto *each : {&managed.retry, &managed.look_again, &managed.on_member})
        *each = {}; // they know the session where it was
    const auto leaving = leaving_.insert(leaving_.end(), std::move(managed));
    leaving->alarm = loop_.after(time, [this, leaving] { drop(leaving); });
}

void agent::drop(std::list<managed_session>::iterator leaving)
{
    if (delete_from_kelm(*leaving))
        std::erase(orphans_, orphan{leaving->home->netns(), leaving->bfd.discriminator()});
    leaving_.erase(leaving);
    must_save_ = true;
}

void agent::set_admin_down(const std::string &name, bool down)
{
    const auto found = sessions_.find(name);
    if (found == sessions_.end())
        throw std::out_of_range("there is no session '" + name + "'");
    if (!down && found->second.bfd.config().admin_down)
        throw std::out_of_range("session '" + name + "' is kept down by the configuration");
    found->second.is_taken_down = down;
    must_save_ = true;
    handle(
        found->second, [&](session &s) { return s.set_admin_down(down); },
        [=](const session &) {
            return down ? "the administrator has taken it down"
                        : "the administrator lets it come up";
        });
}

void agent::shut_down(std::function<void()> done)
{
    std::chrono::microseconds time = shortest_farewell;
    for (auto &[name, managed] : sessions_) {
        time = std::max(time, farewell(managed.bfd));
        handle(
            managed, [](session &s) { return s.set_admin_down(true); },
            [](const session &) { return "the agent was stopped"; });
    }
    save();
    shut_down_timer_ = loop_.after(time, [this, done = std::move(done)] {
        while (!leaving_.empty())
            drop(leaving_.begin());
        for (auto &[name, managed] : sessions_)
            (void)delete_from_kelm(managed);
        done();
    });
}

// Whether that is certain.
bool agent::delete_from_kelm(managed_session &managed)
{
    if (!managed.home->is_connected())
        return false;
    try {
        managed.port.remove(managed.home->requests());
        return true;
    } catch (const kelm::error &problem) {
        managed.home->disconnect(problem.what());
        return false;
    }
}

// A dump for each namespace where more than one session is asked for.
std::vector<kelm::report> agent::statistics(const std::vector<std::string> &names)
{
    std::map<vrf *, std::vector<std::uint32_t>> wanted;
    for (const auto &name : names) {
        const managed_session &managed = sessions_.at(name);
        if (managed.home->is_connected())
            wanted[managed.home].push_back(managed.bfd.discriminator());
    }
    std::vector<kelm::report> all;
    for (const auto &[home, discriminators] : wanted) {
        try {
            const std::uint32_t only = discriminators.size() == 1 ? discriminators.front() : 0;
            std::ranges::move(home->requests().statistics(only, 0), std::back_inserter(all));
        } catch (const kelm::refused &) {
            continue; // kelm has no such session
        } catch (const kelm::error &problem) {
            home->disconnect(problem.what());
        }
    }
    return all;
}

void agent::handle(managed_session &managed, const handler &event, const reason_maker &reason)
{
    const condition before = managed.bfd.state();
    const intervals in_effect_before = managed.bfd.timing().in_effect();
    const desired_state wanted = event(managed.bfd);
    if (wanted.forget_sequence)
        managed.last_sequence.reset();
    if (managed.bfd.state().state != before.state)
        note_change(managed, before, reason(managed.bfd));
    if (managed.bfd.timing().in_effect() != in_effect_before)
        must_save_ = true;
    carry_out(managed, wanted);
    set_alarm(managed);
    if (managed.bfd.state() != before) {
        look_again_later(managed);
        fail_guarded(managed, before);
    }
    attend_guard(managed);
}

void agent::carry_out(managed_session &managed, const desired_state &wanted)
{
    if (!managed.home->is_connected() || !managed.addresses)
        return;
    try {
        managed.port.apply(managed.home->requests(), managed.bfd.config(), *managed.addresses,
                           wanted);
        managed.obstacle.clear();
    } catch (const kelm::refused &refusal) {
        if (managed.obstacle != refusal.what())
            log_.warning("session " + managed.bfd.config().name + ": " + refusal.what());
        managed.obstacle = refusal.what();
        managed.port.assume(true, true); // of which nothing may be true
        managed.retry = loop_.after(
            retry_interval, [this, &managed] { carry_out(managed, managed.bfd.current()); });
    } catch (const kelm::error &problem) {
        managed.port.assume(true, true);
        managed.home->disconnect(problem.what());
    }
}

void agent::note_change(managed_session &managed, const condition &before,
                        const std::string &reason)
{
    const session_config &config = managed.bfd.config();
    const condition &now = managed.bfd.state();
    managed.past.add({std::chrono::system_clock::now(), before.state, now.state, now.diag, reason});
    must_save_ = true;
    if (!std::exchange(has_saved_ahead_, true))
        save();
    const auto state = kelm::name_of(kelm::state_names, now.state);
    const auto previous = kelm::name_of(kelm::state_names, before.state);
    log_.info("session " + config.name + ": " + state + " (was " + previous + "): " + reason,
              {{"session", config.name},
               {"state", state},
               {"previous_state", previous},
               {"diagnostic", diag_words(now.diag)},
               {"reason", reason},
               {"peer", config.peer.text()}});
}

void agent::set_alarm(managed_session &managed)
{
    managed.alarm = {};
    const auto due = managed.bfd.due();
    if (!due)
        return;
    const auto left =
        std::chrono::ceil<std::chrono::microseconds>(*due - std::chrono::steady_clock::now());
    managed.alarm = loop_.after(std::max(left, std::chrono::microseconds(0)), [this, &managed] {
        handle(
            managed, [](session &s) { return s.wake(std::chrono::steady_clock::now()); },
            [](const session &) { return ""; });
    });
}

// The file says less than what is true, never more, between a change and the end of its round.
void agent::save()
{
    if (!must_save_)
        return;
    must_save_ = false;
    saved_state state;
    for (const auto &[name, managed] : sessions_) {
        if (managed.saved) {
            state.sessions[name] = *managed.saved;
            continue;
        }
        const session &bfd = managed.bfd;
        state.sessions[name] = {identity_text(bfd.config()),
                                bfd.config().netns,
                                bfd.discriminator(),
                                bfd.state().state,
                                managed.is_taken_down,
                                bfd.timing().in_effect(),
                                managed.past};
    }
    state.orphans = orphans_;
    try {
        save_state(options_.state_file, state);
    } catch (const std::runtime_error &problem) {
        log_.warning("cannot save " + options_.state_file + ": " + problem.what());
    }
}

} // namespace kelm_agent

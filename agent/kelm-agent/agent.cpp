// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/agent.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace kelm_agent
{

namespace
{

// How long kelm may take to delete everything when we stop.
constexpr std::chrono::seconds deletion_patience{2};

} // namespace

agent::place::place(agent &owner, const std::string &netns)
    : connection(owner.loop_, owner.log_, netns, owner, owner.options_.open),
      reconciling(owner.loop_, owner.log_, owner.sessions_, owner.restart_, connection),
      watch(owner.loop_, owner.log_, owner.sessions_, connection),
      on_gone(owner.loop_, owner.sessions_), on_links_changed(owner.loop_, owner.sessions_)
{
}

agent::agent(event_loop &loop, const logger &log, agent_options options, const agent_config &config)
    : loop_(loop), log_(log), options_(std::move(options)), restart_(log, options_.sole_agent),
      statistics_(loop, sessions_, [this](session_driver &lost) { on_suspicion(lost); }),
      record_(loop, log, options_.state_file, [this] { return snapshot(); }),
      on_idle_(loop.on_idle([this] {
          for (const auto *each : std::exchange(gone_, {}))
              sessions_.drop(*each);
      })),
      walk_(loop, sessions_)
{
    restart_.load(options_.state_file);
    for (const auto &session : config.sessions)
        add(session);
    restart_.end_claims();
    for (const auto &each : restart_.orphans())
        (void)place_of(each.netns);
    record_.write_now();
}

agent::place &agent::place_of(const std::string &netns)
{
    auto &found = places_[netns];
    if (!found)
        found = std::make_unique<place>(*this, netns);
    return *found;
}

// -- the configuration and the administrator

void agent::reconfigure(const agent_config &config, event_loop::callback done)
{
    if (on_shut_down_)
        return;
    adding_ = {};
    const auto kept = std::make_shared<const agent_config>(config);
    std::unordered_map<std::string, const session_config *> wanted;
    for (const auto &each : kept->sessions)
        wanted.emplace(each.name, &each);
    walk_.start(
        [this, wanted = std::move(wanted)](session_driver &known) {
            const auto found = wanted.find(known.config().name);
            adapt(known, found == wanted.end() ? nullptr : found->second);
        },
        [this, kept, done = std::move(done)] { add_missing(kept, done); });
}

void agent::adapt(session_driver &known, const session_config *wanted)
{
    if (wanted == nullptr || identity_text(*wanted) != identity_text(known.config()))
        retire(std::string(known.config().name));
    else if (known.config() != *wanted)
        known.reconfigure(*wanted);
}

void agent::add_missing(const std::shared_ptr<const agent_config> &config,
                        event_loop::callback done)
{
    adding_ = in_slices(loop_, [=, this, next = config->sessions.begin()]() mutable {
        if (next != config->sessions.end()) {
            if (sessions_.find(next->name) == nullptr)
                add(*next);
            ++next;
            return true;
        }
        for (const auto &[name, driver] : sessions_.all())
            if (driver->is_guard())
                driver->update_echo(); // which may be new, or of another interval
        record_.change();
        adding_ = {};
        done();
        return false;
    });
}

void agent::add(const session_config &config)
{
    auto saved = restart_.claim(config);
    const std::uint32_t discriminator =
        saved ? saved->discriminator : sessions_.new_discriminator();
    vrf &where = place_of(config.netns).connection;
    session_driver::listener &listening = *this;
    session_driver &added = sessions_.add(
        std::make_unique<session_driver>(loop_, log_, listening, where, config, discriminator));
    if (saved)
        added.expect(*std::move(saved));
    record_.change();
    if (where.is_connected())
        begin(added);
}

// Whether another agent has the discriminator only kelm knows.
void agent::begin(session_driver &begun)
{
    vrf &where = begun.where();
    const std::uint32_t discriminator = begun.bfd().discriminator();
    where.ask(kelm::get_stats(discriminator, 0), [this, &where, discriminator](int error) {
        session_driver *const asked = sessions_.find(where, discriminator);
        if (asked == nullptr || asked->has_begun())
            return;
        if (error == ENOENT)
            return asked->begin();
        sessions_.change_discriminator(*asked, sessions_.new_discriminator());
        record_.change();
        begin(*asked);
    });
}

// The peer is told; a moment later kelm forgets the session.
void agent::retire(const std::string &name)
{
    session_driver &retired = sessions_.retire(name);
    log_.info("session " + name + ": removed", {{"session", name}});
    changes_.tell(retired, {std::chrono::system_clock::now(), retired.bfd().state().state,
                            BFD_STATE_ADMIN_DOWN, retired.bfd().state().diag, "removed"});
    statistics_.forget(retired.bfd().discriminator());
    restart_.add_orphan({retired.where().netns(), retired.bfd().discriminator()});
    retired.retire();
}

void agent::on_removed(session_driver &removed, bool is_certain)
{
    if (removals_ > 0) {
        if (--removals_ == 0)
            end_shut_down();
        return;
    }
    if (is_certain)
        restart_.forget_orphan({removed.where().netns(), removed.bfd().discriminator()});
    gone_.push_back(&removed);
    record_.change();
}

void agent::set_admin_down(const std::string &name, bool down)
{
    session_driver *const found = sessions_.find(name);
    if (found == nullptr)
        throw std::out_of_range("no session '" + name + "'");
    if (!down && found->config().admin_down)
        throw std::out_of_range("session '" + name + "' is kept down by the configuration");
    found->set_admin_down(down);
}

void agent::shut_down(event_loop::callback done)
{
    if (on_shut_down_)
        return;
    on_shut_down_ = std::move(done);
    adding_ = {};
    const auto hold = std::make_shared<std::chrono::microseconds>(0);
    walk_.start([hold](session_driver &each) { *hold = std::max(*hold, each.stop()); },
                [this, hold] {
                    record_.write_now();
                    shut_down_timer_ = loop_.after(*hold, [this] { remove_all(); });
                });
}

void agent::remove_all()
{
    shut_down_timer_ = loop_.after(deletion_patience, [this] { end_shut_down(); });
    removals_ = sessions_.size() + sessions_.retired().size() + 1;
    for (const auto &[discriminator, each] : sessions_.retired())
        each->remove();
    walk_.start([](session_driver &each) { each.remove(); },
                [this] {
                    if (--removals_ == 0)
                        end_shut_down();
                });
}

void agent::end_shut_down()
{
    shut_down_timer_ = {};
    on_shut_down_();
}

void agent::refresh_statistics(const std::vector<std::string> &names, event_loop::callback done)
{
    std::vector<const session_driver *> wanted;
    for (const auto &name : names)
        if (const auto *const found = sessions_.find(name))
            wanted.push_back(found);
    statistics_.refresh(wanted, std::move(done));
}

std::vector<namespace_report> agent::report_by_namespace() const
{
    std::vector<namespace_report> all;
    for (const auto &[netns, each] : places_)
        all.push_back({netns, each->connection.is_connected() ? 1U : 0U, each->to_act.size(),
                       each->reconciling.overruns(), each->watch.lost()});
    return all;
}

saved_state agent::snapshot() const
{
    saved_state state;
    for (const auto &[name, driver] : sessions_.all())
        state.sessions[name] = driver->record();
    state.orphans = restart_.orphans();
    return state;
}

// -- connections

void agent::on_connected(vrf &connected)
{
    place &there = place_of(connected);
    there.on_gone.stop();
    there.acting = {};
    there.to_act.clear();
    switch (restart_.marking()) {
    case restart::mark::done:
        return start(there);
    case restart::mark::under_way:
        return; // started then
    case restart::mark::due:
        restart_.mark_all(connected, [this] {
            for (const auto &[netns, each] : places_)
                if (each->connection.is_connected())
                    start(*each);
        });
    }
}

void agent::start(place &there)
{
    there.connection.ask(kelm::tx_path_ready(), [](int) {});
    there.reconciling.start(reconciler::cause::connection, [this, &there] {
        there.watch.start();
        sweep_when_all_are_reconciled();
        record_.change();
    });
}

void agent::sweep_when_all_are_reconciled()
{
    const bool is_complete = std::ranges::all_of(
        places_, [](const auto &entry) { return entry.second->reconciling.is_done(); });
    if (is_complete)
        restart_.sweep(places_.begin()->second->connection);
}

void agent::on_disconnected(vrf &lost)
{
    place &there = place_of(lost);
    there.reconciling.stop();
    there.watch.stop();
    statistics_.on_disconnected(lost);
    restart_.on_disconnected(lost);
    for (const auto &[name, each] : sessions_.all())
        if (&each->where() == &lost)
            each->on_disconnected();
    for (const auto &[discriminator, each] : sessions_.retired())
        if (&each->where() == &lost)
            each->on_disconnected();
}

// Nothing is sent or heard any more.
void agent::on_gone(vrf &lost)
{
    session_walk &walk = place_of(lost).on_gone;
    if (walk.is_under_way())
        return;
    walk.start(
        [&lost](session_driver &each) {
            if (&each.where() == &lost)
                each.on_kelm_gone();
        },
        {});
}

void agent::on_links_changed(vrf &where)
{
    place &there = place_of(where);
    there.have_links_changed_again = there.on_links_changed.is_under_way();
    if (there.have_links_changed_again)
        return;
    there.on_links_changed.start(
        [&where](session_driver &each) {
            if (&each.where() == &where && !each.config().interface.empty())
                each.update_addressing();
        },
        [this, &there] {
            if (std::exchange(there.have_links_changed_again, false))
                on_links_changed(there.connection);
        });
}

// -- events

void agent::on_event(vrf &where, const kelm::report &event)
{
    const auto keep = [&](session_driver *concerned, const auto &...what) {
        if (concerned == nullptr)
            return;
        if (!concerned->has_kept())
            place_of(where).to_act.push_back(concerned->bfd().discriminator());
        concerned->keep(what...);
    };
    if (const auto *const change = std::get_if<kelm::packet_change>(&event)) {
        const auto frame = kelm::decode_frame(*change);
        if (!frame)
            return;
        const std::uint32_t discriminator = frame->bfd.fields.your_discriminator;
        keep(discriminator != 0 ? sessions_.find(where, discriminator)
                                : sessions_.find(where, *change, *frame),
             *change, *frame);
    } else if (const auto *const failure = std::get_if<kelm::session_failure>(&event)) {
        keep(sessions_.find(where, failure->discriminator), *failure);
    }
}

void agent::on_batch_end(vrf &where)
{
    place &there = place_of(where);
    if (!there.acting && !there.to_act.empty())
        there.acting = in_slices(loop_, [this, &there] { return act_on_next(there); });
}

bool agent::act_on_next(place &there)
{
    if (there.to_act.empty()) {
        there.acting = {};
        return false;
    }
    const std::uint32_t next = there.to_act.front();
    there.to_act.pop_front();
    if (session_driver *const concerned = sessions_.find(there.connection, next))
        concerned->act();
    return true;
}

// What is kept is acted on when it has been compared with what kelm has.
void agent::on_overrun(vrf &where)
{
    place &there = place_of(where);
    there.acting = {};
    there.reconciling.start(reconciler::cause::overrun, {});
}

void agent::on_suspicion(session_driver &suspected)
{
    place_of(suspected.where()).watch.suspect(suspected);
}

} // namespace kelm_agent

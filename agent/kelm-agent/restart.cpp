// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/restart.h"

#include <algorithm>

#include "kelm-agent/kelm_sync.h"
#include "libkelm/error.h"
#include "libkelm/names.h"
#include "libkelm/netns.h"

namespace kelm_agent
{

namespace
{

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

void restart::load(const std::string &state_file)
{
    try {
        saved_state left = load_state(state_file);
        saved_ = std::move(left.sessions);
        orphans_ = std::move(left.orphans);
    } catch (const std::runtime_error &problem) {
        log_.warning("cannot use " + state_file + ": " + problem.what() +
                     "; sessions of an earlier run are recognised by their addresses");
    }
}

std::optional<saved_session> restart::claim(const session_config &config)
{
    auto node = saved_.extract(config.name);
    if (node.empty())
        return std::nullopt;
    if (node.mapped().identity == identity_text(config))
        return std::move(node.mapped());
    add_orphan({node.mapped().netns, node.mapped().discriminator});
    return std::nullopt;
}

void restart::end_claims()
{
    for (const auto &[name, saved] : saved_)
        add_orphan({saved.netns, saved.discriminator});
    saved_.clear();
    std::erase_if(orphans_, [](const orphan &each) { return !namespace_exists(each.netns); });
}

void restart::adopt(session_set &sessions, session_driver &adopted, const inventory &all)
{
    if (!adopted.is_expected())
        choose_discriminator(sessions, adopted, all);
    const kelm_entry &left = all.at(adopted.bfd().discriminator());
    adopted.adopt(left);
    if (left.has_session || left.has_packet)
        ++adopted_[adopted.bfd().state().state];
}

// For a session of which there is no record: that of its like in kelm, or a new one.
void restart::choose_discriminator(session_set &sessions, session_driver &chosen,
                                   const inventory &all)
{
    while (all.contains(chosen.bfd().discriminator())) // somebody else's
        sessions.change_discriminator(chosen, sessions.new_discriminator());
    if (!chosen.addresses())
        return;
    const auto known = all.recognise(chosen.config(), *chosen.addresses());
    if (known && !sessions.contains(*known))
        sessions.change_discriminator(chosen, *known);
}

void restart::log_adopted(const vrf &where)
{
    std::string list;
    for (const auto &[state, count] : std::exchange(adopted_, {}))
        list += (list.empty() ? "" : ", ") + std::to_string(count) + " still " +
                kelm::name_of(kelm::state_names, state);
    if (!list.empty())
        log_.info(where.title() + ": sessions after agent restart: " + list);
}

void restart::delete_unknown(session_set &sessions, vrf &where, const inventory &all)
{
    std::size_t deleted = 0;
    for (const auto &[discriminator, entry] : all.entries()) {
        if (!is_unwanted(sessions, where, discriminator))
            continue;
        // That one has gone meanwhile is no error.
        if (entry.has_session)
            where.ask(kelm::delete_session(discriminator), [](int) {});
        if (entry.has_packet)
            where.ask(kelm::delete_packet(discriminator), [](int) {});
        ++deleted;
    }
    if (deleted > 0)
        log_.info(where.title() + ": deleted " + std::to_string(deleted) +
                  " sessions that are not configured");
    std::erase_if(orphans_, [&](const orphan &each) {
        return each.netns == where.netns() && !sessions.is_retired(where, each.discriminator);
    });
}

bool restart::is_unwanted(const session_set &sessions, const vrf &where,
                          std::uint32_t discriminator) const
{
    if (sessions.is_retired(where, discriminator) || sessions.find(where, discriminator) != nullptr)
        return false;
    return is_sole_agent_ || orphans_.contains({where.netns(), discriminator});
}

void restart::mark_all(vrf &connected, event_loop::callback done)
{
    mark_ = mark::under_way;
    marker_ = &connected;
    connected.ask(kelm::sync(KELM_SYNC_MARK), [this, done = std::move(done)](int) {
        mark_ = mark::done;
        marker_ = nullptr;
        done();
    });
}

void restart::on_disconnected(const vrf &lost)
{
    if (marker_ == &lost)
        mark_ = mark::due;
}

void restart::sweep(vrf &connected)
{
    if (!std::exchange(must_sweep_, false))
        return;
    connected.ask(kelm::sync(KELM_SYNC_SWEEP), [this](int error) {
        if (error == 0)
            log_.info("cleared kelm of the sessions in namespaces that are not configured");
    });
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
//
// What an earlier run of the agent has left: on record, and in kelm.
#pragma once

#include "kelm-agent/log.h"
#include "kelm-agent/reconcile.h"
#include "kelm-agent/session_set.h"
#include "kelm-agent/vrf.h"

namespace kelm_agent
{

class restart
{
  public:
    restart(const logger &log, bool is_sole_agent)
        : log_(log), is_sole_agent_(is_sole_agent), mark_(is_sole_agent ? mark::due : mark::done),
          must_sweep_(is_sole_agent)
    {
    }

    // Reads the record. A damaged one is not used, with a warning.
    void load(const std::string &state_file);
    // The record of this configuration's session, to be made use of once.
    std::optional<saved_session> claim(const session_config &);
    // What has not been claimed is an orphan now.
    void end_claims();

    // In kelm, and wanted no more.
    void add_orphan(orphan lost) { orphans_.insert(std::move(lost)); }
    void forget_orphan(const orphan &gone) { orphans_.erase(gone); }
    const std::set<orphan> &orphans() const { return orphans_; }

    // Takes over what is left of a session.
    void adopt(session_set &, session_driver &, const inventory &);
    // How many were taken over and in which state they are, in one line.
    void log_adopted(const vrf &);
    // Deletes what is ours and no longer wanted; as the sole agent, all that is not ours.
    void delete_unknown(session_set &, vrf &, const inventory &);

    // As the sole agent: the mark phase covers all namespaces. It begins before any other request
    // and ends, with a sweep of what is in none of ours, when all of ours have been reconciled.
    enum class mark { due, under_way, done };
    mark marking() const { return mark_; }
    void mark_all(vrf &connected, event_loop::callback done);
    void sweep(vrf &connected);
    void on_disconnected(const vrf &);

  private:
    void choose_discriminator(session_set &, session_driver &, const inventory &);
    bool is_unwanted(const session_set &, const vrf &, std::uint32_t discriminator) const;

    const logger &log_;
    bool is_sole_agent_;
    std::map<std::string, saved_session> saved_; // not claimed yet
    std::set<orphan> orphans_;
    std::map<std::uint8_t, std::size_t, std::greater<>> adopted_; // how many, by state
    mark mark_;
    const vrf *marker_ = nullptr; // where the mark is under way
    bool must_sweep_;
};

} // namespace kelm_agent

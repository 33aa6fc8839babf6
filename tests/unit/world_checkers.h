// SPDX-License-Identifier: GPL-2.0
//
// Observers of a run: models of what the engine has promised, fed with what it was told and what
// it did. They know nothing of its insides, and complain in words.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "wire_fixture.h"

namespace sim
{

// A session or packet, by namespace and discriminator.
using record_id = std::pair<const net *, std::uint32_t>;

class complaints
{
  public:
    void add(std::uint64_t tick, const record_id &id, const std::string &what)
    {
        list.push_back("tick " + std::to_string(tick) + ", " + std::to_string(id.second) + ": " +
                       what);
    }
    std::vector<std::string> list;
};

// Detection: never a failure early, one for each silence, none missing once timers have run.
class detection_checker
{
  public:
    explicit detection_checker(complaints &to) : complaints_(to) {}

    void configured(const record_id &id, std::uint64_t detection_ticks, std::uint64_t now)
    {
        sessions[id] = {detection_ticks, now + detection_ticks};
    }
    void accepted(const record_id &id, std::uint64_t now)
    {
        const auto found = sessions.find(id);
        if (found != sessions.end() && found->second.deadline)
            found->second.deadline = now + found->second.ticks;
    }
    void removed(const record_id &id) { sessions.erase(id); }

    void failed(const record_id &id, std::uint64_t now)
    {
        const auto found = sessions.find(id);
        if (found == sessions.end())
            return complaints_.add(now, id, "failure of a session that does not exist");
        std::optional<std::uint64_t> &deadline = found->second.deadline;
        if (!deadline)
            return complaints_.add(now, id, "second failure for one silence");
        if (now < *deadline)
            complaints_.add(now, id, "failure before " + std::to_string(*deadline));
        deadline.reset();
    }

    // All timers that are due have run.
    void timers_have_run(std::uint64_t now)
    {
        for (auto &[id, each] : sessions) {
            if (!each.deadline || now < *each.deadline)
                continue;
            complaints_.add(now, id, "no failure at " + std::to_string(*each.deadline));
            each.deadline.reset();
        }
    }

    [[nodiscard]] bool due(const record_id &id, std::uint64_t now) const
    {
        const auto found = sessions.find(id);
        return found != sessions.end() && found->second.deadline && *found->second.deadline <= now;
    }

  private:
    struct detection {
        std::uint64_t ticks;
        std::optional<std::uint64_t> deadline; // none after a failure
    };
    complaints &complaints_;
    std::map<record_id, detection> sessions;
};

// Transmission: only what exists, well-formed, neither too soon nor too late, numbered without
// gaps, and latched after a failure. Sends that were made to fail are allowed for.
class transmission_checker
{
  public:
    explicit transmission_checker(complaints &to) : complaints_(to) {}

    // failed_sends: so far, everywhere.
    void configured(const record_id &id, std::uint64_t period_ticks, std::uint64_t now,
                    std::uint64_t failed_sends)
    {
        const auto [found, is_new] = packets.try_emplace(id);
        packet &p = found->second;
        if (is_new) { // what was never sent counts from its creation
            p.last = now;
            p.failed_sends = failed_sends;
        }
        p.period_ticks = period_ticks;
        p.reconfigured = true;
        p.replaced_at = now;
        p.latched = false;
        // The last transmission may be one that failed.
        const bool none_failed = failed_sends == p.failed_sends;
        p.latest = none_failed ? std::max(now + 1, p.last + period_ticks) : now + period_ticks;
    }
    void removed(const record_id &id) { packets.erase(id); }

    void latched(const record_id &id, std::uint64_t now)
    {
        const auto found = packets.find(id);
        if (found == packets.end())
            return;
        packet &p = found->second;
        p.asked_again = p.latch_asked.has_value();
        p.latch_asked = now;
        p.maybe_applied = false;
    }

    void sent(const frame &sent, std::uint64_t failed_sends)
    {
        const record_id id{sent.netns, ntohl(ctrl_in(sent.data).my_discriminator)};
        const auto found = packets.find(id);
        if (found == packets.end())
            return complaints_.add(sent.tick, id, "transmission of what does not exist");
        packet &p = found->second;
        const bool none_failed = failed_sends == p.failed_sends;
        if (!udp_checksum_right(sent.data))
            complaints_.add(sent.tick, id, "wrong checksum");
        if (!p.reconfigured && sent.tick - p.last + 1 < p.period_ticks * 3 / 4)
            complaints_.add(sent.tick, id, "transmission too soon after " + std::to_string(p.last));
        check_latch(p, id, sent, none_failed);
        const std::uint32_t number =
            ntohl(read_as<bfd_auth_sha1>(bfd_in(sent.data).subspan(BFD_CTRL_LEN)).seq_num);
        if (number < p.next_number || (number > p.next_number && none_failed))
            complaints_.add(sent.tick, id,
                            "sequence number " + std::to_string(number) + " instead of " +
                                std::to_string(p.next_number));
        p.next_number = number + 1;
        p.last = sent.tick;
        p.latest = sent.tick + p.period_ticks;
        p.reconfigured = false;
        p.failed_sends = failed_sends;
        ++p.count;
    }

    // All timers that are due have run.
    void timers_have_run(std::uint64_t now, std::uint64_t failed_sends)
    {
        for (auto &[id, p] : packets) {
            if (now <= p.latest)
                continue;
            if (failed_sends == p.failed_sends)
                complaints_.add(now, id, "no transmission by " + std::to_string(p.latest));
            p.latest = now + p.period_ticks;
        }
    }

    [[nodiscard]] std::uint64_t count(const record_id &id) const { return packets.at(id).count; }

  private:
    struct packet {
        std::uint64_t period_ticks = 0;
        std::uint64_t last = 0;
        std::uint64_t latest = 0;  // the next transmission
        bool reconfigured = false; // since the last one
        bool latched = false;      // the bytes, until replaced
        bool uncertain = false;    // whether it is latched
        std::uint64_t replaced_at = 0;
        std::optional<std::uint64_t> latch_asked; // the tick, until applied
        bool asked_again = false;                 // before it was applied
        bool maybe_applied = false;
        std::uint32_t next_number = 0;
        std::uint64_t failed_sends = 0; // until the last one, everywhere
        std::uint64_t count = 0;
    };

    void check_latch(packet &p, const record_id &id, const frame &sent, bool none_failed)
    {
        const bool carries = ctrl_in(sent.data).diag == BFD_DIAG_CTRL_TIMEOUT;
        if (carries && p.replaced_at == sent.tick) {
            p.uncertain = true; // another processor may have sent the old bytes
            return;
        }
        // A send that failed may have been this packet's, and have applied the latch.
        const bool certain = !std::exchange(p.uncertain, false) && none_failed;
        const bool overdue = p.latch_asked && *p.latch_asked < sent.tick;
        if (certain && !carries && (p.latched || (overdue && !p.maybe_applied)))
            complaints_.add(sent.tick, id, "latch not applied");
        if (certain && carries && !p.latched && !p.latch_asked)
            complaints_.add(sent.tick, id, "latched without a failure");
        // At the very tick of a failure, a packet that an earlier one has latched tells nothing.
        const bool earlier = carries && !overdue && (p.latched || p.asked_again);
        p.maybe_applied = p.latch_asked && (!certain || earlier);
        if ((carries || overdue) && !p.maybe_applied)
            p.latch_asked.reset();
        p.latched = carries;
    }

    complaints &complaints_;
    std::map<record_id, packet> packets;
};

} // namespace sim

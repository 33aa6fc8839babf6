// SPDX-License-Identifier: GPL-2.0
//
// What kelm has told of one session, kept until it is acted on; what says the same only once.
#pragma once

#include <deque>
#include <utility>

#include "libkelm/packet.h"
#include "libkelm/report.h"

namespace kelm_agent
{

class inbox
{
  public:
    struct entry {
        enum { packet, failure, old_failure } kind;
        kelm::bfd_fields fields; // of a packet
    };

    void add_packet(kelm::bfd_fields);
    void add_failure() { kept_.push_back({entry::failure, {}}); }
    // Of a receive session that has been made anew since.
    void add_old_failure() { kept_.push_back({entry::old_failure, {}}); }
    void add_all(const std::deque<entry> &);

    bool is_empty() const { return kept_.empty(); }
    bool contains_packet(const kelm::bfd_fields &) const;
    // Empties it; the oldest first.
    std::deque<entry> take_all() { return std::exchange(kept_, {}); }

  private:
    std::deque<entry> kept_;
};

// What kelm compares to decide whether a packet is passed up: the mandatory section and the first
// two bytes of the authentication section.
kelm::bytes essence(const kelm::packet_change &);

} // namespace kelm_agent

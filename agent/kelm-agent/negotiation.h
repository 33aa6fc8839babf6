// SPDX-License-Identifier: GPL-2.0
//
// Transmit intervals and detection times: RFC 5880 sections 6.8.2 to 6.8.4
// and 6.8.7, and the Poll Sequences by which a peer learns of a change (6.5).
#pragma once

#include <cstdint>

#include "kelm.h"

namespace kelm_agent
{

// The shortest interval while a session is not Up: one second.
constexpr kelm_microsecs slow_interval = 1'000'000;

struct intervals {
    kelm_microsecs desired_min_tx = 0;
    kelm_microsecs required_min_rx = 0;
    bool operator==(const intervals &) const = default;
};

// The peer's timing, from its packets.
struct peer_timing {
    std::uint8_t detect_multiplier = 0;
    kelm_microsecs desired_min_tx = 0;
    kelm_microsecs required_min_rx = 1; // RFC 5880 section 6.8.1: before the first packet
    bool operator==(const peer_timing &) const = default;
};

class negotiation
{
  public:
    // `alone`: received packets are our own or reflections of them, so that their rate and
    // multiplier are ours and there is no peer to poll.
    negotiation(intervals configured, std::uint8_t multiplier, bool alone)
        : configured_(configured), multiplier_(multiplier), alone_(alone)
    {
    }

    void configure(intervals, std::uint8_t multiplier);
    void set_up(bool up);
    void hear(const peer_timing &peer) { peer_ = peer; }
    // Continues with the intervals that an earlier run of the agent had agreed on with the peer.
    void resume(intervals agreed);

    // In our packets: Desired Min TX and Required Min RX Interval.
    intervals advertised() const { return up_ ? configured_ : slowed(configured_); }

    // What the peer may rely on. Differs from `advertised` while a Poll Sequence is due or in
    // progress.
    intervals in_effect() const;

    bool needs_poll() const { return up_ && !alone_ && is_unconfirmed_; }
    void poll_begins() { polled_ = advertised(); }
    void poll_ends();

    // Whether the peer wants periodic packets at all.
    bool peer_listens() const { return peer_.required_min_rx != 0; }
    // Before jitter.
    kelm_microsecs transmit_interval() const;
    // The peer's packets arrive at least this often; receive_multiplier() of them missing is a
    // failure. The product, the detection time, fits 32 bits.
    kelm_microsecs receive_interval() const;
    std::uint8_t receive_multiplier() const
    {
        return alone_ ? multiplier_ : peer_.detect_multiplier;
    }
    kelm_microsecs detection_time() const { return receive_multiplier() * receive_interval(); }

    std::uint8_t multiplier() const { return multiplier_; }
    const peer_timing &peer() const { return peer_; }

  private:
    static intervals slowed(intervals);
    void agree(intervals);

    intervals configured_;
    // Valid while Up. If the peer may go by either of two values, the more cautious one:
    intervals agreed_{}; // confirmed by the peer, or told to it since
    intervals polled_{}; // told by the Poll Sequence in progress
    bool is_unconfirmed_ = false;
    std::uint8_t multiplier_;
    bool alone_;
    bool up_ = false;
    peer_timing peer_;
};

} // namespace kelm_agent

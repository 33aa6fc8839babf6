// SPDX-License-Identifier: GPL-2.0
//
// One BFD session: events go in, what kelm should do comes out. No sockets, no clock.
#pragma once

#include <chrono>
#include <optional>

#include "kelm-agent/fsm.h"
#include "kelm-agent/model.h"
#include "libkelm/packet.h"

namespace kelm_agent
{

using steady_time = std::chrono::steady_clock::time_point;

// The packet that kelm should send.
struct transmission {
    kelm::bfd_fields bfd;
    kelm_microsecs period = 0;
    std::uint16_t jitter = BFD_TX_JITTER_75; // bfd_tx_jitter_types
    kelm_microsecs latch_period = slow_interval;
    bool is_silent = false; // no out-of-band packets either
    bool operator==(const transmission &) const = default;
};

// About 71 minutes: as good as silent, but the packet stays in kelm, keeps its sequence number, and
// can be sent out of band.
constexpr kelm_microsecs idle_period = 0xffffffff;

// How kelm should receive.
struct reception {
    bool timer_active = false;
    std::uint8_t multiplier = 0;
    kelm_microsecs period = 0;
    std::uint8_t latch_diag = BFD_DIAG_NONE; // 0: timeouts do not change our packet
    std::uint32_t also_latched = 0;          // another session's packet that fails with it; 0: none
    bool operator==(const reception &) const = default;
};

// What kelm should do after an event. Without `transmit` or `receive`, kelm should have no packet,
// or no receive session.
struct desired_state {
    std::optional<transmission> transmit;
    std::optional<reception> receive;
    bool is_final = false; // send the packet at once, with the Final bit
    bool rearm = false;    // restart the detection timer, even if nothing has changed
    bool renew = false;    // recreate the receive session: it forgets the last packet passed up
    bool forget_sequence = false; // with `renew`: accept any sequence number next
};

// What an earlier run of the agent has left of a session, in kelm and in our records.
struct remains {
    std::optional<kelm::bfd_fields> heard; // the last packet passed up
    bool timer_active = false;
    std::optional<std::uint8_t> state; // as recorded
    std::optional<intervals> in_effect;
    bool admin_down = false;
    bool has_packet = false;
};

class session
{
  public:
    session(session_config, std::uint32_t discriminator);

    // What kelm should have now.
    desired_state current() const;

    // Events:
    // Takes over from an earlier run of the agent. The peer of a healthy session notices nothing.
    desired_state adopt(const remains &, steady_time now);
    // An authentic packet from the peer, for this session.
    desired_state packet(const kelm::bfd_fields &, steady_time now);
    // The detection timer has expired.
    desired_state timeout(steady_time now);
    // kelm has lost the session and its packet.
    desired_state forgotten();
    desired_state set_admin_down(bool down);
    // The echo session that guards this one has failed (RFC 5880 section 6.8.5).
    desired_state echo_failed();
    // For a guard: whether it should run, how often, and whose packet fails with it.
    desired_state guard(bool active, kelm_microsecs interval, std::uint32_t guarded_discriminator);
    // The identity must not change.
    desired_state reconfigure(session_config);
    // At due().
    desired_state wake(steady_time now);

    // When to call wake().
    std::optional<steady_time> due() const;

    const session_config &config() const { return config_; }
    std::uint32_t discriminator() const { return discriminator_; }
    const condition &state() const { return condition_; }
    bool is_up() const { return condition_.state == BFD_STATE_UP; }
    bool is_admin_down() const { return condition_.state == BFD_STATE_ADMIN_DOWN; }
    std::uint32_t remote_discriminator() const { return remote_discriminator_; }
    // Whether the following values are from a packet of the peer, not initial ones.
    bool has_heard_peer() const { return has_heard_peer_; }
    // The peer's state and diagnostic in its last packet.
    const condition &remote() const { return remote_; }
    bool remote_demand() const { return remote_demand_; }
    // How often we may send echo packets; 0: never.
    kelm_microsecs remote_min_echo_rx() const { return remote_min_echo_rx_; }
    bool is_idle() const { return is_idle_; }
    bool polling() const { return polling_; }
    const negotiation &timing() const { return timing_; }

  private:
    desired_state settle(desired_state so_far = {});
    desired_state decide(desired_state so_far = {}) const;
    void become(condition);
    void forget_peer();
    void hear(const kelm::bfd_fields &);
    void manage_poll(bool answering, std::optional<steady_time> now);
    bool has_packet() const;
    bool may_speak() const;
    bool transmits_periodically() const;
    transmission wanted_transmission() const;
    reception wanted_reception() const;
    kelm::bfd_fields control_packet() const;

    session_config config_;
    std::uint32_t discriminator_;
    condition condition_;
    negotiation timing_;
    std::uint32_t remote_discriminator_ = 0;
    condition remote_;
    bool remote_demand_ = false;
    kelm_microsecs remote_min_echo_rx_ = 0;
    bool has_spoken_ = false; // kelm has a packet with a sequence number
    bool is_idle_;            // a guard with nothing to guard: not in kelm
    std::uint32_t guarded_discriminator_ = 0;
    kelm::bfd_fields said_;               // our packet after the last event
    bool is_resting_ = false;             // nothing to say to a peer that wants no periodic packets
    std::optional<steady_time> rest_due_; // then it rests
    bool has_heard_peer_ = false;
    bool is_heard_ = false;                 // the detection timer is running
    bool polling_ = false;                  // a Poll Sequence is in progress
    std::optional<steady_time> poll_due_;   // no Poll bit until then
    std::optional<steady_time> forget_due_; // the peer's sequence number is valid until then
};

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
//
// One BFD session: what happens to it goes in, what kelm is to do comes out. No sockets and no
// clock in here.
#pragma once

#include <chrono>
#include <optional>

#include "kelm-agent/fsm.h"
#include "kelm-agent/model.h"
#include "libkelm/packet.h"

namespace kelm_agent
{

using steady_time = std::chrono::steady_clock::time_point;

// The packet that kelm is to send.
struct transmission {
    kelm::bfd_fields bfd;
    kelm_microsecs period = 0;
    std::uint16_t jitter = BFD_TX_JITTER_75; // bfd_tx_jitter_types
    kelm_microsecs latch_period = slow_interval;
    bool is_silent = false; // not even news goes out
    bool operator==(const transmission &) const = default;
};

// A period of about 71 minutes: as good as silent, yet the packet is there, keeps its sequence
// number, and can be sent out of band.
constexpr kelm_microsecs idle_period = 0xffffffff;

// How kelm is to receive.
struct reception {
    bool timer_active = false;
    std::uint8_t multiplier = 0;
    kelm_microsecs period = 0;
    std::uint8_t latch_diag = BFD_DIAG_NONE; // 0: our packet stays as it is when the timer expires
    std::uint32_t also_latched = 0; // another session's packet that shares its fate; 0: none
    bool operator==(const reception &) const = default;
};

// What kelm is to do after an event. Nothing where kelm is to have no packet, or no session.
struct desired_state {
    std::optional<transmission> transmit;
    std::optional<reception> receive;
    bool is_final = false; // the packet goes out at once, with the Final bit
    bool rearm = false;    // the detection timer starts from now, whatever else is unchanged
    bool renew = false;    // the receive session is made anew: it forgets the packet passed up last
    bool forget_sequence = false; // with `renew`: the peer may go on from any sequence number
};

// What is left of a session in kelm, and in our records, from an earlier run of the agent.
struct remains {
    std::optional<kelm::bfd_fields> heard; // the packet that kelm passed up last
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

    // Events. Each one changes what the accessors below tell.
    // What kelm is to have now; nothing has happened.
    desired_state current() const;
    // Takes over what an earlier run has left. Nothing that a healthy session's peer could notice
    // is ordered.
    desired_state adopt(const remains &, steady_time now);
    // A packet of the peer, authentic and for this session.
    desired_state packet(const kelm::bfd_fields &, steady_time now);
    // The detection timer has expired.
    desired_state timeout(steady_time now);
    // kelm has lost the session, and the packet with it.
    desired_state forgotten();
    desired_state set_admin_down(bool down);
    // The echo session that guards this one has failed (RFC 5880 section 6.8.5).
    desired_state echo_failed();
    // For a guard: whether it is to run, how often, and whose packet shares its fate.
    desired_state guard(bool active, kelm_microsecs interval, std::uint32_t guarded_discriminator);
    // The identity must be the same.
    desired_state reconfigure(session_config);
    // When due() has come.
    desired_state wake(steady_time now);

    // When the session wants to be woken.
    std::optional<steady_time> due() const;

    const session_config &config() const { return config_; }
    std::uint32_t discriminator() const { return discriminator_; }
    const condition &state() const { return condition_; }
    bool is_up() const { return condition_.state == BFD_STATE_UP; }
    bool is_admin_down() const { return condition_.state == BFD_STATE_ADMIN_DOWN; }
    std::uint32_t remote_discriminator() const { return remote_discriminator_; }
    // Whether what follows is known from a packet of the peer.
    bool has_heard_peer() const { return has_heard_peer_; }
    // The peer's state and reason as its last packet told them.
    const condition &remote() const { return remote_; }
    bool remote_demand() const { return remote_demand_; }
    // How often the peer lets us have our echo; 0: not at all.
    kelm_microsecs remote_min_echo_rx() const { return remote_min_echo_rx_; }
    bool is_idle() const { return is_idle_; }
    bool polling() const { return polling_; }
    const negotiation &timing() const { return timing_; }

  private:
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
    bool has_spoken_ = false; // to the peer, so that kelm has a packet with a sequence number
    bool is_idle_;            // a guard with nothing to guard: kelm has nothing of it
    std::uint32_t guarded_discriminator_ = 0;
    bool has_heard_peer_ = false;
    bool is_heard_ = false;                 // the detection timer runs
    bool polling_ = false;                  // a Poll Sequence is under way
    std::optional<steady_time> poll_due_;   // our Poll bit rests until then
    std::optional<steady_time> forget_due_; // the peer's sequence numbers hold until then
};

} // namespace kelm_agent

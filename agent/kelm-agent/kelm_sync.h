// SPDX-License-Identifier: GPL-2.0
//
// From what a session wants to what kelm is asked: requests are made of a desired state, and only
// those that change something.
#pragma once

#include "kelm-agent/addressing.h"
#include "kelm-agent/session.h"
#include "libkelm/client.h"

namespace kelm_agent
{

// What kelm is to check in each received packet: the fields `auth` and `auth_key`, and no others.
kelm_msg_rx_set_session receive_settings(const session_config &, const addressing &);

// The requests themselves. `flags` are KELM_TX_SEND_OOB or 0; KELM_TX_MYDISC_RTT goes by the kind.
kelm::request transmit_request(const session_config &, std::uint32_t discriminator,
                               const addressing &, const transmission &, std::uint8_t flags);
// `latched`: the discriminators of the packets to latch, which must exist; at most 8.
kelm::request receive_request(const session_config &, std::uint32_t discriminator,
                              const addressing &, const reception &,
                              std::span<const std::uint32_t> latched);

// A session's packet and receive session in kelm. Everything that talks to kelm throws
// kelm::error; the next apply() then asks for everything again.
class kelm_sync
{
  public:
    explicit kelm_sync(std::uint32_t discriminator) : discriminator_(discriminator) {}

    void apply(kelm::client &, const session_config &, const addressing &, const desired_state &);
    // Deletes what is there; that something is not is no error.
    void remove(kelm::client &);
    // kelm has these without our having asked for them, or does not have them any more.
    void assume(bool has_packet, bool has_session);

  private:
    void apply_transmit(kelm::client &, const session_config &, const addressing &,
                        const desired_state &);
    void apply_receive(kelm::client &, const session_config &, const addressing &,
                       const desired_state &);
    void delete_packet(kelm::client &);
    void delete_session(kelm::client &);

    std::uint32_t discriminator_;
    bool has_packet_ = false;
    bool has_session_ = false;
    std::optional<transmission> sent_; // where it was we who set it
    kelm::bytes packet_request_;       // as last made, without the out-of-band flag
    kelm::bytes session_request_;
};

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
//
// From what a session wants to what kelm is asked: requests are made of a desired state, and only
// those that change something.
#pragma once

#include <memory>

#include "kelm-agent/addressing.h"
#include "kelm-agent/session.h"
#include "kelm-agent/vrf.h"
#include "libkelm/error.h"

namespace kelm_agent
{

// What kelm is to check in each received packet: the fields `auth` and `auth_key`, and no others.
kelm_msg_rx_set_session receive_settings(const session_config &, const addressing &);

// The requests themselves. `flags` are KELM_TX_SEND_OOB or 0; KELM_TX_MYDISC_RTT goes by the kind.
kelm::request transmit_request(const session_config &, std::uint32_t discriminator,
                               const addressing &, const transmission &, std::uint8_t flags);
// `latched`: the discriminators of the packets to latch, which must exist; at most 8. `life` comes
// back in the failure message.
kelm::request receive_request(const session_config &, std::uint32_t discriminator,
                              const addressing &, const reception &,
                              std::span<const std::uint32_t> latched, std::uint32_t life);

// A session's packet and receive session in kelm. Requests that belong together are under way
// together; what is wanted meanwhile waits for their answers and is then asked for at once.
class kelm_sync
{
  public:
    struct listener {
        virtual ~listener() = default;
        // All requests have been answered, none was refused.
        virtual void on_settled() = 0;
        // The next apply() asks for everything again.
        virtual void on_refused(const kelm::refused &) = 0;
        // kelm does not have what it had been told: `what` is missing. The next apply() asks for
        // everything again.
        virtual void on_missing(const std::string &what) = 0;
    };

    kelm_sync(vrf &asked, std::uint32_t discriminator, listener &listening)
        : vrf_(asked), discriminator_(discriminator), listener_(listening)
    {
    }
    kelm_sync(const kelm_sync &) = delete;
    kelm_sync &operator=(const kelm_sync &) = delete;

    // Asks for what differs. What the desired state wants done once is kept until it can be.
    void apply(const session_config &, const addressing &, const desired_state &);
    // The same for the time when nothing can be asked.
    void owe(const desired_state &);
    // Deletes everything; that something does not exist is no error. False: there is nothing.
    bool remove();
    // kelm has these without our having asked for them, or does not have them any more. Requests
    // that are under way count no more.
    void assume(bool has_packet, bool has_session);
    // kelm may have changed the packet on its own.
    void packet_may_differ() { packet_request_.clear(); }

    bool is_settled() const { return under_way_ == 0; }
    // Whether something was wanted that has not been asked for.
    bool is_behind() const { return is_behind_; }
    // Whether a dump of this round, see vrf::round(), shows what everything that was asked for has
    // led to; and whether it shows the receive session that there is now.
    bool is_settled_since(std::uint64_t round) const { return is_settled() && round_ < round; }
    bool is_same_session_since(std::uint64_t round) const
    {
        return !is_renewing_ && renewed_in_ < round;
    }
    // Whether this failure is of the receive session as it was last made, not of one before it.
    bool is_of_this_life(const kelm::session_failure &) const;

  private:
    struct verdict {
        std::optional<kelm::refused> refusal;
        std::string missing;
    };

    void apply_transmit(const session_config &, const addressing &, const desired_state &);
    void apply_receive(const session_config &, const addressing &, const desired_state &);
    void delete_packet();
    void delete_session();
    void distrust();
    void ask(const kelm::request &);
    void on_answer(std::uint16_t type, int error);
    void conclude();

    vrf &vrf_;
    std::uint32_t discriminator_;
    listener &listener_;
    bool has_packet_ = false;
    bool has_session_ = false;
    bool is_certain_ = false;          // of these two
    std::optional<transmission> sent_; // where it was we who set it
    kelm::bytes packet_request_;       // as last made, without the out-of-band flag
    kelm::bytes session_request_;      // as last made, with life 0
    std::uint32_t life_ = 0;           // of the receive session; 0: none of our making
    desired_state owed_;               // what is to be done once
    bool is_behind_ = false;
    int under_way_ = 0;
    std::uint64_t round_ = 0;  // in which something was asked or answered last
    bool is_renewing_ = false; // the receive session is being deleted
    std::uint64_t renewed_in_ = 0;
    verdict verdict_; // on what is under way
    std::shared_ptr<kelm_sync *> self_ = std::make_shared<kelm_sync *>(this);
};

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
//
// One connection of an agent: a netlink port over a SOCK_SEQPACKET socket.
//
// The socket's own send queue is the port's queue. It is filled without waiting, by any thread
// under the netlink table's lock; everything else happens on the control thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <sys/socket.h>
#include <sys/types.h>

#include "platform/hosted/netlink.h"
#include "platform/user/connection_quota.h"
#include "platform/user/fd.h"
#include "platform/user/net.h"
#include "platform/user/process.h"

struct sockaddr_nl;

namespace kelmd
{

class agent_connection final : public hosted::netlink_port
{
  public:
    // Takes over a connected socket, non-blocking and with SO_PASSCRED.
    agent_connection(net &ns, unique_fd socket, const peer_process &opener,
                     connection_quota::place place);
    ~agent_connection() override;

    // What the loop has to do next.
    enum class outcome {
        WAIT,   // until the socket is ready again
        AGAIN,  // there is more, but others come first
        CLOSED, // destroy the connection
    };

    // Handles edge-triggered readiness: a bounded number of datagrams, and what waits for room.
    [[nodiscard]] outcome on_ready(std::uint32_t events);

  protected:
    int deliver(std::span<const std::uint8_t> datagram) override;
    bool drained() override;
    bool sender_capable(int capability) override;

  private:
    outcome read_some();
    outcome handle(std::span<const std::uint8_t> buffer, std::size_t len);
    outcome handle_bind(const sockaddr_nl &wanted);
    void answer_bind();
    int refuse_overlong(std::span<const std::uint8_t> beginning);

    net &net_;
    const unique_fd socket_;
    const peer_process opener_;
    const connection_quota::place place_;
    // Of the datagram that is being handled: who sent it, and, once somebody has asked, the
    // capabilities that the sender and the opener share.
    ucred sender_{};
    std::optional<std::uint64_t> capabilities_;
    bool bind_answer_due_ = false;
};

} // namespace kelmd

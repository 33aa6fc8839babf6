// SPDX-License-Identifier: GPL-2.0
//
// One connection of an agent: a netlink port over a SOCK_SEQPACKET socket.
//
// The socket's own send queue is the port's queue. It is filled without waiting, by any thread that
// holds the netlink table's lock; everything else happens on the control thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <sys/socket.h>
#include <sys/types.h>

#include "platform/hosted/netlink.h"
#include "platform/user/connection_quota.h"
#include "platform/user/event_loop.h"
#include "platform/user/net.h"
#include "platform/user/process.h"
#include "platform/user/socket_closer.h"
#include "shared/unique_fd.h"

struct sockaddr_nl;

namespace kelmd
{

class agent_connection final : public hosted::netlink_port
{
  public:
    // Takes over a connected socket, non-blocking and with SO_PASSCRED, and serves it on the loop.
    // When the agent has closed its end, or cannot be served any more, closed is called, which
    // destroys the connection. Throws std::system_error.
    agent_connection(event_loop &loop, socket_closer &closer, net &ns, kelm::unique_fd socket,
                     const peer_process &opener, connection_quota::place place,
                     std::function<void()> closed);
    ~agent_connection() override;

  protected:
    int deliver(std::span<const std::uint8_t> datagram) override;
    bool drained() override;
    bool sender_capable(int capability) override;

  private:
    enum class outcome {
        wait,   // until the socket is ready again
        again,  // there is more, but others come first
        closed, // the end of the connection
    };

    void serve(std::uint32_t events);
    outcome on_ready(std::uint32_t events);
    outcome read_some();
    [[nodiscard]] bool descriptors_come() const;
    outcome handle(std::span<const std::uint8_t> buffer, std::size_t len);
    outcome handle_bind(const sockaddr_nl &wanted);
    void answer_bind();
    int refuse_overlong(std::span<const std::uint8_t> beginning);

    event_loop &loop_;
    socket_closer &closer_;
    net &net_;
    kelm::unique_fd socket_;
    const peer_process opener_;
    connection_quota::place place_;
    std::function<void()> closed_;
    // Of the datagram that is being handled: its sender and, once a handler has asked, the
    // capabilities that the sender and the opener share.
    ucred sender_{};
    std::optional<std::uint64_t> capabilities_;
    bool bind_answer_due_ = false;
};

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
//
// An agent: one netlink socket in a namespace, driven by the test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <linux/netlink.h>
#include <optional>
#include <span>
#include <vector>

#include "platform/hosted/netlink.h"
#include "platform/sim/frame.h"

namespace sim
{

// One netlink message of a datagram.
struct message {
    nlmsghdr header;
    bytes body; // without padding
};

// Splits a datagram; what does not parse is a failure.
[[nodiscard]] std::vector<message> parse_messages(std::span<const std::uint8_t> datagram);

// A message as an agent sends it, padded.
[[nodiscard]] bytes make_message(std::uint16_t type, std::uint16_t flags, std::uint32_t seq,
                                 std::span<const std::uint8_t> body);

struct agent_options {
    bool privileged = true;
    std::uint32_t groups = 0;  // as a mask: bit 0 is group 1
    std::uint32_t port_id = 0; // 0: any
    std::size_t queue_limit = std::numeric_limits<std::size_t>::max(); // datagrams
};

struct dump_result {
    std::optional<int> error; // of the acknowledgement or of NLMSG_DONE; none without either
    std::vector<message> messages;
    std::size_t datagrams = 0;
};

class agent final : public hosted::netlink_port
{
  public:
    agent(net &ns, const agent_options &options);
    ~agent() override;

    // Sends one datagram; the engine has handled it when this returns. 0 or an error number.
    int send(std::span<const std::uint8_t> datagram);

    // Sends one message with NLM_F_REQUEST and NLM_F_ACK and takes its acknowledgement out of
    // the queue: 0 or an error number, nothing if there was none.
    std::optional<int> request(std::uint16_t type, std::span<const std::uint8_t> body);

    // Sends a request for a dump and reads it to its end. Other datagrams stay in the queue.
    dump_result dump(std::uint16_t type, std::span<const std::uint8_t> body);

    // Takes the next datagram; a dump in progress goes on.
    std::optional<bytes> read();

    // Takes all the messages that are there, without waiting for anything further of a dump.
    std::vector<message> read_messages();

    [[nodiscard]] std::size_t queued() const { return queue_.size(); }
    [[nodiscard]] std::uint32_t last_seq() const { return seq_; }
    [[nodiscard]] net &netns() const { return ns_; }

    void set_privileged(bool yes) { options_.privileged = yes; }
    void set_queue_limit(std::size_t datagrams) { options_.queue_limit = datagrams; }
    void set_groups(std::uint32_t groups);

    // Closes the socket, in the middle of whatever is going on. Once is enough.
    void close();

  private:
    int deliver(std::span<const std::uint8_t> datagram) override;
    bool drained() override { return queue_.empty(); }
    bool sender_capable(int /*capability*/) override { return options_.privileged; }

    void after_read();
    std::optional<int> take_acknowledgement();

    net &ns_;
    agent_options options_;
    std::deque<bytes> queue_;
    std::uint32_t seq_ = 0;
    bool open_ = true;
};

} // namespace sim

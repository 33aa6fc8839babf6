// SPDX-License-Identifier: GPL-2.0
#include "platform/sim/agent.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/sim/failure.h"
#include "platform/sim/machine.h"

namespace sim
{

namespace
{

nlmsghdr header_of(std::span<const std::uint8_t> datagram)
{
    nlmsghdr header{};
    std::memcpy(&header, datagram.data(), std::min(datagram.size(), sizeof header));
    return header;
}

int error_of(const message &m)
{
    int error = 0;
    std::memcpy(&error, m.body.data(), std::min(m.body.size(), sizeof error));
    return error;
}

} // namespace

std::vector<message> parse_messages(std::span<const std::uint8_t> datagram)
{
    std::vector<message> messages;
    while (!datagram.empty()) {
        const nlmsghdr header = header_of(datagram);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) {
            failure("a datagram ends in %zu bytes that are no message", datagram.size());
            break;
        }
        messages.push_back(
            {header, bytes(datagram.begin() + sizeof header, datagram.begin() + header.nlmsg_len)});
        const std::size_t padded =
            std::min<std::size_t>(NLMSG_ALIGN(header.nlmsg_len), datagram.size());
        const auto padding = datagram.subspan(header.nlmsg_len, padded - header.nlmsg_len);
        if (std::any_of(padding.begin(), padding.end(),
                        [](std::uint8_t byte) { return byte != 0; }))
            failure("the padding of a message of type %u is not zero", header.nlmsg_type);
        datagram = datagram.subspan(padded);
    }
    return messages;
}

bytes make_message(std::uint16_t type, std::uint16_t flags, std::uint32_t seq,
                   std::span<const std::uint8_t> body)
{
    const nlmsghdr header{.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(body.size())),
                          .nlmsg_type = type,
                          .nlmsg_flags = flags,
                          .nlmsg_seq = seq,
                          .nlmsg_pid = 0};
    bytes result(NLMSG_ALIGN(header.nlmsg_len));
    std::memcpy(result.data(), &header, sizeof header);
    std::copy(body.begin(), body.end(), result.begin() + sizeof header);
    return result;
}

agent::agent(net &netns, const agent_options &wanted) : ns_(netns), options_(wanted)
{
    get_net(ns_);
    if (!ns_.netlink.bind(*this, options_.port_id, options_.groups))
        failure("port id %u is taken", options_.port_id);
}

agent::~agent()
{
    close();
}

void agent::close()
{
    if (!std::exchange(open_, false))
        return;
    ns_.netlink.close(*this);
    put_net(ns_);
    the_machine().settle();
}

void agent::set_groups(std::uint32_t groups)
{
    ns_.netlink.set_groups(*this, groups);
}

int agent::send(std::span<const std::uint8_t> datagram)
{
    the_machine().expect_may_sleep("an agent's request");
    const int result = ns_.netlink.receive(*this, datagram);
    the_machine().expect_may_sleep("returning from an agent's request");
    the_machine().settle();
    return result;
}

std::optional<int> agent::request(std::uint16_t type, std::span<const std::uint8_t> body)
{
    if (const int error = send(make_message(type, NLM_F_REQUEST | NLM_F_ACK, ++seq_, body));
        error != 0)
        return error;
    return take_acknowledgement();
}

// The acknowledgement of the last request, wherever it is in the queue.
std::optional<int> agent::take_acknowledgement()
{
    const auto found = std::find_if(queue_.begin(), queue_.end(), [this](const bytes &datagram) {
        const nlmsghdr header = header_of(datagram);
        return header.nlmsg_type == NLMSG_ERROR && header.nlmsg_seq == seq_;
    });
    if (found == queue_.end())
        return std::nullopt;
    const int error = error_of(parse_messages(*found).front());
    queue_.erase(found);
    after_read();
    return error;
}

dump_result agent::dump(std::uint16_t type, std::span<const std::uint8_t> body)
{
    dump_result result;
    if (const int error = send(make_message(type, NLM_F_REQUEST, ++seq_, body)); error != 0) {
        result.error = error;
        return result;
    }
    if ((result.error = take_acknowledgement()))
        return result;
    std::deque<bytes> others;
    while (!result.error && !queue_.empty()) {
        bytes datagram = std::move(queue_.front());
        queue_.pop_front();
        if (header_of(datagram).nlmsg_seq != seq_) {
            others.push_back(std::move(datagram));
        } else {
            ++result.datagrams;
            for (message &m : parse_messages(datagram)) {
                if (m.header.nlmsg_type == NLMSG_DONE)
                    result.error = error_of(m);
                else
                    result.messages.push_back(std::move(m));
            }
        }
        after_read();
    }
    queue_.insert(queue_.begin(), others.begin(), others.end());
    return result;
}

std::optional<bytes> agent::read()
{
    if (queue_.empty())
        return std::nullopt;
    bytes datagram = std::move(queue_.front());
    queue_.pop_front();
    after_read();
    return datagram;
}

std::vector<message> agent::read_messages()
{
    std::vector<message> messages;
    for (std::size_t left = queue_.size(); left > 0; --left) {
        const std::optional<bytes> datagram = read();
        for (message &m : parse_messages(*datagram))
            messages.push_back(std::move(m));
    }
    return messages;
}

void agent::after_read()
{
    the_machine().expect_may_sleep("an agent's read");
    ns_.netlink.readable_again(*this);
    the_machine().expect_may_sleep("returning from an agent's read");
    the_machine().settle();
}

int agent::deliver(std::span<const std::uint8_t> datagram)
{
    if (queue_.size() >= options_.queue_limit)
        return -EAGAIN;
    queue_.emplace_back(datagram.begin(), datagram.end());
    return 0;
}

} // namespace sim

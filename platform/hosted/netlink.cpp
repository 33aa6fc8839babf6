// SPDX-License-Identifier: GPL-2.0
//
// Ports, requests and delivery. A port's and a kernel socket's count of running requests keeps
// either alive until the engine has returned; closing one waits for that. Dumps are in
// netlink_dump.cpp.
#include "platform/hosted/netlink.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "platform/hosted/netlink_dump.h"
#include "platform/hosted/skbuff.h"

namespace hosted
{

struct netlink_sock : sock {
    netlink_sock(net *ns, const netlink_kernel_cfg &cfg) : sock(ns), input(cfg.input) {}

    void (*const input)(sk_buff *skb);
    int inputs_running = 0;
};

netlink_port::netlink_port() = default;
netlink_port::~netlink_port() = default;

// Ports

bool netlink_table::bind(netlink_port &port, std::uint32_t wanted, std::uint32_t groups)
{
    if (groups != 0 && !port.sender_capable(CAP_NET_ADMIN))
        groups = 0;
    const guard held(lock_);
    const std::uint32_t id = wanted != 0 ? wanted : free_port_id();
    try {
        if (!ports_.emplace(id, &port).second)
            return false;
    } catch (const std::bad_alloc &) {
        return false;
    }
    port.table_ = this;
    port.port_id_ = id;
    port.group_mask_ = groups;
    port.closing_ = false;
    return true;
}

void netlink_table::set_groups(netlink_port &port, std::uint32_t groups)
{
    if (groups != 0 && !port.sender_capable(CAP_NET_ADMIN))
        groups = 0;
    const guard held(lock_);
    port.group_mask_ = groups;
}

std::uint32_t netlink_table::free_port_id()
{
    while (next_port_id_ == 0 || ports_.contains(next_port_id_))
        --next_port_id_;
    return next_port_id_--;
}

void netlink_table::close(netlink_port &port)
{
    guard held(lock_);
    if (port.table_ != this)
        return;
    port.closing_ = true;
    ports_.erase(port.port_id_);
    idle_.wait(held, [&port] {
        return port.requests_running_ == 0 && !(port.dump_ && port.dump_->running);
    });
    if (port.dump_)
        end_dump(port, held);
    port.table_ = nullptr;
    port.port_id_ = 0;
    port.group_mask_ = 0;
    port.overrun_ = false;
}

// Requests

int netlink_table::receive(netlink_port &port, std::span<const std::uint8_t> datagram)
{
    sk_buff *skb = skb_copy_bytes(datagram, 0, GFP_KERNEL);
    if (skb == nullptr)
        return -ENOBUFS;
    guard held(lock_);
    netlink_sock *sk = kernel_sock_;
    if (sk == nullptr || port.closing_) {
        held.unlock();
        kfree_skb(skb);
        return -ECONNREFUSED;
    }
    ++sk->inputs_running;
    ++port.requests_running_;
    held.unlock();

    skb->sk = sk;
    skb->secret = true; // it may bring keys
    skb->portid = port.port_id_;
    netlink_port *outer = exchange_current_sender(&port);
    sk->input(skb);
    exchange_current_sender(outer);
    consume_skb(skb);

    held.lock();
    --sk->inputs_running;
    --port.requests_running_;
    idle_.wake_all();
    return 0;
}

sock *netlink_table::open_kernel_sock(net *ns, const netlink_kernel_cfg &cfg)
{
    void *memory = kmalloc(sizeof(netlink_sock), GFP_KERNEL);
    if (memory == nullptr)
        return nullptr;
    const guard held(lock_);
    if (kernel_sock_ != nullptr) {
        kfree(memory);
        return nullptr;
    }
    kernel_sock_ = new (memory) netlink_sock(ns, cfg);
    return kernel_sock_;
}

void netlink_table::close_kernel_sock(sock *sk)
{
    netlink_sock *closed;
    {
        guard held(lock_);
        closed = std::exchange(kernel_sock_, nullptr);
        if (closed == nullptr || closed != sk)
            std::terminate();
        idle_.wait(held, [closed] { return closed->inputs_running == 0; });
    }
    closed->~netlink_sock();
    kfree(closed);
}

sock *netlink_kernel_open(net *ns, const netlink_kernel_cfg *cfg)
{
    return netlink_table_of(ns).open_kernel_sock(ns, *cfg);
}

void netlink_kernel_close(sock *sk)
{
    netlink_table_of(sk->netns).close_kernel_sock(sk);
}

// Delivery

int netlink_table::deliver(netlink_port &port, std::span<const std::uint8_t> datagram)
{
    if (port.overrun_ && !tell_overrun(port))
        return -EAGAIN;
    const int result = port.deliver(datagram);
    if (result == -EAGAIN)
        port.overrun_ = true;
    return result;
}

// Returns whether the agent knows all that it lost.
bool netlink_table::tell_overrun(netlink_port &port)
{
    if (!port.overrun_)
        return true;
    const nlmsghdr notice{.nlmsg_len = NLMSG_HDRLEN,
                          .nlmsg_type = NLMSG_OVERRUN,
                          .nlmsg_flags = 0,
                          .nlmsg_seq = 0,
                          .nlmsg_pid = 0};
    std::uint8_t datagram[NLMSG_HDRLEN];
    std::memcpy(datagram, &notice, sizeof datagram);
    port.overrun_ = port.deliver(datagram) == -EAGAIN;
    return !port.overrun_;
}

void netlink_table::note_overrun(std::uint32_t port_id)
{
    const guard held(lock_);
    const auto found = ports_.find(port_id);
    if (found == ports_.end())
        return;
    found->second->overrun_ = true;
    tell_overrun(*found->second);
}

int netlink_table::broadcast(sk_buff *skb, std::uint32_t except, std::uint32_t group)
{
    const std::uint32_t mask = group >= 1 && group <= 32 ? 1U << (group - 1) : 0;
    bool delivered = false;
    bool full = false;
    int result = -ESRCH;
    const guard held(lock_);
    for (const auto &[id, port] : ports_) {
        if ((port->group_mask_ & mask) == 0 || id == except)
            continue;
        switch (deliver(*port, skb_bytes(skb))) {
        case 0:
            delivered = true;
            break;
        case -EAGAIN:
            full = true;
            break;
        case -EMSGSIZE:
            result = -EMSGSIZE;
            break;
        default: // an agent that is on its way out is no subscriber any more
            break;
        }
    }
    return delivered ? 0 : full ? -ENOBUFS : result;
}

int netlink_table::unicast(sk_buff *skb, std::uint32_t port_id)
{
    const guard held(lock_);
    const auto found = ports_.find(port_id);
    if (found == ports_.end())
        return -ECONNREFUSED;
    const int result = deliver(*found->second, skb_bytes(skb));
    return result == 0 ? static_cast<int>(skb_len(skb)) : result;
}

namespace
{

// The acknowledgement of a request: with the whole request if it failed, else with its header.
void acknowledge(sk_buff *request, const nlmsghdr *nlh, int error)
{
    netlink_table &table = netlink_table_of(skb_sk(request)->netns);
    const std::uint32_t portid = netlink_skb_portid(request);
    const std::uint32_t echoed = error != 0 ? nlh->nlmsg_len : sizeof *nlh;
    const std::uint32_t body = NLMSG_ALIGN(sizeof(int)) + echoed;
    sk_buff *skb = alloc_skb(NLMSG_SPACE(body), GFP_KERNEL);
    if (skb == nullptr) {
        table.note_overrun(portid);
        return;
    }
    skb->secret = request->secret;
    nlmsghdr *ack = __nlmsg_put(skb, portid, nlh->nlmsg_seq, NLMSG_ERROR, static_cast<int>(body),
                                error != 0 ? 0 : NLM_F_CAPPED);
    std::uint8_t *message = message_body(ack);
    std::memcpy(message, &error, sizeof error);
    std::memcpy(message + offsetof(nlmsgerr, msg), nlh, echoed);
    (void)netlink_unicast(skb_sk(request), skb, portid, 1);
}

} // namespace

} // namespace hosted

// Services

int netlink_rcv_skb(sk_buff *skb, netlink_step step)
{
    while (skb_len(skb) >= sizeof(nlmsghdr)) {
        auto *nlh = reinterpret_cast<nlmsghdr *>(skb_data(skb));
        if (nlh->nlmsg_len < sizeof(nlmsghdr) || nlh->nlmsg_len > skb_len(skb))
            break;
        int result = 0;
        if ((nlh->nlmsg_flags & NLM_F_REQUEST) != 0 && nlh->nlmsg_type >= NLMSG_MIN_TYPE)
            result = step(skb, nlh, nullptr);
        if (result != -EINTR && (result != 0 || (nlh->nlmsg_flags & NLM_F_ACK) != 0))
            hosted::acknowledge(skb, nlh, result);
        hosted::skb_pull(skb, std::min(NLMSG_ALIGN(nlh->nlmsg_len), skb_len(skb)));
    }
    return 0;
}

nlmsghdr *__nlmsg_put(sk_buff *skb, std::uint32_t portid, std::uint32_t seq, int type, int len,
                      int flags)
{
    const auto body = static_cast<std::uint32_t>(len);
    const std::uint32_t unpadded = NLMSG_LENGTH(body);
    std::uint8_t *start = skb_put(skb, NLMSG_ALIGN(unpadded));
    auto *nlh = reinterpret_cast<nlmsghdr *>(start);
    nlh->nlmsg_len = unpadded;
    nlh->nlmsg_type = static_cast<std::uint16_t>(type);
    nlh->nlmsg_flags = static_cast<std::uint16_t>(flags);
    nlh->nlmsg_seq = seq;
    nlh->nlmsg_pid = portid;
    std::memset(start + unpadded, 0, NLMSG_ALIGN(unpadded) - unpadded);
    return nlh;
}

int netlink_broadcast(sock *sk, sk_buff *skb, std::uint32_t portid, std::uint32_t group,
                      gfp_t /*gfp*/)
{
    const int result = hosted::netlink_table_of(sk->netns).broadcast(skb, portid, group);
    consume_skb(skb);
    return result;
}

int netlink_unicast(sock *sk, sk_buff *skb, std::uint32_t portid, int /*nonblock*/)
{
    const int result = hosted::netlink_table_of(sk->netns).unicast(skb, portid);
    consume_skb(skb);
    return result;
}

int netlink_dump_start(sock *sk, sk_buff *skb, const nlmsghdr *nlh,
                       const netlink_dump_control *control)
{
    return hosted::netlink_table_of(sk->netns).start_dump(skb, nlh, *control);
}

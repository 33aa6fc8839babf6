// SPDX-License-Identifier: GPL-2.0
//
// Dumps. A port has one at most, from netlink_dump_start to done. Its datagrams are made one at a
// time, the first at the start, each other one when the agent has read all that there was; a
// datagram that finds no room waits in `unsent`. While the engine's code runs, `running` keeps
// other threads off the dump, and the thread that resets it continues where others could not.
#include "platform/hosted/netlink_dump.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/hosted/netlink.h"
#include "platform/hosted/skbuff.h"
#include "platform/printk.h"

namespace hosted
{

namespace
{

// A dump datagram holds any number of messages up to the usual size, which every agent reads with,
// or one of any size: the longest is a frame of 64 KiB with headers.
constexpr unsigned int usual_room = 8 * 1024;
constexpr unsigned int greatest_room = 68 * 1024;

constexpr unsigned int done_len = NLMSG_SPACE(sizeof(int));

void append_done(netlink_dump &dump, sk_buff *skb)
{
    const netlink_callback &cb = dump.callback;
    nlmsghdr *done = __nlmsg_put(skb, netlink_skb_portid(cb.skb), cb.nlh->nlmsg_seq, NLMSG_DONE,
                                 sizeof(int), NLM_F_MULTI);
    std::memcpy(message_body(done), &dump.fill_result, sizeof(int));
    dump.done_appended = true;
}

// Makes the next datagram; no lock is held. 0 or -ENOBUFS.
int fill(netlink_dump &dump)
{
    sk_buff *skb = alloc_skb(std::max(greatest_room, dump.min_room), GFP_KERNEL);
    if (skb == nullptr)
        return -ENOBUFS;
    skb->room_limit = std::max(usual_room, dump.min_room);
    if (dump.fill_result > 0) {
        dump.fill_result = dump.fill(skb, &dump.callback);
        if (dump.fill_result > 0 && skb_len(skb) == 0) {
            WARN("netlink: a dump wants to go on without having written anything");
            dump.fill_result = 0;
        }
    }
    if (dump.fill_result <= 0 && skb_tailroom(skb) >= done_len)
        append_done(dump, skb);
    dump.unsent = skb;
    return 0;
}

} // namespace

int netlink_table::start_dump(sk_buff *request, const nlmsghdr *nlh,
                              const netlink_dump_control &control)
{
    guard held(lock_);
    const auto found = ports_.find(netlink_skb_portid(request));
    if (found == ports_.end())
        return -ECONNREFUSED;
    netlink_port &port = *found->second;
    // One whose last datagram is out is no longer in progress as far as the agent can tell.
    idle_.wait(held, [&port] { return !(port.dump_ && port.dump_->ending); });
    if (port.dump_)
        return -EBUSY;
    port.dump_.reset(new (std::nothrow) netlink_dump{});
    if (!port.dump_)
        return -ENOMEM;
    netlink_dump &dump = *port.dump_;
    dump.fill = control.dump;
    dump.finish = control.done;
    dump.min_room = control.min_dump_alloc;
    dump.callback.skb = skb_get(request);
    dump.callback.nlh = nlh;
    dump.callback.data = control.data;
    held.unlock();

    int result = control.start != nullptr ? control.start(&dump.callback) : 0;
    const bool started = result == 0;
    if (started)
        result = fill(dump);

    held.lock();
    dump.running = false;
    if (!started) {
        consume_skb(dump.callback.skb);
        port.dump_.reset();
    } else if (result == 0) {
        continue_dump(port, held);
    } // else it goes on when the agent has read the acknowledgement
    idle_.wake_all();
    return result == 0 ? -EINTR : result;
}

void netlink_table::readable_again(netlink_port &port)
{
    guard held(lock_);
    if (port.table_ != this || port.closing_)
        return;
    tell_overrun(port);
    continue_dump(port, held);
}

// Goes on with a port's dump as far as its agent has read, but by one datagram at most: an agent
// that reads as fast as this writes must not keep the others waiting.
void netlink_table::continue_dump(netlink_port &port, guard &held)
{
    while (port.dump_ && !port.dump_->running && !port.closing_) {
        netlink_dump &dump = *port.dump_;
        if (dump.unsent != nullptr) {
            if (!send_datagram(port))
                return;
        } else if (dump.done_appended) {
            end_dump(port, held);
        } else if (!port.drained()) {
            return;
        } else if (fill_datagram(port, held) != 0) {
            // The agent's next read, that of the notice, tries again.
            port.overrun_ = true;
            tell_overrun(port);
            return;
        }
    }
}

int netlink_table::fill_datagram(netlink_port &port, guard &held)
{
    netlink_dump &dump = *port.dump_;
    dump.running = true;
    held.unlock();
    const int result = fill(dump);
    held.lock();
    dump.running = false;
    idle_.wake_all();
    return result;
}

// False if the agent has to read before the dump goes on: to make room, or for the next datagram.
bool netlink_table::send_datagram(netlink_port &port)
{
    netlink_dump &dump = *port.dump_;
    const int result = tell_overrun(port) ? port.deliver(skb_bytes(dump.unsent)) : -EAGAIN;
    if (result == -EAGAIN || result == -ECONNREFUSED) // or wait for the agent's end to be noticed
        return false;
    consume_skb(dump.unsent);
    dump.unsent = nullptr;
    return result != 0 || dump.done_appended;
}

void netlink_table::end_dump(netlink_port &port, guard &held)
{
    netlink_dump &dump = *port.dump_;
    dump.running = true;
    dump.ending = true;
    held.unlock();
    if (dump.finish != nullptr)
        dump.finish(&dump.callback);
    consume_skb(dump.unsent);
    consume_skb(dump.callback.skb);
    held.lock();
    port.dump_.reset();
    idle_.wake_all();
}

} // namespace hosted

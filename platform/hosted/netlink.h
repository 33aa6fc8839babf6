// SPDX-License-Identifier: GPL-2.0
//
// Netlink as the hosts offer it: one unit, and in each namespace one kernel socket at most and
// any number of agent ports. This is everything except transport: port ids, groups, the
// request loop, acknowledgements, dumps, overruns. The agent's end is a netlink_port that the
// host derives: kelmd's over AF_UNIX, the simulation's over a queue.
//
// Thread-safe. The table's lock is held while a port's virtual functions run; no lock is held
// while the engine's input, step, start, dump or done runs.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>

#include "platform/capability.h"
#include "platform/hosted/mutex.h"
#include "platform/hosted/sock.h"
#include "platform/hosted/wait.h"
#include "platform/netlink.h"

namespace hosted
{

struct netlink_dump;
struct netlink_sock;
class netlink_table;

// One netlink socket of an agent. Its owner binds it to its namespace's table, passes the
// agent's datagrams to receive, calls readable_again, and closes it before destroying it.
class netlink_port
{
  public:
    netlink_port();
    virtual ~netlink_port();
    netlink_port(const netlink_port &) = delete;
    netlink_port &operator=(const netlink_port &) = delete;

    [[nodiscard]] std::uint32_t id() const { return port_id_; }        // 0 while not bound
    [[nodiscard]] std::uint32_t groups() const { return group_mask_; } // bit 0 is group 1

  protected:
    // Queues one datagram for the agent without waiting. 0; -EAGAIN without room for it now;
    // -ECONNREFUSED if the agent is gone; -EMSGSIZE if the transport can never carry it.
    virtual int deliver(std::span<const std::uint8_t> datagram) = 0;

    // Whether the agent has read all that was delivered.
    [[nodiscard]] virtual bool drained() = 0;

    // Whether the agent whose request or bind is being handled holds the capability. No lock is
    // held.
    [[nodiscard]] virtual bool sender_capable(int capability) = 0;

  private:
    friend class netlink_table;
    friend bool ::capable(int capability);

    netlink_table *table_ = nullptr;
    std::uint32_t port_id_ = 0;
    std::uint32_t group_mask_ = 0;
    bool overrun_ = false; // the agent lost something and does not know it yet
    bool closing_ = false;
    int requests_running_ = 0; // receive calls
    std::unique_ptr<netlink_dump> dump_;
};

// Netlink in one namespace. Every host's struct net has one.
class netlink_table
{
  public:
    netlink_table() = default;
    netlink_table(const netlink_table &) = delete;
    netlink_table &operator=(const netlink_table &) = delete;

    // Gives a port an id, the wanted one or, for 0, any free one, and its groups. False, with
    // nothing changed, if the wanted id is taken or there is no memory. Without CAP_NET_ADMIN the
    // groups are 0. Task context, as all functions for ports.
    [[nodiscard]] bool bind(netlink_port &port, std::uint32_t wanted, std::uint32_t groups);

    // Changes the groups of a bound port, with the same rule.
    void set_groups(netlink_port &port, std::uint32_t groups);

    // Handles one datagram from the agent of a bound port: the engine's input runs before this
    // returns. 0, -ECONNREFUSED without a kernel socket, or -ENOBUFS.
    int receive(netlink_port &port, std::span<const std::uint8_t> datagram);

    // To be called each time the agent has read: sends a pending overrun notice, continues its
    // dump.
    void readable_again(netlink_port &port);

    // Takes the port out. Waits until its requests and dump calls have returned, and ends its
    // dump; nothing is delivered to it afterwards. Harmless for a port that is not bound.
    void close(netlink_port &port);

    // The kernel's side, for the service functions; see platform/netlink.h.
    [[nodiscard]] sock *open_kernel_sock(net *ns, const netlink_kernel_cfg &cfg);
    void close_kernel_sock(sock *sk);
    [[nodiscard]] int start_dump(sk_buff *request, const nlmsghdr *nlh,
                                 const netlink_dump_control &control);
    int broadcast(sk_buff *skb, std::uint32_t except, std::uint32_t group);
    int unicast(sk_buff *skb, std::uint32_t port_id);
    void note_overrun(std::uint32_t port_id);

  private:
    // All with the lock held; those that take it release it while the engine runs.
    using guard = std::unique_lock<mutex>;
    int deliver(netlink_port &port, std::span<const std::uint8_t> datagram);
    bool tell_overrun(netlink_port &port);
    void continue_dump(netlink_port &port, guard &held);
    int fill_datagram(netlink_port &port, guard &held);
    bool send_datagram(netlink_port &port);
    void end_dump(netlink_port &port, guard &held);
    [[nodiscard]] std::uint32_t free_port_id();

    mutex lock_;
    wait_queue idle_; // a request or dump call has returned
    netlink_sock *kernel_sock_ = nullptr;
    std::map<std::uint32_t, netlink_port *> ports_;
    std::uint32_t next_port_id_ = 0xffffefff; // downwards, where no process id is
};

// What the service functions netlink_kernel_create and netlink_kernel_release of a host do,
// after and before what the host itself has to do with its transport.
[[nodiscard]] sock *netlink_kernel_open(net *ns, const netlink_kernel_cfg *cfg);
void netlink_kernel_close(sock *sk);

// The agent whose request this thread is handling, null for none. A host that runs several
// contexts on one thread saves and restores it when it switches.
netlink_port *exchange_current_sender(netlink_port *sender);

// Provided by the host.
[[nodiscard]] netlink_table &netlink_table_of(net *ns);

} // namespace hosted

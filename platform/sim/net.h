// SPDX-License-Identifier: GPL-2.0
//
// Network namespaces, their devices, and the sockets in them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/hosted/netlink.h"
#include "platform/sim/frame.h"
#include "platform/socket.h"

struct net_device {
    net *netns;
    unsigned int ifindex;
    std::string name;
};

namespace sim
{

struct packet_sock : sock {
    using sock::sock;

    socket_kind kind = socket_kind::udp;
    bool counted = false; // it holds a reference on its namespace
    std::uint16_t port = 0;
    sock_data_ready data_ready = nullptr;
    sock_data_ahead data_ahead = nullptr;
    void *user_data = nullptr;
    gfp_t allocation = GFP_KERNEL;
    std::uint32_t priority = 0;
    int sndbuf = 0;
    sk_buff *first = nullptr; // received, not yet dequeued
    sk_buff *last = nullptr;
};

} // namespace sim

// A namespace lives as long as it has references; its record stays until the world's end.
struct net {
    std::string name;
    int refs = 1; // the first one is that of its name
    bool named = true;
    bool dead = false;
    std::map<unsigned int, std::unique_ptr<net_device>> devices; // by index
    std::map<std::uint16_t, sim::packet_sock *> udp_ports;
    int sockets = 0; // of all kinds, netlink included
    hosted::netlink_table netlink;
};

namespace sim
{

void get_net(net &ns);

// At the last reference the namespace is put down for its death, see world::settle.
void put_net(net &ns);

// Fails the run if it is no namespace any more.
net &live(net *ns);
const net &live(const net *ns);

} // namespace sim

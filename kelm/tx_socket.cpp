// SPDX-License-Identifier: GPL-2.0
//
// The two transmit sockets of a vrf: raw IPv6 for IP packets, which carry their own IP header,
// and a packet socket for link-layer frames. They are ordinary sockets, so that they hold their
// namespace; nrefs counts them.
#include "kelm/socket_abi.h"
#include "kelm/tx_internal.h"
#include "platform/err.h"
#include "platform/socket.h"

namespace
{
constexpr std::uint32_t TX_PRIORITY = 6; // network control
constexpr int TX_SNDBUF = 16 * 1024 * 1024;

struct socket_type {
    int family;
    int type;
    int protocol;
};

constexpr socket_type typemap[KELM_TX_SESSION_MAX] = {
    {AF_INET6, SOCK_RAW, IPPROTO_RAW}, // KELM_TX_SESSION_IP
    {AF_PACKET, SOCK_RAW, 2},          // KELM_TX_SESSION_L2; no frame has this protocol
};

int init_socket(kelm_vrf *vrf, std::uint32_t type)
{
    const socket_type &args = typemap[type];
    sock *sk = nullptr;
    const int err = __sock_create(vrf->net, args.family, args.type, args.protocol, &sk, 0);
    if (err != 0) {
        KELM_LOG("Tx", 1, "Failed to create Tx socket of type %d, err %d", static_cast<int>(type),
                 err);
        return err;
    }
    ++vrf->nrefs;
    sock_set_allocation(sk, GFP_ATOMIC);
    sock_set_priority(sk, TX_PRIORITY);
    sock_set_sndbuf(sk, TX_SNDBUF);
    vrf->tx_sockets[type].sk = sk;
    return 0;
}

void free_sockets(kelm_vrf *vrf)
{
    for (kelm_socket &socket : vrf->tx_sockets) {
        if (socket.sk != nullptr)
            sock_release(socket.sk);
        socket.sk = nullptr;
    }
}
} // namespace

sock *tx_socket_get(const kelm_vrf *vrf, std::uint32_t type)
{
    return vrf->tx_sockets[type].sk;
}

int kelm_tx_init(kelm_vrf *vrf)
{
    for (std::uint32_t type = 0; type < KELM_TX_SESSION_MAX; ++type) {
        if (init_socket(vrf, type) != 0) {
            KELM_LOG("Tx", 1, "Failed to initialize tx socket type %d", static_cast<int>(type));
            free_sockets(vrf);
            return -ENOMEM;
        }
    }
    return 0;
}

void kelm_tx_free(kelm_vrf *vrf)
{
    kelm_tx_clear(vrf);
    free_sockets(vrf);
}

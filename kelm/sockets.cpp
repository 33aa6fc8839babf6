// SPDX-License-Identifier: GPL-2.0
#include "kelm/sockets.h"

#include "kelm/byte_order.h"
#include "kelm/log.h"
#include "kelm/rx_packet.h"
#include "kelm/socket_abi.h"
#include "platform/err.h"
#include "platform/socket.h"

namespace
{
constexpr std::uint16_t type_to_port[KELM_RX_SESSION_MAX] = {
    3784,  // KELM_RX_SESSION_BFD: single-hop (RFC 5881)
    3785,  // KELM_RX_SESSION_ECHO: echo (RFC 5881)
    6784,  // KELM_RX_SESSION_LAG: LAG member links (RFC 7130)
    4784,  // KELM_RX_SESSION_MULTIHOP: multihop (RFC 5883)
    47657, // KELM_RX_SESSION_SBFD_INITIATOR: replies of an S-BFD reflector
};

struct socket_type {
    int family;
    int type;
    int protocol;
};

constexpr socket_type typemap[KELM_TX_SESSION_MAX] = {
    {AF_INET6, SOCK_RAW, IPPROTO_RAW}, // KELM_TX_SESSION_IP: packets carry their own IP header
    {AF_PACKET, SOCK_RAW, 2},          // KELM_TX_SESSION_L2; no frame has this protocol
};
constexpr std::uint32_t tx_priority = 6; // network control
constexpr int tx_sndbuf = 16 * 1024 * 1024;

int bind_socket(sock *sk, std::uint16_t port)
{
    sockaddr_inet6 address = {};
    address.family = AF_INET6;
    address.port = host_to_be16(port);
    return kernel_bind(sk, &address, sizeof(address));
}

// A dual-stack UDP socket: it receives BFD over IPv4 too.
int create_rx_socket(kelm_vrf *vrf, std::uint32_t type)
{
    sock *sk = nullptr;
    int err = __sock_create(vrf->net, AF_INET6, SOCK_DGRAM, 0, &sk, 1);
    if (err != 0) {
        KELM_LOG("Rx", 1, "Failed creating Rx socket of type %d %d", static_cast<int>(type), err);
        return err;
    }
    // Before the bind: a datagram that came in between would get no callback, and the socket
    // would stay one datagram behind for ever.
    sock_set_data_ready(sk, rx_data_ready, vrf);
    sock_set_data_ahead(sk, rx_data_ahead);
    err = bind_socket(sk, type_to_port[type]);
    if (err != 0) {
        KELM_LOG("Rx", 1, "Failed to bind Rx socket type %d %d", static_cast<int>(type), err);
        sock_release(sk);
        return err;
    }
    vrf->rx_sockets[type] = sk;
    return 0;
}

int create_tx_socket(kelm_vrf *vrf, std::uint32_t type)
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
    sock_set_priority(sk, tx_priority);
    sock_set_sndbuf(sk, tx_sndbuf);
    vrf->tx_sockets[type] = sk;
    return 0;
}

template<std::size_t number>
void release(sock *(&sockets)[number])
{
    for (sock *&sk : sockets) {
        if (sk != nullptr)
            sock_release(sk);
        sk = nullptr;
    }
}
} // namespace

int create_rx_sockets(kelm_vrf *vrf)
{
    for (std::uint32_t type = 0; type < KELM_RX_SESSION_MAX; ++type) {
        if (create_rx_socket(vrf, type) != 0) {
            KELM_LOG("Rx", 1, "Failed to initialize rx socket type %d", static_cast<int>(type));
            release_rx_sockets(vrf);
            return -ENOMEM;
        }
    }
    return 0;
}

int create_tx_sockets(kelm_vrf *vrf)
{
    for (std::uint32_t type = 0; type < KELM_TX_SESSION_MAX; ++type) {
        if (create_tx_socket(vrf, type) != 0) {
            KELM_LOG("Tx", 1, "Failed to initialize tx socket type %d", static_cast<int>(type));
            release_tx_sockets(vrf);
            return -ENOMEM;
        }
    }
    return 0;
}

void release_rx_sockets(kelm_vrf *vrf)
{
    release(vrf->rx_sockets);
}

void release_tx_sockets(kelm_vrf *vrf)
{
    release(vrf->tx_sockets);
}

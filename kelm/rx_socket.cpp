// SPDX-License-Identifier: GPL-2.0
//
// The five receive sockets of a vrf, one per session type. Dual-stack: they receive BFD over IPv4
// too. They do not hold the namespace.
#include "kelm/byte_order.h"
#include "kelm/rx_internal.h"
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

int bind_socket(sock *sk, std::uint16_t port)
{
    sockaddr_inet6 address = {};
    address.family = AF_INET6;
    address.port = host_to_be16(port);
    return kernel_bind(sk, &address, sizeof(address));
}

int init_socket(kelm_vrf *vrf, std::uint32_t type)
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
    err = bind_socket(sk, type_to_port[type]);
    if (err != 0) {
        KELM_LOG("Rx", 1, "Failed to bind Rx socket type %d %d", static_cast<int>(type), err);
        sock_release(sk);
        return err;
    }
    vrf->rx_sockets[type].sk = sk;
    return 0;
}
} // namespace

sock *rx_socket_get(const kelm_vrf *vrf, std::uint32_t type)
{
    return vrf->rx_sockets[type].sk;
}

void rx_free_sockets(kelm_vrf *vrf)
{
    for (kelm_socket &socket : vrf->rx_sockets) {
        if (socket.sk != nullptr)
            sock_release(socket.sk);
        socket.sk = nullptr;
    }
}

int kelm_rx_init(kelm_vrf *vrf)
{
    for (std::uint32_t type = 0; type < KELM_RX_SESSION_MAX; ++type) {
        if (init_socket(vrf, type) != 0) {
            KELM_LOG("Rx", 1, "Failed to initialize rx socket type %d", static_cast<int>(type));
            rx_free_sockets(vrf);
            return -ENOMEM;
        }
    }
    return 0;
}

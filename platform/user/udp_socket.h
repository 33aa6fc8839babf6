// SPDX-License-Identifier: GPL-2.0
//
// Reception: batched reads on the softirq thread. A UDP socket hands out the payload alone; the
// headers in front of it are rebuilt from the ancillary data.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <span>
#include <sys/socket.h>
#include <sys/uio.h>

#include "platform/user/socket.h"
#include "platform/user/softirq.h"

namespace kelmd
{

// What one recvmmsg fills. One for all sockets: the softirq thread reads them one after another.
class receive_batch
{
  public:
    static constexpr std::size_t size = 32;

    receive_batch();

    // Receives up to size datagrams without waiting; returns how many.
    [[nodiscard]] std::size_t receive(int fd);

    // Of the last receive.
    [[nodiscard]] const msghdr &message(std::size_t i) const { return messages_[i].msg_hdr; }
    [[nodiscard]] std::span<const std::uint8_t> payload(std::size_t i) const
    {
        return std::span(payloads_[i]).first(messages_[i].msg_len);
    }

  private:
    static constexpr std::size_t longest_payload = 65535;
    static constexpr std::size_t control_room = 256; // addresses, hop limit, class; both families

    struct control {
        alignas(cmsghdr) std::array<std::uint8_t, control_room> bytes;
    };

    void reset(std::size_t count);

    std::size_t used_ = 0; // of the arrays, by the last receive
    std::array<mmsghdr, size> messages_;
    std::array<iovec, size> vectors_;
    std::array<sockaddr_in6, size> sources_;
    std::array<control, size> controls_;
    std::array<std::array<std::uint8_t, longest_payload>, size> payloads_;
};

// A dual-stack UDP socket. Receives from its bind to its end.
class udp_sock final : public host_sock, private receiver
{
  public:
    udp_sock(net *ns, kelm::unique_fd socket, bool is_counted, softirq_thread &softirq,
             receive_batch &batch);
    ~udp_sock() override;

    int bind(const void *addr, int addrlen) override;

    // Hands out the datagram that the data-ready callback is about; null if there was no memory for
    // it.
    [[nodiscard]] sk_buff *take();

  private:
    [[nodiscard]] int receive_fd() const override { return fd.get(); }
    void drain() override;
    void announce(std::size_t count);
    void receive(const msghdr &message, std::span<const std::uint8_t> payload);

    softirq_thread &softirq_;
    receive_batch &batch_;
    std::uint16_t port_ = 0; // host byte order
    sk_buff *received_ = nullptr;
};

// In the calling thread's namespace. Null, with errno set, if that fails; throws std::bad_alloc.
[[nodiscard]] std::unique_ptr<host_sock> make_udp_sock(net *ns, bool counted);

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
//
// A datagram socket to kelm: the kernel's netlink unit, or kelmd's socket that stands in for it.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "libkelm/bytes.h"
#include "libkelm/channel.h"
#include "shared/unique_fd.h"

namespace kelm
{

class transport final : public channel
{
  public:
    // Opens the kernel's unit where the kernel has one, else connects to kelmd, in the network
    // namespace `netns` (see in_netns). Throws error if there is neither, or if kelmd is run by
    // a user other than root or the caller.
    static std::unique_ptr<transport> open(const std::string &netns = {});
    // The same without waiting for kelmd, whatever it is doing: see channel::is_open(). Will
    // receive the groups of `mask`, see set_groups().
    static std::unique_ptr<transport> begin(const std::string &netns, std::uint32_t mask);

    bool is_open() override;
    int fd() const override { return fd_.get(); }
    std::uint32_t port_id() const override { return port_id_; }
    bool is_kernel() const override { return is_kernel_; }
    void set_groups(std::uint32_t mask) override;
    bool send(byte_view datagram) override;
    outcome receive(bytes &into) override;
    void wait(short events, time_point deadline) override;
    time_point now() const override { return std::chrono::steady_clock::now(); }

  private:
    transport(unique_fd fd, bool is_kernel);
    enum class patience { none, some };
    static std::unique_ptr<transport> begin(const std::string &netns, std::uint32_t mask, patience);

    void verify_daemon() const;
    void bind_kernel();
    void send_bind(std::uint32_t mask);
    void wait_for_bind();
    void set_kernel_groups(std::uint32_t mask);
    void expect_groups() const;
    outcome receive_raw(bytes &into);
    void wait_for_socket(short events, time_point deadline) const;

    unique_fd fd_;
    bool is_kernel_;
    std::uint32_t port_id_ = 0;
    std::uint32_t wanted_groups_ = 0;
    std::uint32_t groups_ = 0;
    bool is_binding_ = false; // kelmd has not answered the bind packet yet
    bytes room_;              // what is received goes here first
    std::deque<bytes> early_; // arrived while a bind packet was being answered
};

} // namespace kelm

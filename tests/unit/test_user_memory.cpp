// SPDX-License-Identifier: GPL-2.0
//
// kelmd without memory: what it cannot take in, somebody is told of. The linker puts the kmalloc
// below in front of the real one.
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <optional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "platform/hosted/netlink.h"
#include "platform/memory.h"
#include "platform/socket.h"
#include "platform/user/agent_connection.h"
#include "platform/user/host.h"
#include "platform/user/net.h"
#include "platform/user/process.h"
#include "platform/user/socket.h"

namespace
{

std::atomic<bool> memory_is_short = false;

} // namespace

extern "C" void *__real_kelm_kmalloc(std::size_t size, gfp_t gfp);
extern "C" void *__wrap_kelm_kmalloc(std::size_t size, gfp_t gfp)
{
    return memory_is_short ? nullptr : __real_kelm_kmalloc(size, gfp);
}

namespace
{

using namespace kelmd;

class without_memory : public testing::Test
{
  protected:
    without_memory() { get_net(ns); }

    host server{{}};
    net ns{{}};
};

void acknowledge(sk_buff *skb)
{
    netlink_rcv_skb(skb, [](sk_buff *, nlmsghdr *, netlink_ext_ack *) { return 0; });
}

TEST_F(without_memory, an_agent_hears_that_its_request_was_lost)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends.data()), 0);
    const kelm::unique_fd agent(ends[1]);
    const int on = 1;
    setsockopt(ends[0], SOL_SOCKET, SO_PASSCRED, &on, sizeof on);
    const netlink_kernel_cfg cfg{.groups = 2, .input = acknowledge};
    sock *const kernel = hosted::netlink_kernel_open(&ns, &cfg);
    std::optional<agent_connection> connection;
    connection.emplace(server.loop, server.closer, ns, kelm::unique_fd(ends[0]),
                       identify(getpid(), geteuid()), std::move(*server.connections.take(0)),
                       [&] { connection.reset(); });

    const nlmsghdr request{sizeof request, NLMSG_MIN_TYPE, NLM_F_REQUEST | NLM_F_ACK, 1, 0};
    const auto serve = [&] { server.loop.run_ready(); };
    const auto answer = [&](bool starved) {
        EXPECT_EQ(send(agent.get(), &request, sizeof request, 0), ssize_t{sizeof request});
        memory_is_short = starved;
        serve();
        memory_is_short = false;
        std::array<nlmsghdr, 8> datagram{};
        return recv(agent.get(), datagram.data(), sizeof datagram, 0) > 0 ? datagram[0].nlmsg_type
                                                                          : 0;
    };
    EXPECT_EQ(answer(false), NLMSG_ERROR);
    EXPECT_EQ(answer(true), NLMSG_OVERRUN);
    EXPECT_EQ(answer(false), NLMSG_ERROR);

    hosted::netlink_kernel_close(kernel); // nobody is left to answer
    EXPECT_EQ(send(agent.get(), &request, sizeof request, 0), ssize_t{sizeof request});
    serve();
    EXPECT_FALSE(connection);
}

struct reception {
    std::atomic<int> arrived = 0;
    std::atomic<int> missing = 0;
};

void receive(sock *sk)
{
    auto *const seen = static_cast<reception *>(sock_user_data(sk));
    sk_buff *const skb = __skb_recv_udp(sk);
    ++(skb != nullptr ? seen->arrived : seen->missing);
    consume_skb(skb);
}

TEST_F(without_memory, the_engine_hears_that_a_datagram_was_lost)
{
    server.softirq.start(false);
    sock *sk = nullptr;
    ASSERT_EQ(__sock_create(&ns, AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
    reception seen;
    sock_set_data_ready(sk, receive, &seen);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    ASSERT_EQ(kernel_bind(sk, &address, sizeof address), 0);
    socklen_t len = sizeof address;
    getsockname(static_cast<host_sock *>(sk)->fd.get(), reinterpret_cast<sockaddr *>(&address),
                &len);

    const kelm::unique_fd peer(::socket(AF_INET6, SOCK_DGRAM, 0));
    for (const bool starved : {false, true, false}) {
        std::atomic<int> &count = starved ? seen.missing : seen.arrived;
        const int before = count;
        memory_is_short = starved;
        sendto(peer.get(), "x", 1, 0, reinterpret_cast<const sockaddr *>(&address), len);
        while (count == before)
            std::this_thread::yield();
        memory_is_short = false;
    }
    EXPECT_EQ(seen.arrived, 2);
    EXPECT_EQ(seen.missing, 1);
    sock_release(sk);
}

TEST(connection_quota, limits_each_user_and_takes_back_every_place)
{
    connection_quota quota;
    const auto take_all = [&](uid_t user) {
        std::vector<connection_quota::place> places;
        while (places.size() < 1000) {
            auto place = quota.take(user);
            if (!place)
                break;
            places.push_back(std::move(*place));
        }
        return places;
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(take_all(0).size(), 1000U);
        std::vector<std::size_t> sizes;
        std::vector<std::vector<connection_quota::place>> held;
        for (uid_t user = 1; user <= 9; ++user)
            sizes.push_back(held.emplace_back(take_all(user)).size());
        EXPECT_EQ(sizes, (std::vector<std::size_t>{32, 32, 32, 32, 32, 32, 32, 32, 0}));
    }
}

} // namespace

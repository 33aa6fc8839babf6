// SPDX-License-Identifier: GPL-2.0
//
// Netlink without the engine: the kernel's side is a few lines of the test.
#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>

#include "platform/capability.h"
#include "platform/sim/net.h"
#include "platform/spinlock.h"
#include "sim_fixture.h"

namespace
{

using namespace sim;

constexpr int unit = KELM_NETLINK_UNIT;
constexpr std::uint16_t message_type = 20;

// What the kernel socket of the running test does with a message.
std::function<int(sk_buff *, const nlmsghdr *)> handler;

int step(sk_buff *skb, nlmsghdr *nlh, netlink_ext_ack * /*extack*/)
{
    return handler(skb, nlh);
}

void input(sk_buff *skb)
{
    netlink_rcv_skb(skb, step);
}

class netlink : public testing::Test
{
  protected:
    netlink() { spin_lock_init(&lock, 1, "lock"); }
    ~netlink() override
    {
        w.close_agents();
        if (sk != nullptr)
            netlink_kernel_release(sk);
        handler = nullptr;
    }

    sock *open_socket()
    {
        const netlink_kernel_cfg cfg{.groups = 3, .input = input};
        return netlink_kernel_create(&ns, unit, &cfg);
    }

    // Something runs, on another processor, while `lock` is held for the first time.
    void at_lock(std::function<void()> action) { w.at_lock_point(2, std::move(action)); }
    void use_lock()
    {
        spin_lock_bh(&lock);
        spin_unlock_bh(&lock);
    }

    static sk_buff *message_buffer()
    {
        sk_buff *skb = alloc_skb(NLMSG_SPACE(10), GFP_KERNEL);
        __nlmsg_put(skb, 0, 0, message_type, 10, 0);
        return skb;
    }
    int multicast(std::uint32_t group, std::uint32_t except = 0)
    {
        return netlink_broadcast(sk, message_buffer(), except, group, GFP_ATOMIC);
    }
    int unicast(std::uint32_t to) { return netlink_unicast(sk, message_buffer(), to, 1); }

    world w{{.start = false}};
    net &ns = w.initial();
    sock *sk = open_socket();
    spinlock_t lock;
};

// The request loop

TEST_F(netlink, a_message_reaches_the_step_and_is_acknowledged_by_the_rules)
{
    constexpr std::uint16_t a_request = NLM_F_REQUEST, asks = NLM_F_ACK;
    const struct {
        const char *what;
        std::uint16_t type, flags;
        int result;
        bool step_runs;
        std::optional<int> acknowledgement;
    } cases[] = {
        {"asks for nothing", 16, a_request, 0, true, std::nullopt},
        {"asks for an acknowledgement", 16, a_request | asks, 0, true, 0},
        {"fails", 16, a_request, -EPERM, true, -EPERM},
        {"fails and asks", 31, a_request | asks, -EINVAL, true, -EINVAL},
        {"starts a dump", 31, a_request | asks, -EINTR, true, std::nullopt},
        {"is no request", 16, 0, -EPERM, false, std::nullopt},
        {"is no request and asks", 16, asks, -EPERM, false, 0},
        {"is of a control type", 15, a_request, -EPERM, false, std::nullopt},
        {"is of a control type and asks", 15, a_request | asks, -EPERM, false, 0},
    };
    agent &a = w.open_agent(ns);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        bool ran = false;
        handler = [&](sk_buff *, const nlmsghdr *) {
            ran = true;
            return c.result;
        };
        const bytes request = make_message(c.type, c.flags, 9, bytes{1, 2, 3, 4, 5});
        EXPECT_EQ(a.send(request), 0);
        EXPECT_EQ(ran, c.step_runs);
        const std::vector<message> answers = a.read_messages();
        ASSERT_EQ(answers.size(), c.acknowledgement ? 1U : 0U);
        if (!c.acknowledgement)
            continue;
        // A failure's has the whole request, a success's only its header.
        const int error = *c.acknowledgement;
        bytes body;
        append(body, as_bytes(error));
        append(body, std::span(request).first(NLMSG_LENGTH(error != 0 ? 5 : 0)));
        EXPECT_EQ(answers[0].body, body);
        EXPECT_EQ(answers[0].header.nlmsg_type, NLMSG_ERROR);
        EXPECT_EQ(answers[0].header.nlmsg_flags, error != 0 ? 0 : NLM_F_CAPPED);
        EXPECT_EQ(answers[0].header.nlmsg_seq, 9U);
        EXPECT_EQ(answers[0].header.nlmsg_pid, a.id());
    }
}

TEST_F(netlink, a_datagram_ends_before_a_message_that_does_not_fit)
{
    // The last message may lack its padding, but no more.
    const struct {
        std::size_t missing;
        std::uint32_t last_len;
        std::uint32_t last_seen;
    } cases[] = {{0, 21, 2}, {3, 21, 2}, {4, 21, 1}, {0, 0, 1}, {0, 15, 1}, {0, 0xffffffff, 1}};
    agent &a = w.open_agent(ns);
    const bytes first = make_message(message_type, NLM_F_REQUEST, 1, bytes(5));
    for (const auto &c : cases) {
        std::uint32_t last_seen = 0;
        handler = [&](sk_buff *, const nlmsghdr *nlh) {
            last_seen = nlh->nlmsg_seq;
            return 0;
        };
        bytes datagram = first;
        append(datagram, make_message(message_type, NLM_F_REQUEST, 2, bytes(5)));
        std::memcpy(datagram.data() + first.size(), &c.last_len, sizeof c.last_len);
        a.send(std::span(datagram).first(datagram.size() - c.missing));
        EXPECT_EQ(last_seen, c.last_seen) << c.missing << ' ' << c.last_len;
    }
}

TEST_F(netlink, without_memory_or_kernel_socket_a_request_fails_at_its_sender)
{
    agent &a = w.open_agent(ns);
    handler = [](sk_buff *, const nlmsghdr *) { return -EPERM; };
    const bytes request = make_message(message_type, NLM_F_REQUEST, 1, {});
    w.fail(service::allocation, -ENOMEM);
    EXPECT_EQ(a.send(request), -ENOBUFS);
    // An acknowledgement that cannot be made is a message that was lost.
    w.fail(service::allocation, -ENOMEM, 3);
    EXPECT_EQ(a.send(request), 0);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, NLMSG_OVERRUN);

    EXPECT_EQ(open_socket(), nullptr); // a namespace has one
    netlink_kernel_release(std::exchange(sk, nullptr));
    EXPECT_EQ(a.send(request), -ECONNREFUSED);
}

TEST_F(netlink, releasing_the_kernel_socket_waits_for_an_input_that_runs)
{
    std::string order;
    handler = [&](sk_buff *, const nlmsghdr *) {
        order += "in ";
        use_lock();
        order += "out ";
        return 0;
    };
    at_lock([&] {
        order += "release ";
        netlink_kernel_release(std::exchange(sk, nullptr));
        order += "released";
    });
    w.open_agent(ns).request(message_type, {});
    EXPECT_EQ(order, "in release out released");
}

// Ports and delivery

TEST_F(netlink, a_multicast_succeeds_if_one_subscriber_gets_it)
{
    agent &one = w.open_agent(ns, {.groups = 1, .queue_limit = 1});
    agent &both = w.open_agent(ns, {.groups = 3, .queue_limit = 2});
    const auto queued = [&] { return std::pair(one.queued(), both.queued()); };
    for (const std::uint32_t nobodys : {0U, 3U, 33U})
        EXPECT_EQ(multicast(nobodys), -ESRCH);
    EXPECT_EQ(multicast(2), 0);
    EXPECT_EQ(multicast(2, both.id()), -ESRCH);
    EXPECT_EQ(queued(), std::pair(0UL, 1UL));
    EXPECT_EQ(multicast(1), 0);
    EXPECT_EQ(queued(), std::pair(1UL, 2UL));
    EXPECT_EQ(multicast(1), -ENOBUFS);
    both.set_queue_limit(4); // with the news of what was lost
    EXPECT_EQ(multicast(1), 0);
    both.close();
    EXPECT_EQ(multicast(2), -ESRCH);
    one.set_queue_limit(2);
    EXPECT_EQ(multicast(1), -ENOBUFS); // the news of what was lost before takes the room
    EXPECT_EQ(one.read_messages().at(1).header.nlmsg_type, NLMSG_OVERRUN);
}

TEST_F(netlink, a_unicast_tells_its_length_or_why_not)
{
    struct refusing_port : hosted::netlink_port {
        int deliver(std::span<const std::uint8_t>) override { return -EMSGSIZE; }
        bool drained() override { return true; }
        bool sender_capable(int) override { return true; }
    } port;
    ASSERT_TRUE(ns.netlink.bind(port, 0, 1));
    EXPECT_EQ(multicast(1), -EMSGSIZE);
    EXPECT_EQ(unicast(port.id()), -EMSGSIZE);
    ns.netlink.close(port);

    agent &a = w.open_agent(ns, {.queue_limit = 1});
    EXPECT_EQ(unicast(a.id()), 28);
    EXPECT_EQ(unicast(a.id()), -EAGAIN);
    EXPECT_EQ(unicast(a.id() + 1), -ECONNREFUSED);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, message_type);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, NLMSG_OVERRUN);
    EXPECT_EQ(unicast(a.id()), 28);
}

// Dumps

// A dump of `left` messages, with counts of what was called.
struct dump_plan {
    int left = 0;
    std::size_t body_len = 1000; // 8 of them fit into a datagram
    int starts = 0;
    int fills = 0;
    int ends = 0;
    std::function<int()> start = [] { return 0; };
    int result_at_end = 0;
};

dump_plan plan;

int start_of_plan(netlink_callback *cb)
{
    ++plan.starts;
    EXPECT_EQ(cb->data, &plan);
    EXPECT_TRUE(std::ranges::all_of(cb->args, [](long arg) { return arg == 0; }));
    return plan.start();
}

int fill_of_plan(sk_buff *skb, netlink_callback *cb)
{
    ++plan.fills;
    for (; plan.left > 0; --plan.left) {
        if (skb_tailroom(skb) < NLMSG_SPACE(plan.body_len))
            return 1;
        __nlmsg_put(skb, netlink_skb_portid(cb->skb), cb->nlh->nlmsg_seq, message_type,
                    static_cast<int>(plan.body_len), 0);
    }
    return plan.result_at_end;
}

int end_of_plan(netlink_callback * /*cb*/)
{
    ++plan.ends;
    return 0;
}

class netlink_dump : public netlink
{
  protected:
    netlink_dump()
    {
        plan = {};
        handler = [](sk_buff *skb, const nlmsghdr *nlh) {
            const netlink_dump_control control{.start = start_of_plan,
                                               .dump = fill_of_plan,
                                               .done = end_of_plan,
                                               .data = &plan,
                                               .min_dump_alloc = 2048};
            return netlink_dump_start(skb_sk(skb), skb, nlh, &control);
        };
    }

    // How many messages the next datagram has.
    std::size_t read() { return parse_messages(a.read().value_or(bytes{})).size(); }
    int send() { return a.send(make_message(message_type, NLM_F_REQUEST, 1, {})); }

    agent &a = w.open_agent(ns, {.groups = 1});
};

TEST_F(netlink_dump, ends_with_nlmsg_done_that_tells_its_error)
{
    plan.left = 3;
    plan.result_at_end = -ENODEV;
    EXPECT_EQ(a.request(message_type, {}), std::nullopt);
    EXPECT_EQ(plan.ends, 1);
    const std::vector<message> messages = a.read_messages();
    ASSERT_EQ(messages.size(), 4U);
    const nlmsghdr done{20, NLMSG_DONE, NLM_F_MULTI, a.last_seq(), a.id()};
    EXPECT_EQ(std::memcmp(&messages[3].header, &done, sizeof done), 0);
    EXPECT_EQ(read_as<int>(messages[3].body), -ENODEV);

    // A failed start is the request's result.
    plan.start = [] { return -ENOMEM; };
    EXPECT_EQ(a.request(message_type, {}), -ENOMEM);
    EXPECT_EQ(plan.fills + plan.ends, 2);
    plan.start = [] { return 0; };
    EXPECT_EQ(a.dump(message_type, {}).error, -ENODEV);
}

TEST_F(netlink_dump, the_next_datagram_is_made_when_everything_was_read)
{
    plan.left = 20;
    send();
    EXPECT_EQ(multicast(1), 0);
    using reads = std::vector<std::pair<std::size_t, int>>;
    reads done{{0, plan.fills}};
    while (a.queued() != 0) {
        const std::size_t messages = read();
        done.emplace_back(messages, plan.fills);
    }
    EXPECT_EQ(done, (reads{{0, 1}, {8, 1}, {1, 2}, {8, 3}, {4 + 1, 3}}));
    EXPECT_EQ(plan.starts, 1);
    EXPECT_EQ(plan.ends, 1);
}

TEST_F(netlink_dump, room_is_8_kib_or_whatever_a_first_message_needs)
{
    const auto datagrams_of = [this](int messages, std::size_t body_len) {
        plan.left = messages;
        plan.body_len = body_len;
        const dump_result result = a.dump(message_type, {});
        EXPECT_EQ(result.error, 0);
        EXPECT_EQ(result.messages.size(), static_cast<std::size_t>(messages));
        return result.datagrams;
    };
    EXPECT_EQ(datagrams_of(2, 65'640), 3U); // more than any frame: one each, and NLMSG_DONE
    // Exactly full: NLMSG_DONE has no room and goes alone. Twenty bytes less, and it has.
    EXPECT_EQ(datagrams_of(1, 8 * 1024 - NLMSG_HDRLEN), 2U);
    EXPECT_EQ(datagrams_of(1, 8 * 1024 - NLMSG_HDRLEN - 20), 1U);
}

TEST_F(netlink_dump, without_memory_it_is_continued_at_the_next_read)
{
    plan.left = 12;
    w.fail(service::allocation, -ENOMEM, 3); // after the two of the request's own buffer
    send();
    EXPECT_EQ(plan.starts, 1);
    EXPECT_EQ(plan.fills, 0);
    EXPECT_EQ(read_as<int>(parse_messages(*a.read()).at(0).body), -ENOBUFS);
    EXPECT_EQ(plan.fills, 1);
    w.fail(service::allocation, -ENOMEM);
    EXPECT_EQ(read(), 8U);
    EXPECT_EQ(parse_messages(*a.read()).at(0).header.nlmsg_type, NLMSG_OVERRUN);
    EXPECT_EQ(read(), 4U + 1U);
    EXPECT_EQ(plan.ends, 1);
}

TEST_F(netlink_dump, waits_for_room_and_loses_nothing)
{
    a.set_queue_limit(1);
    plan.left = 1;
    EXPECT_GT(unicast(a.id()), 0);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(plan.ends, 0);
    EXPECT_EQ(a.queued(), 1U);
    EXPECT_EQ(read(), 1U);
    EXPECT_EQ(plan.ends, 1);
    EXPECT_EQ(read(), 2U);
}

TEST_F(netlink_dump, closing_waits_for_a_call_that_runs)
{
    bool in_start = false;
    plan.start = [&] {
        in_start = true;
        use_lock();
        in_start = false;
        return 0;
    };
    at_lock([&] {
        EXPECT_TRUE(in_start);
        a.close();
        EXPECT_FALSE(in_start);
        EXPECT_EQ(plan.ends, 1);
    });
    send();
    EXPECT_EQ(w.actions_left(), 0U);
    EXPECT_EQ(plan.ends, 1);
}

} // namespace

// SPDX-License-Identifier: GPL-2.0
//
// Netlink without the engine: the kernel's side is a few lines of the test.
#include "sim_fixture.h"

#include "platform/capability.h"
#include "platform/hosted/skbuff.h"
#include "platform/sim/net.h"
#include "platform/spinlock.h"

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

namespace
{

using namespace sim;

constexpr int UNIT = KELM_NETLINK_UNIT;
constexpr std::uint16_t TYPE = 20;

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
    netlink() { open_socket(); }
    ~netlink() override
    {
        w.close_agents();
        if (sk != nullptr)
            netlink_kernel_release(sk);
        handler = nullptr;
    }

    void open_socket()
    {
        const netlink_kernel_cfg cfg{.groups = 3, .input = input};
        sk = netlink_kernel_create(&ns, UNIT, &cfg);
    }

    static sk_buff *message_buffer(std::size_t body_len)
    {
        sk_buff *skb = alloc_skb(NLMSG_SPACE(static_cast<unsigned>(body_len)), GFP_KERNEL);
        append_message(skb, body_len);
        return skb;
    }

    static void append_message(sk_buff *skb, std::size_t body_len)
    {
        nlmsghdr *nlh = __nlmsg_put(skb, 0, 0, TYPE, static_cast<int>(body_len), 0);
        std::memset(nlh + 1, 0xbb, body_len);
    }

    world w{{.start = false}};
    net &ns = w.initial();
    sock *sk = nullptr;
};

// The request loop

struct request_case {
    const char *what;
    std::uint16_t type;
    std::uint16_t flags;
    int result;
    bool step_runs;
    std::optional<int> acknowledgement;
};

TEST_F(netlink, a_message_reaches_the_step_and_is_acknowledged_by_the_rules)
{
    const request_case cases[] = {
        {"asks for nothing", 16, NLM_F_REQUEST, 0, true, std::nullopt},
        {"asks for an acknowledgement", 16, NLM_F_REQUEST | NLM_F_ACK, 0, true, 0},
        {"fails", 16, NLM_F_REQUEST, -EPERM, true, -EPERM},
        {"fails and asks", 31, NLM_F_REQUEST | NLM_F_ACK, -EINVAL, true, -EINVAL},
        {"starts a dump", 31, NLM_F_REQUEST | NLM_F_ACK, -EINTR, true, std::nullopt},
        {"is no request", 16, 0, -EPERM, false, std::nullopt},
        {"is no request and asks", 16, NLM_F_ACK, -EPERM, false, 0},
        {"is of a control type", 15, NLM_F_REQUEST, -EPERM, false, std::nullopt},
        {"is of a control type and asks", 15, NLM_F_REQUEST | NLM_F_ACK, -EPERM, false, 0},
    };
    agent &a = w.open_agent(ns);
    for (const request_case &c : cases) {
        SCOPED_TRACE(c.what);
        bool ran = false;
        handler = [&](sk_buff *, const nlmsghdr *) {
            ran = true;
            return c.result;
        };
        EXPECT_EQ(a.send(make_message(c.type, c.flags, 9, {})), 0);
        EXPECT_EQ(ran, c.step_runs);
        const std::vector<message> answers = a.read_messages();
        ASSERT_EQ(answers.size(), c.acknowledgement ? 1U : 0U);
        if (c.acknowledgement) {
            EXPECT_EQ(answers[0].header.nlmsg_type, NLMSG_ERROR);
            EXPECT_EQ(answers[0].header.nlmsg_seq, 9U);
            EXPECT_EQ(answers[0].header.nlmsg_pid, a.id());
            EXPECT_EQ(read_as<int>(answers[0].body), *c.acknowledgement);
        }
    }
}

TEST_F(netlink, an_acknowledgement_echoes_the_header_or_of_a_failure_the_whole_request)
{
    agent &a = w.open_agent(ns);
    const bytes body{1, 2, 3, 4, 5};
    const bytes request = make_message(TYPE, NLM_F_REQUEST | NLM_F_ACK, 7, body);

    handler = [](sk_buff *, const nlmsghdr *) { return 0; };
    a.send(request);
    const message success = a.read_messages().at(0);
    EXPECT_EQ(success.header.nlmsg_flags, NLM_F_CAPPED);
    ASSERT_EQ(success.body.size(), sizeof(nlmsgerr));
    EXPECT_EQ(std::memcmp(success.body.data() + sizeof(int), request.data(), NLMSG_HDRLEN), 0);

    handler = [](sk_buff *, const nlmsghdr *) { return -EINVAL; };
    a.send(request);
    const message failed = a.read_messages().at(0);
    EXPECT_EQ(failed.header.nlmsg_flags, 0);
    ASSERT_EQ(failed.body.size(), sizeof(nlmsgerr) + body.size());
    EXPECT_EQ(std::memcmp(failed.body.data() + sizeof(int), request.data(), NLMSG_LENGTH(5)), 0);
}

TEST_F(netlink, a_datagram_is_walked_up_to_the_first_length_that_is_wrong)
{
    agent &a = w.open_agent(ns);
    std::vector<std::uint32_t> seen;
    handler = [&](sk_buff *, const nlmsghdr *nlh) {
        seen.push_back(nlh->nlmsg_seq);
        return 0;
    };
    const auto of = [](std::uint32_t seq, std::size_t body) {
        return make_message(TYPE, NLM_F_REQUEST, seq, bytes(body));
    };
    const auto with_len = [&](std::uint32_t len) {
        bytes m = of(99, 4);
        std::memcpy(m.data(), &len, sizeof len);
        return m;
    };
    const auto walk = [&](std::initializer_list<bytes> parts, std::size_t cut = 0) {
        seen.clear();
        bytes datagram;
        for (const bytes &part : parts)
            append(datagram, part);
        a.send(std::span(datagram).first(datagram.size() - cut));
        return seen;
    };
    using seqs = std::vector<std::uint32_t>;
    EXPECT_EQ(walk({of(1, 5), of(2, 0), of(3, 9)}), (seqs{1, 2, 3}));
    EXPECT_EQ(walk({of(1, 5), of(2, 5)}, 3), (seqs{1, 2})); // the last one's padding is missing
    EXPECT_EQ(walk({of(1, 5), of(2, 5)}, 4), (seqs{1}));
    EXPECT_EQ(walk({of(1, 4), with_len(15), of(3, 0)}), (seqs{1}));
    EXPECT_EQ(walk({of(1, 4), with_len(0), of(3, 0)}), (seqs{1}));
    EXPECT_EQ(walk({of(1, 4), with_len(0xfffffff0), of(3, 0)}), (seqs{1}));
    EXPECT_EQ(walk({with_len(0xffffffff)}), seqs{});
    EXPECT_EQ(walk({of(1, 0)}, 1), seqs{});
    EXPECT_EQ(walk({}), seqs{});
}

TEST_F(netlink, a_request_knows_its_sender)
{
    agent &privileged = w.open_agent(ns, {.port_id = 4711});
    agent &other = w.open_agent(ns, {.privileged = false});
    std::uint32_t port_id = 0;
    bool may = false;
    handler = [&](sk_buff *skb, const nlmsghdr *) {
        port_id = netlink_skb_portid(skb);
        may = capable(CAP_NET_ADMIN);
        EXPECT_EQ(skb_sk(skb), sk);
        EXPECT_EQ(sock_net(skb_sk(skb)), &ns);
        return 0;
    };
    EXPECT_EQ(privileged.request(TYPE, {}), 0);
    EXPECT_EQ(port_id, 4711U);
    EXPECT_TRUE(may);
    EXPECT_EQ(other.request(TYPE, {}), 0);
    EXPECT_EQ(port_id, other.id());
    EXPECT_FALSE(may);
    EXPECT_FALSE(capable(CAP_NET_ADMIN)); // nobody's request
}

TEST_F(netlink, without_memory_or_kernel_socket_a_request_fails_at_its_sender)
{
    agent &a = w.open_agent(ns);
    handler = [](sk_buff *, const nlmsghdr *) { return -EPERM; };
    w.fail(service::allocation, -ENOMEM);
    EXPECT_EQ(a.send(make_message(TYPE, NLM_F_REQUEST, 1, {})), -ENOBUFS);
    // An acknowledgement that cannot be made is a message that was lost.
    w.fail(service::allocation, -ENOMEM, 3);
    EXPECT_EQ(a.send(make_message(TYPE, NLM_F_REQUEST, 1, {})), 0);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, NLMSG_OVERRUN);

    netlink_kernel_release(std::exchange(sk, nullptr));
    EXPECT_EQ(a.send(make_message(TYPE, NLM_F_REQUEST, 1, {})), -ECONNREFUSED);
}

TEST_F(netlink, a_namespace_has_one_kernel_socket)
{
    const netlink_kernel_cfg cfg{.groups = 3, .input = input};
    EXPECT_EQ(netlink_kernel_create(&ns, UNIT, &cfg), nullptr);
}

TEST_F(netlink, releasing_the_kernel_socket_waits_for_an_input_that_runs)
{
    agent &a = w.open_agent(ns);
    spinlock_t lock;
    spin_lock_init(&lock, 1, "lock");
    std::string order;
    handler = [&](sk_buff *, const nlmsghdr *) {
        order += "in ";
        spin_lock_bh(&lock);
        spin_unlock_bh(&lock);
        order += "out ";
        return 0;
    };
    w.at_lock_point(2, [&] {
        order += "release ";
        netlink_kernel_release(std::exchange(sk, nullptr));
        order += "released";
    });
    a.request(TYPE, {});
    EXPECT_EQ(order, "in release out released");
}

// Ports and delivery

TEST_F(netlink, port_ids_are_the_wanted_ones_or_free_ones)
{
    agent &first = w.open_agent(ns, {.port_id = 100});
    agent &second = w.open_agent(ns);
    agent &third = w.open_agent(ns);
    EXPECT_EQ(first.id(), 100U);
    EXPECT_NE(second.id(), 0U);
    EXPECT_NE(second.id(), third.id());

    struct silent_port : hosted::netlink_port {
        int deliver(std::span<const std::uint8_t>) override { return 0; }
        bool drained() override { return true; }
        bool sender_capable(int) override { return true; }
    } port;
    EXPECT_FALSE(ns.netlink.bind(port, 100, 0));
    EXPECT_FALSE(ns.netlink.bind(port, second.id(), 0));
    EXPECT_EQ(port.id(), 0U);
    first.close();
    EXPECT_TRUE(ns.netlink.bind(port, 100, 0));
    ns.netlink.close(port);
    ns.netlink.close(port);
}

TEST_F(netlink, groups_take_privilege)
{
    agent &privileged = w.open_agent(ns, {.groups = 3});
    agent &other = w.open_agent(ns, {.privileged = false, .groups = 3});
    EXPECT_EQ(privileged.groups(), 3U);
    EXPECT_EQ(other.groups(), 0U);
    other.set_groups(1);
    EXPECT_EQ(other.groups(), 0U);
    other.set_privileged(true);
    other.set_groups(2);
    EXPECT_EQ(other.groups(), 2U);
}

TEST_F(netlink, a_multicast_succeeds_if_one_subscriber_gets_it)
{
    const auto multicast = [this](std::uint32_t group, std::uint32_t except = 0) {
        return netlink_broadcast(sk, message_buffer(8), except, group, GFP_ATOMIC);
    };
    agent &one = w.open_agent(ns, {.groups = 1, .queue_limit = 1});
    agent &both = w.open_agent(ns, {.groups = 3, .queue_limit = 2});
    EXPECT_EQ(multicast(3), -ESRCH);
    EXPECT_EQ(multicast(0), -ESRCH);
    EXPECT_EQ(multicast(33), -ESRCH);
    EXPECT_EQ(multicast(2), 0);
    EXPECT_EQ(multicast(2, both.id()), -ESRCH);
    EXPECT_EQ(one.queued(), 0U);
    EXPECT_EQ(both.queued(), 1U);
    EXPECT_EQ(multicast(1), 0);
    EXPECT_EQ(one.queued(), 1U);
    EXPECT_EQ(both.queued(), 2U);
    EXPECT_EQ(multicast(1), -ENOBUFS);
    both.close();
    EXPECT_EQ(multicast(2), -ESRCH);
    one.set_queue_limit(2);
    EXPECT_EQ(multicast(1), -ENOBUFS); // the news of what was lost before takes the room
    const std::vector<message> messages = one.read_messages();
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[1].header.nlmsg_type, NLMSG_OVERRUN);
}

TEST_F(netlink, what_the_transport_cannot_carry_is_too_long_or_too_short)
{
    struct narrow_port : hosted::netlink_port {
        int deliver(std::span<const std::uint8_t> datagram) override
        {
            return datagram.size() < NLMSG_HDRLEN ? -EMSGSIZE : 0;
        }
        bool drained() override { return true; }
        bool sender_capable(int) override { return true; }
    } port;
    ASSERT_TRUE(ns.netlink.bind(port, 0, 1));
    const auto short_message = [] { return hosted::skb_copy_bytes(bytes(15), 0, GFP_ATOMIC); };
    EXPECT_EQ(netlink_broadcast(sk, short_message(), 0, 1, GFP_ATOMIC), -EMSGSIZE);
    EXPECT_EQ(netlink_unicast(sk, short_message(), port.id(), 1), -EMSGSIZE);
    // A subscriber that can have it makes a success of it.
    w.open_agent(ns, {.groups = 1});
    EXPECT_EQ(netlink_broadcast(sk, short_message(), 0, 1, GFP_ATOMIC), 0);
    ns.netlink.close(port);
}

TEST_F(netlink, a_unicast_tells_its_length_or_why_not)
{
    agent &a = w.open_agent(ns, {.queue_limit = 1});
    EXPECT_EQ(netlink_unicast(sk, message_buffer(10), a.id(), 1), 28);
    EXPECT_EQ(netlink_unicast(sk, message_buffer(10), a.id(), 1), -EAGAIN);
    EXPECT_EQ(netlink_unicast(sk, message_buffer(10), a.id() + 1, 1), -ECONNREFUSED);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, TYPE);
    EXPECT_EQ(a.read_messages().at(0).header.nlmsg_type, NLMSG_OVERRUN);
    EXPECT_EQ(netlink_unicast(sk, message_buffer(10), a.id(), 1), 28);
}

// Dumps

// A dump of `left` messages, with counts of what was called.
struct dump_plan {
    int left = 0;
    std::size_t body_len = 1000;
    int starts = 0;
    int fills = 0;
    int ends = 0;
    int start_result = 0;
    int result_at_end = 0;
    std::vector<unsigned int> first_rooms;
};

dump_plan plan;

int start_of_plan(netlink_callback *cb)
{
    ++plan.starts;
    EXPECT_EQ(cb->data, &plan);
    EXPECT_EQ(cb->args[0], 0);
    EXPECT_EQ(cb->args[5], 0);
    return plan.start_result;
}

int fill_of_plan(sk_buff *skb, netlink_callback *cb)
{
    ++plan.fills;
    EXPECT_NE(cb->skb, nullptr);
    plan.first_rooms.push_back(skb_tailroom(skb));
    while (plan.left > 0) {
        if (skb_tailroom(skb) < NLMSG_SPACE(plan.body_len))
            return 1;
        __nlmsg_put(skb, netlink_skb_portid(cb->skb), cb->nlh->nlmsg_seq, TYPE,
                    static_cast<int>(plan.body_len), 0);
        --plan.left;
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
};

TEST_F(netlink_dump, an_empty_one_is_nlmsg_done_alone)
{
    agent &a = w.open_agent(ns);
    EXPECT_EQ(a.request(TYPE, {}), std::nullopt);
    EXPECT_EQ(plan.ends, 1);
    const std::optional<bytes> datagram = a.read();
    ASSERT_TRUE(datagram);
    EXPECT_EQ(datagram->size(), 20U);
    const message done = parse_messages(*datagram).at(0);
    EXPECT_EQ(done.header.nlmsg_type, NLMSG_DONE);
    EXPECT_EQ(done.header.nlmsg_flags, NLM_F_MULTI);
    EXPECT_EQ(done.header.nlmsg_seq, a.last_seq());
    EXPECT_EQ(done.header.nlmsg_pid, a.id());
    EXPECT_EQ(read_as<int>(done.body), 0);
}

TEST_F(netlink_dump, the_next_datagram_is_made_when_everything_was_read)
{
    agent &a = w.open_agent(ns, {.groups = 1});
    plan.left = 40; // of 1016 bytes: 16 fit
    EXPECT_EQ(a.request(TYPE, {}), std::nullopt);
    EXPECT_EQ(plan.fills, 1);
    EXPECT_EQ(netlink_broadcast(sk, message_buffer(4), 0, 1, GFP_ATOMIC), 0);
    EXPECT_EQ(a.queued(), 2U);

    EXPECT_EQ(parse_messages(*a.read()).size(), 16U);
    EXPECT_EQ(plan.fills, 1);
    EXPECT_EQ(parse_messages(*a.read()).size(), 1U);
    EXPECT_EQ(plan.fills, 2);
    EXPECT_EQ(parse_messages(*a.read()).size(), 16U);
    EXPECT_EQ(plan.fills, 3);
    EXPECT_EQ(plan.ends, 1); // the rest and NLMSG_DONE are on their way
    EXPECT_EQ(parse_messages(*a.read()).size(), 8U + 1U);
    EXPECT_EQ(a.queued(), 0U);
    EXPECT_EQ(plan.starts, 1);
    EXPECT_EQ(plan.ends, 1);
}

TEST_F(netlink_dump, room_is_16_kib_or_whatever_a_first_message_needs)
{
    agent &a = w.open_agent(ns);
    plan.left = 2;
    plan.body_len = 65'640; // more than any frame
    dump_result result = a.dump(TYPE, {});
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.messages.size(), 2U);
    EXPECT_EQ(result.datagrams, 3U); // one each, and NLMSG_DONE

    // Exactly full: NLMSG_DONE has no room and goes alone. Twenty bytes less, and it has.
    plan.left = 1;
    plan.body_len = 16 * 1024 - NLMSG_HDRLEN;
    result = a.dump(TYPE, {});
    EXPECT_EQ(result.datagrams, 2U);
    EXPECT_EQ(result.error, 0);
    plan.left = 1;
    plan.body_len -= 20;
    result = a.dump(TYPE, {});
    EXPECT_EQ(result.datagrams, 1U);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(plan.ends, 3);
}

TEST_F(netlink_dump, its_error_is_told_by_nlmsg_done)
{
    agent &a = w.open_agent(ns);
    plan.left = 3;
    plan.result_at_end = -ENODEV;
    const dump_result result = a.dump(TYPE, {});
    EXPECT_EQ(result.messages.size(), 3U);
    EXPECT_EQ(result.error, -ENODEV);
}

TEST_F(netlink_dump, there_is_one_at_a_time_per_socket)
{
    agent &a = w.open_agent(ns);
    agent &b = w.open_agent(ns);
    plan.left = 100;
    EXPECT_EQ(a.request(TYPE, {}), std::nullopt);
    const std::uint32_t seq_of_dump = a.last_seq();
    EXPECT_EQ(a.request(TYPE, {}), -EBUSY);
    EXPECT_EQ(plan.starts, 1);
    EXPECT_EQ(b.request(TYPE, {}), std::nullopt);
    EXPECT_EQ(plan.starts, 2);
    while (const std::optional<bytes> datagram = a.read())
        EXPECT_EQ(parse_messages(*datagram).at(0).header.nlmsg_seq, seq_of_dump);
    EXPECT_EQ(plan.ends, 1);
    EXPECT_EQ(a.request(TYPE, {}), std::nullopt);
}

TEST_F(netlink_dump, ends_once_when_its_agent_goes_away)
{
    agent &a = w.open_agent(ns);
    plan.left = 100;
    a.request(TYPE, {});
    a.read();
    const int fills = plan.fills;
    a.close();
    EXPECT_EQ(plan.fills, fills);
    EXPECT_EQ(plan.ends, 1);
}

TEST_F(netlink_dump, a_failed_start_is_the_requests_result)
{
    agent &a = w.open_agent(ns);
    plan.start_result = -ENOMEM;
    EXPECT_EQ(a.request(TYPE, {}), -ENOMEM);
    EXPECT_EQ(plan.fills, 0);
    EXPECT_EQ(plan.ends, 0);
    plan.start_result = 0;
    EXPECT_EQ(a.dump(TYPE, {}).error, 0);
}

TEST_F(netlink_dump, without_memory_it_is_continued_at_the_next_read)
{
    agent &a = w.open_agent(ns);
    plan.left = 20;
    w.fail(service::allocation, -ENOMEM, 3); // after the two of the request's own buffer
    a.send(make_message(TYPE, NLM_F_REQUEST, 1, {}));
    EXPECT_EQ(plan.starts, 1);
    EXPECT_EQ(plan.fills, 0);
    EXPECT_EQ(read_as<int>(parse_messages(*a.read()).at(0).body), -ENOBUFS);
    EXPECT_EQ(plan.fills, 1);
    w.fail(service::allocation, -ENOMEM);
    EXPECT_EQ(parse_messages(*a.read()).size(), 16U);
    EXPECT_EQ(parse_messages(*a.read()).at(0).header.nlmsg_type, NLMSG_OVERRUN);
    EXPECT_EQ(parse_messages(*a.read()).size(), 4U + 1U);
    EXPECT_EQ(plan.ends, 1);
}

TEST_F(netlink_dump, waits_for_room_and_loses_nothing)
{
    agent &a = w.open_agent(ns, {.queue_limit = 1});
    plan.left = 1;
    EXPECT_GT(netlink_unicast(sk, message_buffer(4), a.id(), 1), 0);
    EXPECT_EQ(a.send(make_message(TYPE, NLM_F_REQUEST, 1, {})), 0);
    EXPECT_EQ(plan.ends, 0);
    EXPECT_EQ(a.queued(), 1U);
    a.read();
    EXPECT_EQ(plan.ends, 1);
    EXPECT_EQ(parse_messages(*a.read()).size(), 2U);
}

TEST_F(netlink_dump, closing_waits_for_a_call_that_runs)
{
    agent &a = w.open_agent(ns);
    spinlock_t lock;
    spin_lock_init(&lock, 1, "lock");
    bool in_start = false;
    handler = [&](sk_buff *skb, const nlmsghdr *nlh) {
        static spinlock_t *taken = nullptr;
        static bool *running = nullptr;
        taken = &lock;
        running = &in_start;
        const netlink_dump_control control{.start =
                                               [](netlink_callback *) {
                                                   *running = true;
                                                   spin_lock_bh(taken);
                                                   spin_unlock_bh(taken);
                                                   *running = false;
                                                   return 0;
                                               },
                                           .dump = fill_of_plan,
                                           .done = end_of_plan,
                                           .data = nullptr,
                                           .min_dump_alloc = 0};
        return netlink_dump_start(skb_sk(skb), skb, nlh, &control);
    };
    w.at_lock_point(2, [&] {
        EXPECT_TRUE(in_start);
        a.close();
        EXPECT_FALSE(in_start);
        EXPECT_EQ(plan.ends, 1);
    });
    a.send(make_message(TYPE, NLM_F_REQUEST, 1, {}));
    EXPECT_EQ(w.actions_left(), 0U);
    EXPECT_EQ(plan.ends, 1);
}

} // namespace

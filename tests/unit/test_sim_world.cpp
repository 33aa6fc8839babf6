// SPDX-License-Identifier: GPL-2.0
//
// The world itself: that nothing left behind goes unnoticed, that faults hit what they are aimed
// at, that time and namespaces go their way.
#include "sim_fixture.h"

#include "platform/clock.h"
#include "platform/kthread.h"
#include "platform/memory.h"
#include "platform/printk.h"
#include "platform/random.h"
#include "platform/sim/net.h"
#include "platform/skbuff.h"
#include "platform/socket.h"
#include "platform/timer.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <netpacket/packet.h>

namespace
{

using namespace sim;

std::vector<std::string> failures_of(const std::function<void()> &run)
{
    const auto previous = on_failure;
    std::vector<std::string> texts;
    on_failure = [&texts](const std::string &text) { texts.push_back(text); };
    run();
    on_failure = previous;
    return texts;
}

// Whether a world in which this was done fails in exactly one way, and in which.
std::string failure_of(const std::function<void(world &)> &act)
{
    const std::vector<std::string> texts = failures_of([&act] {
        world w({.start = false});
        act(w);
    });
    return texts.size() == 1 ? texts[0] : std::to_string(texts.size()) + " failures";
}

sock *make_socket(net &ns, int kern)
{
    sock *sk = nullptr;
    EXPECT_EQ(__sock_create(&ns, AF_PACKET, SOCK_RAW, 2, &sk, kern), 0);
    return sk;
}

TEST(world_end, notices_what_was_left_behind)
{
    const auto contains = [](const std::function<void(world &)> &act, const char *text) {
        const std::string failure = failure_of(act);
        EXPECT_NE(failure.find(text), std::string::npos) << failure;
    };
    contains([](world &) { (void)kmalloc(100, GFP_KERNEL); }, "100 bytes leaked");
    contains([](world &) { (void)kzalloc(0, GFP_KERNEL); }, "0 bytes leaked");
    contains([](world &w) { w.expect_warning("bad"); }, "\"bad\" did not come");
    contains([](world &) { WARN("bad %d", 1); }, "kernel warning: bad 1");
    contains([](world &) { printk("no level"); }, "a log line without a level: no level");
    contains(
        [](world &) {
            static timer_list timer;
            timer_setup(&timer, [](timer_list *) {});
            mod_timer(&timer, 1);
        },
        "1 timers are still armed");
    EXPECT_EQ(failure_of([](world &) { (void)alloc_skb(10, GFP_KERNEL); }), "2 failures");
    EXPECT_EQ(failure_of([](world &w) { make_socket(w.initial(), 1); }), "2 failures");
    EXPECT_EQ(failure_of([](world &w) { make_socket(w.initial(), 0); }), "3 failures");
    EXPECT_EQ(failure_of([](world &w) {
                  w.expect_warning("bad");
                  WARN("something bad");
              }),
              "0 failures");
}

TEST(world_end, leaves_a_world_for_the_next)
{
    for (int i = 0; i < 3; ++i) {
        world w({.namespaces = {"red", "blue"}});
        w.open_agent(w.find("red"), {.groups = 3});
        w.deliver(w.find("red"), arriving({}));
        EXPECT_EQ(w.logged("Created vrf"), 0U); // the level is back at 1
        w.advance(1000);
    }
}

TEST(faults, hit_the_nth_use_and_as_many_as_planned)
{
    world w({.start = false});
    const auto works = [] {
        void *memory = kmalloc(1, GFP_ATOMIC);
        kfree(memory);
        return memory != nullptr;
    };
    EXPECT_TRUE(works());
    w.fail(service::allocation, -ENOMEM, 2, 2);
    EXPECT_TRUE(works());
    EXPECT_FALSE(works());
    EXPECT_FALSE(works());
    EXPECT_TRUE(works());
    EXPECT_EQ(w.uses(service::allocation), 5U);
    EXPECT_EQ(w.failed(service::allocation), 2U);

    net &ns = w.initial();
    const int refs = world::refcount(ns);
    sock *sk = nullptr;
    w.fail(service::packet_socket, -EPERM);
    EXPECT_EQ(__sock_create(&ns, AF_PACKET, SOCK_RAW, 2, &sk, 0), -EPERM);
    w.fail(service::allocation, -ENOMEM);
    EXPECT_EQ(__sock_create(&ns, AF_PACKET, SOCK_RAW, 2, &sk, 0), -ENOMEM);
    EXPECT_EQ(world::refcount(ns), refs);
    sk = make_socket(ns, 0);
    EXPECT_EQ(world::refcount(ns), refs + 1);

    // A frame is kept when it was sent, and only then.
    sock_set_allocation(sk, GFP_ATOMIC);
    const std::uint8_t data[] = {1, 2, 3};
    const kvec vec{.iov_base = data, .iov_len = 3};
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = 9;
    const kernel_msghdr msg{.msg_name = &to,
                            .msg_namelen = sizeof to,
                            .msg_flags = MSG_DONTWAIT,
                            .msg_control = nullptr,
                            .msg_controllen = 0};
    for (const int result : {-ENETUNREACH, 2}) {
        w.fail(service::send, result);
        EXPECT_EQ(kernel_sendmsg(sk, &msg, &vec, 1, 3), result);
    }
    EXPECT_TRUE(w.frames().empty());
    EXPECT_EQ(kernel_sendmsg(sk, &msg, &vec, 1, 3), 3);
    ASSERT_EQ(w.frames().size(), 1U);
    EXPECT_EQ(w.frames()[0].data, (bytes{1, 2, 3}));
    EXPECT_EQ(w.frames()[0].ifindex, 9);
    sock_release(sk);
    EXPECT_EQ(world::refcount(ns), refs);
}

TEST(faults, of_the_start_leave_nothing)
{
    const std::pair<service, int> causes[] = {{service::notifier, -EPERM},
                                              {service::thread, -EAGAIN}};
    for (const auto &[which, error] : causes) {
        world w({.start = false});
        w.fail(which, error);
        EXPECT_EQ(w.start(), error);
        EXPECT_EQ(w.memory_in_use(), 0U);
    }
}

TEST(datagrams, show_a_packet_tap_that_is_written_into)
{
    const auto texts = failures_of([] {
        world w({.start = false});
        sock *sk = nullptr;
        ASSERT_EQ(__sock_create(&w.initial(), AF_INET6, SOCK_DGRAM, 0, &sk, 1), 0);
        sock_set_data_ready(
            sk,
            [](sock *ready) {
                sk_buff *skb = __skb_recv_udp(ready);
                skb_data(skb)[3] ^= 1;
                consume_skb(skb);
            },
            nullptr);
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(3784);
        ASSERT_EQ(kernel_bind(sk, &any, sizeof any), 0);
        datagram d = arriving({});
        d.form = buffer_form::cloned;
        w.deliver(w.initial(), d);
        sock_release(sk);
    });
    ASSERT_EQ(texts.size(), 1U);
    EXPECT_NE(texts[0].find("has been written into"), std::string::npos);
}

// Time

struct noting_timer {
    timer_list timer{};
    int number = 0;
};

std::vector<std::pair<int, std::uint64_t>> expired;
world *timer_world = nullptr;

std::vector<std::pair<int, std::uint64_t>> expiries(const world_options &options)
{
    world w(options);
    timer_world = &w;
    expired.clear();
    std::vector<noting_timer> timers(6);
    for (int i = 0; i < 6; ++i) {
        noting_timer &noting = timers[static_cast<std::size_t>(i)];
        noting.number = i;
        timer_setup(&noting.timer, [](timer_list *timer) {
            const auto *self = reinterpret_cast<const noting_timer *>(timer);
            expired.emplace_back(self->number, timer_world->tick());
        });
        mod_timer(&noting.timer, w.tick() + (i < 4 ? 7U : 9U));
    }
    w.advance(20);
    EXPECT_EQ(w.timers(), 0U);
    return expired;
}

TEST(time, timers_run_at_their_tick_and_ties_are_broken_by_the_seed)
{
    bool differs = false;
    for (std::uint64_t seed = 0; seed < 10; ++seed) {
        const world_options options{.start = false, .seed = seed};
        const auto course = expiries(options);
        EXPECT_EQ(course, expiries(options));
        ASSERT_EQ(course.size(), 6U);
        for (std::size_t i = 0; i < 6; ++i) {
            EXPECT_EQ(course[i].first < 4, i < 4);
            EXPECT_EQ(course[i].second - course[0].second, i < 4 ? 0U : 2U);
        }
        differs = differs || course[0].first != 0;
    }
    EXPECT_TRUE(differs);
    const auto in_order = expiries({.start = false, .shuffle_ties = false});
    EXPECT_TRUE(std::ranges::is_sorted(in_order));
}

TEST(time, moves_when_told_and_not_otherwise)
{
    world w({.start = false});
    static int runs;
    runs = 0;
    timer_list timer{};
    timer_setup(&timer, [](timer_list *) { ++runs; });
    const std::uint64_t tick = w.tick();
    const std::int64_t wall = w.wall_ns();
    const std::int64_t raw = w.raw_ns();
    EXPECT_NE(tick, 0U);
    EXPECT_EQ(get_jiffies_64(), tick);

    mod_timer(&timer, tick + 3);
    w.pass(10); // late
    EXPECT_EQ(runs, 0);
    mod_timer(&timer, tick + 10); // for now: not before the next tick
    w.run_timers();
    EXPECT_EQ(runs, 0);
    w.advance(1);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(w.wall_ns() - wall, 11'000'000);
    EXPECT_EQ(w.raw_ns() - raw, 11'000'000);
    w.move_clocks(500);
    w.step_wall_clock(-1'000'000'000);
    EXPECT_EQ(w.tick(), tick + 11);
    timespec64 ts{};
    ktime_get_real_ts64(&ts);
    EXPECT_EQ(ts.tv_sec * 1'000'000'000 + ts.tv_nsec, wall + 11'000'500 - 1'000'000'000);
    ktime_get_raw_ts64(&ts);
    EXPECT_EQ(ts.tv_sec * 1'000'000'000 + ts.tv_nsec, raw + 11'000'500);
}

TEST(random, is_scripted_first_and_the_seeds_then)
{
    const auto three = [](std::uint64_t seed) {
        world w({.start = false, .seed = seed});
        w.next_random(7);
        EXPECT_EQ(prandom_u32(), 7U);
        return std::array{prandom_u32(), prandom_u32(), prandom_u32()};
    };
    EXPECT_EQ(three(1), three(1));
    EXPECT_NE(three(1), three(2));
}

TEST(log, has_lines_with_their_level)
{
    world w({.start = false});
    printk(KERN_INFO "kelm %s: %d\n", "Rx", 5);
    printk(KERN_DEBUG "kelm: no line break");
    ASSERT_EQ(w.log().size(), 2U);
    EXPECT_EQ(w.log()[0].level, 6);
    EXPECT_EQ(w.log()[0].text, "kelm Rx: 5");
    EXPECT_EQ(w.log()[1].level, 7);
    EXPECT_EQ(w.logged("Rx"), 1U);
}

// Namespaces, with the engine

TEST(namespaces, one_that_is_abandoned_goes_when_nobody_holds_it)
{
    world w({.namespaces = {"red"}});
    net &red = w.find("red");
    EXPECT_EQ(world::refcount(red), 1 + 2); // its name, and the engine's two sockets
    agent &a = w.open_agent(red);
    w.abandon(red);
    w.advance(100);
    EXPECT_TRUE(world::alive(red));
    a.close();
    EXPECT_TRUE(world::alive(red));
    w.advance(25);
    EXPECT_FALSE(world::alive(red));
    EXPECT_FALSE(w.deliver(red, arriving({})));
    EXPECT_TRUE(w.deliver(w.initial(), arriving({})));
}

TEST(namespaces, the_notifier_hears_of_devices_in_their_order)
{
    world w({.namespaces = {"red"}, .start = false});
    w.add_device(w.find("red"), "eth0", 2);
    static std::vector<std::string> events;
    events.clear();
    notifier_block noting{[](notifier_block *, unsigned long event, void *info) {
        const net_device *device = netdev_notifier_info_to_dev(info);
        events.push_back(std::to_string(event) + " " + dev_net(device)->name + " " +
                         netdev_name(device) + " " + std::to_string(netdev_ifindex(device)));
        return NOTIFY_OK;
    }};
    ASSERT_EQ(register_netdevice_notifier(&noting), 0);
    net &blue = w.create_namespace("blue");
    w.remove_device(w.find("red"), 2);
    w.abandon(blue);
    unregister_netdevice_notifier(&noting);
    w.create_namespace("green");
    EXPECT_EQ(events, (std::vector<std::string>{"5 initial lo 1", "5 red lo 1", "5 red eth0 2",
                                                "5 blue lo 1", "6 red eth0 2", "6 blue lo 1"}));
}

} // namespace

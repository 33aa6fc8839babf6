// SPDX-License-Identifier: GPL-2.0
//
// Contexts' rules, the passing of time, and the death of namespaces.
#include "platform/sim/machine.h"

#include <algorithm>
#include <utility>

#include "platform/hosted/skbuff.h"

namespace sim
{

namespace
{

constexpr std::int64_t ns_per_tick = 1'000'000;

// Not 0, and five minutes before 32 bits overflow, as the kernel does it.
constexpr std::uint64_t first_tick = (std::uint64_t{1} << 32) - 300 * ticks_per_second;
constexpr clocks at_start{
    .tick = first_tick, .wall_ns = 1'764'000'000'123'456'789, .raw_ns = 98'765'432'100};

machine *existing = nullptr;

bool reallocation_allowed()
{
    return the_machine().faults.use(service::skb_reallocation) == 0;
}

} // namespace

machine &the_machine()
{
    return *existing;
}

machine::machine(const world_options &wanted)
    : options(wanted), clock(at_start), sched(wanted.seed), wheel(at_start.tick),
      tie_breaker(wanted.seed + 1), prandom(wanted.seed + 2)
{
    if (existing != nullptr)
        fatal("there is a world already");
    existing = this;
    hosted::skb_may_reallocate = reallocation_allowed;
}

machine::~machine()
{
    existing = nullptr;
}

void machine::expect_may_sleep(const char *what)
{
    const context &self = sched.current();
    if (self.may_sleep()) [[likely]]
        return;
    failure("%s %s\n%s", what, self.softirq_depth != 0 ? "in softirq context" : "with a lock held",
            sched.report().c_str());
}

void machine::advance_to(std::uint64_t tick)
{
    if (!sched.on_main())
        fatal("only the test itself moves the clock");
    settle(); // a context may be about to sleep
    while (clock.tick < tick) {
        const std::uint64_t event = std::min({tick, wheel.next_event(), sched.next_wake()});
        const std::uint64_t next = std::max(event, clock.tick + 1);
        const auto ns = static_cast<std::int64_t>(next - clock.tick) * ns_per_tick;
        clock = {next, clock.wall_ns + ns, clock.raw_ns + ns};
        run_timers();
        settle();
    }
}

void machine::settle()
{
    if (!sched.on_main())
        return;
    sched.settle();
    while (!dying.empty()) {
        net &ns = *dying.front();
        dying.pop_front();
        notify(ns, NETDEV_UNREGISTER);
        if (ns.sockets != 0)
            failure("namespace %s is gone, and %d sockets are still in it", ns.name.c_str(),
                    ns.sockets);
        ns.devices.clear();
        ns.dead = true;
        sched.settle();
    }
}

softirq_scope::softirq_scope()
    : self_(the_machine().sched.current()), held_before_(self_.held_count)
{
    if (held_before_ != 0)
        failure("a softirq on a processor that holds a lock\n%s",
                the_machine().sched.report().c_str());
    ++self_.softirq_depth;
}

softirq_scope::~softirq_scope()
{
    if (self_.held_count != held_before_)
        failure("a softirq ends with a lock held\n%s", the_machine().sched.report().c_str());
    --self_.softirq_depth;
}

} // namespace sim

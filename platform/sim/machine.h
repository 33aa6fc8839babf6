// SPDX-License-Identifier: GPL-2.0
//
// Everything that the services share: the machine of a world. There is one at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "platform/hosted/timer_wheel.h"
#include "platform/sim/agent.h"
#include "platform/sim/context.h"
#include "platform/sim/faults.h"
#include "platform/sim/memory.h"
#include "platform/sim/net.h"
#include "platform/sim/random.h"
#include "platform/sim/world.h"

struct notifier_block;

namespace sim
{

struct clocks {
    std::uint64_t tick;
    std::int64_t wall_ns;
    std::int64_t raw_ns;
};

struct machine {
    explicit machine(const world_options &wanted);
    ~machine();
    machine(const machine &) = delete;
    machine &operator=(const machine &) = delete;

    world_options options;
    clocks clock;
    scheduler sched;
    heap memory;
    fault_plan faults;
    int unfailing = 0; // greater than 0: what is allocated now is the simulation's own
    hosted::timer_wheel wheel;
    random_source tie_breaker;
    random_source prandom;
    std::deque<std::uint32_t> next_randoms;

    std::vector<std::unique_ptr<net>> namespaces; // in order of creation
    std::deque<net *> dying;
    notifier_block *notifier = nullptr;
    std::list<std::unique_ptr<agent>> agents;
    int threads = 0;
    long slept_on_main = 0;   // ticks, in kernel services
    bool module_held = false; // the engine keeps it from being unloaded

    std::vector<frame> frames;
    std::deque<log_line> log;
    std::vector<std::string> expected_warnings;

    // Fails the run unless the current context may sleep.
    void expect_may_sleep(const char *what);

    // Calls the notifier for every device of a namespace, or for one.
    void notify(net &ns, unsigned long event);
    void notify(net_device &device, unsigned long event);

    void run_timers();
    void advance_to(std::uint64_t tick);

    // Runs all contexts that can run, and buries the namespaces that have died.
    void settle();
};

// That of the world that exists.
machine &the_machine();

// Softirq context, for a scope.
class softirq_scope
{
  public:
    softirq_scope();
    ~softirq_scope();
    softirq_scope(const softirq_scope &) = delete;
    softirq_scope &operator=(const softirq_scope &) = delete;

  private:
    context &self_;
    std::size_t held_before_;
};

// Allocations of the simulation itself, which no fault concerns, for a scope.
class unfailing_allocations
{
  public:
    unfailing_allocations() { ++the_machine().unfailing; }
    ~unfailing_allocations() { --the_machine().unfailing; }
    unfailing_allocations(const unfailing_allocations &) = delete;
    unfailing_allocations &operator=(const unfailing_allocations &) = delete;
};

} // namespace sim

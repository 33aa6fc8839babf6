// SPDX-License-Identifier: GPL-2.0
//
// A world: the engine on a machine of its own, in which nothing happens by itself. Time moves when
// the test moves it, frames that are sent are kept, datagrams and requests come when the test
// brings them, and every service can be made to fail. A run is a function of its seed.
//
// One world exists at a time. Its end takes the engine down, and whatever of it is left then
// (memory, buffers, sockets, timers, threads, references on namespaces) is a failure; so is every
// breach of the platform's rules on the way, and every kernel warning that was not expected.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sim/agent.h"
#include "platform/sim/failure.h"
#include "platform/sim/faults.h"
#include "platform/sim/frame.h"

struct net;

namespace sim
{

struct machine;

inline constexpr std::uint32_t ticks_per_second = 1000;

struct world_options {
    std::vector<std::string> namespaces = {}; // there at the start, besides the initial one
    bool start = true;                        // the engine, at once
    std::uint64_t seed = 1;
    bool shuffle_ties = true; // timers of one tick run in an order drawn from the seed
    bool keep_frames = true;
    bool devices_leave_at_stop = false; // see unregister_netdevice_notifier
};

struct log_line {
    int level; // the kernel's: 6 informational, 7 debug, 4 a warning
    std::string text;
};

class world
{
  public:
    explicit world(const world_options &options = {});
    ~world();
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    // The engine. start returns what kelm_init returns; stop closes the agents, takes everything
    // down and looks for leaks.
    int start();
    void stop();

    // Namespaces, each with its "lo". An abandoned one has lost its name and lives until its last
    // reference is gone.
    [[nodiscard]] net &initial();
    [[nodiscard]] net &find(std::string_view name);
    net &create_namespace(const std::string &name);
    void abandon(net &ns);
    void add_device(net &ns, const std::string &name, unsigned int ifindex);
    void remove_device(net &ns, unsigned int ifindex);
    [[nodiscard]] static int refcount(const net &ns);
    [[nodiscard]] static bool alive(const net &ns);

    // Agents live as long as the world; their sockets close with the engine's stop, or sooner.
    agent &open_agent(net &ns, const agent_options &options = {});
    void close_agents();

    // A datagram arrives: its callback runs now. False if no socket of the namespace has the port.
    bool deliver(net &ns, const datagram &arriving);

    // The callback of a port, with no datagram there.
    bool call_without_datagram(net &ns, std::uint16_t port);

    // The clocks. None starts at 0; ticks are milliseconds.
    [[nodiscard]] std::uint64_t tick() const;
    [[nodiscard]] std::int64_t wall_ns() const;
    [[nodiscard]] std::int64_t raw_ns() const;

    // Time goes by, tick by tick, and what is due runs at its tick.
    void advance(std::uint64_t ticks);

    // Time goes by, but nothing gets to run: timers become late.
    void pass(std::uint64_t ticks);
    void run_timers(); // all that are due by now

    // The wall and raw clocks move within a tick.
    void move_clocks(std::int64_t ns);
    void step_wall_clock(std::int64_t ns);

    // Armed timers.
    [[nodiscard]] std::size_t timers() const;

    // The frames sent so far, oldest first.
    [[nodiscard]] const std::vector<frame> &frames() const;
    std::vector<frame> take_frames();

    // The kernel log, without line breaks.
    [[nodiscard]] const std::deque<log_line> &log() const;
    [[nodiscard]] std::size_t logged(std::string_view part_of_a_line) const; // how often
    void clear_log();

    // A kernel warning with this text must come, once, before the end.
    void expect_warning(const std::string &text);

    // From the nth use from now on, `times` uses of a service fail. For a send, a positive error
    // is the count that it returns.
    void fail(service which, int error, std::uint64_t nth = 1, std::uint64_t times = 1);
    [[nodiscard]] std::uint64_t uses(service which) const;   // so far, failed ones included
    [[nodiscard]] std::uint64_t failed(service which) const; // as planned

    // The next numbers that prandom_u32 gives; after them, the seed's.
    void next_random(std::uint32_t number);

    // Bytes that the engine holds.
    [[nodiscard]] std::size_t memory_in_use() const;

    // Another processor: at the k-th lock point from now (1 is the next one) the action runs in a
    // context of its own, until it ends or has to wait. A lock point lies before and after every
    // acquisition of a lock, and after every release.
    void at_lock_point(std::uint64_t k, std::function<void()> action);
    [[nodiscard]] std::size_t actions_left() const; // whose lock point was not reached
    [[nodiscard]] std::uint64_t lock_points() const;

    // Several processors: each action has a context, and at every lock point it is drawn from the
    // seed who goes on.
    void race(std::vector<std::function<void()>> actions);

  private:
    void check_for_leaks();

    std::unique_ptr<machine> machine_;
    bool running_ = false;
};

} // namespace sim

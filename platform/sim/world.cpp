// SPDX-License-Identifier: GPL-2.0
#include "platform/sim/world.h"

#include <algorithm>
#include <utility>

#include "platform/hosted/skbuff.h"
#include "platform/hosted/udp_frame.h"
#include "platform/module.h"
#include "platform/sim/machine.h"

namespace sim
{

namespace
{

sk_buff *make_buffer(const datagram &arriving)
{
    const unfailing_allocations own;
    const hosted::udp_arrival arrival{.source = arriving.source,
                                      .destination = arriving.destination,
                                      .source_port = arriving.source_port,
                                      .destination_port = arriving.port,
                                      .ttl = arriving.ttl,
                                      .tos = arriving.tos,
                                      .iif = arriving.ifindex,
                                      .member_ifindex = arriving.member_ifindex};
    sk_buff *skb = hosted::udp_frame_skb(arriving.payload, arrival, arriving.link_len);
    if (arriving.form == buffer_form::fragmented &&
        !hosted::skb_make_nonlinear(
            skb,
            std::min(arriving.linear_len, static_cast<std::uint32_t>(arriving.payload.size()))))
        fatal("a buffer cannot be split");
    return skb;
}

// A packet tap: has the buffer too, and notices when it is written into.
class tap
{
  public:
    explicit tap(sk_buff *skb)
    {
        const unfailing_allocations own;
        clone_ = hosted::skb_clone(skb, GFP_ATOMIC);
        const auto data = hosted::skb_bytes(clone_);
        seen_.assign(data.begin(), data.end());
    }
    ~tap()
    {
        if (!std::ranges::equal(seen_, hosted::skb_bytes(clone_)))
            failure("a datagram that others hold too has been written into");
        consume_skb(clone_);
    }
    tap(const tap &) = delete;
    tap &operator=(const tap &) = delete;

  private:
    sk_buff *clone_;
    bytes seen_;
};

void enqueue(packet_sock &sk, sk_buff *skb)
{
    if (sk.first == nullptr)
        sk.first = skb;
    else
        sk.last->next = skb;
    sk.last = skb;
}

void run_data_ready(packet_sock &sk, const sk_buff *arrived)
{
    context &self = the_machine().sched.current();
    const sock *outer = std::exchange(self.running_sock, &sk);
    {
        const softirq_scope softirq;
        if (sk.data_ahead != nullptr && arrived != nullptr && arrived->fragment == nullptr) {
            const kvec payload{skb_data(arrived), skb_len(arrived)};
            sk.data_ahead(&sk, &payload, 1);
        }
        sk.data_ready(&sk);
    }
    self.running_sock = outer;
}

packet_sock *find_port(net &ns, std::uint16_t port)
{
    const auto found = ns.udp_ports.find(port);
    return found == ns.udp_ports.end() ? nullptr : found->second;
}

constexpr unsigned int loopback_index = 1;

} // namespace

world::world(const world_options &options) : machine_(std::make_unique<machine>(options))
{
    net &first = create_namespace("initial");
    ++first.refs; // of the init process: this one is never abandoned
    for (const std::string &name : options.namespaces)
        create_namespace(name);
    if (!options.start)
        return;
    if (const int error = start(); error != 0)
        failure("the engine does not start: %d", error);
}

world::~world()
{
    stop();
}

int world::start()
{
    const int error = kelm_init();
    running_ = error == 0;
    machine_->settle();
    if (!running_)
        kelm_release();
    else if (!machine_->module_held)
        failure("the engine does not keep its module from being unloaded");
    return error;
}

void world::stop()
{
    if (std::exchange(running_, false)) {
        kelm_exit();
        machine_->settle();
        close_agents();
        kelm_release();
        machine_->settle();
    }
    close_agents();
    check_for_leaks();
}

void world::check_for_leaks()
{
    machine &s = *machine_;
    if (s.notifier != nullptr)
        failure("the device notifier is still registered");
    if (s.threads != 0)
        failure("%d threads are still there", std::exchange(s.threads, 0));
    if (s.wheel.size() != 0)
        failure("%zu timers are still armed", s.wheel.size());
    for (const auto &ns : s.namespaces) {
        if (ns->sockets != 0)
            failure("namespace %s: %d sockets are still open", ns->name.c_str(),
                    std::exchange(ns->sockets, 0));
        const int expected = (ns->named ? 1 : 0) + (ns == s.namespaces.front() ? 1 : 0);
        if (ns->refs != expected)
            failure("namespace %s: %d references instead of %d", ns->name.c_str(),
                    std::exchange(ns->refs, expected), expected);
    }
    s.memory.report_leaks();
    for (const std::string &text : std::exchange(s.expected_warnings, {}))
        failure("the kernel warning \"%s\" did not come", text.c_str());
}

// Namespaces

net &world::initial()
{
    return *machine_->namespaces.front();
}

net &world::find(std::string_view name)
{
    for (const auto &ns : machine_->namespaces) {
        if (ns->name == name)
            return *ns;
    }
    fatal("there is no namespace %s", std::string(name).c_str());
}

net &world::create_namespace(const std::string &name)
{
    machine_->namespaces.push_back(std::make_unique<net>());
    net &ns = *machine_->namespaces.back();
    ns.name = name;
    add_device(ns, "lo", loopback_index);
    return ns;
}

void world::abandon(net &ns)
{
    if (std::exchange(ns.named, false))
        put_net(ns);
    machine_->settle();
}

void world::add_device(net &ns, const std::string &name, unsigned int ifindex)
{
    auto &device = ns.devices[ifindex];
    device = std::make_unique<net_device>(net_device{&ns, ifindex, name});
    machine_->notify(*device, NETDEV_REGISTER);
    machine_->settle();
}

void world::remove_device(net &ns, unsigned int ifindex)
{
    machine_->notify(*ns.devices.at(ifindex), NETDEV_UNREGISTER);
    ns.devices.erase(ifindex);
    machine_->settle();
}

int world::refcount(const net &ns)
{
    return ns.refs;
}

bool world::alive(const net &ns)
{
    return !ns.dead;
}

// Agents and peers

agent &world::open_agent(net &ns, const agent_options &options)
{
    machine_->agents.push_back(std::make_unique<agent>(live(&ns), options));
    return *machine_->agents.back();
}

void world::close_agents()
{
    for (const auto &each : machine_->agents)
        each->close();
}

bool world::deliver(net &ns, const datagram &arriving)
{
    packet_sock *sk = find_port(ns, arriving.port);
    if (sk == nullptr)
        return false;
    sk_buff *skb = make_buffer(arriving);
    std::optional<tap> listening;
    if (arriving.form == buffer_form::cloned)
        listening.emplace(skb);
    enqueue(*sk, skb);
    run_data_ready(*sk, skb);
    machine_->settle();
    return true;
}

bool world::call_without_datagram(net &ns, std::uint16_t port)
{
    packet_sock *sk = find_port(ns, port);
    if (sk == nullptr)
        return false;
    run_data_ready(*sk, nullptr);
    machine_->settle();
    return true;
}

// Time

std::uint64_t world::tick() const
{
    return machine_->clock.tick;
}

std::int64_t world::wall_ns() const
{
    return machine_->clock.wall_ns;
}

std::int64_t world::raw_ns() const
{
    return machine_->clock.raw_ns;
}

void world::advance(std::uint64_t ticks)
{
    machine_->advance_to(machine_->clock.tick + ticks);
}

void world::pass(std::uint64_t ticks)
{
    constexpr std::int64_t ns_per_tick = 1'000'000;
    machine_->clock.tick += ticks;
    move_clocks(static_cast<std::int64_t>(ticks) * ns_per_tick);
}

void world::run_timers()
{
    machine_->run_timers();
    machine_->settle();
}

void world::move_clocks(std::int64_t ns)
{
    machine_->clock.wall_ns += ns;
    machine_->clock.raw_ns += ns;
}

void world::step_wall_clock(std::int64_t ns)
{
    machine_->clock.wall_ns += ns;
}

std::size_t world::timers() const
{
    return machine_->wheel.size();
}

// What can be seen

const std::vector<frame> &world::frames() const
{
    return machine_->frames;
}

std::vector<frame> world::take_frames()
{
    return std::exchange(machine_->frames, {});
}

const std::deque<log_line> &world::log() const
{
    return machine_->log;
}

std::size_t world::logged(std::string_view part_of_a_line) const
{
    return static_cast<std::size_t>(
        std::ranges::count_if(machine_->log, [part_of_a_line](const log_line &line) {
            return line.text.find(part_of_a_line) != std::string::npos;
        }));
}

void world::clear_log()
{
    machine_->log.clear();
}

void world::expect_warning(const std::string &text)
{
    machine_->expected_warnings.push_back(text);
}

std::size_t world::memory_in_use() const
{
    return machine_->memory.bytes();
}

// Faults and interleavings

void world::fail(service which, int error, std::uint64_t nth, std::uint64_t times)
{
    machine_->faults.plan(which, error, nth, times);
}

std::uint64_t world::uses(service which) const
{
    return machine_->faults.uses(which);
}

std::uint64_t world::failed(service which) const
{
    return machine_->faults.failed(which);
}

void world::next_random(std::uint32_t number)
{
    machine_->next_randoms.push_back(number);
}

void world::at_lock_point(std::uint64_t k, std::function<void()> action)
{
    machine_->sched.at_lock_point(k, std::move(action));
}

std::size_t world::actions_left() const
{
    return machine_->sched.actions_left();
}

std::uint64_t world::lock_points() const
{
    return machine_->sched.lock_points_passed();
}

void world::race(std::vector<std::function<void()>> actions)
{
    machine_->sched.race(std::move(actions));
    machine_->settle();
}

} // namespace sim

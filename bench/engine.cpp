// SPDX-License-Identifier: GPL-2.0
//
// What the engine costs, on the simulation: nanoseconds per received packet that changes nothing,
// per transmission, and per restart of a timer, with few sessions and with many.
//
// Timed is the engine together with the services that it calls, as the simulation has them: locks
// that check their rules, memory that is listed, the hosts' timer wheel. Not timed: the making of
// frames and buffers, batch by batch; what is sent is not kept, nothing is logged. Packets arrive
// in an order that has nothing to do with that of the sessions' creation. The rows of services
// alone make the engine's calls to the platform without the engine in between; what a packet costs
// above them is the engine's own work.
//
// A figure is the median over rounds, each of which concerns every session once.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <netinet/in.h>
#include <random>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "kelm/kelm_bfd_common_utils.h"
#include "libkelm/packet.h"
#include "libkelm/request.h"
#include "platform/clock.h"
#include "platform/hosted/udp_frame.h"
#include "platform/random.h"
#include "platform/sim/machine.h"
#include "platform/sim/net.h"
#include "platform/sim/world.h"
#include "platform/socket.h"
#include "platform/spinlock.h"
#include "platform/timer.h"

namespace
{

using sim::bytes;
using steady = std::chrono::steady_clock;

constexpr std::array<std::uint32_t, 4> session_counts{100, 1'000, 10'000, 100'000};
constexpr kelm_microsecs period = 100'000;
constexpr std::uint64_t period_ticks = 100;
constexpr std::uint64_t detection_ticks = 3 * period_ticks;
constexpr std::uint16_t port = kelm::port_single_hop;
constexpr std::uint8_t multiplier = 3;

constexpr auto least_time = std::chrono::milliseconds(200); // of one figure, timed parts alone
constexpr std::size_t least_rounds = 5;
constexpr std::size_t batch = 32;

steady::duration time_of(const std::function<void()> &timed)
{
    const auto start = steady::now();
    timed();
    return steady::now() - start;
}

// Of rounds of `items` each, which return what counts, in nanoseconds per item.
double median_cost(std::size_t items, const std::function<steady::duration()> &round)
{
    std::vector<double> rounds;
    for (steady::duration total{}; total < least_time || rounds.size() < least_rounds;) {
        const steady::duration spent = round();
        total += spent;
        rounds.push_back(std::chrono::duration<double, std::nano>(spent).count() /
                         static_cast<double>(items));
    }
    const auto middle = rounds.begin() + static_cast<std::ptrdiff_t>(rounds.size() / 2);
    std::ranges::nth_element(rounds, middle);
    return *middle;
}

void expect(bool good, const char *what)
{
    if (good)
        return;
    std::fprintf(stderr, "kelm_bench_engine: %s\n", what);
    std::exit(1);
}

kelm::auth_settings authentication(std::uint8_t type)
{
    kelm::auth_settings auth;
    auth.type = type;
    if (type != BFD_AUTH_NONE) {
        auth.key_id = 1;
        auth.key.assign(16, 'k');
    }
    return auth;
}

kelm::built_packet packet_between(const char *from, const char *to, std::uint32_t mine,
                                  std::uint32_t yours, std::uint8_t auth_type)
{
    kelm::packet_settings settings;
    settings.source = *kelm::ip_address::parse(from);
    settings.destination = *kelm::ip_address::parse(to);
    settings.source_port = 49152;
    settings.bfd.state = BFD_STATE_UP;
    settings.bfd.my_discriminator = mine;
    settings.bfd.your_discriminator = yours;
    settings.bfd.min_tx_interval = period;
    settings.bfd.min_rx_interval = period;
    settings.auth = authentication(auth_type);
    return kelm::build_packet(settings);
}

// A machine with sessions 1 to `count` on it, none of them configured yet.
class machine
{
  public:
    explicit machine(std::uint32_t sessions)
        : count(sessions), world(options()), agent(world.open_agent(world.initial()))
    {
    }

    void request(const kelm::request &request)
    {
        expect(agent.request(request.type, request.body) == 0, "a request is refused");
    }

    const std::uint32_t count;
    sim::world world;
    sim::agent &agent;

  private:
    static sim::world_options options()
    {
        sim::world_options options;
        options.shuffle_ties = false;
        options.keep_frames = false;
        return options;
    }
};

// Reception

void trace_nothing(kelm_trace_type /*type*/, std::uint32_t /*discriminator*/, const char * /*text*/)
{
}

// The BFD packet that the peer sends, with its digest.
bytes peers_packet(std::uint32_t session, std::uint8_t auth_type)
{
    kelm::built_packet built =
        packet_between("10.0.0.2", "10.0.0.1", session + 1'000'000, session, auth_type);
    std::uint32_t seq_num = 1;
    kelm_auth_process(built.packet.data(), built.packet.size(), built.latch_offset, built.type,
                      auth_type, &seq_num, &built.auth_hdr, trace_nothing);
    return {built.packet.begin() + built.latch_offset, built.packet.end()};
}

kelm::request session_request(std::uint32_t discriminator, std::uint8_t auth_type)
{
    kelm_msg_rx_set_session settings{};
    settings.header.discriminator = discriminator;
    settings.flags = KELM_RX_TIMER_ACTIVE;
    settings.multiplier = multiplier;
    settings.period = period;
    settings.auth.type = auth_type;
    settings.auth.flags = KELM_AUTH_TTL_255;
    if (auth_type != BFD_AUTH_NONE)
        settings.auth_key[0] = kelm::key_slot(authentication(auth_type));
    return kelm::set_session(settings, kelm::failure_message(discriminator));
}

// A period goes by. How long the timers take that are due meanwhile, or have been moved.
steady::duration pass_period(sim::world &world)
{
    world.pass(period_ticks);
    return time_of([&] { world.run_timers(); });
}

// Datagrams come in batches, as kelmd reads them: made, which is not timed, announced and received.
// make and receive are given a place in the round, announce the number of datagrams.
template<typename Make, typename Announce, typename Receive>
steady::duration receive_round(std::size_t count, Make make, Announce announce, Receive receive)
{
    steady::duration spent{};
    for (std::size_t first = 0; first < count; first += batch) {
        const std::size_t end = std::min(first + batch, count);
        for (std::size_t i = first; i < end; ++i)
            make(i);
        const sim::softirq_scope softirq;
        spent += time_of([&] {
            announce(end - first);
            for (std::size_t i = first; i < end; ++i)
                receive(i);
        });
    }
    return spent;
}

// Sessions whose peers have been heard, and which are heard in an order drawn once.
class reception
{
  public:
    reception(std::uint32_t sessions, std::uint8_t auth_type)
        : host(sessions), sk_(*host.world.initial().udp_ports.at(port))
    {
        arrival_.source = sim::address("10.0.0.2");
        arrival_.destination = sim::address("10.0.0.1");
        arrival_.source_port = 49152;
        arrival_.destination_port = port;
        arrival_.ttl = 255;
        arrival_.iif = 2;
        for (std::uint32_t disc = 1; disc <= sessions; ++disc) {
            host.request(session_request(disc, auth_type));
            packets_.push_back(peers_packet(disc, auth_type));
        }
        std::ranges::shuffle(packets_, std::mt19937(1));
        round();
    }

    // A period goes by, and all the peers send.
    steady::duration round()
    {
        ++rounds_;
        const steady::duration timers = pass_period(host.world);
        return timers + receive_round(
                            packets_.size(),
                            [this](std::size_t i) {
                                buffers_[i % batch] = hosted::udp_frame_skb(packets_[i], arrival_);
                            },
                            [this](std::size_t count) {
                                std::array<kvec, batch> payloads;
                                for (std::size_t i = 0; i < count; ++i)
                                    payloads[i] = {skb_data(buffers_[i]), skb_len(buffers_[i])};
                                sk_.data_ahead(&sk_, payloads.data(), count);
                            },
                            [this](std::size_t i) {
                                sk_.first = sk_.last = buffers_[i % batch];
                                sk_.data_ready(&sk_);
                            });
    }

    // Every packet was accepted, and only the first of each session was news.
    void check()
    {
        kelm_msg_get_stats body{};
        const auto *const first = reinterpret_cast<const std::uint8_t *>(&body);
        std::size_t found = 0;
        const auto dump = host.agent.dump(KELM_MSG_GET_STATS, {first, sizeof body});
        for (const sim::message &message : dump.messages) {
            kelm_msg_rx_stats stats;
            if (message.header.nlmsg_type != KELM_MSG_RX_STATS)
                continue;
            std::memcpy(&stats, message.body.data(), sizeof stats);
            expect(stats.num_received == rounds_ && stats.num_passup == 1 && stats.num_timeout == 0,
                   "received packets were not as they should be");
            ++found;
        }
        expect(found == host.count, "a session is missing");
    }

    machine host;

  private:
    sim::packet_sock &sk_;
    hosted::udp_arrival arrival_{};
    std::vector<bytes> packets_;
    std::array<sk_buff *, batch> buffers_{};
    std::uint64_t rounds_ = 0;
};

double receive_cost(std::uint32_t sessions, std::uint8_t auth_type)
{
    reception peers(sessions, auth_type);
    const double cost = median_cost(sessions, [&] { return peers.round(); });
    peers.check();
    return cost;
}

// Transmission

kelm::request packet_request(std::uint32_t discriminator, std::uint8_t auth_type)
{
    const kelm::built_packet built =
        packet_between("10.0.0.1", "10.0.0.2", discriminator, discriminator + 1'000'000, auth_type);
    kelm_msg_tx_set_packet settings{};
    settings.header.discriminator = discriminator;
    settings.jitter_type = BFD_TX_JITTER_75;
    settings.period = period;
    settings.latch_period = 1'000'000;
    settings.latch_state = BFD_STATE_DOWN;
    built.apply_to(settings, auth_type);
    return kelm::set_packet(settings, built.packet);
}

double transmit_cost(std::uint32_t sessions, std::uint8_t auth_type)
{
    machine host(sessions);
    for (std::uint32_t disc = 1; disc <= sessions; ++disc)
        host.request(packet_request(disc, auth_type));
    host.request(kelm::tx_path_ready());
    std::uint64_t rounds = 0;
    const std::uint64_t sent_before = host.world.uses(sim::service::send);
    const double cost = median_cost(sessions, [&] {
        ++rounds;
        return pass_period(host.world);
    });
    expect(host.world.uses(sim::service::send) - sent_before == rounds * sessions,
           "not every packet was sent once a round");
    return cost;
}

// Timers and the services alone

void never(timer_list * /*timer*/) {}

class armed_timers
{
  public:
    armed_timers(std::uint32_t count, timer_function function) : timers(count)
    {
        for (timer_list &timer : timers) {
            timer_setup(&timer, function);
            mod_timer(&timer, get_jiffies_64() + detection_ticks);
        }
    }
    ~armed_timers()
    {
        for (timer_list &timer : timers)
            del_timer(&timer);
    }
    armed_timers(const armed_timers &) = delete;
    armed_timers &operator=(const armed_timers &) = delete;

    std::vector<timer_list> timers;
};

double restart_cost(std::uint32_t sessions)
{
    machine host(0);
    armed_timers armed(sessions, never);
    return median_cost(sessions, [&] {
        return pass_period(host.world) + time_of([&] {
                   for (timer_list &timer : armed.timers)
                       mod_timer(&timer, get_jiffies_64() + detection_ticks);
               });
    });
}

// What rx_data_ready asks of the platform for a packet that changes nothing.
double receive_services_cost(std::uint32_t sessions)
{
    machine host(0);
    armed_timers armed(sessions, never);
    sim::packet_sock sk(&host.world.initial());
    spinlock_t table;
    spinlock_t session;
    spin_lock_init(&table, 0, "table");
    spin_lock_init(&session, 1, "session");
    const bytes payload(sizeof(bfd_ctrl));
    std::array<sk_buff *, batch> buffers{};

    const auto make = [&](std::size_t i) {
        buffers[i % batch] = hosted::udp_frame_skb(payload, {});
    };
    const auto receive = [&](std::size_t i) {
        sk.first = sk.last = buffers[i % batch];
        sk_buff *const taken = __skb_recv_udp(&sk);
        expect(skb_linearize_cow(taken) == 0, "a buffer cannot be made contiguous");
        spin_lock(&table);
        spin_lock(&session);
        spin_unlock(&table);
        timespec64 now;
        ktime_get_real_ts64(&now);
        mod_timer(&armed.timers[i], get_jiffies_64() + __usecs_to_jiffies(multiplier * period));
        spin_unlock(&session);
        consume_skb(taken);
    };
    return median_cost(sessions, [&] {
        return pass_period(host.world) + receive_round(
                                             sessions, make, [](std::size_t) {}, receive);
    });
}

// What a transmission asks of the platform, its UDP checksum aside.
struct transmit_services {
    explicit transmit_services(net *ns) : sk(ns)
    {
        sk.kind = sim::socket_kind::raw;
        sk.allocation = GFP_ATOMIC;
        spin_lock_init(&lock, 0, "packet");
        name.sin6_family = AF_INET6;
    }

    void send(timer_list *timer)
    {
        spin_lock_bh(&lock);
        const kernel_msghdr msg{&name, sizeof name, MSG_DONTWAIT, nullptr, 0};
        const kvec vec{packet.data(), packet.size()};
        expect(kernel_sendmsg(&sk, &msg, &vec, 1, packet.size()) > 0, "a send fails");
        timespec64 now;
        ktime_get_real_ts64(&now);
        const unsigned long last = get_jiffies_64();
        const unsigned long jitter = __usecs_to_jiffies(prandom_u32() % (period / 4));
        const unsigned long due = last + __usecs_to_jiffies(period) - jitter;
        mod_timer(timer, std::max<unsigned long>(due, get_jiffies_64() + 1));
        spin_unlock_bh(&lock);
    }

    sim::packet_sock sk;
    spinlock_t lock;
    sockaddr_in6 name{};
    bytes packet = bytes(52);
};

transmit_services *sender;

double transmit_services_cost(std::uint32_t sessions)
{
    machine host(0);
    transmit_services services(&host.world.initial());
    sender = &services;
    const armed_timers armed(sessions, [](timer_list *timer) { sender->send(timer); });
    host.world.pass(detection_ticks);
    host.world.run_timers();
    return median_cost(sessions, [&] { return pass_period(host.world); });
}

struct row {
    const char *name;
    std::function<double(std::uint32_t)> cost;
};

const std::array<row, 9> rows{{
    {"received unchanged, no authentication",
     [](std::uint32_t n) { return receive_cost(n, BFD_AUTH_NONE); }},
    {"received unchanged, MD5",
     [](std::uint32_t n) { return receive_cost(n, BFD_AUTH_KEYED_MD5); }},
    {"received unchanged, SHA-1",
     [](std::uint32_t n) { return receive_cost(n, BFD_AUTH_KEYED_SHA1); }},
    {"  of this, services alone", receive_services_cost},
    {"transmitted, no authentication",
     [](std::uint32_t n) { return transmit_cost(n, BFD_AUTH_NONE); }},
    {"transmitted, MD5", [](std::uint32_t n) { return transmit_cost(n, BFD_AUTH_KEYED_MD5); }},
    {"transmitted, SHA-1", [](std::uint32_t n) { return transmit_cost(n, BFD_AUTH_KEYED_SHA1); }},
    {"  of this, services alone", transmit_services_cost},
    {"timer restarted (a service)", restart_cost},
}};

} // namespace

int main()
{
    std::printf(
        "The engine on the simulation: nanoseconds each, by the number of sessions\n\n%-40s", "");
    for (const std::uint32_t sessions : session_counts)
        std::printf("%10u", sessions);
    for (const row &row : rows) {
        std::printf("\n%-40s", row.name);
        for (const std::uint32_t sessions : session_counts) {
            std::printf("%10.0f", row.cost(sessions));
            std::fflush(stdout);
        }
    }
    std::printf("\n");
}

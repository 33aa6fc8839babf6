// SPDX-License-Identifier: GPL-2.0
//
// Whole worlds at random: peers talk to the engine over a bad network while services fail, timers
// are late, clocks step and namespaces vanish. First checkers watch that nothing happens that must
// not; then everything is healed, and what must happen is demanded.
//
// Everything is drawn from a seed. To run one again: KELM_SEED=<seed> test_faulty_world
// To run many: KELM_SEEDS=<number> test_faulty_world
#include <cstdlib>

#include "platform/sim/net.h"
#include "platform/sim/random.h"
#include "world_checkers.h"

namespace
{

using namespace sim;

struct options {
    std::uint64_t seed;
    std::uint64_t ticks = 3000; // of the first phase
    std::uint64_t namespaces;
    std::uint64_t sessions; // in each
    // Chances per thousand, of each datagram:
    std::uint64_t loss, duplication, delay, damage, odd_buffer;
    // and of each tick:
    std::uint64_t late_timers, clock_step, silence, reconfiguration, race, vanishing;
    std::uint64_t no_allocation, no_send, no_reallocation;

    explicit options(std::uint64_t wanted) : seed(wanted)
    {
        random_source random(wanted);
        namespaces = 1 + random.below(4);
        sessions = 1 + random.below(6);
        for (std::uint64_t *chance : {&loss, &duplication, &delay, &damage, &odd_buffer})
            *chance = random.below(2) * random.below(300);
        for (std::uint64_t *chance :
             {&late_timers, &clock_step, &silence, &reconfiguration, &race, &vanishing})
            *chance = random.below(2) * random.below(20);
        for (std::uint64_t *chance : {&no_allocation, &no_send, &no_reallocation})
            *chance = random.below(2) * random.below(200);
    }
};

// A session, its peer, and the packet that goes to the peer.
struct session {
    record_id id;
    std::uint64_t period; // ticks
    std::uint8_t multiplier;
    bool password;
    bool silent = false;
    std::uint64_t peer_sends_at = 0;
    std::uint8_t peer_state = BFD_STATE_UP;

    [[nodiscard]] std::uint64_t detection() const { return period * multiplier; }
};

struct flight {
    datagram packet;
    record_id id;
    bool acceptable;
};

class run
{
  public:
    explicit run(const options &wanted) : o(wanted) {}

    void go()
    {
        const auto outer = std::exchange(
            on_failure, [this](const std::string &text) { found.list.push_back(text); });
        for (std::uint64_t i = 0; i < o.namespaces; ++i)
            create_namespace();
        insist([&] { return path_ready(*agents.at(&w.initial())); });
        observe();
        for (session &s : sessions) // from a random delay on
            transmission.configured(s.id, s.period, w.tick(), 0);
        for (const std::uint64_t end = w.tick() + o.ticks; w.tick() < end && found.list.empty();) {
            misfortunes();
            step();
        }
        if (found.list.empty()) {
            heal();
            demand_peace();
            demand_failures();
        }
        w.stop();
        on_failure = outer;
    }

    complaints found;

  private:
    bool chance(std::uint64_t per_thousand) { return random.below(1000) < per_thousand; }
    static net &ns_of(const session &s) { return *const_cast<net *>(s.id.first); }

    void create_namespace()
    {
        w.fail(service::allocation, 0, 1, 0); // a namespace without a vrf has no sessions
        const bool first = created++ == 0;
        net &ns = first ? w.initial() : w.create_namespace("n" + std::to_string(created));
        monitors[&ns] = &w.open_agent(ns, {.groups = NOTIFICATION});
        agents[&ns] = &w.open_agent(ns);
        for (std::uint64_t i = 0; i < o.sessions; ++i) {
            session s{};
            s.id = {&ns, static_cast<std::uint32_t>(1 + random.below(3) * 32 + 3 * i)};
            s.period = 5 + random.below(60);
            s.multiplier = static_cast<std::uint8_t>(1 + random.below(4));
            s.password = random.below(2) == 0;
            sessions.push_back(s);
            configure(sessions.back());
        }
    }

    void vanish()
    {
        auto gone = monitors.begin();
        std::advance(gone, random.below(monitors.size()));
        net &ns = *const_cast<net *>(gone->first);
        if (&ns == &w.initial())
            return;
        observe();
        agents[&ns]->close();
        gone->second->close();
        forget(&ns);
        agents.erase(&ns);
        monitors.erase(gone);
        w.abandon(ns);
        create_namespace();
    }

    void forget(const net *ns)
    {
        for (const session &s : sessions) {
            if (s.id.first == ns) {
                detection.removed(s.id);
                transmission.removed(s.id);
            }
        }
        std::erase_if(sessions, [ns](const session &s) { return s.id.first == ns; });
    }

    // Repeats a request until it is acknowledged as done; that all happens at one tick.
    template<typename Request>
    void insist(const Request &request)
    {
        for (int attempt = 0; attempt < 50; ++attempt) {
            if (chance(o.no_allocation))
                w.fail(service::allocation, -ENOMEM, 1 + random.below(8));
            if (request() == 0)
                return;
        }
        found.add(w.tick(), {}, "a request that never succeeds");
    }

    void configure(session &s)
    {
        agent &a = *agents.at(s.id.first);
        outgoing packet;
        packet.payload = with_section({.my_discriminator = s.id.second, .your_discriminator = 77},
                                      auth_section(BFD_AUTH_METICULOUS_SHA1));
        const auto usecs = static_cast<kelm_microsecs>(s.period * 1000);
        insist([&] {
            return set(a, s.id.second, packet,
                       tx{.period = usecs, .jitter_type = BFD_TX_JITTER_75, .latch_period = usecs});
        });
        transmission.configured(s.id, s.period, w.tick(), w.failed(service::send));
        insist([&] {
            return set_session(a, s.id.second,
                               rx{.multiplier = s.multiplier,
                                  .period = usecs,
                                  .latch = {s.id.second},
                                  .auth_type = s.password ? std::uint8_t{BFD_AUTH_PASSWORD}
                                                          : std::uint8_t{BFD_AUTH_NONE}});
        });
        detection.configured(s.id, s.detection(), w.tick());
    }

    void peers_send()
    {
        for (session &s : sessions) {
            if (s.silent || w.tick() < s.peer_sends_at)
                continue;
            s.peer_sends_at = w.tick() + s.period * (75 + random.below(25)) / 100;
            send(s);
        }
    }

    void send(session &s)
    {
        if (random.below(10) == 0)
            s.peer_state = static_cast<std::uint8_t>(1 + random.below(3));
        datagram packet;
        packet.payload = with_section(
            {.your_discriminator = s.id.second,
             .state = s.peer_state,
             .flags = random.below(20) == 0 ? std::uint8_t{BFD_FLAG_POLL} : std::uint8_t{0}},
            auth_section(s.password ? BFD_AUTH_PASSWORD : BFD_AUTH_NONE));
        if (chance(o.odd_buffer)) {
            packet.form = random.below(2) == 0 ? buffer_form::fragmented : buffer_form::cloned;
            packet.linear_len = static_cast<std::uint32_t>(random.below(30));
        }
        const bool acceptable = !chance(o.damage);
        if (!acceptable)
            damage(packet.payload);
        for (int copies = chance(o.duplication) ? 2 : 1; copies > 0; --copies) {
            if (!chance(o.loss))
                in_flight.emplace(w.tick() + (chance(o.delay) ? random.below(40) : 0),
                                  flight{packet, s.id, acceptable});
        }
    }

    // Spoils a packet so that it must not be accepted.
    void damage(bytes &packet)
    {
        constexpr std::pair<std::size_t, std::uint8_t> flips[] = {
            {0, 0x20},
            {1, BFD_FLAG_AUTH_PRESENT},
            {2, 3},
            {8, 0x80}}; // the last: another session's
        if (random.below(5) == 0)
            return packet.resize(random.below(packet.size()));
        const auto &[at, bits] = flips[random.below(std::size(flips))];
        packet[at] ^= bits;
    }

    void deliver(const flight &arriving)
    {
        if (monitors.count(arriving.id.first) == 0)
            return; // the namespace is gone
        bool acceptable = arriving.acceptable;
        if (arriving.packet.form != buffer_form::linear) {
            // Without memory to make it contiguous it is lost.
            w.fail(service::allocation, 0, 1, 0);
            const bool lost = chance(o.no_reallocation);
            w.fail(service::skb_reallocation, -ENOMEM, 1, lost ? 1 : 0);
            acceptable = acceptable && !lost;
        } else {
            if (chance(o.no_allocation))
                w.fail(service::allocation, -ENOMEM);
            if (chance(o.no_reallocation))
                w.fail(service::skb_reallocation, -ENOMEM);
        }
        w.deliver(*const_cast<net *>(arriving.id.first), arriving.packet);
        if (acceptable)
            detection.accepted(arriving.id, w.tick());
    }

    void deliver_what_is_due()
    {
        while (!in_flight.empty() && in_flight.begin()->first <= w.tick()) {
            deliver(in_flight.begin()->second);
            in_flight.erase(in_flight.begin());
        }
    }

    void misfortunes()
    {
        session &s = sessions[random.below(sessions.size())];
        if (chance(o.silence))
            s.silent = !s.silent;
        if (chance(o.reconfiguration)) {
            s.period = 5 + random.below(60);
            configure(s);
        }
        if (chance(o.no_send))
            w.fail(service::send, random.below(2) == 0 ? -ENOBUFS : 3, 1 + random.below(3));
        if (chance(o.clock_step))
            w.step_wall_clock(static_cast<std::int64_t>(random.below(2'000'000'000'000)) -
                              1'000'000'000'000);
        if (chance(o.late_timers)) {
            w.pass(1 + random.below(80));
            deliver_what_is_due(); // before the timers: that is the hosts' promise
            w.run_timers();
            observe();
        }
        if (chance(o.vanishing))
            vanish();
        if (chance(o.race))
            race();
    }

    // Several processors at once, on different sessions.
    void race()
    {
        w.fail(service::allocation, 0, 1, 0);
        w.pass(1);
        session &first = sessions[random.below(sessions.size())];
        session &second = sessions[random.below(sessions.size())];
        if (&first == &second || detection.due(first.id, w.tick()) ||
            detection.due(second.id, w.tick())) { // whose failure could come either way
            w.run_timers();
            observe();
            return;
        }
        datagram packet;
        packet.payload =
            with_section({.your_discriminator = first.id.second},
                         auth_section(first.password ? BFD_AUTH_PASSWORD : BFD_AUTH_NONE));
        agent &dumping = w.open_agent(ns_of(first));
        w.race({[&] { w.run_timers(); }, [&] { w.run_timers(); },
                [&] { w.deliver(ns_of(first), packet); }, [&] { configure(second); },
                [&] { get_stats(dumping, 0, KELM_STATS_CLEAR | KELM_STATS_ALL_VRFS); }});
        detection.accepted(first.id, w.tick());
        dumping.close();
        observe();
    }

    void observe()
    {
        const std::uint64_t failed_sends = w.failed(service::send);
        for (const auto &[ns, monitor] : monitors) {
            for (const message &m : monitor->read_messages()) {
                const record_id id{ns, read_as<kelm_msg_header>(m.body).discriminator};
                ++failures_seen;
                detection.failed(id, w.tick());
                transmission.latched(id, w.tick());
            }
        }
        for (const frame &each : w.take_frames()) {
            if (monitors.count(each.netns) != 0) // not of a namespace on its way out
                transmission.sent(each, failed_sends);
        }
        detection.timers_have_run(w.tick());
        transmission.timers_have_run(w.tick(), failed_sends);
    }

    void step()
    {
        peers_send();
        deliver_what_is_due();
        w.advance(1);
        observe();
    }

    void heal()
    {
        for (const service each : {service::allocation, service::send, service::skb_reallocation})
            w.fail(each, 0, 1, 0);
        for (std::uint64_t *misfortune :
             {&o.loss, &o.duplication, &o.delay, &o.damage, &o.odd_buffer, &o.no_allocation,
              &o.no_send, &o.no_reallocation})
            *misfortune = 0;
        in_flight.clear();
        for (session &s : sessions) {
            s.silent = false;
            s.peer_sends_at = 0;
            configure(s);
        }
    }

    // All peers talk: no session fails, everybody sends and receives in time.
    void demand_peace()
    {
        constexpr std::uint64_t TICKS = 500;
        const std::uint64_t failures_before = failures_seen;
        std::map<record_id, std::uint64_t> sent, received;
        for (const session &s : sessions) {
            sent[s.id] = transmission.count(s.id);
            received[s.id] = rx_stats(*agents[s.id.first], s.id.second)->num_received;
        }
        for (std::uint64_t i = 0; i < TICKS; ++i)
            step();
        for (const session &s : sessions) {
            if (transmission.count(s.id) - sent[s.id] < TICKS / s.period)
                found.add(w.tick(), s.id, "too few transmissions");
            if (rx_stats(*agents[s.id.first], s.id.second)->num_received - received[s.id] <
                TICKS / (s.period + 1))
                found.add(w.tick(), s.id, "too few receptions");
        }
        if (failures_seen != failures_before)
            found.add(w.tick(), {}, "failures in peace");
    }

    // All peers fall silent: every session fails, once; the checker says whether in time.
    void demand_failures()
    {
        const std::uint64_t failures_before = failures_seen;
        for (session &s : sessions)
            s.silent = true;
        for (int i = 0; i < 300; ++i)
            step();
        if (failures_seen - failures_before != sessions.size())
            found.add(w.tick(), {}, "not every session has failed");
    }

    options o;
    random_source random{o.seed};
    world w{{.seed = o.seed}};
    detection_checker detection{found};
    transmission_checker transmission{found};
    std::vector<session> sessions;
    std::map<const net *, agent *> monitors; // hear failures
    std::map<const net *, agent *> agents;
    std::multimap<std::uint64_t, flight> in_flight;
    std::uint64_t failures_seen = 0;
    int created = 0;
};

std::uint64_t from_environment(const char *name, std::uint64_t otherwise)
{
    const char *value = std::getenv(name);
    return value != nullptr ? std::strtoull(value, nullptr, 10) : otherwise;
}

TEST(faulty_world, keeps_its_promises)
{
    const std::uint64_t first = from_environment("KELM_SEED", 1);
    const std::uint64_t count =
        from_environment("KELM_SEEDS", std::getenv("KELM_SEED") != nullptr ? 1 : 60);
    for (std::uint64_t seed = first; seed < first + count; ++seed) {
        run r{options(seed)};
        r.go();
        EXPECT_EQ(r.found.list, std::vector<std::string>{}) << "KELM_SEED=" << seed;
        if (testing::Test::HasFailure())
            return;
    }
}

} // namespace

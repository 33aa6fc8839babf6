// SPDX-License-Identifier: GPL-2.0
//
// Whole worlds at random: peers talk to the engine over a bad network while timers are late, clocks
// step and agents reconfigure. Models of what the engine has promised, which
// know nothing of its insides, are fed with what it was told and what it did, and complain in
// words.
//
// Everything is drawn from a seed. To run one again: KELM_SEED=<seed> test_faulty_world
// To run many: KELM_SEEDS=<number> test_faulty_world
#include <cstdlib>
#include <map>
#include <optional>

#include "engine_fixture.h"
#include "platform/sim/net.h"
#include "platform/sim/random.h"

namespace
{

using namespace sim;

// A session or packet, by namespace and discriminator.
using record_id = std::pair<const net *, std::uint32_t>;

struct complaints {
    void add(std::uint64_t tick, const record_id &id, const std::string &what)
    {
        list.push_back("tick " + std::to_string(tick) + ", " + std::to_string(id.second) + ": " +
                       what);
    }
    strings list;
};

// Detection: never a failure early, one for each silence, none missing once timers have run.
class detection_checker
{
  public:
    explicit detection_checker(complaints &to) : complaints_(to) {}

    void configured(const record_id &id, std::uint64_t detection_ticks, std::uint64_t now)
    {
        sessions_[id] = {detection_ticks, now + detection_ticks};
    }
    void accepted(const record_id &id, std::uint64_t now)
    {
        const auto found = sessions_.find(id);
        if (found != sessions_.end() && found->second.deadline)
            found->second.deadline = now + found->second.ticks;
    }

    void failed(const record_id &id, std::uint64_t now)
    {
        const auto found = sessions_.find(id);
        if (found == sessions_.end())
            return complaints_.add(now, id, "failure of a session that does not exist");
        std::optional<std::uint64_t> &deadline = found->second.deadline;
        if (!deadline)
            return complaints_.add(now, id, "second failure for one silence");
        if (now < *deadline)
            complaints_.add(now, id, "failure before " + std::to_string(*deadline));
        deadline.reset();
    }

    // All timers that are due have run.
    void timers_have_run(std::uint64_t now)
    {
        for (auto &[id, each] : sessions_) {
            if (!each.deadline || now < *each.deadline)
                continue;
            complaints_.add(now, id, "no failure at " + std::to_string(*each.deadline));
            each.deadline.reset();
        }
    }

  private:
    struct detection {
        std::uint64_t ticks;
        std::optional<std::uint64_t> deadline; // none after a failure
    };
    complaints &complaints_;
    std::map<record_id, detection> sessions_;
};

// Transmission: only what exists, well-formed, neither too soon nor too late, numbered without
// gaps, and latched after a failure until it is replaced.
class transmission_checker
{
  public:
    explicit transmission_checker(complaints &to) : complaints_(to) {}

    void configured(const record_id &id, std::uint64_t period_ticks, std::uint64_t now)
    {
        const auto [found, is_new] = packets_.try_emplace(id);
        packet &p = found->second;
        if (is_new) // what was never sent counts from its creation
            p.last = now;
        p.period_ticks = period_ticks;
        p.reconfigured = true;
        p.replaced_at = now;
        p.latched = false;
        p.latest = std::max(now + 1, p.last + period_ticks);
    }

    void latched(const record_id &id, std::uint64_t now)
    {
        if (const auto found = packets_.find(id); found != packets_.end())
            found->second.latch_asked = now;
    }

    void sent(const frame &sent)
    {
        const record_id id{sent.netns, ntohl(ctrl_in(sent.data).my_discriminator)};
        const auto found = packets_.find(id);
        if (found == packets_.end())
            return complaints_.add(sent.tick, id, "transmission of what does not exist");
        packet &p = found->second;
        if (!udp_checksum_right(sent.data))
            complaints_.add(sent.tick, id, "wrong checksum");
        if (!p.reconfigured && sent.tick - p.last + 1 < p.period_ticks * 3 / 4)
            complaints_.add(sent.tick, id, "transmission too soon after " + std::to_string(p.last));
        check_latch(p, id, sent);
        const std::uint32_t number =
            ntohl(read_as<bfd_auth_sha1>(bfd_in(sent.data).subspan(BFD_CTRL_LEN)).seq_num);
        if (number != p.next_number)
            complaints_.add(sent.tick, id,
                            "sequence number " + std::to_string(number) + " instead of " +
                                std::to_string(p.next_number));
        p.next_number = number + 1;
        p.last = sent.tick;
        p.latest = sent.tick + p.period_ticks;
        p.reconfigured = false;
    }

    // All timers that are due have run.
    void timers_have_run(std::uint64_t now)
    {
        for (auto &[id, p] : packets_) {
            if (now <= p.latest)
                continue;
            complaints_.add(now, id, "no transmission by " + std::to_string(p.latest));
            p.latest = now + p.period_ticks;
        }
    }

  private:
    struct packet {
        std::uint64_t period_ticks = 0;
        std::uint64_t last = 0;
        std::uint64_t latest = 0;  // the next transmission
        bool reconfigured = false; // since the last one
        std::uint64_t replaced_at = 0;
        bool latched = false;                     // the bytes, until replaced
        bool uncertain = false;                   // whether they are, the next time
        std::optional<std::uint64_t> latch_asked; // the tick, until applied
        std::uint32_t next_number = 0;
    };

    // At one tick, things may have happened in any order.
    void check_latch(packet &p, const record_id &id, const frame &sent)
    {
        const bool carries = ctrl_in(sent.data).diag == BFD_DIAG_CTRL_TIMEOUT;
        const bool asked_before = p.latch_asked && *p.latch_asked < sent.tick;
        const bool must = p.latched || asked_before;
        const bool may = must || p.latch_asked || sent.tick == p.replaced_at;
        const bool ambiguous =
            carries && (sent.tick == p.replaced_at || p.latch_asked == sent.tick);
        if (!std::exchange(p.uncertain, ambiguous)) {
            if (must && !carries)
                complaints_.add(sent.tick, id, "latch not applied");
            if (carries && !may)
                complaints_.add(sent.tick, id, "latched without a failure");
        }
        p.latched = carries;
        if (asked_before)
            p.latch_asked.reset();
    }

    complaints &complaints_;
    std::map<record_id, packet> packets_;
};

struct options {
    std::uint64_t seed;
    std::uint64_t ticks = 3000;
    std::uint64_t namespaces;
    std::uint64_t sessions; // in each
    // Chances per thousand, of each datagram:
    std::uint64_t loss, duplication, delay, damage, odd_buffer;
    // and of each tick:
    std::uint64_t late_timers, clock_step, silence, reconfiguration;

    explicit options(std::uint64_t wanted) : seed(wanted)
    {
        random_source random(wanted);
        namespaces = 1 + random.below(4);
        sessions = 1 + random.below(6);
        for (std::uint64_t *chance : {&loss, &duplication, &delay, &damage, &odd_buffer})
            *chance = random.below(2) * random.below(300);
        for (std::uint64_t *chance : {&late_timers, &clock_step, &silence, &reconfiguration})
            *chance = random.below(2) * random.below(20);
    }
};

// A session, its peer, and the packet that goes to the peer.
struct session {
    record_id id;
    std::uint64_t period; // ticks
    std::uint8_t multiplier;
    std::uint8_t auth_type; // of what the peer sends
    bool silent = false;
    std::uint64_t peer_sends_at = 0;
    std::uint8_t peer_state = BFD_STATE_UP;
};

struct flight {
    datagram packet;
    record_id id;
    bool acceptable;
};

class run
{
  public:
    explicit run(const options &wanted) : o_(wanted) {}

    void go()
    {
        const auto outer = std::exchange(
            on_failure, [this](const std::string &text) { found.list.push_back(text); });
        for (std::uint64_t i = 0; i < o_.namespaces; ++i)
            create_namespace();
        EXPECT_EQ(path_ready(*agents_.at(&w_.initial())), 0);
        observe();
        for (session &s : sessions_) // from a random delay on
            transmission_.configured(s.id, s.period, w_.tick());
        for (const std::uint64_t end = w_.tick() + o_.ticks;
             w_.tick() < end && found.list.empty();) {
            misfortunes();
            step();
        }
        w_.stop();
        on_failure = outer;
    }

    complaints found;
    std::uint64_t failures = 0;

  private:
    bool chance(std::uint64_t per_thousand) { return random_.below(1000) < per_thousand; }
    static net &ns_of(const session &s) { return *const_cast<net *>(s.id.first); }

    void create_namespace()
    {
        const std::string name = "n" + std::to_string(agents_.size());
        net &ns = agents_.empty() ? w_.initial() : w_.create_namespace(name);
        monitors_[&ns] = &w_.open_agent(ns, {.groups = notification_group});
        agents_[&ns] = &w_.open_agent(ns);
        for (std::uint64_t i = 0; i < o_.sessions; ++i) {
            session s{};
            s.id = {&ns, static_cast<std::uint32_t>(1 + random_.below(3) * 32 + 3 * i)};
            s.period = 5 + random_.below(60);
            s.multiplier = static_cast<std::uint8_t>(1 + random_.below(4));
            s.auth_type = random_.below(2) == 0 ? BFD_AUTH_PASSWORD : BFD_AUTH_NONE;
            sessions_.push_back(s);
            configure(sessions_.back());
        }
    }

    void configure(session &s)
    {
        agent &a = *agents_.at(s.id.first);
        const auto usecs = static_cast<kelm_microsecs>(s.period * 1000);
        outgoing packet;
        packet.payload = with_section({.my_discriminator = s.id.second, .your_discriminator = 77},
                                      auth_section(BFD_AUTH_METICULOUS_SHA1));
        EXPECT_EQ(set(a, s.id.second, packet,
                      tx{.period = usecs, .jitter_type = BFD_TX_JITTER_75, .latch_period = usecs}),
                  0);
        transmission_.configured(s.id, s.period, w_.tick());
        EXPECT_EQ(set_session(a, s.id.second,
                              rx{.multiplier = s.multiplier,
                                 .period = usecs,
                                 .latch = {s.id.second},
                                 .auth_type = s.auth_type}),
                  0);
        detection_.configured(s.id, s.period * s.multiplier, w_.tick());
    }

    void peers_send()
    {
        for (session &s : sessions_) {
            if (s.silent || w_.tick() < s.peer_sends_at)
                continue;
            s.peer_sends_at = w_.tick() + s.period * (75 + random_.below(25)) / 100;
            send(s);
        }
    }

    void send(session &s)
    {
        if (random_.below(10) == 0)
            s.peer_state = static_cast<std::uint8_t>(1 + random_.below(3));
        datagram packet;
        packet.payload = with_section(
            {.your_discriminator = s.id.second,
             .state = s.peer_state,
             .flags = random_.below(20) == 0 ? std::uint8_t{BFD_FLAG_POLL} : std::uint8_t{0}},
            auth_section(s.auth_type));
        if (chance(o_.odd_buffer)) {
            packet.form = random_.below(2) == 0 ? buffer_form::fragmented : buffer_form::cloned;
            packet.linear_len = static_cast<std::uint32_t>(random_.below(30));
        }
        const bool acceptable = !chance(o_.damage);
        if (!acceptable)
            damage(packet.payload);
        for (int copies = chance(o_.duplication) ? 2 : 1; copies > 0; --copies) {
            if (!chance(o_.loss))
                in_flight_.emplace(w_.tick() + (chance(o_.delay) ? random_.below(40) : 0),
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
        if (random_.below(5) == 0)
            return packet.resize(random_.below(packet.size()));
        const auto &[at, bits] = flips[random_.below(std::size(flips))];
        packet[at] ^= bits;
    }

    void deliver(const flight &arriving)
    {
        w_.deliver(*const_cast<net *>(arriving.id.first), arriving.packet);
        if (arriving.acceptable)
            detection_.accepted(arriving.id, w_.tick());
    }

    void deliver_what_is_due()
    {
        while (!in_flight_.empty() && in_flight_.begin()->first <= w_.tick()) {
            deliver(in_flight_.begin()->second);
            in_flight_.erase(in_flight_.begin());
        }
    }

    void misfortunes()
    {
        session &s = sessions_[random_.below(sessions_.size())];
        if (chance(o_.silence))
            s.silent = !s.silent;
        if (chance(o_.reconfiguration)) {
            s.period = 5 + random_.below(60);
            configure(s);
        }
        if (chance(o_.clock_step))
            w_.step_wall_clock(static_cast<std::int64_t>(random_.below(2'000'000'000'000)) -
                               1'000'000'000'000);
        if (chance(o_.late_timers)) {
            w_.pass(1 + random_.below(80));
            deliver_what_is_due(); // before the timers: that is the hosts' promise
            w_.run_timers();
            observe();
        }
    }

    void observe()
    {
        for (const auto &[ns, monitor] : monitors_) {
            for (const message &m : monitor->read_messages()) {
                const record_id id{ns, read_as<kelm_msg_header>(m.body).discriminator};
                ++failures;
                detection_.failed(id, w_.tick());
                transmission_.latched(id, w_.tick());
            }
        }
        for (const frame &each : w_.take_frames())
            transmission_.sent(each);
        detection_.timers_have_run(w_.tick());
        transmission_.timers_have_run(w_.tick());
    }

    void step()
    {
        peers_send();
        deliver_what_is_due();
        w_.advance(1);
        observe();
    }

    options o_;
    random_source random_{o_.seed};
    world w_{{.seed = o_.seed}};
    detection_checker detection_{found};
    transmission_checker transmission_{found};
    std::vector<session> sessions_;
    std::map<const net *, agent *> monitors_; // hear failures
    std::map<const net *, agent *> agents_;
    std::multimap<std::uint64_t, flight> in_flight_;
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
    std::uint64_t failures = 0;
    for (std::uint64_t seed = first; seed < first + count; ++seed) {
        run r{options(seed)};
        r.go();
        failures += r.failures;
        EXPECT_EQ(r.found.list, strings{}) << "KELM_SEED=" << seed;
        if (testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(failures, count);
}

} // namespace

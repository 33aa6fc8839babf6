// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/statistics.h"

#include <cerrno>

namespace kelm_agent
{

namespace
{

// How long kelm may take before the last known numbers have to do. With thousands of sessions the
// rest of the answer takes its time, too.
std::chrono::microseconds patience(std::size_t sessions)
{
    using namespace std::chrono_literals;
    constexpr std::size_t many = 1000;
    return sessions < many ? 50ms : 20ms + sessions * 5us;
}

} // namespace

struct statistics::inquiry {
    event_loop::callback done; // empty once it has been called
    int awaited = 0;           // answers
    event_loop::handle patience;

    void end()
    {
        patience = {};
        if (const auto call = std::exchange(done, {}))
            call();
    }
    void on_answer()
    {
        if (--awaited == 0)
            end();
    }
};

void statistics::refresh(const std::vector<const session_driver *> &wanted,
                         event_loop::callback done)
{
    std::map<vrf *, std::vector<std::uint32_t>> by_vrf;
    for (const auto *each : wanted)
        if (each->where().is_connected())
            by_vrf[&each->where()].push_back(each->bfd().discriminator());
    const auto made = std::make_shared<inquiry>();
    made->done = std::move(done);
    made->awaited = 1; // until all have been asked
    for (const auto &[where, discriminators] : by_vrf)
        ask(*where, discriminators.size() == 1 ? discriminators.front() : 0, made);
    made->patience = loop_.after(patience(wanted.size()), [made] { made->end(); });
    made->on_answer();
}

void statistics::ask(vrf &where, std::uint32_t discriminator, const std::shared_ptr<inquiry> &who)
{
    ++who->awaited;
    if (discriminator != 0) {
        where.dump(kelm::get_stats(discriminator, 0),
                   [this, who, &where, discriminator](int error, const auto &reports) {
                       take(where, reports);
                       auto *const unknown = sessions_.find(where, discriminator);
                       if (error == ENOENT && unknown != nullptr)
                           on_unknown_(*unknown);
                       who->on_answer();
                   });
        return;
    }
    auto &waiting = dumping_[&where];
    waiting.push_back(who);
    if (waiting.size() > 1)
        return;
    where.dump(kelm::get_stats(0, 0), [this, &where](int, const auto &reports) {
        take(where, reports);
        for (const auto &each : std::exchange(dumping_[&where], {}))
            each->on_answer();
    });
}

void statistics::take(const vrf &where, const std::vector<kelm::report> &reports)
{
    const auto is_ours = [&](const auto &message) {
        return sessions_.find(where, message.header.discriminator) != nullptr;
    };
    for (const auto &report : reports) {
        const auto *const received = std::get_if<kelm_msg_rx_stats>(&report);
        const auto *const sent = std::get_if<kelm_msg_tx_stats>(&report);
        if (received != nullptr && is_ours(*received))
            counted_[received->header.discriminator].received = *received;
        if (sent != nullptr && is_ours(*sent))
            counted_[sent->header.discriminator].sent = *sent;
    }
}

const counters &statistics::of(const session_driver &session) const
{
    static const counters nothing;
    const auto found = counted_.find(session.bfd().discriminator());
    return found == counted_.end() ? nothing : found->second;
}

void statistics::on_disconnected(const vrf &lost)
{
    for (const auto &each : std::exchange(dumping_[&lost], {}))
        each->on_answer();
}

} // namespace kelm_agent

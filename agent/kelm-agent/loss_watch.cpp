// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/loss_watch.h"

#include <algorithm>
#include <cerrno>

namespace kelm_agent
{

namespace
{

// Looking takes one part in `share` of the time, as long as a loss is still noticed within 10 s.
constexpr std::chrono::seconds shortest_interval{5};
constexpr std::chrono::seconds longest_interval{8};
constexpr int share = 20;

constexpr std::size_t most_names = 3; // in a warning

std::string list_of(const std::vector<std::string> &names)
{
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), most_names); ++i)
        text += (i == 0 ? "" : ", ") + names[i];
    if (names.size() > most_names)
        text += " and " + std::to_string(names.size() - most_names) + " more";
    return text;
}

} // namespace

void loss_watch::start()
{
    suspected_.clear();
    look_later(shortest_interval);
}

void loss_watch::stop()
{
    timer_ = {};
    walk_.stop();
}

void loss_watch::look_later(std::chrono::microseconds delay)
{
    timer_ = loop_.after(delay, [this] { look(); });
}

void loss_watch::look()
{
    look_later(shortest_interval);
    if (!vrf_.feed().is_following())
        return; // a reconciliation is under way
    timer_ = {};
    const auto began = loop_.now();
    const std::uint64_t round = vrf_.begin_round();
    vrf_.dump(kelm::sync(0), [this, round, began](int error, const auto &reports) {
        if (error != 0) // says nothing about any session
            return look_later(shortest_interval);
        auto all = std::make_shared<inventory>();
        for (const auto &report : reports)
            all->add(report);
        // What kelm has told before it dumped is to be acted on first.
        vrf_.feed().read_to_end([this, round, began, all] {
            judge(all, round);
            const auto took = std::chrono::ceil<std::chrono::microseconds>(loop_.now() - began);
            look_later(std::clamp<std::chrono::microseconds>(share * took, shortest_interval,
                                                             longest_interval));
        });
    });
}

void loss_watch::judge(const std::shared_ptr<const inventory> &all, std::uint64_t round)
{
    struct result {
        std::vector<std::string> lost;
        std::size_t count = 0;
    };
    const auto found = std::make_shared<result>();
    walk_.start(
        [=, this](session_driver &each) {
            if (&each.where() != &vrf_)
                return;
            ++found->count;
            if (each.mend(all->at(each.bfd().discriminator()), round))
                found->lost.push_back(each.config().name);
        },
        [=, this] { report(found->lost, found->lost.size() == found->count); });
}

void loss_watch::suspect(const session_driver &session)
{
    const std::uint32_t discriminator = session.bfd().discriminator();
    if (!vrf_.is_connected() || !suspected_.insert(discriminator).second)
        return;
    const std::uint64_t round = vrf_.begin_round();
    vrf_.dump(kelm::get_stats(discriminator, 0),
              [this, discriminator, round](int error, const auto &reports) {
                  suspected_.erase(discriminator);
                  if (error != 0 && error != ENOENT)
                      return;
                  kelm_entry entry;
                  entry.timer_active = true; // of which this says nothing
                  for (const auto &report : reports) {
                      entry.has_session |= std::holds_alternative<kelm_msg_rx_stats>(report);
                      entry.has_packet |= std::holds_alternative<kelm_msg_tx_stats>(report);
                  }
                  judge(discriminator, entry, round);
              });
}

void loss_watch::judge(std::uint32_t discriminator, const kelm_entry &entry, std::uint64_t round)
{
    session_driver *const suspected = sessions_.find(vrf_, discriminator);
    if (suspected != nullptr && suspected->mend(entry, round))
        report({suspected->config().name}, false);
}

// Which program it was, kelm does not know.
void loss_watch::report(const std::vector<std::string> &lost, bool is_all)
{
    if (lost.empty())
        return;
    lost_ += lost.size();
    const bool is_sweep = is_all && lost.size() > 1;
    const std::string what =
        is_sweep ? "kelm has lost all " + std::to_string(lost.size()) +
                       " sessions, as after a sweep by another agent"
                 : "kelm has lost " + list_of(lost) + ", as after a deletion by another program";
    log_.warning(vrf_.title() + ": " + what + "; making " + (lost.size() == 1 ? "it" : "them") +
                 " again");
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/session_set.h"

#include <algorithm>
#include <cerrno>
#include <sys/random.h>

#include "libkelm/error.h"

namespace kelm_agent
{

session_driver &session_set::add(std::unique_ptr<session_driver> added)
{
    const session_config &config = added->config();
    session_driver &driver = *(by_name_[config.name] = std::move(added));
    enter(driver);
    if (session_driver *const guard = find(guard_name(config.name)))
        session_driver::pair(driver, *guard);
    if (session_driver *const guarded = find(config.guards))
        session_driver::pair(*guarded, driver);
    return driver;
}

std::vector<std::string> session_set::names() const
{
    std::vector<std::string> all;
    all.reserve(by_name_.size());
    for (const auto &[name, driver] : by_name_)
        all.push_back(name);
    return all;
}

void session_set::enter(session_driver &entered)
{
    by_discriminator_[entered.bfd().discriminator()] = &entered;
    by_source_.emplace(arrival_source(entered.config()), &entered);
    ++ports_[source_port(entered.config().kind, entered.bfd().discriminator())];
}

void session_set::forget(const session_driver &gone)
{
    by_discriminator_.erase(gone.bfd().discriminator());
    const auto [first, last] = by_source_.equal_range(arrival_source(gone.config()));
    by_source_.erase(
        std::find_if(first, last, [&](const auto &entry) { return entry.second == &gone; }));
    const auto port = ports_.find(source_port(gone.config().kind, gone.bfd().discriminator()));
    if (--port->second == 0)
        ports_.erase(port);
}

session_driver *session_set::find(const std::string &name) const
{
    const auto found = by_name_.find(name);
    return found == by_name_.end() ? nullptr : found->second.get();
}

session_driver *session_set::find(const vrf &where, std::uint32_t discriminator) const
{
    const auto found = by_discriminator_.find(discriminator);
    return found != by_discriminator_.end() && &found->second->where() == &where ? found->second
                                                                                 : nullptr;
}

session_driver *session_set::find(const vrf &where, const kelm::packet_change &change,
                                  const kelm::frame_info &frame) const
{
    const auto [first, last] = by_source_.equal_range(frame.source);
    const auto found = std::find_if(first, last, [&](const auto &entry) {
        const session_driver &each = *entry.second;
        return &each.where() == &where && each.addresses() &&
               is_addressed_to(each.config(), *each.addresses(), change, frame);
    });
    return found == last ? nullptr : found->second;
}

session_driver &session_set::retire(const std::string &name)
{
    std::unique_ptr<session_driver> taken = std::move(by_name_.extract(name).mapped());
    forget(*taken);
    auto &kept = retired_[taken->bfd().discriminator()];
    kept = std::move(taken);
    return *kept;
}

void session_set::drop(const session_driver &retired)
{
    retired_.erase(retired.bfd().discriminator());
}

bool session_set::is_retired(const vrf &where, std::uint32_t discriminator) const
{
    const auto found = retired_.find(discriminator);
    return found != retired_.end() && &found->second->where() == &where;
}

std::uint32_t session_set::new_discriminator() const
{
    const bool has_free_port =
        ports_.size() < kelm::source_port_count - 1; // one may be S-BFD's own
    for (;;) {
        std::uint32_t drawn = 0;
        if (getrandom(&drawn, sizeof drawn, 0) != sizeof drawn)
            kelm::throw_errno(errno, "no random numbers");
        const std::uint16_t port = source_port(session_kind::single_hop, drawn);
        if (drawn != 0 && !contains(drawn) && !(has_free_port && ports_.contains(port)))
            return drawn;
    }
}

void session_set::change_discriminator(session_driver &changed, std::uint32_t discriminator)
{
    forget(changed);
    changed.set_discriminator(discriminator);
    enter(changed);
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reconcile.h"

#include "libkelm/frame.h"

namespace kelm_agent
{

void inventory::add(const kelm::report &report)
{
    if (const auto *change = std::get_if<kelm::packet_change>(&report)) {
        entries_[change->discriminator].frame = *change;
        const auto frame = kelm::decode_frame(*change);
        // A session that goes on has been told our discriminator.
        if (frame && frame->bfd.fields.your_discriminator == change->discriminator)
            heard_from_.emplace(frame->source, change->discriminator);
    } else if (const auto *session = std::get_if<kelm_msg_rx_sync>(&report)) {
        kelm_entry &entry = entries_[session->header.discriminator];
        entry.has_session = true;
        entry.timer_active = session->timer_active != 0;
    } else if (const auto *packet = std::get_if<kelm_msg_tx_sync>(&report)) {
        entries_[packet->header.discriminator].has_packet = true;
    }
}

const kelm_entry &inventory::at(std::uint32_t discriminator) const
{
    static const kelm_entry nothing;
    const auto found = entries_.find(discriminator);
    return found == entries_.end() ? nothing : found->second;
}

std::optional<std::uint32_t> inventory::recognise(const session_config &config,
                                                  const addressing &addresses) const
{
    const auto [first, last] = heard_from_.equal_range(arrival_source(config));
    for (auto each = first; each != last; ++each) {
        const kelm_entry &entry = at(each->second);
        if (!entry.has_packet || !entry.has_session)
            continue;
        const auto frame = kelm::decode_frame(*entry.frame);
        if (frame && is_addressed_to(config, addresses, *entry.frame, *frame))
            return each->second;
    }
    return std::nullopt;
}

remains remains_of(const kelm_entry &entry, const saved_session *saved)
{
    remains left;
    left.timer_active = entry.timer_active;
    left.has_packet = entry.has_packet;
    if (entry.frame)
        if (const auto frame = kelm::decode_frame(*entry.frame))
            left.heard = frame->bfd.fields;
    if (saved != nullptr) {
        left.state = saved->state;
        left.in_effect = saved->in_effect;
        left.admin_down = saved->admin_down;
    }
    return left;
}

} // namespace kelm_agent

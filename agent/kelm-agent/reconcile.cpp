// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reconcile.h"

#include "kelm-agent/matching.h"

namespace kelm_agent
{

namespace
{

struct collector {
    inventory &into;

    void operator()(const kelm::packet_change &change) const
    {
        into[change.discriminator].frame = change;
    }
    void operator()(const kelm_msg_rx_sync &session) const
    {
        found &entry = into[session.header.discriminator];
        entry.has_session = true;
        entry.timer_active = session.timer_active != 0;
    }
    void operator()(const kelm_msg_tx_sync &packet) const
    {
        into[packet.header.discriminator].has_packet = true;
    }
    template<typename T>
    void operator()(const T &) const
    {
    }
};

} // namespace

inventory take_inventory(const std::vector<kelm::report> &dump)
{
    inventory taken;
    for (const auto &report : dump)
        std::visit(collector{taken}, report);
    return taken;
}

std::optional<std::uint32_t> recognise(const session_config &config, const addressing &addresses,
                                       const inventory &all)
{
    for (const auto &[discriminator, entry] : all) {
        if (!entry.has_packet || !entry.has_session || !entry.frame)
            continue;
        const auto frame = kelm::decode_frame(*entry.frame);
        if (frame && frame->bfd.fields.your_discriminator == discriminator &&
            is_addressed_to(config, addresses, *entry.frame, *frame))
            return discriminator;
    }
    return std::nullopt;
}

remains remains_of(const found &entry, const saved_session *saved)
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

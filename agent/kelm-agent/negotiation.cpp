// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/negotiation.h"

#include <algorithm>
#include <limits>

namespace kelm_agent
{

namespace
{

// The peer may expect packets as often as either of these says, and may send as rarely.
intervals more_cautious(intervals one, intervals other)
{
    return {std::min(one.desired_min_tx, other.desired_min_tx),
            std::max(one.required_min_rx, other.required_min_rx)};
}

} // namespace

intervals negotiation::slowed(intervals fast)
{
    return {std::max(fast.desired_min_tx, slow_interval), fast.required_min_rx};
}

void negotiation::configure(intervals wanted, std::uint8_t multiplier)
{
    multiplier_ = multiplier;
    if (wanted == configured_)
        return;
    agreed_ = more_cautious(agreed_, configured_);
    polled_ = more_cautious(polled_, wanted);
    configured_ = wanted;
    is_unconfirmed_ = true;
}

void negotiation::agree(intervals with)
{
    agreed_ = with;
    is_unconfirmed_ = with != configured_;
}

// While the session was not Up, advertised intervals took effect at once.
void negotiation::set_up(bool up)
{
    if (up && !up_)
        agree(advertised());
    up_ = up;
}

void negotiation::resume(intervals agreed)
{
    up_ = true;
    agree(agreed);
}

void negotiation::poll_ends()
{
    agree(polled_);
}

// RFC 5880 section 6.8.3: until the peer confirms the change, it would take slower packets for a
// failure, and may itself still send at the old, slower rate.
intervals negotiation::in_effect() const
{
    const intervals ours = advertised();
    if (!up_ || alone_)
        return ours;
    return more_cautious(ours, agreed_);
}

kelm_microsecs negotiation::transmit_interval() const
{
    return std::max(in_effect().desired_min_tx, peer_.required_min_rx);
}

kelm_microsecs negotiation::receive_interval() const
{
    const kelm_microsecs agreed =
        alone_ ? transmit_interval() : std::max(in_effect().required_min_rx, peer_.desired_min_tx);
    const std::uint32_t multiplier = std::max<std::uint32_t>(receive_multiplier(), 1);
    return std::min(agreed, std::numeric_limits<kelm_microsecs>::max() / multiplier);
}

} // namespace kelm_agent

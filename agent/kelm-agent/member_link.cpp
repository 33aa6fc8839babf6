// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/member_link.h"

#include "kelm-agent/matching.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

constexpr int most_frames_a_round = 64; // others are to have their turn too

} // namespace

void member_link::listen(const std::string &netns, std::uint32_t ifindex,
                         event_loop::callback on_packets)
{
    if (listener_ && listener_->member() == ifindex)
        return;
    leave();
    listener_.emplace(netns, ifindex);
    on_packets_ = loop_.on_io(listener_->fd(), EPOLLIN, std::move(on_packets));
}

void member_link::leave()
{
    on_packets_ = {};
    listener_.reset();
}

void member_link::hear(
    const session_config &config, const addressing &addresses,
    const std::function<void(const kelm::packet_change &, const kelm::frame_info &)> &take)
{
    for (int i = 0; i < most_frames_a_round && listener_; ++i) {
        auto change = listener_->next();
        if (!change)
            return;
        change->ifindex = addresses.receive_ifindex;
        const auto frame = kelm::decode_frame(*change);
        if (frame && is_addressed_to(config, addresses, *change, *frame))
            take(*change, *frame);
    }
}

} // namespace kelm_agent

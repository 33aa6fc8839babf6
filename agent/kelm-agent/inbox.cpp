// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/inbox.h"

#include <algorithm>
#include <iterator>

namespace kelm_agent
{

namespace
{

// A peer that says something else each time must not fill our memory.
constexpr std::size_t most_kept = 16;

// Whether the state machine cannot tell these from two of the later one.
bool say_the_same(const kelm::bfd_fields &earlier, const kelm::bfd_fields &later)
{
    return earlier.state == later.state && earlier.my_discriminator == later.my_discriminator &&
           (earlier.your_discriminator == 0) == (later.your_discriminator == 0);
}

} // namespace

void inbox::add_packet(kelm::bfd_fields heard)
{
    if (!kept_.empty() && kept_.back().kind == entry::packet &&
        say_the_same(kept_.back().fields, heard)) {
        heard.poll |= kept_.back().fields.poll;
        heard.final |= kept_.back().fields.final;
        kept_.back().fields = heard;
        return;
    }
    if (kept_.size() >= most_kept)
        kept_.pop_front();
    kept_.push_back({entry::packet, heard});
}

void inbox::add_all(const std::deque<entry> &later)
{
    std::ranges::copy(later, std::back_inserter(kept_));
}

bool inbox::contains_packet(const kelm::bfd_fields &fields) const
{
    return std::ranges::any_of(kept_, [&](const entry &each) {
        return each.kind == entry::packet && each.fields == fields;
    });
}

kelm::bytes essence(const kelm::packet_change &change)
{
    constexpr std::size_t compared = BFD_CTRL_LEN + 2;
    const kelm::byte_view control = kelm::byte_view(change.frame).subspan(change.bfd_offset);
    const kelm::byte_view beginning = control.first(std::min(control.size(), compared));
    return {beginning.begin(), beginning.end()};
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/authentic.h"

#include "kelm-agent/matching.h"
#include "kelm/kelm_bfd_common_utils.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

namespace
{

void no_trace(kelm_trace_type, std::uint32_t, const char *) {}

// RFC 5880 sections 6.7.3 and 6.7.4, without an upper bound, because kelm does not pass up every
// packet. Meticulous numbers are circular. Keyed numbers may repeat; kelm repeats them for a
// second.
bool is_newer(std::uint8_t auth_type, std::uint32_t sequence, std::uint32_t last, bool may_repeat)
{
    if (kelm_auth_is_keyed(auth_type))
        return sequence > last || (may_repeat && sequence == last);
    return static_cast<std::int32_t>(sequence - last) > 0;
}

// In an echo packet My Discriminator is a time stamp, which kelm clears after it has checked the
// packet. A packet that arrives without one is never passed up.
bool is_checked_echo(const session_config &config, const kelm::bfd_packet &packet)
{
    return config.kind == session_kind::echo && packet.fields.my_discriminator == 0;
}

bool is_valid(const session_config &config, const addressing &addresses,
              const kelm::packet_change &change)
{
    kelm::bytes frame = change.frame; // the check writes into it
    const std::size_t available = frame.size() - change.bfd_offset;
    auto *const control = reinterpret_cast<bfd_ctrl *>(frame.data() + change.bfd_offset);
    if (!kelm_packet_valid(control, available))
        return false;
    const kelm_msg_rx_set_session expected = receive_settings(config, addresses);
    std::uint32_t any_sequence = 0;
    std::uint64_t too_short = 0;
    std::uint64_t other_type = 0;
    return kelm_auth_valid(&expected.auth, expected.auth_key, &any_sequence, &too_short,
                           &other_type, 0, control, frame.data() + change.l3_offset,
                           static_cast<std::int32_t>(change.ifindex),
                           static_cast<std::int32_t>(available - BFD_CTRL_LEN), no_trace);
}

} // namespace

bool is_authentic(const session_config &config, const addressing &addresses,
                  const kelm::packet_change &change, bool is_up,
                  std::optional<std::uint32_t> &last_sequence)
{
    const auto frame = kelm::decode_frame(change);
    if (!frame || frame->ttl < config.minimum_ttl ||
        !is_from_peer(config, addresses, change, *frame))
        return false;
    const kelm::bfd_packet &packet = frame->bfd;
    if (!is_checked_echo(config, packet) && !is_valid(config, addresses, change))
        return false;
    if (!packet.auth_present || !packet.auth || !packet.auth->sequence)
        return true;
    // kelm checks no packet without our discriminator. While we are Up, a repeated number there is
    // a replay of a packet from before the session came up.
    const bool may_repeat = !is_up || packet.fields.your_discriminator != 0;
    const std::uint32_t sequence = *packet.auth->sequence;
    if (last_sequence && !is_newer(packet.auth->type, sequence, *last_sequence, may_repeat))
        return false;
    last_sequence = sequence;
    return true;
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/authentic.h"

#include "kelm/kelm_bfd_common_utils.h"
#include "libkelm/frame.h"

namespace kelm_agent
{

namespace
{

void no_trace(kelm_trace_type, std::uint32_t, const char *) {}

// RFC 5880 sections 6.7.3 and 6.7.4, without an upper bound: we do not see every packet. Meticulous
// numbers are circular.
bool is_newer(std::uint8_t auth_type, std::uint32_t sequence, std::uint32_t last)
{
    if (kelm_auth_is_keyed(auth_type))
        return sequence >= last;
    return static_cast<std::int32_t>(sequence - last) > 0;
}

} // namespace

bool is_authentic(const session_config &config, const addressing &addresses,
                  const kelm::packet_change &change, std::optional<std::uint32_t> &last_sequence)
{
    kelm::bytes frame = change.frame; // the check writes into it
    const std::size_t available =
        frame.size() - std::min<std::size_t>(change.bfd_offset, frame.size());
    auto *const control = reinterpret_cast<bfd_ctrl *>(frame.data() + change.bfd_offset);
    if (available < BFD_CTRL_LEN || !kelm_packet_valid(control, available))
        return false;

    const kelm_msg_rx_set_session expected = receive_settings(config, addresses);
    std::uint32_t any_sequence = 0;
    std::uint64_t too_short = 0;
    std::uint64_t other_type = 0;
    if (!kelm_auth_valid(&expected.auth, expected.auth_key, &any_sequence, &too_short, &other_type,
                         0, control, frame.data() + change.l3_offset,
                         static_cast<std::int32_t>(change.ifindex),
                         static_cast<std::int32_t>(available - BFD_CTRL_LEN), no_trace))
        return false;

    const auto decoded = kelm::decode_bfd({frame.data() + change.bfd_offset, available});
    if (!decoded || !decoded->auth_present || !decoded->auth || !decoded->auth->sequence)
        return true;
    const std::uint32_t sequence = *decoded->auth->sequence;
    if (last_sequence && !is_newer(decoded->auth->type, sequence, *last_sequence))
        return false;
    last_sequence = sequence;
    return true;
}

} // namespace kelm_agent

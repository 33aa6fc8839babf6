// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reason.h"

#include "libkelm/duration.h"
#include "libkelm/names.h"

namespace kelm_agent
{

namespace
{

constexpr kelm::number_name words[] = {
    {BFD_DIAG_NONE, "no diagnostic"},
    {BFD_DIAG_CTRL_TIMEOUT, "control detection time expired"},
    {BFD_DIAG_ECHO_FAIL, "echo function failed"},
    {BFD_DIAG_NEIGH_DOWN, "neighbor signaled session down"},
    {BFD_DIAG_FORWARDING_RESET, "forwarding plane reset"},
    {BFD_DIAG_PATH_DOWN, "path down"},
    {BFD_DIAG_CONCAT_PATH_DOWN, "concatenated path down"},
    {BFD_DIAG_ADMIN_DOWN, "administratively down"},
    {BFD_DIAG_REV_CONCAT_PATH_DOWN, "reverse concatenated path down"},
};

} // namespace

std::string diag_words(std::uint8_t diag)
{
    return kelm::name_of(words, diag);
}

std::string heard_reason(const session &about)
{
    const condition &peer = about.remote();
    std::string reason = "the peer says " + kelm::name_of(kelm::state_names, peer.state);
    if (peer.diag != BFD_DIAG_NONE)
        reason += " (" + diag_words(peer.diag) + ")";
    return reason;
}

std::string silence_reason(kelm_microsecs waited)
{
    return "no packet came within the detection time of " + kelm::format_duration(waited);
}

} // namespace kelm_agent

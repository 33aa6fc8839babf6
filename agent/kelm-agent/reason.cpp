// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reason.h"

#include "libkelm/duration.h"
#include "libkelm/names.h"

namespace kelm_agent
{

std::string state_name(std::uint8_t state)
{
    return kelm::name_of(kelm::state_names, state);
}

std::string diag_words(std::uint8_t diag)
{
    return kelm::text_of(kelm::diagnostic_names, diag);
}

std::string heard_reason(const session &about)
{
    const condition &peer = about.remote();
    std::string reason = "peer signaled " + state_name(peer.state);
    if (peer.diag != BFD_DIAG_NONE)
        reason += " (" + diag_words(peer.diag) + ")";
    return reason;
}

std::string silence_reason(kelm_microsecs waited)
{
    return "no packet within the detection time of " + kelm::format_duration(waited);
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/model.h"

#include "libkelm/names.h"

namespace kelm_agent
{

std::string identity_text(const session_config &config)
{
    return kind_name(config.kind) + " netns=" + config.netns + " local=" + config.local.text() +
           " peer=" + config.peer.text() + " interface=" + config.interface +
           " member=" + config.member + " remote=" + std::to_string(config.remote_discriminator) +
           " guards=" + config.guards;
}

std::string guard_name(const std::string &session)
{
    return session + "/echo";
}

std::string kind_name(session_kind kind)
{
    return kelm::name_of(kelm::session_type_names, static_cast<std::uint8_t>(kind));
}

std::optional<session_kind> kind_named(std::string_view name)
{
    const auto number = kelm::number_of(kelm::session_type_names, name);
    return number ? std::optional(static_cast<session_kind>(*number)) : std::nullopt;
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/model.h"

namespace kelm_agent
{

namespace
{

struct named_kind {
    session_kind kind;
    std::string_view name;
};

constexpr named_kind kinds[] = {
    {session_kind::single_hop, "single-hop"},
    {session_kind::echo, "echo"},
    {session_kind::lag, "lag"},
    {session_kind::multihop, "multihop"},
    {session_kind::sbfd, "sbfd"},
};

} // namespace

std::string identity_text(const session_config &config)
{
    return std::string(kind_name(config.kind)) + " netns=" + config.netns +
           " local=" + config.local.text() + " peer=" + config.peer.text() +
           " interface=" + config.interface + " member=" + config.member +
           " remote=" + std::to_string(config.remote_discriminator) + " guards=" + config.guards;
}

std::string guard_name(const std::string &session)
{
    return session + "/echo";
}

std::string_view kind_name(session_kind kind)
{
    for (const auto &entry : kinds)
        if (entry.kind == kind)
            return entry.name;
    return {};
}

std::optional<session_kind> kind_named(std::string_view name)
{
    for (const auto &entry : kinds)
        if (entry.name == name)
            return entry.kind;
    return std::nullopt;
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "libkelm/names.h"

#include <algorithm>

#include "kelm.h"

namespace kelm
{

namespace
{

constexpr number_name states[] = {
    {BFD_STATE_ADMIN_DOWN, "admin-down"},
    {BFD_STATE_DOWN, "down"},
    {BFD_STATE_INIT, "init"},
    {BFD_STATE_UP, "up"},
};

// RFC 5880 section 4.1
constexpr number_name diagnostics[] = {
    {BFD_DIAG_NONE, "no-diagnostic"},
    {BFD_DIAG_CTRL_TIMEOUT, "control-detection-time-expired"},
    {BFD_DIAG_ECHO_FAIL, "echo-function-failed"},
    {BFD_DIAG_NEIGH_DOWN, "neighbor-signaled-session-down"},
    {BFD_DIAG_FORWARDING_RESET, "forwarding-plane-reset"},
    {BFD_DIAG_PATH_DOWN, "path-down"},
    {BFD_DIAG_CONCAT_PATH_DOWN, "concatenated-path-down"},
    {BFD_DIAG_ADMIN_DOWN, "administratively-down"},
    {BFD_DIAG_REV_CONCAT_PATH_DOWN, "reverse-concatenated-path-down"},
};

constexpr number_name auth_types[] = {
    {BFD_AUTH_NONE, "none"},
    {BFD_AUTH_PASSWORD, "password"},
    {BFD_AUTH_KEYED_MD5, "keyed-md5"},
    {BFD_AUTH_METICULOUS_MD5, "meticulous-md5"},
    {BFD_AUTH_KEYED_SHA1, "keyed-sha1"},
    {BFD_AUTH_METICULOUS_SHA1, "meticulous-sha1"},
    {BFD_AUTH_DEBUG_SEQNUM, "debug-seqnum"},
};

constexpr number_name jitters[] = {
    {BFD_TX_JITTER_NONE, "none"},
    {BFD_TX_JITTER_75, "75"},
    {BFD_TX_JITTER_75_90, "75-90"},
};

constexpr number_name session_types[] = {
    {KELM_RX_SESSION_BFD, "single-hop"},
    {KELM_RX_SESSION_ECHO, "echo"},
    {KELM_RX_SESSION_LAG, "lag"},
    {KELM_RX_SESSION_MULTIHOP, "multihop"},
    {KELM_RX_SESSION_SBFD_INITIATOR, "sbfd"},
};

} // namespace

constinit const name_table state_names = states;
constinit const name_table diagnostic_names = diagnostics;
constinit const name_table auth_type_names = auth_types;
constinit const name_table jitter_names = jitters;
constinit const name_table session_type_names = session_types;

std::string name_of(name_table table, std::uint32_t number)
{
    for (const auto &entry : table)
        if (entry.number == number)
            return std::string(entry.name);
    return std::to_string(number);
}

std::string text_of(name_table table, std::uint32_t number)
{
    std::string text = name_of(table, number);
    std::ranges::replace(text, '-', ' ');
    return text;
}

std::optional<std::uint32_t> number_of(name_table table, std::string_view name)
{
    for (const auto &entry : table)
        if (entry.name == name)
            return entry.number;
    return std::nullopt;
}

std::string all_names(name_table table)
{
    std::string list;
    for (const auto &entry : table)
        list += (list.empty() ? "" : ", ") + std::string(entry.name);
    return list;
}

} // namespace kelm

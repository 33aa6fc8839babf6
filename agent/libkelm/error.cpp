// SPDX-License-Identifier: GPL-2.0
#include "libkelm/error.h"

#include <cerrno>
#include <cstring>

#include "kelm.h"

namespace kelm
{

namespace
{

struct request_name {
    std::uint16_t type;
    const char *doing;
    const char *of = ""; // in front of the discriminator
};

constexpr request_name request_names[] = {
    {KELM_MSG_TX_SET_PACKET, "set transmit packet"},
    {KELM_MSG_TX_DELETE_PACKET, "delete transmit packet"},
    {KELM_MSG_RX_SET_SESSION, "set receive session"},
    {KELM_MSG_RX_DELETE_SESSION, "delete receive session"},
    {KELM_MSG_GET_STATS, "get statistics", " of"},
    {KELM_MSG_SYNC, "synchronise"},
    {KELM_MSG_SET_DEBUG_LEVEL, "set the debug level", " of"},
    {KELM_MSG_TX_PATH_READY, "declare the transmit path ready"},
    {KELM_MSG_SET_SESSION_STATS_INTERVAL, "set the statistics interval"},
};

struct explanation {
    std::uint16_t type; // 0: any request
    int number;
    const char *text;
};

// The first match counts, so a request's own meaning of a number stands before the general one.
constexpr explanation explanations[] = {
    {KELM_MSG_TX_SET_PACKET, EINVAL,
     "discriminator and period must not be 0, the packet must end where its BFD packet with the "
     "authentication section of the configured type ends, and its IP and UDP headers must lie in "
     "front of that"},
    {KELM_MSG_TX_SET_PACKET, EAFNOSUPPORT, "unknown type of transmit packet"},
    {KELM_MSG_TX_SET_PACKET, ENOMEM,
     "kelm is out of memory; settings may have been stored, the bytes sent so far are unchanged"},
    {KELM_MSG_TX_SET_PACKET, ESHUTDOWN, "the network namespace is going down"},
    {KELM_MSG_TX_DELETE_PACKET, EINVAL, "discriminator 0 is not a packet"},
    {KELM_MSG_TX_DELETE_PACKET, ENOENT, "this network namespace has no such transmit packet"},
    {KELM_MSG_RX_SET_SESSION, EINVAL, "a session cannot have discriminator 0"},
    {KELM_MSG_RX_SET_SESSION, EAFNOSUPPORT, "unknown type of receive session"},
    {KELM_MSG_RX_SET_SESSION, ENXIO,
     "a transmit packet to be latched does not exist: set that packet first, then the session "
     "again; until then the session is configured without this link, and its detection timer is "
     "unchanged"},
    {KELM_MSG_RX_SET_SESSION, ENOMEM, "kelm is out of memory; nothing has changed"},
    {KELM_MSG_RX_SET_SESSION, ESHUTDOWN,
     "the network namespace is going down; the session is partly configured"},
    {KELM_MSG_RX_DELETE_SESSION, EINVAL, "discriminator 0 is not a session"},
    {KELM_MSG_RX_DELETE_SESSION, ENOENT, "this network namespace has no such receive session"},
    {KELM_MSG_GET_STATS, ENOENT,
     "this network namespace has neither a receive session nor a transmit packet with this "
     "discriminator"},
    {KELM_MSG_GET_STATS, EAGAIN, "no room for the reply: read what is waiting and retry"},
    {KELM_MSG_SET_DEBUG_LEVEL, EPERM,
     "the module's debug level requires the network administration privilege (CAP_NET_ADMIN): run "
     "as root"},
    {KELM_MSG_SET_DEBUG_LEVEL, ENOSR,
     "100 sessions already have debug levels of their own, the maximum: clear some"},
    {KELM_MSG_TX_PATH_READY, ENODATA, "the request must not name a session"},
    {KELM_MSG_SET_SESSION_STATS_INTERVAL, EINVAL, "the request must not name a session"},
    {0, EPERM,
     "this requires the network administration privilege (CAP_NET_ADMIN): run as root, or give the "
     "program that capability"},
    {0, ENODEV,
     "kelm does not serve this network namespace: its loopback interface may just have appeared or "
     "disappeared, or kelmd was started with --netns for others"},
    {0, ENOMSG, "the running kelm does not support this request: version mismatch?"},
    {0, EINVAL, "malformed request: version mismatch?"},
    {0, ENOMEM, "kelm is out of memory"},
    {0, EBUSY, "another dump is still running on this socket"},
};

std::string refusal(std::uint16_t type, std::uint32_t discriminator, int number)
{
    request_name name = {type, "send the request"};
    for (const auto &entry : request_names)
        if (entry.type == type)
            name = entry;
    std::string text = std::string("cannot ") + name.doing;
    if (discriminator != 0)
        text += std::string(name.of) + " " + std::to_string(discriminator);
    text += ": " + errno_text(number);
    const std::string meaning = explain(type, number);
    return meaning.empty() ? text : text + ": " + meaning;
}

} // namespace

refused::refused(std::uint16_t message_type, std::uint32_t discriminator, int number)
    : error(number, refusal(message_type, discriminator, number)), message_type_(message_type)
{
}

void throw_errno(int number, const std::string &what)
{
    throw error(number, what + ": " + errno_text(number));
}

std::string explain(std::uint16_t message_type, int number)
{
    for (const auto &entry : explanations)
        if ((entry.type == message_type || entry.type == 0) && entry.number == number)
            return entry.text;
    return {};
}

std::string errno_text(int number)
{
    const char *name = strerrorname_np(number);
    const char *text = strerrordesc_np(number);
    if (name == nullptr || text == nullptr)
        return "error " + std::to_string(number);
    return std::string(text) + " (" + name + ")";
}

} // namespace kelm

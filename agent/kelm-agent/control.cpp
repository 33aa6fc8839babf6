// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/control.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "kelm-agent/session_report.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

using json = nlohmann::ordered_json;

std::vector<std::string> names_in(const agent &running, const json &request)
{
    std::vector<std::string> names = request.value("sessions", std::vector<std::string>());
    for (const auto &name : names)
        if (running.sessions().find(name) == nullptr)
            throw std::out_of_range("no session '" + name + "'");
    return names.empty() ? running.sessions().names() : names;
}

// Sessions may have gone since they were asked for.
json show(const agent &running, const std::vector<std::string> &names)
{
    json sessions = json::array();
    for (const auto &name : names)
        if (const auto *const driver = running.sessions().find(name))
            sessions.push_back(report_session(*driver, running.counted(*driver)));
    return {{"ok", true}, {"sessions", std::move(sessions)}};
}

json show_history(const agent &running, const std::vector<std::string> &names)
{
    std::vector<std::pair<const std::string *, const change *>> all;
    for (const auto &name : names)
        for (const auto &each : running.sessions().find(name)->past().changes())
            all.emplace_back(&name, &each);
    std::ranges::stable_sort(all, {}, [](const auto &entry) { return entry.second->when; });
    json changes = json::array();
    for (const auto &[name, each] : all)
        changes.push_back(report_change(*name, *each));
    return {{"ok", true}, {"changes", std::move(changes)}};
}

std::string text_of(const json &answer)
{
    return answer.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

void answer(agent &running, const json &request, const stream_server::reply &reply)
{
    const std::string command = request.at("command");
    const std::vector<std::string> names = names_in(running, request);
    if (command == "show")
        return running.refresh_statistics(
            names, [&running, names, reply] { reply(text_of(show(running, names))); });
    if (command == "history")
        return reply(text_of(show_history(running, names)));
    if (command == "down" || command == "up") {
        if (!request.contains("sessions") || request.at("sessions").empty())
            throw std::out_of_range("no sessions given");
        for (const auto &name : names)
            running.set_admin_down(name, command == "down");
        return reply(text_of({{"ok", true}}));
    }
    throw std::out_of_range("unknown command '" + command + "'");
}

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        throw kelm::error(ENAMETOOLONG, path + " is too long for a socket address");
    std::ranges::copy(path, address.sun_path);
    return address;
}

kelm::unique_fd make_socket()
{
    kelm::unique_fd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made)
        kelm::throw_errno(errno, "cannot create a socket");
    return made;
}

// Removes a killed agent's socket, but not a running agent's.
void make_way(const std::string &path, const sockaddr_un &address)
{
    const kelm::unique_fd probe = make_socket();
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN)
        throw kelm::error(EADDRINUSE, "another kelm-agent is using " + path +
                                          "; stop it, or give this one its own with "
                                          "--socket and --state");
    if (errno == EACCES)
        kelm::throw_errno(errno, "cannot tell whether another kelm-agent is using " + path);
    if (errno == ECONNREFUSED && std::filesystem::is_socket(path)) // other files refuse as well
        (void)unlink(path.c_str());
}

kelm::unique_fd listen_at(const std::string &path)
{
    const sockaddr_un address = address_of(path);
    make_way(path, address);
    kelm::unique_fd listening = make_socket();
    const mode_t mask = umask(0177);
    const int bound =
        bind(listening.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
    umask(mask);
    if (bound != 0 || listen(listening.get(), SOMAXCONN) != 0)
        kelm::throw_errno(errno, "cannot listen on " + path);
    return listening;
}

} // namespace

void answer_control_request(agent &running, const std::string &request, stream_server::reply reply)
{
    try {
        answer(running, json::parse(request), reply);
    } catch (const std::out_of_range &problem) {
        reply(text_of({{"ok", false}, {"error", problem.what()}}));
    } catch (const json::exception &) {
        reply(text_of({{"ok", false}, {"error", "malformed request"}}));
    }
}

control_socket::control_socket(event_loop &loop, const std::string &path)
    : loop_(loop), path_(path), listening_(listen_at(path))
{
}

void control_socket::serve(agent &running)
{
    server_.emplace(loop_, std::move(listening_),
                    [&running](const std::string &received, stream_server::reply reply) {
                        const std::size_t end = received.find('\n');
                        if (end == std::string::npos)
                            return false;
                        answer_control_request(running, received.substr(0, end), std::move(reply));
                        return true;
                    });
}

control_socket::~control_socket()
{
    (void)unlink(path_.c_str());
}

} // namespace kelm_agent

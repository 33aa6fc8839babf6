// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/control.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "kelm-agent/change_stream.h"
#include "kelm-agent/session_report.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

using nlohmann::json;

constexpr std::size_t records_a_piece = 256;

// Writes {"ok": true, "KEY": [...]}, a record after the other.
template<typename Record>
class list_writer
{
  public:
    // Adds a record, or nothing if there is nothing to tell of it any more.
    using adder = std::function<void(json_writer &, const Record &)>;

    list_writer(std::string_view key, std::vector<Record> records, adder add)
        : records_(std::move(records)), add_(std::move(add))
    {
        out_.begin_object();
        out_.add("ok", true);
        out_.begin_array(key);
    }

    std::string operator()()
    {
        std::string piece;
        while (piece.empty() && !is_ended_) {
            const std::size_t end = std::min(records_.size(), next_ + records_a_piece);
            for (; next_ < end; ++next_)
                add_(out_, records_[next_]);
            is_ended_ = next_ == records_.size();
            if (is_ended_) {
                out_.end_array();
                out_.end_object();
            }
            piece = out_.take() + (is_ended_ ? "\n" : "");
        }
        return piece;
    }

  private:
    json_writer out_;
    std::vector<Record> records_;
    adder add_;
    std::size_t next_ = 0;
    bool is_ended_ = false;
};

std::string short_answer(const std::string &error)
{
    json_writer out;
    out.begin_object();
    out.add("ok", error.empty());
    if (!error.empty())
        out.add("error", error);
    out.end_object();
    return out.take() + "\n";
}

std::vector<std::string> names_in(const agent &running, const json &request)
{
    std::vector<std::string> names = request.value("sessions", std::vector<std::string>());
    for (const auto &name : names)
        if (running.sessions().find(name) == nullptr)
            throw std::out_of_range("no session '" + name + "'");
    return names.empty() ? running.sessions().names() : names;
}

// Sessions may have gone since they were asked for.
stream_server::writer show(const agent &running, std::vector<std::string> names)
{
    return list_writer<std::string>(
        "sessions", std::move(names), [&running](json_writer &out, const std::string &name) {
            if (const auto *const driver = running.sessions().find(name))
                add_session(out, *driver, running.counted(*driver));
        });
}

stream_server::writer show_history(const agent &running, const std::vector<std::string> &names)
{
    using entry = std::pair<std::string, change>;
    std::vector<entry> all;
    for (const auto &name : names)
        for (const auto &each : running.sessions().find(name)->past().changes())
            all.emplace_back(name, each);
    std::ranges::stable_sort(all, {}, [](const entry &each) { return each.second.when; });
    return list_writer<entry>("changes", std::move(all), [](json_writer &out, const entry &each) {
        add_change(out, each.first, each.second);
    });
}

void answer(agent &running, reloader &configuration, const json &request,
            const stream_server::reply &reply)
{
    const std::string command = request.at("command");
    const std::vector<std::string> names = names_in(running, request);
    const bool is_of_all = !request.contains("sessions") || request.at("sessions").empty();
    if (command == "show") {
        running.refresh_statistics(names,
                                   [&running, names, reply] { reply(show(running, names)); });
    } else if (command == "history") {
        reply(show_history(running, names));
    } else if (command == "subscribe") {
        change_stream::send(running, names, is_of_all, reply);
    } else if (command == "reload") {
        configuration.reload([reply](const std::string &problem) {
            reply(stream_server::whole(short_answer(problem)));
        });
    } else if (command == "down" || command == "up") {
        if (is_of_all)
            throw std::out_of_range("no sessions given");
        for (const auto &name : names)
            running.set_admin_down(name, command == "down");
        reply(stream_server::whole(short_answer("")));
    } else {
        throw std::out_of_range("unknown command '" + command + "'");
    }
}

// A request may have any content; it is answered now or soon.
void answer_text(agent &running, reloader &configuration, const std::string &request,
                 const stream_server::reply &reply)
{
    try {
        answer(running, configuration, json::parse(request), reply);
    } catch (const std::out_of_range &problem) {
        reply(stream_server::whole(short_answer(problem.what())));
    } catch (const json::exception &) {
        reply(stream_server::whole(short_answer("malformed request")));
    }
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

control_socket::control_socket(event_loop &loop, const std::string &path)
    : loop_(loop), path_(path), listening_(listen_at(path))
{
}

void control_socket::serve(agent &running, reloader &configuration)
{
    const auto answer = [&](const std::string &received, const stream_server::reply &reply) {
        const std::size_t end = received.find('\n');
        if (end == std::string::npos)
            return false;
        answer_text(running, configuration, received.substr(0, end), reply);
        return true;
    };
    server_.emplace(loop_, std::move(listening_), answer);
}

control_socket::~control_socket()
{
    (void)unlink(path_.c_str());
}

} // namespace kelm_agent

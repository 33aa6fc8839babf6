// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/metrics.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

#include "kelm-agent/slices.h"
#include "kelm-agent/whole_file.h"
#include "libkelm/error.h"

namespace kelm_agent
{

namespace
{

constexpr std::chrono::seconds file_interval{10};

stream_server::writer http_response(const char *status, const std::string &body)
{
    return stream_server::whole(
        std::string("HTTP/1.1 ") + status +
        "\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\nContent-Length: " +
        std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
}

kelm::unique_fd listen_at(const endpoint &at)
{
    kelm::unique_fd fd(socket(at.address.family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_storage address = {};
    socklen_t length = sizeof(sockaddr_in);
    if (at.address.family == AF_INET) {
        sockaddr_in v4 = {};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(at.port);
        std::memcpy(&v4.sin_addr, at.address.octets.data(), sizeof v4.sin_addr);
        std::memcpy(&address, &v4, sizeof v4);
    } else {
        sockaddr_in6 v6 = {};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(at.port);
        std::memcpy(&v6.sin6_addr, at.address.octets.data(), sizeof v6.sin6_addr);
        std::memcpy(&address, &v6, sizeof v6);
        length = sizeof v6;
    }
    const int yes = 1;
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), length) != 0 ||
        listen(fd.get(), SOMAXCONN) != 0)
        kelm::throw_errno(errno, "cannot serve metrics on " + at.address.text() + " port " +
                                     std::to_string(at.port));
    return fd;
}

} // namespace

bool metrics_exporter::answer_http(const std::string &received, const stream_server::reply &reply)
{
    if (received.find("\r\n\r\n") == std::string::npos)
        return false;
    if (!received.starts_with("GET "))
        reply(http_response("405 Method Not Allowed", "only GET is served\n"));
    else if (!received.starts_with("GET /metrics ") && !received.starts_with("GET /metrics?"))
        reply(http_response("404 Not Found", "see /metrics\n"));
    else
        make_page([reply](const std::string &page) { reply(http_response("200 OK", page)); });
    return true;
}

void metrics_exporter::make_page(reader then)
{
    waiting_.push_back(std::move(then));
    if (waiting_.size() > 1)
        return;
    running_.refresh_statistics(running_.sessions().names(), [this] {
        page_.emplace(running_, reload_);
        work_ = in_slices(loop_, [this] {
            const bool goes_on = page_->step();
            if (!goes_on)
                for (const auto &each : std::exchange(waiting_, {}))
                    each(page_->text());
            return goes_on;
        });
    });
}

void metrics_exporter::configure(const agent_config &config)
{
    file_ = config.metrics_file;
    timer_ = {};
    if (!file_.empty())
        write_file();
    if (listening_ == config.metrics_listen)
        return;
    server_.reset();
    listening_ = config.metrics_listen;
    if (listening_)
        listen(*listening_);
}

void metrics_exporter::note_reload(bool was_successful)
{
    reload_.was_successful = was_successful;
    if (was_successful)
        reload_.succeeded = std::chrono::system_clock::now();
}

void metrics_exporter::listen(const endpoint &at)
{
    try {
        server_.emplace(loop_, listen_at(at),
                        [this](const std::string &received, const auto &reply) {
                            return answer_http(received, reply);
                        });
    } catch (const kelm::error &problem) {
        log_.error(problem.what());
        listening_.reset();
    }
}

void metrics_exporter::write_file()
{
    make_page([this](const std::string &page) { replace_file(page); });
    timer_ = loop_.after(file_interval, [this] { write_file(); });
}

void metrics_exporter::replace_file(const std::string &page)
{
    constexpr mode_t for_all_to_read = 0644;
    if (file_.empty())
        return; // no longer wanted
    try {
        replace_whole_file(file_, page, for_all_to_read);
    } catch (const kelm::error &problem) {
        log_.error(std::string("metrics: ") + problem.what());
    }
}

} // namespace kelm_agent

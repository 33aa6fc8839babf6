// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/log.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace kelm_agent
{

namespace
{

std::string time_text()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc = {};
    gmtime_r(&now.tv_sec, &utc);
    char text[40];
    const std::size_t length = std::strftime(text, sizeof text, "%FT%T", &utc);
    std::snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1'000'000);
    return text;
}

const char *level_name(int priority)
{
    return priority == LOG_ERR ? "error" : priority == LOG_WARNING ? "warning" : "info";
}

// In one write, so that lines of several writers do not mix. Errors are ignored.
void write_line(std::string line)
{
    line += '\n';
    const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    (void)written;
}

void write_text(int priority, const std::string &text)
{
    const std::string prefix = priority == LOG_INFO ? "" : std::string(level_name(priority)) + ": ";
    write_line(time_text() + " kelm-agent: " + prefix + text);
}

void write_json(int priority, const std::string &text, const std::vector<log_field> &fields)
{
    nlohmann::ordered_json line = {
        {"time", time_text()}, {"level", level_name(priority)}, {"message", text}};
    for (const auto &field : fields)
        line[field.name] = field.value;
    write_line(line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

void write_journal(int priority, const std::string &text, const std::vector<log_field> &fields)
{
    std::vector<std::string> lines = {"MESSAGE=" + text, "PRIORITY=" + std::to_string(priority),
                                      "SYSLOG_IDENTIFIER=kelm-agent"};
    for (const auto &field : fields) {
        std::string name = "KELM_" + field.name;
        std::ranges::transform(name, name.begin(),
                               [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
        lines.push_back(name + "=" + field.value);
    }
    std::vector<iovec> pieces;
    pieces.reserve(lines.size());
    for (auto &line : lines)
        pieces.push_back({line.data(), line.size()});
    (void)sd_journal_sendv(pieces.data(), static_cast<int>(pieces.size()));
}

} // namespace

// systemd names the stream that it has connected to the journal; standard error may be redirected.
log_form default_log_form()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    struct stat status = {};
    if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0)
        return log_form::text;
    const std::string ours = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    return ours == stream ? log_form::journal : log_form::text;
}

void logger::write(int priority, const std::string &text,
                   const std::vector<log_field> &fields) const
{
    switch (form_) {
    case log_form::text:
        return write_text(priority, text);
    case log_form::json:
        return write_json(priority, text, fields);
    case log_form::journal:
        return write_journal(priority, text, fields);
    }
}

void logger::error(const std::string &text) const
{
    write(LOG_ERR, text, {});
}

void logger::warning(const std::string &text) const
{
    write(LOG_WARNING, text, {});
}

void logger::info(const std::string &text, const std::vector<log_field> &fields) const
{
    write(LOG_INFO, text, fields);
}

} // namespace kelm_agent

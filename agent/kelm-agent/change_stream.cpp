// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/change_stream.h"

#include <algorithm>

#include "kelm-agent/session_report.h"

namespace kelm_agent
{

namespace
{

constexpr std::size_t lines_a_piece = 256;
constexpr std::size_t most_waiting = 4 << 20; // bytes: every one of 10,000 sessions changes

std::string notice_of_end()
{
    json_writer out;
    out.begin_object();
    out.add("ok", false);
    out.add("error", "changes come faster than they are read");
    out.end_object();
    return out.take_line();
}

} // namespace

change_stream::change_stream(agent &running, std::vector<std::string> names, bool is_of_all)
    : running_(running), names_(std::move(names)), is_of_all_(is_of_all),
      subscription_(running.changes().subscribe(
          [this](const auto &driver, const auto &what) { take(driver, what); }))
{
    std::ranges::sort(names_);
}

void change_stream::send(agent &running, std::vector<std::string> names, bool is_of_all,
                         const stream_server::reply &reply)
{
    const std::shared_ptr<change_stream> made(
        new change_stream(running, std::move(names), is_of_all));
    made->wake_ = reply([made] { return made->next(); });
}

// Sessions may have gone since they were asked for.
std::optional<std::string> change_stream::next()
{
    json_writer out;
    std::string piece;
    for (std::size_t lines = 0; told_ < names_.size() && lines < lines_a_piece; ++told_)
        if (const auto *const driver = running_.sessions().find(names_[told_])) {
            add_state(out, *driver);
            piece += out.take_line();
            ++lines;
        }
    if (piece.empty())
        piece = std::exchange(waiting_, {});
    if (!piece.empty() || is_ended_)
        return piece;
    return std::nullopt;
}

void change_stream::take(const session_driver &driver, const change &what)
{
    if (!is_of_all_ && !std::ranges::binary_search(names_, driver.config().name))
        return;
    if (waiting_.size() < most_waiting) {
        json_writer out;
        add_change_of_state(out, driver, what);
        waiting_ += out.take_line();
    } else {
        waiting_ += notice_of_end();
        is_ended_ = true;
        subscription_.reset();
    }
    if (wake_)
        wake_();
}

} // namespace kelm_agent

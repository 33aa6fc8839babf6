// SPDX-License-Identifier: GPL-2.0
//
// The object "top": sessions and packets, refreshed all the time.
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>
#include <unistd.h>

#include "kelmctl/arguments.h"
#include "kelmctl/objects.h"
#include "kelmctl/screen.h"
#include "kelmctl/top_view.h"

namespace kelmctl
{

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr kelm_microsecs default_interval = 2'000'000;
constexpr kelm_microsecs least_interval = 100'000;

struct refresh_settings {
    milliseconds interval;
    std::optional<std::uint32_t> count;
};

top_sample take_sample(context &ctx)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    top_sample sample;
    sample.taken = {static_cast<std::uint32_t>(now.tv_sec),
                    static_cast<std::uint32_t>(now.tv_nsec)};
    sample.stats = read_statistics(ctx, 0);
    sample.states = read_states(ctx);
    for (const auto &[discriminator, state] : sample.states)
        if (state.last_frame)
            sample.links[state.last_frame->ifindex] = ctx.links().name(state.last_frame->ifindex);
    return sample;
}

// As other programs take it from the shell.
std::size_t columns_of_environment()
{
    const char *columns = std::getenv("COLUMNS");
    const unsigned long number = columns == nullptr ? 0 : std::strtoul(columns, nullptr, 10);
    return number == 0 ? any_width : number;
}

void show_plain(context &ctx, const top_sample &now, const top_sample *before)
{
    if (ctx.opts().json)
        return ctx.out.array_at_once(top_records(now, before));
    std::vector<std::string> texts;
    const top_form form = {columns_of_environment(), any_width, ctx.opts().timestamps};
    for (const auto &line : top_lines(now, before, form))
        texts.push_back(line.text);
    if (before != nullptr)
        texts.insert(texts.begin(), "");
    ctx.out.text_at_once(texts);
}

void run_plain(context &ctx, const refresh_settings &settings)
{
    std::optional<top_sample> before;
    for (std::uint32_t shown = 0; !settings.count || shown < *settings.count; ++shown) {
        if (before)
            std::this_thread::sleep_for(settings.interval);
        top_sample now = take_sample(ctx);
        show_plain(ctx, now, before ? &*before : nullptr);
        before = std::move(now);
    }
}

// Returns whether to go on. Draws again when the terminal changes.
bool show_live(context &ctx, screen &screen, const top_sample &now, const top_sample *before,
               milliseconds interval)
{
    const auto deadline = steady_clock::now() + interval;
    for (;;) {
        const auto [columns, rows] = screen.size();
        screen.draw(top_lines(now, before, {columns, rows, ctx.opts().timestamps}));
        const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
        const auto event = screen.wait(std::max(left, milliseconds(0)));
        if (event != screen::event::redraw)
            return event != screen::event::quit;
    }
}

void run_live(context &ctx, const refresh_settings &settings)
{
    top_sample now = take_sample(ctx); // an error is reported before the screen is cleared
    std::optional<top_sample> before;
    screen screen;
    for (std::uint32_t shown = 1;; ++shown) {
        if (!show_live(ctx, screen, now, before ? &*before : nullptr, settings.interval) ||
            shown == settings.count)
            return;
        before = std::move(now);
        now = take_sample(ctx);
    }
}

void run_top(context &ctx, const arguments &args)
{
    const kelm_microsecs interval = args.duration("interval").value_or(default_interval);
    if (interval < least_interval)
        throw usage_error("interval: must be at least 100ms");
    const refresh_settings settings = {.interval = milliseconds(interval / 1000),
                                       .count = args.number("count", 1, 0xffffffff)};
    const bool is_live = !ctx.opts().batch && !ctx.opts().json && isatty(STDOUT_FILENO) != 0;
    if (is_live)
        run_live(ctx, settings);
    else
        run_plain(ctx, settings);
}

constexpr parameter parameters[] = {
    {"interval", "TIME", "time between refreshes (default 2s)"},
    {"count", "N", "stop after this many refreshes"},
};

constexpr command commands[] = {
    {"show", "",
     "show sessions and packets, refreshed; q ends, any other key refreshes at once\n"
     "\"state\" is what the peer said last, or \"failed\"; \"late\" counts transmissions that\n"
     "came later than their interval after the one before, \"tx max\" and \"rx max\" are the\n"
     "longest times between two packets. On a narrow screen the less important columns are left\n"
     "out. With -b or without a terminal: plain text, as wide as COLUMNS says. With -j: an\n"
     "array for each refresh.",
     parameters, run_top},
};

} // namespace

constinit const std::span<const command> top_commands = commands;

} // namespace kelmctl

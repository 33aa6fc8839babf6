// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/reconciler.h"

#include "libkelm/duration.h"
#include "libkelm/error.h"

namespace kelm_agent
{

void reconciler::start(cause why, event_loop::callback done)
{
    cause_ = why;
    done_ = std::move(done);
    compared_ = 0;
    round_ = vrf_.begin_round();
    vrf_.dump(kelm::sync(0), [this](int error, const auto &reports) {
        if (error != 0)
            vrf_.disconnect("the dump failed: " + kelm::errno_text(error));
        else
            take(reports);
    });
}

void reconciler::stop()
{
    is_done_ = false;
    walk_.stop();
}

// The dump is complete when the events of before have been read.
void reconciler::take(const std::vector<kelm::report> &dump)
{
    all_ = {};
    for (const auto &report : dump)
        all_.add(report);
    vrf_.feed().read_to_end([this] {
        walk_.start(
            [this](session_driver &each) {
                if (&each.where() == &vrf_)
                    compare(each);
            },
            [this] { finish(); });
    });
}

void reconciler::compare(session_driver &compared)
{
    ++compared_;
    if (!compared.has_begun() || cause_ == cause::connection)
        compared.look_up_addressing();
    const auto entry = [&]() -> const kelm_entry & {
        return all_.at(compared.bfd().discriminator());
    };
    if (!compared.has_begun())
        restart_.adopt(sessions_, compared, all_);
    else if (cause_ == cause::connection)
        compared.reconnect(entry());
    else
        compared.catch_up(entry(), round_);
}

void reconciler::finish()
{
    for (const auto &[name, driver] : sessions_.all())
        if (&driver->where() == &vrf_ && driver->is_guard())
            driver->update_echo();
    restart_.delete_unknown(sessions_, vrf_, all_);
    restart_.log_adopted(vrf_);
    all_ = {};
    const event_feed::episode &why = vrf_.feed().current();
    overruns_ += why.overruns;
    if (cause_ == cause::overrun) {
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(loop_.now() - why.began);
        log_.warning(vrf_.title() + ": events were lost (" + std::to_string(why.overruns) +
                     " overruns, " + std::to_string(why.dropped) +
                     " outdated events dropped); compared " + std::to_string(compared_) +
                     " sessions with kelm in " +
                     kelm::format_duration(static_cast<kelm_microsecs>(took.count())));
    }
    is_done_ = true;
    vrf_.feed().caught_up();
    if (const auto done = std::exchange(done_, {}))
        done();
}

} // namespace kelm_agent

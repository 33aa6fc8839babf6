// SPDX-License-Identifier: GPL-2.0
//
// An event loop on a clock that moves only when nothing is left to do: the same run every time.
#pragma once

#include <map>
#include <poll.h>
#include <set>
#include <vector>

#include "kelm-agent/event_loop.h"

class virtual_loop final : public kelm_agent::event_loop
{
  public:
    time_point now() const override { return now_; }
    handle on_io(int fd, std::uint32_t events, callback work, turn) override
    {
        return add({kind::io, fd, static_cast<short>(events), {}, std::move(work)});
    }
    handle after(std::chrono::microseconds delay, callback work) override
    {
        return add({kind::timer, -1, 0, now_ + delay, std::move(work)});
    }
    handle soon(callback work) override { return after({}, std::move(work)); }
    handle on_idle(callback work) override { return add({kind::idle, -1, 0, {}, std::move(work)}); }

    // Until that much time has passed, or `is_done` holds. Whether it does.
    bool run(std::chrono::microseconds time, const std::function<bool()> &is_done = {})
    {
        const time_point end = now_ + time;
        for (;;) {
            while (run_round())
                if (is_done && is_done())
                    return true;
            const time_point next = due_.empty() ? end : due_.begin()->first;
            now_ = std::min(next, end);
            if (next >= end)
                return is_done && is_done();
        }
    }

  private:
    enum class kind { io, timer, idle };
    struct entry {
        kind what;
        int fd;
        short events;
        time_point due;
        callback work;
    };
    struct registration final : source {
        registration(virtual_loop &owner, std::uint64_t number) : loop(owner), id(number) {}
        ~registration() override { loop.remove(id); }
        virtual_loop &loop;
        std::uint64_t id;
    };

    handle add(entry added)
    {
        const std::uint64_t id = ++last_id_;
        if (added.what == kind::timer)
            due_.insert({added.due, id});
        else
            watched_.insert(id);
        entries_.emplace(id, std::move(added));
        return std::make_unique<registration>(*this, id);
    }

    void remove(std::uint64_t id)
    {
        due_.erase({entries_.at(id).due, id});
        watched_.erase(id);
        entries_.erase(id);
    }

    // One turn for everything that is ready now. False: nothing was.
    bool run_round()
    {
        std::vector<std::uint64_t> ready;
        for (const std::uint64_t id : watched_) {
            pollfd asked = {entries_.at(id).fd, entries_.at(id).events, 0};
            if (entries_.at(id).what == kind::io && poll(&asked, 1, 0) == 1)
                ready.push_back(id);
        }
        for (const auto &[due, id] : due_)
            if (due <= now_)
                ready.push_back(id);
            else
                break;
        for (const std::uint64_t id : ready)
            run(id);
        if (ready.empty())
            return false;
        for (const std::uint64_t id : std::set(watched_))
            if (entries_.contains(id) && entries_.at(id).what == kind::idle)
                run(id);
        return true;
    }

    void run(std::uint64_t id)
    {
        const auto found = entries_.find(id);
        if (found == entries_.end())
            return;
        due_.erase({found->second.due, id}); // a timer's, once
        const callback running = found->second.work;
        running();
    }

    time_point now_{std::chrono::hours(1)};
    std::uint64_t last_id_ = 0;
    std::map<std::uint64_t, entry> entries_;
    std::set<std::pair<time_point, std::uint64_t>> due_;
    std::set<std::uint64_t> watched_; // in the order in which they came
};

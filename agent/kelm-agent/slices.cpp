// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/slices.h"

#include <utility>

namespace kelm_agent
{

namespace
{

constexpr std::chrono::milliseconds slice{3};

class sliced_work final : public event_loop::source
{
  public:
    sliced_work(event_loop &loop, std::function<bool()> step)
        : work_(std::make_shared<work>(work{loop, std::move(step), {}, false}))
    {
        wait(work_);
    }
    ~sliced_work() override
    {
        work_->is_ended = true;
        work_->turn = {};
    }
    sliced_work(const sliced_work &) = delete;
    sliced_work &operator=(const sliced_work &) = delete;

  private:
    struct work {
        event_loop &loop;
        std::function<bool()> step;
        event_loop::handle turn;
        bool is_ended;
    };

    static void wait(const std::shared_ptr<work> &waiting)
    {
        waiting->turn = waiting->loop.soon([whose = std::weak_ptr(waiting)] {
            if (const auto mine = whose.lock())
                go_on(mine);
        });
    }

    static void go_on(const std::shared_ptr<work> &mine)
    {
        const auto end = mine->loop.now() + slice;
        do {
            mine->is_ended = !mine->step() || mine->is_ended;
        } while (!mine->is_ended && mine->loop.now() < end);
        if (!mine->is_ended)
            wait(mine);
    }

    std::shared_ptr<work> work_;
};

} // namespace

event_loop::handle in_slices(event_loop &loop, std::function<bool()> step)
{
    return std::make_unique<sliced_work>(loop, std::move(step));
}

void session_walk::start(visitor visit, event_loop::callback done)
{
    visit_ = std::move(visit);
    done_ = std::move(done);
    last_.clear();
    work_ = in_slices(loop_, [this] { return visit_next(); });
}

// Names are not empty.
bool session_walk::visit_next()
{
    const auto next = sessions_.all().upper_bound(last_);
    if (next != sessions_.all().end()) {
        last_ = next->first;
        visit_(*next->second);
        return true;
    }
    work_ = {};
    if (const auto done = std::exchange(done_, {}))
        done();
    return false;
}

} // namespace kelm_agent

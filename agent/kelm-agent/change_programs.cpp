// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/change_programs.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "kelm-agent/reason.h"
#include "libkelm/error.h"
#include "shared/unique_fd.h"

namespace kelm_agent
{

namespace
{

constexpr std::size_t most_at_once = 32;
constexpr std::chrono::seconds time_limit{10};
constexpr std::chrono::milliseconds second_look{20};
constexpr std::size_t longest_line = 1024;

std::vector<std::string> environment_for(const session_config &config, const change &what)
{
    std::vector<std::string> all;
    for (char **each = environ; *each != nullptr; ++each)
        all.emplace_back(*each);
    for (const auto &[name, value] : {std::pair{"SESSION", config.name},
                                      {"STATE", state_name(what.to)},
                                      {"PREVIOUS_STATE", state_name(what.from)},
                                      {"DIAGNOSTIC", diag_words(what.diag)},
                                      {"REASON", what.reason},
                                      {"TYPE", kind_name(config.kind)},
                                      {"NAMESPACE", config.netns},
                                      {"INTERFACE", config.interface},
                                      {"LOCAL", config.local.text()},
                                      {"PEER", config.peer.text()}})
        all.push_back(std::string("KELM_") + name + "=" + value);
    return all;
}

std::vector<char *> pointers_to(std::vector<std::string> &texts)
{
    std::vector<char *> all;
    all.reserve(texts.size() + 1);
    for (auto &each : texts)
        all.push_back(each.data());
    all.push_back(nullptr);
    return all;
}

// What a child is started with: none of our signal settings, a process group of its own, nothing to
// read, and its output to `output`.
class spawn_settings
{
  public:
    explicit spawn_settings(int output)
    {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                  POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files, output, STDERR_FILENO);
    }
    ~spawn_settings()
    {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;

    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t files{};
};

} // namespace

// A running program. It has ended when nobody holds the other end of its output any more, or when
// it has been killed.
class change_programs::child
{
  public:
    using callback = event_loop::callback;

    // Throws kelm::error when the program cannot be run.
    child(event_loop &loop, const logger &log, std::string session, job &of, callback done)
        : loop_(loop), log_(log), session_(std::move(session)), program_(of.program),
          done_(std::move(done))
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            kelm::throw_errno(errno, "cannot make a pipe");
        output_ = kelm::unique_fd(ends[0]);
        const kelm::unique_fd theirs(ends[1]);
        (void)fcntl(output_.get(), F_SETFL, O_NONBLOCK);
        const spawn_settings settings(theirs.get());
        const int problem =
            posix_spawn(&pid_, program_.c_str(), &settings.files, &settings.attributes,
                        pointers_to(of.arguments).data(), pointers_to(of.environment).data());
        if (problem != 0)
            kelm::throw_errno(problem, "cannot run " + program_);
        on_output_ = loop_.on_io(output_.get(), EPOLLIN, [this] { read(); });
        on_limit_ = loop_.after(time_limit, [this] { kill(); });
    }

  private:
    void tell(const std::string &text) const
    {
        log_.info("session " + session_ + ": " + program_ + ": " + text, {{"session", session_}});
    }

    void read()
    {
        std::array<char, 4096> piece;
        const ssize_t count = ::read(output_.get(), piece.data(), piece.size());
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        for (const char c : std::string_view(
                 piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)))) {
            if (c != '\n')
                line_ += c;
            if (c == '\n' || line_.size() == longest_line)
                tell(std::exchange(line_, {}));
        }
        if (count <= 0)
            collect();
    }

    // A program may close its output before it ends.
    void collect()
    {
        on_output_ = {};
        if (!line_.empty())
            tell(std::exchange(line_, {}));
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == 0) {
            on_output_ = loop_.after(second_look, [this] { collect(); });
            return;
        }
        on_limit_ = {};
        if (WIFSIGNALED(status))
            log_.warning("session " + session_ + ": " + program_ + " was killed by signal " +
                         std::to_string(WTERMSIG(status)));
        else if (WEXITSTATUS(status) != 0)
            log_.warning("session " + session_ + ": " + program_ + " failed with status " +
                         std::to_string(WEXITSTATUS(status)));
        const callback done = std::move(done_); // which ends this object
        done();
    }

    void kill()
    {
        log_.warning("session " + session_ + ": " + program_ + " has run for " +
                     std::to_string(time_limit.count()) + " s: killing it");
        (void)::kill(-pid_, SIGKILL);
        collect(); // what has left its process group may still hold the output
    }

    event_loop &loop_;
    const logger &log_;
    std::string session_, program_;
    callback done_;
    pid_t pid_ = 0;
    kelm::unique_fd output_;
    std::string line_;
    event_loop::handle on_output_, on_limit_;
};

change_programs::change_programs(event_loop &loop, const logger &log, change_feed &feed)
    : loop_(loop), log_(log),
      subscription_(
          feed.subscribe([this](const auto &driver, const auto &what) { take(driver, what); }))
{
}

change_programs::~change_programs() = default;

void change_programs::take(const session_driver &driver, const change &what)
{
    const session_config &config = driver.config();
    if (config.on_change.empty())
        return;
    job &wanted = jobs_[config.name];
    wanted.program = config.on_change;
    wanted.arguments = {config.on_change, config.name, state_name(what.to)};
    wanted.environment = environment_for(config, what);
    if (!std::exchange(wanted.is_due, true) && !wanted.running)
        waiting_.push_back(config.name);
    start_those_that_wait();
}

void change_programs::start_those_that_wait()
{
    while (running_ < most_at_once && !waiting_.empty()) {
        const std::string session = std::move(waiting_.front());
        waiting_.pop_front();
        start(session, jobs_.at(session));
    }
}

void change_programs::start(const std::string &session, job &due)
{
    try {
        due.is_due = false;
        due.running = std::make_unique<child>(loop_, log_, session, due,
                                              [this, session] { on_end(session); });
        ++running_;
    } catch (const kelm::error &problem) {
        log_.warning("session " + session + ": " + problem.what());
        jobs_.erase(session);
    }
}

void change_programs::on_end(const std::string &session)
{
    --running_;
    job &ended = jobs_.at(session);
    ended.running.reset();
    if (ended.is_due)
        waiting_.push_back(session);
    else
        jobs_.erase(session);
    start_those_that_wait();
}

} // namespace kelm_agent

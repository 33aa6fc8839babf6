// SPDX-License-Identifier: GPL-2.0
//
// kelmd: the engine as a daemon, on real sockets and without a kernel module. Here are its command
// line, its start and its end, in order. The main thread is the control thread.
#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <linux/capability.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>
#include <vector>

#include "platform/module.h"
#include "platform/user/host.h"
#include "platform/user/process.h"
#include "platform/user/watchdog.h"

namespace
{

using namespace kelmd;

struct options {
    bool realtime = false;
    bool strict = false;
    namespace_options namespaces;
};

constexpr std::array end_signals{SIGTERM, SIGINT};

// The first signal asks for an orderly end, a second one is not caught any more.
void on_end_signal(int /*signal*/)
{
    const int saved_errno = errno;
    for (const int each : end_signals)
        std::signal(each, SIG_DFL);
    the_host().loop.stop();
    errno = saved_errno;
}

// While it lives, the end signals stop the host's loop.
class end_on_signals
{
  public:
    end_on_signals()
    {
        struct sigaction action {
        };
        action.sa_handler = on_end_signal;
        action.sa_flags = SA_RESTART;
        for (const int each : end_signals)
            sigaction(each, &action, nullptr);
    }
    ~end_on_signals()
    {
        for (const int each : end_signals)
            std::signal(each, SIG_DFL);
    }
    end_on_signals(const end_on_signals &) = delete;
    end_on_signals &operator=(const end_on_signals &) = delete;
};

// Every namespace takes ten descriptors, every agent one.
void raise_descriptor_limit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void lock_memory()
{
    if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
        log_line("cannot lock memory: --realtime needs CAP_IPC_LOCK or a higher limit of locked "
                 "memory (ulimit -l, LimitMEMLOCK=); when memory is short, packets may be sent "
                 "late");
}

bool check_privilege(const options &chosen)
{
    if (!have_capability(CAP_NET_RAW)) {
        log_line("CAP_NET_RAW is missing: it is needed to send BFD packets; run kelmd as root, or "
                 "with CAP_NET_RAW, CAP_NET_ADMIN, CAP_SYS_ADMIN and CAP_SYS_PTRACE");
        return false;
    }
    if (!have_capability(CAP_NET_ADMIN))
        log_line("CAP_NET_ADMIN is missing: buffers stay at the system's limits and packets are "
                 "sent without priority; some may be lost under load");
    if (!have_capability(CAP_SYS_PTRACE))
        log_line("CAP_SYS_PTRACE is missing: agents of other users, and those with capabilities "
                 "that kelmd lacks, are treated as unprivileged; a network namespace whose name is "
                 "deleted is served until kelmd ends");
    if (!have_capability(CAP_SYS_ADMIN) && !chosen.namespaces.initial_only)
        log_line("CAP_SYS_ADMIN is missing: only the initial network namespace can be served");
    return true;
}

// Keys are not for core dumps, nor for debuggers of the same user. What a takeover of kelmd could
// do is limited to what kelmd itself does; only without CAP_SYS_PTRACE does it need the
// capabilities of those whom it looks at.
void harden()
{
    static constexpr std::array used{CAP_NET_RAW,    CAP_NET_ADMIN,       CAP_SYS_ADMIN,
                                     CAP_SYS_PTRACE, CAP_DAC_READ_SEARCH, CAP_SYS_NICE,
                                     CAP_IPC_LOCK};
    prctl(PR_SET_DUMPABLE, 0);
    if (have_capability(CAP_SYS_PTRACE))
        keep_capabilities(used);
}

// Starts the engine. Whether it serves the initial namespace.
bool start(host &kelmd, bool realtime)
{
    kelmd.closer.start();
    kelmd.softirq.start(realtime);
    if (realtime)
        lock_memory();
    const int error = kelm_init();
    if (error == 0)
        return true;
    const std::string reason = kelmd.namespaces.initial_obstacle(-error);
    log_line("cannot serve the initial network namespace: %s", reason.c_str());
    return false;
}

// Serves until a signal comes.
void serve(host &kelmd)
{
    log_line("ready");
    sd_notify(0, "READY=1");
    const watchdog alive(kelmd.loop);
    kelmd.loop.run();
    sd_notify(0, "STOPPING=1");
}

// Takes down what kelm_init and the agents have made, in the order that kelm_release asks for.
void stop(host &kelmd, bool started)
{
    kelmd.namespaces.close_agents();
    if (started)
        kelm_exit();
    kelm_release();
    kelmd.softirq.stop();
}

// The exit status.
int run(const options &chosen)
{
    harden();
    host kelmd(chosen.namespaces);
    kelmd.log.start();
    if (!check_privilege(chosen))
        return EXIT_FAILURE;
    raise_descriptor_limit();
    kelm_strict = chosen.strict;
    const end_on_signals ending;
    const bool started = start(kelmd, chosen.realtime);
    if (started)
        serve(kelmd);
    stop(kelmd, started);
    return started ? EXIT_SUCCESS : EXIT_FAILURE;
}

// The exit status, or -1 to go on.
int parse_command_line(int argc, char **argv, options &chosen)
{
    CLI::App app(
        "kelm as a daemon: runs the periodic transmission and the detection timers of BFD\n"
        "sessions for an agent. Stays in the foreground and logs to standard error.",
        "kelmd");
    app.failure_message([](const CLI::App *failed, const CLI::Error &error) {
        return "kelmd: " + CLI::FailureMessage::simple(failed, error);
    });
    std::vector<std::string> names;
    app.set_version_flag("-V,--version", "kelmd " KELM_VERSION);
    app.add_flag("--realtime", chosen.realtime,
                 "Receive packets and run timers under a real-time scheduler, with memory locked");
    app.add_flag(
        "--strict", chosen.strict,
        "Require CAP_NET_ADMIN for everything but reading statistics of the own namespace, "
        "and believe the sequence numbers of authentic packets only");
    auto *const netns =
        app.add_option("--netns", names,
                       "Serve this named network namespace in addition to the one that kelmd is "
                       "started in (repeatable); without the option, all in /run/netns")
            ->type_name("NAME")
            ->allow_extra_args(false);
    app.add_flag("--no-netns", chosen.namespaces.initial_only,
                 "Serve only the network namespace that kelmd is started in")
        ->excludes(netns);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        constexpr int usage_error = 2;
        return app.exit(error) == 0 ? EXIT_SUCCESS : usage_error;
    }
    chosen.namespaces.only.insert(names.begin(), names.end());
    return -1;
}

} // namespace

int main(int argc, char **argv)
{
    options chosen;
    if (const int status = parse_command_line(argc, argv, chosen); status >= 0)
        return status;
    std::signal(SIGPIPE, SIG_IGN); // the log's reader may go away
    try {
        return run(chosen);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "kelmd: cannot start: %s\n", error.what());
        return EXIT_FAILURE;
    }
}

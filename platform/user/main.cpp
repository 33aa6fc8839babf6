// SPDX-License-Identifier: GPL-2.0
//
// kelmd: the engine as a daemon, on real sockets and without a kernel module. Here are its start
// and its end, in order. The main thread is the control thread.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <systemd/sd-daemon.h>

#include "platform/capability.h"
#include "platform/module.h"
#include "platform/user/event_loop.h"
#include "platform/user/log.h"
#include "platform/user/namespaces.h"
#include "platform/user/process.h"
#include "platform/user/softirq.h"
#include "platform/user/system_call.h"
#include "platform/user/watchdog.h"

// There is no module to unload.
void module_get_self() {}

namespace
{

using namespace kelmd;

struct options {
    bool realtime = false;
    namespace_options namespaces;
};

constexpr std::array end_signals{SIGTERM, SIGINT};

// Made at its first use, gone at the process's end: a signal may come at any time between.
event_loop &the_loop()
{
    static event_loop loop;
    return loop;
}

// The first signal asks for an orderly end, a second one is not caught any more.
void on_end_signal(int /*signal*/)
{
    const int saved_errno = errno;
    for (const int each : end_signals)
        std::signal(each, SIG_DFL);
    the_loop().stop();
    errno = saved_errno;
}

void end_on_signals()
{
    (void)the_loop(); // made here rather than in a signal handler
    struct sigaction action {
    };
    action.sa_handler = on_end_signal;
    action.sa_flags = SA_RESTART;
    for (const int each : end_signals)
        sigaction(each, &action, nullptr);
}

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
        log_line("memory cannot be locked, for which --realtime needs CAP_IPC_LOCK or a higher "
                 "limit of locked memory (ulimit -l, LimitMEMLOCK=): where memory is short, "
                 "packets may go out late");
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

// Takes down what kelm_init and the agents have made, in the order that kelm_release asks for.
void take_down(namespace_set &served, bool started)
{
    served.close_agents();
    if (started)
        kelm_exit();
    kelm_release();
    stop_softirq();
}

int run(const options &chosen)
{
    if (!check_privilege(chosen))
        return EXIT_FAILURE;
    raise_descriptor_limit();
    end_on_signals();
    namespace_set served(the_loop(), chosen.namespaces);
    start_softirq(chosen.realtime);
    if (chosen.realtime)
        lock_memory();
    if (const int error = kelm_init(); error != 0) {
        const std::string reason = served.initial_obstacle(-error);
        log_line("cannot serve the initial network namespace: %s", reason.c_str());
        take_down(served, false);
        return EXIT_FAILURE;
    }
    log_line("ready");
    sd_notify(0, "READY=1");
    {
        const watchdog alive(the_loop());
        the_loop().run();
    }
    sd_notify(0, "STOPPING=1");
    take_down(served, true);
    return EXIT_SUCCESS;
}

// The exit status, or -1 to go on.
int parse_command_line(int argc, char **argv, options &chosen)
{
    CLI::App app("kelm as a daemon: keeps the periodic transmission and the detection timers of "
                 "BFD\nsessions for an agent. Stays in the foreground, logs to standard error.",
                 "kelmd");
    app.failure_message([](const CLI::App *failed, const CLI::Error &error) {
        return "kelmd: " + CLI::FailureMessage::simple(failed, error);
    });
    std::vector<std::string> names;
    app.set_version_flag("-V,--version", "kelmd " KELM_VERSION);
    app.add_flag("--realtime", chosen.realtime,
                 "Receive and run timers under the real-time scheduler, with memory locked");
    auto *const netns =
        app.add_option("--netns", names,
                       "Serve this named network namespace (repeatable) besides the one that "
                       "kelmd is started in; without the option, all that are in /run/netns")
            ->type_name("NAME")
            ->allow_extra_args(false);
    app.add_flag("--no-netns", chosen.namespaces.initial_only,
                 "Serve the network namespace that kelmd is started in alone")
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
    std::signal(SIGPIPE, SIG_IGN); // of whoever read the log
    process_log().start();
    int status = EXIT_FAILURE;
    try {
        status = run(chosen);
    } catch (const std::exception &error) {
        log_line("cannot start: %s", error.what());
        stop_softirq();
    }
    process_log().stop(std::chrono::seconds(1));
    return status;
}

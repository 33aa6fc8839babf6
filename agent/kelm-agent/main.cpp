// SPDX-License-Identifier: GPL-2.0
//
// kelm-agent, a BFD agent over kelm: start, reload and exit.
#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <systemd/sd-daemon.h>

#include "kelm-agent/change_programs.h"
#include "kelm-agent/control.h"
#include "kelm-agent/system_event_loop.h"

namespace
{

using namespace kelm_agent;

struct options {
    std::string config_file = "/etc/kelm/agent.toml";
    std::string state_file = "/run/kelm-agent/state.json";
    std::string control_socket = "/run/kelm-agent/control.sock";
    bool keep = false;
    bool sole_agent = false;
    bool check = false;
    std::optional<log_form> log;
};

// The exit status, or -1 to continue.
int parse_command_line(int argc, char **argv, options &chosen)
{
    CLI::App app("BFD agent: runs the sessions of its configuration file over kelm.", "kelm-agent");
    app.failure_message([](const CLI::App *failed, const CLI::Error &error) {
        return "kelm-agent: " + CLI::FailureMessage::simple(failed, error);
    });
    app.set_version_flag("-V,--version", "kelm-agent " KELM_VERSION);
    app.add_option("-c,--config", chosen.config_file, "Configuration file")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--state", chosen.state_file, "Where to record the sessions for the next run")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--socket", chosen.control_socket, "Control socket, used by 'kelmctl agent'")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_flag("--keep", chosen.keep,
                 "On exit, leave all sessions running in kelm, for the next run to take over "
                 "(default: tell peers AdminDown and delete the sessions)");
    app.add_flag("--sole-agent", chosen.sole_agent,
                 "On start, delete all sessions in kelm that are not in the configuration, "
                 "including those of other agents and in other namespaces");
    app.add_flag("--check", chosen.check, "Check the configuration and exit");
    std::string log_name;
    app.add_option("--log", log_name,
                   "Log format (default: journal if standard error is connected to it, "
                   "else text)")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"text", "json", "journal"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        constexpr int usage_error = 2;
        return app.exit(error) == 0 ? EXIT_SUCCESS : usage_error;
    }
    const std::map<std::string, log_form> forms = {
        {"text", log_form::text}, {"json", log_form::json}, {"journal", log_form::journal}};
    if (!log_name.empty())
        chosen.log = forms.at(log_name);
    return -1;
}

std::string count_of_sessions(const agent_config &config)
{
    const std::size_t count = config.sessions.size();
    return std::to_string(count) + (count == 1 ? " session" : " sessions");
}

int check_config(const options &chosen)
{
    std::vector<std::string> warnings;
    const agent_config config = load_config(chosen.config_file, warnings);
    for (const auto &warning : warnings)
        std::cerr << "kelm-agent: warning: " << warning << '\n';
    std::cout << chosen.config_file << ": " << count_of_sessions(config) << '\n';
    return EXIT_SUCCESS;
}

// A reboot empties /run.
void make_directory_of(const std::string &file)
{
    const auto directory = std::filesystem::path(file).parent_path();
    if (!directory.empty())
        std::filesystem::create_directory(directory);
}

// Tells systemd that the event loop is alive, if WatchdogSec= is set.
class watchdog
{
  public:
    explicit watchdog(event_loop &loop) : loop_(loop)
    {
        std::uint64_t microseconds = 0;
        if (sd_watchdog_enabled(0, &microseconds) <= 0)
            return;
        interval_ = std::chrono::microseconds(microseconds / 2);
        notify();
    }

  private:
    void notify()
    {
        sd_notify(0, "WATCHDOG=1");
        next_ = loop_.after(interval_, [this] { notify(); });
    }

    event_loop &loop_;
    std::chrono::microseconds interval_{};
    event_loop::handle next_;
};

int run(const options &chosen, const logger &log)
{
    system_event_loop loop;
    const agent_config config = load_config_with_log(chosen.config_file, log);
    make_directory_of(chosen.control_socket);
    make_directory_of(chosen.state_file);
    control_socket control(loop, chosen.control_socket); // first: fails if another agent is running
    agent running(loop, log, {chosen.state_file, chosen.sole_agent}, config);
    const change_programs programs(loop, log, running.changes());
    metrics_exporter metrics(loop, log, running);
    metrics.configure(config);
    reloader configuration(chosen.config_file, log, running, metrics);
    control.serve(running, configuration);

    const auto stop = [&] {
        sd_notify(0, "STOPPING=1");
        if (chosen.keep)
            loop.stop();
        else
            running.shut_down([&] { loop.stop(); });
    };
    const auto on_term = loop.on_signal(SIGTERM, stop);
    const auto on_interrupt = loop.on_signal(SIGINT, stop);
    const auto on_hangup =
        loop.on_signal(SIGHUP, [&] { configuration.reload([](const auto &) {}); });
    const watchdog alive(loop);
    log.info("ready: " + count_of_sessions(config));
    sd_notify(0, "READY=1");
    loop.run();
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    try {
        options chosen;
        if (const int status = parse_command_line(argc, argv, chosen); status >= 0)
            return status;
        if (chosen.check)
            return check_config(chosen);
        const logger log(chosen.log.value_or(default_log_form()));
        return run(chosen, log);
    } catch (const std::exception &problem) {
        std::cerr << "kelm-agent: " << problem.what() << '\n';
        return EXIT_FAILURE;
    }
}

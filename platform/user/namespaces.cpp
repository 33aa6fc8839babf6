// SPDX-License-Identifier: GPL-2.0
#include "platform/user/namespaces.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <system_error>
#include <utility>

#include "platform/user/agent_listener.h"
#include "platform/user/log.h"
#include "platform/user/obstacle.h"
#include "platform/user/process.h"

namespace kelmd
{

namespace
{

using namespace std::chrono_literals;

constexpr const char *names_directory = "/run/netns";

constexpr auto retry_interval = 5s;
constexpr auto process_check_interval = 1s;
constexpr auto first_mount_wait = 5ms;
constexpr auto longest_mount_wait = 1000ms;

constexpr long long retry_seconds = retry_interval.count();

} // namespace

// A namespace as it is served. The first is the initial one, which has no names and is never let
// go.
struct namespace_set::served {
    served(netns_key the_key, kelm::unique_fd handle) : key(the_key), view(std::move(handle)) {}

    [[nodiscard]] bool is_initial() const { return !view.handle; }
    [[nodiscard]] bool has_vrf() const { return view.agents != nullptr; }

    const netns_key key;
    net view;                    // what the engine sees
    std::set<std::string> names; // in /run/netns
    std::string label;           // for people
    bool held = false;           // names and processes: one reference for all of them
    obstacle reported;           // the obstacle that has been logged
};

namespace_set::namespace_set(event_loop &loop, namespace_options options)
    : loop_(loop), options_(std::move(options)), scan_again_(loop, [this] { scan(); }),
      retry_(loop, [this] { retry_unserved(); }),
      process_check_(loop, [this] { let_go_abandoned(); })
{
}

namespace_set::~namespace_set() = default;

int namespace_set::start(notifier_block *notifier)
{
    notifier_ = notifier;
    netns_key key{};
    (void)open_netns("/proc/self/ns/net", key);
    served &initial = take_up(key, {});
    announce(initial);
    if (!initial.has_vrf()) {
        notifier_ = nullptr;
        return -(initial.view.obstacle.error != 0 ? initial.view.obstacle.error : EIO);
    }
    for (const std::string &name : options_.only) {
        netns_key ignored{};
        if (!open_netns(std::string(names_directory) + "/" + name, ignored))
            log_line("network namespace %s does not exist yet; waiting for it", name.c_str());
    }
    if (!options_.initial_only) {
        watch_names();
        mount_wait_ = first_mount_wait;
        scan();
    }
    return 0;
}

void namespace_set::stop()
{
    directory_.reset();
    notifier_ = nullptr;
}

void namespace_set::close_agents()
{
    for (const auto &ns : served_)
        ns->view.agents.reset();
}

void namespace_set::close_agents_of(net &ns)
{
    // reap leaves a namespace alone until its agents are closed, so it still exists then. Until
    // then their ports may outlive the kernel socket: what they send is refused.
    if (loop_.is_own_thread())
        ns.agents.reset();
    else
        loop_.post([this, &ns] {
            ns.agents.reset();
            retry_.arm(retry_interval); // it may have been named again while its vrf was going
        });
}

void namespace_set::reap_soon()
{
    loop_.post([this] { reap(); });
}

std::string namespace_set::initial_obstacle(int error) const
{
    if (served_.empty())
        return std::strerror(error);
    const net &initial = served_.front()->view;
    if (initial.obstacle.what != obstacle::none)
        return explain(initial, initial.obstacle);
    return explain(initial,
                   {.what = obstacle::other, .call = "starting the engine", .error = error});
}

// Without a handle: the initial one.
namespace_set::served &namespace_set::take_up(netns_key key, kelm::unique_fd handle)
{
    served &ns = *served_.emplace_back(std::make_unique<served>(key, std::move(handle)));
    ns.label = ns.is_initial() ? "the initial one" : "without a name";
    ns.held = true;
    get_net(ns.view);
    return ns;
}

// Lets the engine make a vrf.
void namespace_set::announce(served &ns)
{
    ns.view.obstacle = {};
    notifier_->notifier_call(notifier_, NETDEV_REGISTER, &ns.view.lo);
    if (!ns.has_vrf() && ns.view.obstacle.what == obstacle::none)
        ns.view.obstacle = {.what = obstacle::other, .call = "making its vrf", .error = ENOMEM};
    if (!ns.is_initial())
        report(ns);
}

// Logs that a namespace cannot be served, once for every reason; and when it is after all.
void namespace_set::report(served &ns)
{
    if (ns.has_vrf()) {
        if (ns.reported.what != obstacle::none)
            log_line("network namespace %s: now served", ns.label.c_str());
        ns.reported = {};
        return;
    }
    if (ns.view.obstacle != ns.reported)
        log_line("network namespace %s is not served: %s; retrying every %lld s", ns.label.c_str(),
                 explain(ns.view, ns.view.obstacle).c_str(), retry_seconds);
    ns.reported = ns.view.obstacle;
    retry_.arm(retry_interval);
}

void namespace_set::watch_names()
{
    try {
        directory_.emplace(loop_, names_directory, [this] {
            mount_wait_ = first_mount_wait;
            scan();
        });
    } catch (const std::system_error &error) {
        log_line("cannot watch %s (%s): reading it every %lld s instead", names_directory,
                 error.what(), retry_seconds);
    }
}

// Brings served_ in line with the names that there are.
void namespace_set::scan()
{
    if (notifier_ == nullptr)
        return;
    if (!directory_)
        scan_again_.arm(retry_interval);
    netns_listing listing;
    try {
        listing = list_netns(names_directory);
    } catch (const std::system_error &error) { // not a sign that names are gone
        log_line("cannot look for network namespaces (%s): retrying in %lld s", error.what(),
                 retry_seconds);
        scan_again_.arm(retry_interval);
        return;
    }
    std::map<netns_key, std::set<std::string>> names;
    std::map<netns_key, kelm::unique_fd> handles;
    for (netns_name &entry : listing.names) {
        if (!options_.only.empty() && !options_.only.contains(entry.name))
            continue;
        names[entry.key].insert(entry.name);
        handles.try_emplace(entry.key, std::move(entry.handle));
    }
    for (const auto &ns : served_) {
        const auto found = names.extract(ns->key);
        if (!ns->is_initial())
            update_names(*ns, found.empty() ? std::set<std::string>{} : found.mapped());
    }
    for (auto &[key, new_names] : names) {
        served &ns = take_up(key, std::move(handles.at(key)));
        update_names(ns, std::move(new_names));
        announce(ns);
    }
    if (!listing.unusable.empty()) {
        scan_again_.arm(mount_wait_);
        mount_wait_ = std::min<std::chrono::milliseconds>(2 * mount_wait_, longest_mount_wait);
    }
    let_go_abandoned();
}

void namespace_set::update_names(served &ns, std::set<std::string> names)
{
    if (!names.empty() && !ns.held) { // it had been let go, and has a name again
        ns.held = true;
        get_net(ns.view);
        retry_.arm(retry_interval); // its vrf may be gone by now; see close_agents_of if not
    }
    ns.names = std::move(names);
    if (!ns.names.empty())
        ns.label = *ns.names.begin();
}

void namespace_set::retry_unserved()
{
    if (notifier_ == nullptr)
        return;
    for (const auto &ns : served_) {
        if (ns->has_vrf() || !ns->held)
            continue;
        retry_.arm(retry_interval);
        if (is_cleared(ns->view))
            announce(*ns);
    }
}

// Gives up the hold on namespaces that have neither a name nor a process any more.
void namespace_set::let_go_abandoned()
{
    const auto is_nameless = [](const std::unique_ptr<served> &ns) {
        return !ns->is_initial() && ns->held && ns->names.empty();
    };
    if (std::ranges::none_of(served_, is_nameless))
        return;
    const auto inhabited = inhabited_namespaces();
    for (const auto &ns : served_) {
        if (!is_nameless(ns))
            continue;
        if (!inhabited || inhabited->contains(ns->key)) {
            process_check_.arm(process_check_interval);
        } else {
            ns->held = false;
            put_net(ns->view);
        }
    }
}

// Reports those gone that nothing refers to any more, and forgets them.
void namespace_set::reap()
{
    const auto is_unused = [](const std::unique_ptr<served> &ns) {
        return ns->view.references == 0 && !ns->has_vrf();
    };
    if (notifier_ == nullptr)
        return;
    for (const auto &ns : served_) {
        if (is_unused(ns))
            notifier_->notifier_call(notifier_, NETDEV_UNREGISTER, &ns->view.lo);
    }
    std::erase_if(served_, is_unused);
}

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
//
// Life of a namespace here: found by name; announced, upon which the engine makes its vrf; if it
// could not, tried again from time to time; held by us while it has a name, then while it has
// processes; let go, upon which the engine's cleanup thread sees that only its own sockets are
// left and lets go too; and when the last of those is released, reported gone and forgotten.
#include "platform/user/namespaces.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <system_error>
#include <utility>

#include "platform/user/agent_socket.h"
#include "platform/user/log.h"
#include "platform/user/port_owner.h"
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

namespace_set *the_namespaces = nullptr;

} // namespace

namespace_set &namespaces()
{
    return *the_namespaces;
}

namespace_set::namespace_set(event_loop &loop, namespace_options options)
    : loop_(loop), options_(std::move(options)), scan_again_(loop, [this] { scan(); }),
      retry_(loop, [this] { retry_unserved(); }),
      process_check_(loop, [this] { let_go_abandoned(); })
{
    the_namespaces = this;
}

namespace_set::~namespace_set()
{
    the_namespaces = nullptr;
}

int namespace_set::start(notifier_block *notifier)
{
    notifier_ = notifier;
    netns_key key{};
    unique_fd handle = open_netns("/proc/self/ns/net", key);
    const net &initial = take_up(key, std::move(handle), true);
    if (initial.agents == nullptr) {
        notifier_ = nullptr;
        return -(initial.obstacle.error != 0 ? initial.obstacle.error : EIO);
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
    for (const auto &ns : nets_)
        ns->agents.reset();
}

void namespace_set::close_agents_of(net &ns)
{
    // reap leaves a namespace alone whose agents are not closed, so it will still be there. Until
    // then their ports may outlive the kernel socket: what they send is refused.
    if (loop_.is_own_thread())
        ns.agents.reset();
    else
        loop_.post([this, &ns] {
            ns.agents.reset();
            if (ns.held) // it was named again while its vrf was on its way out
                retry_.arm(retry_interval);
        });
}

void namespace_set::reap_soon()
{
    loop_.post([this] { reap(); });
}

std::string namespace_set::initial_obstacle(int error) const
{
    if (nets_.empty())
        return std::strerror(error);
    const net &initial = *nets_.front();
    if (initial.obstacle.what != obstacle::NONE)
        return explain(initial, initial.obstacle);
    return explain(initial,
                   {.what = obstacle::OTHER, .call = "starting the engine", .error = error});
}

net &namespace_set::take_up(netns_key key, unique_fd handle, bool initial)
{
    net &ns = *nets_.emplace_back(std::make_unique<net>(key, std::move(handle), initial));
    ns.label = initial ? "the initial one" : "without a name";
    ns.held = true;
    get_net(ns);
    if (initial)
        announce(ns);
    return ns;
}

// Lets the engine make a vrf.
void namespace_set::announce(net &ns)
{
    ns.obstacle = {};
    notifier_->notifier_call(notifier_, NETDEV_REGISTER, &ns.lo);
    if (ns.agents == nullptr && ns.obstacle.what == obstacle::NONE)
        ns.obstacle = {.what = obstacle::OTHER, .call = "making its vrf", .error = ENOMEM};
    if (!ns.initial)
        report(ns);
}

// Tells of a namespace that cannot be served, once for every reason; and when it is after all.
void namespace_set::report(net &ns)
{
    if (ns.agents != nullptr) {
        if (ns.reported.what != obstacle::NONE)
            log_line("network namespace %s: served now", ns.label.c_str());
        ns.reported = {};
        return;
    }
    if (ns.obstacle != ns.reported)
        log_line("network namespace %s is not served: %s; trying again every %lld s",
                 ns.label.c_str(), explain(ns, ns.obstacle).c_str(),
                 static_cast<long long>(retry_interval.count()));
    ns.reported = ns.obstacle;
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
        log_line("cannot watch %s (%s): looking there every %lld s instead", names_directory,
                 error.what(), static_cast<long long>(retry_interval.count()));
    }
}

// Brings nets_ in line with the names that there are.
void namespace_set::scan()
{
    if (notifier_ == nullptr)
        return;
    if (!directory_)
        scan_again_.arm(retry_interval);
    netns_listing listing;
    try {
        listing = list_netns(names_directory);
    } catch (const std::system_error &error) { // which says nothing about what is there
        log_line("cannot look for network namespaces (%s): trying again in %lld s", error.what(),
                 static_cast<long long>(retry_interval.count()));
        scan_again_.arm(retry_interval);
        return;
    }
    std::map<netns_key, std::set<std::string>> names;
    std::map<netns_key, unique_fd> handles;
    for (netns_name &entry : listing.names) {
        if (!options_.only.empty() && !options_.only.contains(entry.name))
            continue;
        names[entry.key].insert(entry.name);
        handles.try_emplace(entry.key, std::move(entry.handle));
    }
    for (const auto &ns : nets_) {
        const auto found = names.extract(ns->key);
        if (!ns->initial)
            update_names(*ns, found.empty() ? std::set<std::string>{} : found.mapped());
    }
    for (auto &[key, new_names] : names) {
        net &ns = take_up(key, std::move(handles.at(key)), false);
        update_names(ns, std::move(new_names));
        announce(ns);
    }
    if (!listing.unusable.empty()) {
        scan_again_.arm(mount_wait_);
        mount_wait_ = std::min<std::chrono::milliseconds>(2 * mount_wait_, longest_mount_wait);
    }
    let_go_abandoned();
}

void namespace_set::update_names(net &ns, std::set<std::string> names)
{
    if (!names.empty() && !ns.held) { // it had been let go, and somebody named it once more
        ns.held = true;
        get_net(ns);
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
    for (const auto &ns : nets_) {
        if (ns->agents != nullptr || !ns->held)
            continue;
        retry_.arm(retry_interval);
        if (is_cleared(*ns, ns->obstacle))
            announce(*ns);
    }
}

// Gives up the hold on namespaces that have neither a name nor a process any more.
void namespace_set::let_go_abandoned()
{
    const auto is_nameless = [](const std::unique_ptr<net> &ns) {
        return !ns->initial && ns->held && ns->names.empty();
    };
    if (std::ranges::none_of(nets_, is_nameless))
        return;
    const auto inhabited = inhabited_namespaces();
    for (const auto &ns : nets_) {
        if (!is_nameless(ns))
            continue;
        if (!inhabited || inhabited->contains(ns->key)) {
            process_check_.arm(process_check_interval);
        } else {
            ns->held = false;
            put_net(*ns);
        }
    }
}

// Reports those gone that nothing refers to any more, and forgets them.
void namespace_set::reap()
{
    const auto unused = [](const std::unique_ptr<net> &ns) {
        return ns->references == 0 && ns->agents == nullptr;
    };
    if (notifier_ == nullptr)
        return;
    for (const auto &ns : nets_) {
        if (unused(ns))
            notifier_->notifier_call(notifier_, NETDEV_UNREGISTER, &ns->lo);
    }
    std::erase_if(nets_, unused);
}

} // namespace kelmd

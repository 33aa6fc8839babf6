// SPDX-License-Identifier: GPL-2.0
#include "libkelm/netns.h"

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <sched.h>

#include "libkelm/error.h"
#include "shared/unique_fd.h"

namespace kelm
{

std::string netns_path(const std::string &netns)
{
    const bool is_path = netns.find('/') != std::string::npos;
    return is_path ? netns : "/run/netns/" + netns;
}

void in_netns(const std::string &netns, const std::function<void()> &work)
{
    if (netns.empty())
        return work();

    const std::string path = netns_path(netns);
    const unique_fd ns(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!ns) {
        if (errno == ENOENT)
            throw error(ENOENT, "no such network namespace: " + netns + ": " + path +
                                    " does not exist ('ip netns' lists the names)");
        throw_errno(errno, "cannot open network namespace " + path);
    }
    std::async(std::launch::async, [&] {
        if (setns(ns.get(), CLONE_NEWNET) != 0) {
            const int number = errno;
            throw_errno(number, "cannot enter network namespace " + path +
                                    (number == EPERM ? " (this requires CAP_SYS_ADMIN)" : ""));
        }
        work();
    }).get();
}

} // namespace kelm

// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <functional>
#include <string>

namespace kelm
{

// The file of a network namespace that is called so, see in_netns().
std::string netns_path(const std::string &netns);

// Runs `work` inside a network namespace and returns when it is done; what it throws comes through.
// `netns` is a name below /run/netns, a path (anything with a slash), or empty for the caller's
// own. The caller never changes namespace: another one is entered by a thread that ends with the
// work. Sockets that the work opens stay in that namespace.
void in_netns(const std::string &netns, const std::function<void()> &work);

} // namespace kelm

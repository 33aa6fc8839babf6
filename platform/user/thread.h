// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <functional>
#include <thread>

namespace kelmd
{

// A thread with a name that ps and top show (its first 15 characters). Throws
// std::system_error if the system has no thread to give.
[[nodiscard]] std::thread start_thread(const char *name, std::function<void()> body);

} // namespace kelmd

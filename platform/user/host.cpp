// SPDX-License-Identifier: GPL-2.0
#include "platform/user/host.h"

#include <unistd.h>
#include <utility>

namespace kelmd
{

namespace
{

constexpr std::size_t log_lines = 4096;

constinit host *current_host = nullptr;

} // namespace

host::host(namespace_options options)
    : log(STDERR_FILENO, log_lines), namespaces(loop, std::move(options))
{
    current_host = this;
}

host &the_host()
{
    return *current_host;
}

} // namespace kelmd

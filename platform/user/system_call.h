// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <cerrno>
#include <system_error>

namespace kelmd
{

// The result of a system call that should not fail; throws std::system_error if it did.
inline int checked(const char *call, int result)
{
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), call);
    return result;
}

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <sys/socket.h>

namespace kelmd
{

// Sizes a socket's buffer, SO_RCVBUF or SO_SNDBUF; as far as the system's limit lets it go where
// the privilege to exceed that is missing. The kernel doubles the number for its overhead.
inline void set_buffer(int fd, int option, int bytes)
{
    const int beyond_limit = option == SO_RCVBUF ? SO_RCVBUFFORCE : SO_SNDBUFFORCE;
    if (setsockopt(fd, SOL_SOCKET, beyond_limit, &bytes, sizeof bytes) != 0)
        setsockopt(fd, SOL_SOCKET, option, &bytes, sizeof bytes);
}

} // namespace kelmd

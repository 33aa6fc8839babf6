// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <sys/socket.h>

namespace kelmd
{

// Sizes a socket's buffer, SO_RCVBUF or SO_SNDBUF, in bytes as the kernel counts them: its overhead
// for each datagram included. Without CAP_NET_ADMIN as far as the system's limit allows.
inline void set_buffer(int fd, int option, int bytes)
{
    const int value = bytes / 2; // the kernel doubles what it is told
    const int beyond_limit = option == SO_RCVBUF ? SO_RCVBUFFORCE : SO_SNDBUFFORCE;
    if (setsockopt(fd, SOL_SOCKET, beyond_limit, &value, sizeof value) != 0)
        setsockopt(fd, SOL_SOCKET, option, &value, sizeof value);
}

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
//
// Error numbers that the engine returns (negated), and pointers that carry one.
#pragma once

// <errno.h> of the host, where one was included before, defines the same numbers.
#ifndef EPERM
#define EPERM 1
#define ENOENT 2
#define EINTR 4
#define ENXIO 6
#define ENOMEM 12
#define ENODEV 19
#define EINVAL 22
#define ENOMSG 42
#define ENODATA 61
#define ENOSR 63
#define EAFNOSUPPORT 97
#define ESHUTDOWN 108
#endif

// A service that returns a pointer reports an error as the pointer value -errno.
[[nodiscard]] inline bool IS_ERR(const void *ptr)
{
    return reinterpret_cast<unsigned long>(ptr) >= static_cast<unsigned long>(-4095L);
}

[[nodiscard]] inline int PTR_ERR(const void *ptr)
{
    return static_cast<int>(reinterpret_cast<long>(ptr));
}

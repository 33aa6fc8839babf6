// SPDX-License-Identifier: GPL-2.0
//
// What all kernel sockets have in common. Each kind derives its own.
#pragma once

#include "platform/net.h"

struct sock {
    explicit sock(net *ns) : netns(ns) {}
    virtual ~sock() = default;
    sock(const sock &) = delete;
    sock &operator=(const sock &) = delete;

    net *const netns; // where it was created; no reference is implied
};

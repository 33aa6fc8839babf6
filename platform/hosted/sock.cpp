// SPDX-License-Identifier: GPL-2.0
#include "platform/hosted/sock.h"

net *sock_net(const sock *sk)
{
    return sk->netns;
}

// SPDX-License-Identifier: GPL-2.0
//
// The object "tx-path": the switch that lets transmission begin.
#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/objects.h"

namespace kelmctl
{

namespace
{

void run_ready(context &ctx, const arguments &)
{
    ctx.client().execute(kelm::tx_path_ready());
}

constexpr command commands[] = {
    {"ready",
     "",
     "start transmission, in all namespaces and until kelm ends\n"
     "Packets are stored but not sent until then. The first BFD packet that kelm receives\n"
     "has the same effect.",
     {},
     run_ready},
};

} // namespace

constinit const std::span<const command> tx_path_commands = commands;

} // namespace kelmctl

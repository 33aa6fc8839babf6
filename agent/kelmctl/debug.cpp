// SPDX-License-Identifier: GPL-2.0
//
// The object "debug": how much kelm logs.
#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/objects.h"

namespace kelmctl
{

namespace
{

constexpr std::uint32_t max_level = 3;

void run_set(context &ctx, const arguments &args)
{
    const std::uint32_t level = parse_number("level", *args.operand(0), 0, max_level);
    const std::uint32_t discriminator = args.discriminator(1).value_or(0);
    ctx.client().execute(kelm::set_debug_level(discriminator, static_cast<std::uint16_t>(level)));
}

void run_clear(context &ctx, const arguments &)
{
    ctx.client().execute(kelm::set_debug_level(0, 0, KELM_DEBUG_CLEAR_SESSIONS));
}

constexpr command commands[] = {
    {"set",
     "LEVEL [DISCRIMINATOR]",
     "set the level of logging, for all or for one discriminator\n"
     "0: nothing. 1: failures. 2: configuration, dumps, transmit errors. 3: every packet.\n"
     "A discriminator's level can only exceed the general level; 0 removes it.",
     {},
     run_set},
    {"clear", "", "remove the levels of all single discriminators", {}, run_clear},
};

} // namespace

constinit const std::span<const command> debug_commands = commands;

} // namespace kelmctl

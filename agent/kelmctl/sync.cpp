// SPDX-License-Identifier: GPL-2.0
//
// The object "sync": what a restarted agent does to find out where things stand.
#include "kelmctl/arguments.h"
#include "kelmctl/context.h"
#include "kelmctl/objects.h"
#include "kelmctl/report_records.h"

namespace kelmctl
{

namespace
{

void run_dump(context &ctx, const arguments &)
{
    std::vector<record> records;
    for (const auto &report : ctx.client().dump(kelm::sync(0)))
        records.push_back(report_record(report, ctx.links()));
    ctx.out.lines(std::move(records));
}

void run_mark(context &ctx, const arguments &)
{
    ctx.client().execute(kelm::sync(KELM_SYNC_MARK));
}

void run_sweep(context &ctx, const arguments &)
{
    ctx.client().execute(kelm::sync(KELM_SYNC_SWEEP));
}

constexpr command commands[] = {
    {"dump",
     "",
     "show every session and packet of the namespace, as kelm reports them\n"
     "For each session: the last frame passed up, and whether its timer is running.",
     {},
     run_dump},
    {"mark",
     "",
     "begin a mark phase\n"
     "Every request marks its namespace as claimed; every kelmctl command does.",
     {},
     run_mark},
    {"sweep",
     "",
     "end a mark phase: delete everything in the namespaces that are not claimed\n"
     "Without a mark phase this deletes all sessions and packets of ALL namespaces.",
     {},
     run_sweep},
};

} // namespace

constinit const std::span<const command> sync_commands = commands;

} // namespace kelmctl

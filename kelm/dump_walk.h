// SPDX-License-Identifier: GPL-2.0
//
// The restartable walk over the records of a vrf, sessions and packets alike.
//
// The cursor's chain_depth counts the steps (messages) of the records at the head of the current
// chain that are done; a record takes Table::steps of them. New records are appended to their
// chain, so positions stay valid; a deletion moves them, and the walk starts over.
#pragma once

#include <concepts>
#include <cstdint>

#include "kelm/dump.h"
#include "kelm/guard.h"
#include "kelm/log.h"
#include "kelm/record_table.h"

// The records of a vrf, and what a dump writes of each of them. fill takes step (chain_depth %
// steps) of a record, whose lock the caller holds, and returns 0, or non-zero without room.
template<typename T>
concept dump_table = requires(const T &table, sk_buff *skb, typename T::record *record,
                              long chain_depth, const dump_request &request)
{
    {
        T::component
        } -> std::convertible_to<const char *>; // for the log, as name and dump_type
    {
        T::name
        } -> std::convertible_to<const char *>;
    {
        table.dump_type
        } -> std::convertible_to<const char *>;
    {
        T::steps
        } -> std::convertible_to<long>;
    {
        T::lock()
        } -> std::same_as<spinlock_t &>;
    {
        table.records()
        } -> std::same_as<record_table<typename T::record> &>;
    {
        table.fill(skb, record, chain_depth, request)
        } -> std::same_as<int>;
};

// The remaining steps of one record. 0, or -1 without room.
template<dump_table Table>
int dump_record(const Table &table, sk_buff *skb, typename Table::record &record, long &chain_depth,
                const dump_request &request)
{
    bh_guard lock(record.lock);
    do {
        if (table.fill(skb, &record, chain_depth, request) != 0)
            return -1;
        ++chain_depth;
    } while (chain_depth % Table::steps != 0);
    return 0;
}

// One chain, from the cursor on. 0, or -1 without room.
template<dump_table Table>
int dump_chain(const Table &table, sk_buff *skb, const dump_cursor &cursor,
               const dump_request &request)
{
    const std::uint32_t disc = request.discriminator;
    auto &chain = table.records().chain(cursor.bucket);
    long position = 0;
    for (auto *record = chain.front(); record != nullptr;
         record = chain.next(*record), ++position) {
        KELM_LOG_SESSION(Table::component, disc, 2, "Searching to restart point %ld %ld", position,
                         cursor.chain_depth);
        if (position < cursor.chain_depth / Table::steps)
            continue;
        if (disc != 0 && record->discriminator != disc) {
            KELM_LOG_SESSION(Table::component, disc, 2, "Skipping %u", record->discriminator);
            cursor.chain_depth += Table::steps;
            continue;
        }
        if (dump_record(table, skb, *record, cursor.chain_depth, request) != 0)
            return -1;
    }
    return 0;
}

// All chains, or the one of the discriminator asked for. The caller holds the table's lock.
template<dump_table Table>
int dump_chains(const Table &table, sk_buff *skb, const dump_cursor &cursor,
                const dump_request &request)
{
    const std::uint32_t disc = request.discriminator;
    const long deletions = table.records().deletions();
    if (*cursor.table_seq != deletions) {
        *cursor.table_seq = deletions;
        cursor.bucket = 0;
        cursor.chain_depth = 0;
    }
    if (disc != 0)
        cursor.bucket = disc_hash(disc);
    while (cursor.bucket < long{chain_count}) {
        KELM_LOG_SESSION(Table::component, disc, 2, "Dumping %s bucket %ld", Table::name,
                         cursor.bucket);
        if (dump_chain(table, skb, cursor, request) != 0)
            return -1;
        if (disc != 0)
            break;
        ++cursor.bucket;
        cursor.chain_depth = 0;
    }
    return 0;
}

template<dump_table Table>
int walk_table(const Table &table, sk_buff *skb, const dump_cursor &cursor,
               const dump_request &request)
{
    KELM_LOG_SESSION(Table::component, request.discriminator, 2,
                     "Entering %s %ld/%ld %ld %u %u, %u %x", table.dump_type, cursor.bucket,
                     cursor.chain_depth, *cursor.table_seq, request.portid, request.seq,
                     request.discriminator, request.flags);
    bh_guard lock(Table::lock());
    const int result = dump_chains(table, skb, cursor, request);
    lock.unlock();
    KELM_LOG_SESSION(Table::component, request.discriminator, 2, "Returning %d", result);
    return result;
}

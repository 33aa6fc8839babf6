// SPDX-License-Identifier: GPL-2.0
//
// The restartable walk over a hash table of records, shared by sessions and packets.
//
// The cursor's chain_depth counts the steps (messages) of the records at the head of the current
// chain that are done; a record takes Table::steps of them. New records are appended to their
// chain, so positions stay valid; a deletion moves them, and the walk starts over.
#pragma once

#include <cstdint>

#include "kelm/dump.h"
#include "kelm/guard.h"
#include "kelm/kelm_internal.h"

// Table: component and table (names for the log), dump_type, steps; lock(), seq() (deletions so
// far), chain(bucket); fill(skb, record, chain_depth, request), which takes step chain_depth %
// steps of a record and returns 0, or non-zero if there was no room. See dumpfn for the rest.

// In a function with a Table and a dump_request named request.
#define dump_log(level, text, ...)                                                                 \
    do {                                                                                           \
        if (should_log(request.discriminator, level))                                              \
            printk(KERN_INFO "kelm %s (%u): " text "\n", Table::component,                         \
                   request.discriminator __VA_OPT__(, ) __VA_ARGS__);                              \
    } while (0)

// The remaining steps of one record. 0, or -1 without room.
template<class Table, class Record>
int dump_record(const Table &table, sk_buff *skb, Record &record, long &chain_depth,
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
template<class Table>
int dump_chain(const Table &table, sk_buff *skb, const dump_cursor &cursor,
               const dump_request &request)
{
    auto &chain = table.chain(cursor.bucket);
    long position = 0;
    for (auto *record = chain.front(); record != nullptr;
         record = chain.next(*record), position++) {
        dump_log(2, "Searching to restart point %ld %ld", position, cursor.chain_depth);
        if (position < cursor.chain_depth / Table::steps)
            continue;
        if (request.discriminator != 0 && record->discriminator != request.discriminator) {
            dump_log(2, "Skipping %u", record->discriminator);
            cursor.chain_depth += Table::steps;
            continue;
        }
        if (dump_record(table, skb, *record, cursor.chain_depth, request) != 0)
            return -1;
    }
    return 0;
}

// All chains, or the one of the discriminator asked for. The caller holds the table's lock.
template<class Table>
int dump_chains(const Table &table, sk_buff *skb, const dump_cursor &cursor,
                const dump_request &request)
{
    if (*cursor.table_seq != table.seq()) {
        *cursor.table_seq = table.seq();
        cursor.bucket = 0;
        cursor.chain_depth = 0;
    }
    if (request.discriminator != 0)
        cursor.bucket = disc_hash(request.discriminator);
    while (cursor.bucket < long{KELM_HASH_SIZE}) {
        dump_log(2, "Dumping %s bucket %ld", Table::table, cursor.bucket);
        if (dump_chain(table, skb, cursor, request) != 0)
            return -1;
        if (request.discriminator != 0)
            break;
        ++cursor.bucket;
        cursor.chain_depth = 0;
    }
    return 0;
}

template<class Table>
int dump_table(const Table &table, sk_buff *skb, const dump_cursor &cursor,
               const dump_request &request)
{
    dump_log(2, "Entering %s %ld/%ld %ld %u %u, %u %x", table.dump_type, cursor.bucket,
             cursor.chain_depth, *cursor.table_seq, request.portid, request.seq,
             request.discriminator, request.flags);
    bh_guard lock(Table::lock());
    const int result = dump_chains(table, skb, cursor, request);
    lock.unlock();
    dump_log(2, "Returning %d", result);
    return result;
}

#undef dump_log

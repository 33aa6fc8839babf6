// SPDX-License-Identifier: GPL-2.0
//
// A vrf's records of one kind, by discriminator: 32 chains, and beside them an index that finds a
// record. A new record goes to the end of its chain, and the chains alone decide in which order
// records are visited. The table owns no records; its users hold its lock, except for make_room.
#pragma once

#include <cstdint>

#include "kelm/guard.h"
#include "kelm/list.h"
#include "kelm/record_index.h"

inline constexpr std::uint32_t chain_count = 32;

// The chain of a discriminator.
[[nodiscard]] constexpr std::uint32_t disc_hash(std::uint32_t discriminator)
{
    return discriminator & (chain_count - 1);
}

template<typename Record>
class record_table
{
  public:
    // The record with this discriminator, or null.
    [[nodiscard]] Record *find(std::uint32_t discriminator) { return index_.find(discriminator); }

    // See record_index.
    template<typename Visit>
    void fetch(const std::uint32_t *discriminators, std::size_t count, Visit visit)
    {
        index_.fetch(discriminators, count, visit);
    }

    // Adds a record that has its discriminator, which no other one in the table has, and is in no
    // table.
    void append(Record &record)
    {
        chains_[disc_hash(record.discriminator)].push_back(record);
        index_.insert(record);
    }

    // Takes a record out. The positions behind it change, which walks notice by deletions().
    void remove(Record &record)
    {
        take_back(record);
        ++deletions_;
    }

    // Takes out a record that was appended last to its chain, and that no walk has seen.
    void take_back(Record &record)
    {
        intrusive_list<Record>::unlink(record);
        index_.remove(record);
    }

    // Moves all records of a chain to the end of a list; walks do not notice.
    void empty_chain(std::uint32_t number, intrusive_list<Record> &into)
    {
        chains_[number].for_each([this](Record &record) { index_.remove(record); });
        into.take(chains_[number]);
    }

    // Allocates what the index needs to grow, if anything. When memory is short, finding a record
    // takes longer, and the next call tries again. To be called before a record is added. Task
    // context; lock is the table's, not held.
    void make_room(spinlock_t &lock)
    {
        const std::uint32_t segment = index_.demand();
        if (segment == 0)
            return;
        void *memory = kzalloc(index_.bytes_of(segment), GFP_KERNEL);
        if (memory == nullptr)
            return;
        bh_guard held(lock);
        const bool taken = index_.extend(segment, memory);
        held.unlock();
        if (!taken)
            kfree(memory);
    }

    [[nodiscard]] intrusive_list<Record> &chain(long number) { return chains_[number]; }
    [[nodiscard]] std::uint32_t deletions() const { return deletions_; }

  private:
    std::uint32_t deletions_ = 0;
    record_index<Record> index_;
    intrusive_list<Record> chains_[chain_count];
};

// SPDX-License-Identifier: GPL-2.0
//
// A vrf's records of one kind, by discriminator: 32 chains. A new record goes to the end of its
// chain, and the chains alone decide in which order records are visited. The table owns nothing;
// its users hold its lock.
#pragma once

#include <cstdint>

#include "kelm/list.h"

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
    [[nodiscard]] Record *find(std::uint32_t discriminator)
    {
        intrusive_list<Record> &chain = chains_[disc_hash(discriminator)];
        Record *record = chain.front();
        while (record != nullptr && record->discriminator != discriminator)
            record = chain.next(*record);
        return record;
    }

    // Adds a record that has its discriminator and is in no table.
    void append(Record &record) { chains_[disc_hash(record.discriminator)].push_back(record); }

    // Takes a record out. The positions behind it change, which walks notice by deletions().
    void remove(Record &record)
    {
        take_back(record);
        ++deletions_;
    }

    // Takes out a record that was appended last to its chain, and that no walk has seen.
    void take_back(Record &record) { intrusive_list<Record>::unlink(record); }

    // Moves all records of a chain to the end of a list; walks do not notice.
    void empty_chain(std::uint32_t number, intrusive_list<Record> &into)
    {
        into.take(chains_[number]);
    }

    [[nodiscard]] intrusive_list<Record> &chain(long number) { return chains_[number]; }
    [[nodiscard]] std::uint32_t deletions() const { return deletions_; }

  private:
    std::uint32_t deletions_ = 0;
    intrusive_list<Record> chains_[chain_count];
};

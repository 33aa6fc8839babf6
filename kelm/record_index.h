// SPDX-License-Identifier: GPL-2.0
//
// Finds records by discriminator: a hash table that grows with their number.
//
// It grows bucket by bucket (linear hashing), so that no insertion takes longer than another.
// Bucket n takes over its share of the bucket whose number is n without its highest bit. Buckets
// lie in segments, each as large as all before it, which never move.
//
// The first segment is part of the index. demand() tells that another one is wanted, extend() gives
// it, so that the memory can be allocated where that may wait. Without it the index works as well,
// with more records in a bucket. It keeps its segments until its end.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "kelm/relaxed.h"
#include "platform/memory.h"

// A record has a `discriminator`, which does not change while it is in the index, and a
// `next_in_bucket`, which is the index's alone. The index does not own its records. Its users guard
// it with a lock, except where it says otherwise.
template<typename Record>
class record_index
{
  public:
    record_index() { segments_[0] = first_segment_; }
    ~record_index()
    {
        for (std::uint32_t number = 1; number < segment_limit; ++number)
            kfree(segments_[number]);
    }
    record_index(const record_index &) = delete;
    record_index &operator=(const record_index &) = delete;

    // The record with this discriminator, or null.
    [[nodiscard]] Record *find(std::uint32_t discriminator)
    {
        Record *record = bucket_of(discriminator);
        while (record != nullptr && record->discriminator != discriminator)
            record = record->next_in_bucket;
        return record;
    }

    // Calls visit for the records of these discriminators, as far as there are any. What is on the
    // way to them is fetched for all at once, not for one after the other.
    template<typename Visit>
    void fetch(const std::uint32_t *discriminators, std::size_t count, Visit visit)
    {
        for (std::size_t i = 0; i < count; ++i)
            __builtin_prefetch(&bucket_of(discriminators[i]));
        for (std::size_t i = 0; i < count; ++i)
            __builtin_prefetch(bucket_of(discriminators[i]), 1);
        for (std::size_t i = 0; i < count; ++i) {
            if (const Record *record = find(discriminators[i]))
                visit(*record);
        }
    }

    // Adds a record; no other one in the index has its discriminator.
    void insert(Record &record)
    {
        push(bucket_of(record.discriminator), record);
        ++record_count_;
        for (int made = 0; made < most_made && wants_bucket(); ++made)
            make_bucket();
    }

    // Takes out a record that is in the index.
    void remove(Record &record)
    {
        Record **link = &bucket_of(record.discriminator);
        while (*link != &record)
            link = &(*link)->next_in_bucket;
        *link = record.next_in_bucket;
        --record_count_;
    }

    // The segment that the index needs for its growth, 0 for none. Needs no lock.
    [[nodiscard]] std::uint32_t demand() const { return demand_; }

    [[nodiscard]] static constexpr std::size_t bytes_of(std::uint32_t segment)
    {
        return std::size_t{first_bucket_of(segment)} * sizeof(Record *);
    }

    // Gives the index a segment: memory from kzalloc, of which it becomes the owner. False if it
    // has that segment already.
    [[nodiscard]] bool extend(std::uint32_t segment, void *memory)
    {
        if (segments_[segment] != nullptr)
            return false;
        segments_[segment] = static_cast<Record **>(memory);
        demand_ = 0;
        return true;
    }

  private:
    static constexpr std::uint32_t first_segment_buckets = 64;
    // Half a million buckets; beyond, they get longer. A larger segment would take more memory in
    // one piece than a kernel is sure to have.
    static constexpr std::uint32_t segment_limit = 14;
    static constexpr std::uint32_t buckets_per_record = 2;
    // By one insertion. More than a record needs, to catch up when memory has been short.
    static constexpr int most_made = 2 * buckets_per_record;

    // All bits of a discriminator have a part in the low bits of its hash.
    static std::uint32_t hash(std::uint32_t discriminator)
    {
        constexpr std::uint64_t golden_ratio = 0x9E3779B97F4A7C15;
        return static_cast<std::uint32_t>(discriminator * golden_ratio >> 32);
    }

    static constexpr std::uint32_t segment_of(std::uint32_t bucket)
    {
        return static_cast<std::uint32_t>(std::bit_width(bucket / first_segment_buckets));
    }
    static constexpr std::uint32_t first_bucket_of(std::uint32_t segment)
    {
        return segment == 0 ? 0 : first_segment_buckets << (segment - 1);
    }

    Record *&bucket(std::uint32_t number)
    {
        const std::uint32_t segment = segment_of(number);
        return segments_[segment][number - first_bucket_of(segment)];
    }
    Record *&bucket_of(std::uint32_t discriminator)
    {
        const std::uint32_t mask = std::bit_ceil(bucket_count_) - 1;
        const std::uint32_t number = hash(discriminator) & mask;
        return bucket(number < bucket_count_ ? number : number & mask >> 1);
    }

    static void push(Record *&bucket, Record &record)
    {
        record.next_in_bucket = bucket;
        bucket = &record;
    }

    [[nodiscard]] bool wants_bucket() const
    {
        return bucket_count_ / buckets_per_record < record_count_ &&
               segment_of(bucket_count_) < segment_limit;
    }

    // Makes the next bucket, if there is memory for it.
    void make_bucket()
    {
        const std::uint32_t number = bucket_count_;
        if (segments_[segment_of(number)] == nullptr) {
            demand_ = segment_of(number);
            return;
        }
        const std::uint32_t highest_bit = std::bit_floor(number);
        Record *&made = bucket(number);
        for (Record **link = &bucket(number - highest_bit); *link != nullptr;) {
            Record &record = **link;
            if ((hash(record.discriminator) & highest_bit) != 0) {
                *link = record.next_in_bucket;
                push(made, record);
            } else {
                link = &record.next_in_bucket;
            }
        }
        ++bucket_count_;
    }

    std::uint32_t record_count_ = 0;
    std::uint32_t bucket_count_ = first_segment_buckets;
    relaxed<std::uint32_t> demand_;
    Record **segments_[segment_limit] = {}; // null where not allocated
    Record *first_segment_[first_segment_buckets] = {};
};

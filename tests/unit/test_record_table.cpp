// SPDX-License-Identifier: GPL-2.0
//
// The table of records against a model: a list for each chain, in the order of creation.
#include <algorithm>
#include <array>
#include <list>
#include <random>

#include "kelm/record_table.h"
#include "platform/err.h"
#include "sim_fixture.h"

namespace
{

using sim::service;

struct record {
    list_link list;
    record *next_in_bucket = nullptr;
    std::uint32_t discriminator = 0;
};

struct model {
    sim::world w;
    spinlock_t lock = {};
    record_table<record> table;
    std::array<std::list<record>, chain_count> chains;
    std::uint32_t deletions = 0;

    model() { spin_lock_init(&lock, 0, "table"); }

    record *find(std::uint32_t disc)
    {
        std::list<record> &chain = chains[disc_hash(disc)];
        const auto found = std::ranges::find(chain, disc, &record::discriminator);
        return found != chain.end() ? &*found : nullptr;
    }

    void add(std::uint32_t disc)
    {
        table.make_room(lock);
        if (find(disc) == nullptr) {
            record &added = chains[disc_hash(disc)].emplace_back();
            added.discriminator = disc;
            table.append(added);
        }
    }

    // walks_notice: as for a deletion, or else as for a creation that is undone.
    void remove(std::uint32_t disc, bool walks_notice)
    {
        record *const old = find(disc);
        if (old == nullptr)
            return;
        if (walks_notice)
            table.remove(*old);
        else
            table.take_back(*old);
        deletions += walks_notice;
        chains[disc_hash(disc)].remove_if([=](const record &each) { return &each == old; });
    }

    void empty_chain(std::uint32_t number)
    {
        intrusive_list<record> removed;
        table.empty_chain(number, removed);
        for (record &each : chains[number])
            EXPECT_EQ(removed.pop_front(), &each);
        EXPECT_TRUE(removed.empty());
        chains[number].clear();
    }

    void compare()
    {
        EXPECT_EQ(table.deletions(), deletions);
        for (std::uint32_t number = 0; number < chain_count; ++number) {
            record *at = table.chain(number).front();
            for (record &each : chains[number]) {
                ASSERT_EQ(at, &each);
                ASSERT_EQ(table.find(each.discriminator), &each);
                at = table.chain(number).next(*at);
            }
            ASSERT_EQ(at, nullptr);
        }
    }

    // How many records a lookup visits at most.
    [[nodiscard]] std::ptrdiff_t longest_lookup() const
    {
        std::ptrdiff_t longest = 0;
        for (const auto &chain : chains) {
            for (const record &each : chain) {
                std::ptrdiff_t visited = 0;
                for (const record *at = &each; at != nullptr; at = at->next_in_bucket)
                    ++visited;
                longest = std::max(longest, visited);
            }
        }
        return longest;
    }
};

// Agents number their sessions as they like: in turn, in some of the bits, at random.
TEST(record_table, does_what_lists_do_and_finds_records_at_once)
{
    for (std::uint32_t seed = 1; seed <= 9; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto drawn = [&random] { return static_cast<std::uint32_t>(random()); };
        const auto below = [&](std::uint32_t n) { return drawn() % n; };
        const std::uint32_t step = seed % 3 == 0 ? 1 : seed % 3 == 1 ? 1U << below(20) : drawn();
        const auto disc = [&] { return (1 + below(4000)) * step; };
        model m;
        for (std::uint32_t round = 0; round < 40; ++round) {
            // Without memory the table works too, and grows once there is some again.
            m.w.fail(service::allocation, -ENOMEM, 1 + below(3), round < 30 ? below(60) : 0);
            const std::uint32_t additions = 3 + round % 5;
            for (int i = 0; i < 500; ++i) {
                if (below(10) < additions)
                    m.add(disc());
                else
                    m.remove(disc(), below(4) != 0);
                const std::uint32_t wanted = disc();
                ASSERT_EQ(m.table.find(wanted), m.find(wanted));
            }
            if (below(3) == 0)
                m.empty_chain(below(chain_count));
            ASSERT_NO_FATAL_FAILURE(m.compare());
        }
        for (int i = 0; i < 4000; ++i)
            m.add(disc());
        ASSERT_NO_FATAL_FAILURE(m.compare());
        EXPECT_LE(m.longest_lookup(), 8);
    }
}

} // namespace

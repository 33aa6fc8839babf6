// SPDX-License-Identifier: GPL-2.0
//
// What kelmd reads of other processes in /proc, and of the directory of named namespaces.
#include <cstdlib>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <initializer_list>
#include <linux/capability.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "platform/user/event_loop.h"
#include "platform/user/netns_directory.h"
#include "platform/user/process.h"

namespace
{

using namespace kelmd;
namespace fs = std::filesystem;

TEST(process, status_is_parsed)
{
    const auto status = parse_status("Name:\tUid:\t7\nUid:\t1000\t0\t1000\t1000\n"
                                     "CapPrm:\t0000000000000001\nCapEff:\t00000000a80425fb\n");
    ASSERT_TRUE(status);
    EXPECT_EQ(status->effective_uid, 0U);
    EXPECT_EQ(status->effective_capabilities, 0xa80425fbU);
    for (const char *broken : {"", "Uid:\t0\t0\n", "Uid:\t0\nCapEff:\t0\n", "Uid:\nCapEff:\n",
                               "Uid:\t0\t0\nCapEff:\txyz\n", "Uid:\t0\t0\nCapEffect:\t1\n"})
        EXPECT_FALSE(parse_status(broken)) << broken;
}

TEST(process, start_time_is_found_behind_any_name)
{
    const std::string fields = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20 21";
    for (const char *name : {"(agent)", "(a b)", "(()", "(x) S 1 2)", "(\n)", "()"})
        EXPECT_EQ(parse_start_time("12 " + std::string(name) + fields), 4711U) << name;
    for (const char *broken : {"", "12 (agent", "12 (agent) S 1 2 3"})
        EXPECT_FALSE(parse_start_time(broken)) << broken;
}

TEST(process, secure_execution_is_seen_and_assumed_when_unknown)
{
    const auto auxv = [](std::initializer_list<unsigned long> words) {
        return std::string(reinterpret_cast<const char *>(words.begin()),
                           words.size() * sizeof(unsigned long));
    };
    EXPECT_FALSE(parse_secure(auxv({AT_UID, 7, AT_SECURE, 0, AT_NULL, 0})));
    EXPECT_TRUE(parse_secure(auxv({AT_UID, 0, AT_SECURE, 1, AT_NULL, 0})));
    EXPECT_TRUE(parse_secure(auxv({AT_SECURE})));
    EXPECT_TRUE(parse_secure(auxv({AT_UID, 0})));
}

// A pid that has come to be another process's lends no privilege.
TEST(process, capabilities_need_the_same_process_and_user)
{
    const peer_process self = identify(getpid(), geteuid());
    EXPECT_EQ((capabilities_of(self) >> CAP_NET_ADMIN & 1) != 0, have_capability(CAP_NET_ADMIN));
    EXPECT_EQ(capabilities_of({self.pid, self.uid, self.start_time + 1}), 0U);
    EXPECT_EQ(capabilities_of({self.pid, self.uid + 1, self.start_time}), 0U);
    EXPECT_EQ(capabilities_of({}), 0U);

    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    const peer_process gone = identify(child, geteuid()); // a zombie still has a start time
    EXPECT_NE(gone.start_time, 0U);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(capabilities_of(gone), 0U);
}

// A process that may not be looked at could be anywhere.
TEST(process, namespaces_are_not_empty_because_their_processes_cannot_be_seen)
{
    const pid_t child = fork();
    if (child == 0) {
        (void)!setresuid(65534, 65534, 65534); // an ordinary user already is one
        _exit(inhabited_namespaces() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

class netns_names : public testing::Test
{
  protected:
    ~netns_names() override { fs::remove_all(parent); }

    // What ip netns does with a mount, without its privilege.
    void make_name(const char *name) const
    {
        fs::create_symlink("/proc/self/ns/net", directory / name);
    }

    std::string pattern = fs::temp_directory_path() / "kelm-test-XXXXXX";
    const fs::path parent = mkdtemp(pattern.data());
    const fs::path directory = parent / "netns";
};

TEST_F(netns_names, are_those_of_namespaces_and_nothing_else)
{
    EXPECT_TRUE(list_netns(directory).names.empty());
    fs::create_directory(directory);
    make_name("second");
    make_name("first");
    std::ofstream(directory / "not-mounted-yet").put('x');
    fs::create_symlink("/proc/self/ns/user", directory / "another-kind");
    mkfifo((directory / "fifo").c_str(), 0600);
    const netns_listing listing = list_netns(directory);
    ASSERT_EQ(listing.names.size(), 2U);
    EXPECT_EQ(listing.names[0].name, "first");
    EXPECT_EQ(listing.names[0].key, listing.names[1].key); // two names, one namespace
    EXPECT_EQ(listing.unusable.size(), 3U);
}

// An error that says nothing about what is there must not read as "nothing is there".
TEST_F(netns_names, are_not_taken_for_gone_when_they_cannot_be_looked_at)
{
    EXPECT_THROW((void)list_netns(parent / std::string(300, 'x')), std::system_error);
    fs::create_directory(directory);
    make_name("one");
    fs::create_symlink("gone", directory / "dangling");
    EXPECT_EQ(list_netns(directory).unusable.size(), 1U);
    fs::create_symlink(std::string(300, 'x'), directory / "too-long"); // as if memory were short
    EXPECT_THROW((void)list_netns(directory), std::system_error);
}

// It does not exist at first, gets a name, goes with it, and comes again.
TEST_F(netns_names, are_reported_at_every_change)
{
    event_loop loop;
    std::vector<std::size_t> counts;
    const netns_directory watched(loop, directory, [&] {
        const std::size_t count = list_netns(directory).names.size();
        if (!counts.empty() && counts.back() == count)
            return;
        counts.push_back(count);
        switch (counts.size()) {
        case 1:
            return make_name("one");
        case 2:
            fs::remove_all(directory);
            return;
        case 3:
            fs::create_directory(directory);
            return make_name("two");
        default:
            loop.stop();
        }
    });
    fs::create_directory(directory);
    loop.run();
    EXPECT_EQ(counts, (std::vector<std::size_t>{0, 1, 0, 1}));
}

} // namespace

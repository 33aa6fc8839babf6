// SPDX-License-Identifier: GPL-2.0
//
// What kelmd reads of other processes in /proc, and of the directory of named namespaces.
#include "platform/user/event_loop.h"
#include "platform/user/netns_directory.h"
#include "platform/user/port_owner.h"
#include "platform/user/process.h"

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
#include <unistd.h>
#include <vector>

namespace
{

using namespace kelmd;
namespace fs = std::filesystem;

TEST(Process, StatusIsParsed)
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

TEST(Process, StartTimeIsFoundBehindAnyName)
{
    const std::string fields = " S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 4711 20 21";
    for (const char *name : {"(agent)", "(a b)", "(()", "(x) S 1 2)", "(\n)", "()"})
        EXPECT_EQ(parse_start_time("12 " + std::string(name) + fields), 4711U) << name;
    for (const char *broken : {"", "12 (agent", "12 (agent) S 1 2 3"})
        EXPECT_FALSE(parse_start_time(broken)) << broken;
}

TEST(Process, SecureExecutionIsSeenAndTheUnknownIsTakenForIt)
{
    const auto auxv = [](std::initializer_list<unsigned long> words) {
        return std::string(reinterpret_cast<const char *>(words.begin()),
                           words.size() * sizeof(unsigned long));
    };
    EXPECT_FALSE(parse_secure(auxv({AT_UID, 7, AT_SECURE, 0, AT_NULL, 0})));
    EXPECT_TRUE(parse_secure(auxv({AT_UID, 0, AT_SECURE, 1, AT_NULL, 0})));
    EXPECT_TRUE(parse_secure(auxv({AT_SECURE})));
    EXPECT_TRUE(parse_secure(auxv({AT_UID, 0})));
    EXPECT_TRUE(parse_secure(""));
}

TEST(Process, CapabilitiesNeedTheSameProcessAndUser)
{
    const peer_process self = identify(getpid(), geteuid());
    EXPECT_NE(self.start_time, 0U);
    EXPECT_EQ((capabilities_of(self) >> CAP_NET_ADMIN & 1) != 0, have_capability(CAP_NET_ADMIN));
    peer_process other_time = self;
    ++other_time.start_time;
    EXPECT_EQ(capabilities_of(other_time), 0U);
    peer_process other_user = self;
    ++other_user.uid;
    EXPECT_EQ(capabilities_of(other_user), 0U);
    EXPECT_EQ(capabilities_of({}), 0U);
}

TEST(Process, AProcessThatIsGoneHoldsNothing)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    const peer_process gone = identify(child, geteuid()); // a zombie still has a start time
    EXPECT_NE(gone.start_time, 0U);
    waitpid(child, nullptr, 0);
    EXPECT_EQ(capabilities_of(gone), 0U);
    EXPECT_EQ(identify(child, geteuid()).start_time, 0U);
}

TEST(UdpTable, ThePortsSocketIsFound)
{
    const std::string table =
        "   sl  local_address                         remote_address                        st "
        "tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ref pointer drops\n"
        "  482: 00000000000000000000000000000000:0EC9 00000000000000000000000000000000:0000 07 "
        "00000000:00000000 00:00000000 00000000     0        0 77 2 0 0\n"
        " 1482: 0100007F:0EC8 00000000:0EC9 07 00000000:00000000 00:00000000 00000000     0        "
        "0 43151 2 0 0\n";
    EXPECT_EQ(parse_udp_owner(table, 3785), ino_t{77});
    EXPECT_EQ(parse_udp_owner(table, 3784), ino_t{43151});
    EXPECT_EQ(parse_udp_owner(table, 1), std::nullopt);
    for (const char *broken : {"", "\n\n", "x", "1: :0EC8", "1: 0:0EC8 0:0 07 0:0 0:0 0 0 0",
                               "1: 0:zz 0:0 07 0:0 0:0 0 0 0 5"})
        EXPECT_EQ(parse_udp_owner(broken, 3784), std::nullopt) << broken;
}

// The directory of named namespaces

class NetnsDirectory : public testing::Test
{
  protected:
    NetnsDirectory()
    {
        std::string pattern = fs::temp_directory_path() / "kelm-test-XXXXXX";
        parent = mkdtemp(pattern.data());
        directory = parent / "netns";
    }
    ~NetnsDirectory() override { fs::remove_all(parent); }

    // What ip netns does with a mount, without its privilege.
    void make_name(const char *name) const
    {
        fs::create_symlink("/proc/self/ns/net", directory / name);
    }

    fs::path parent;
    fs::path directory;
};

TEST_F(NetnsDirectory, ListsNamespacesAndNothingElse)
{
    EXPECT_TRUE(list_netns(directory).names.empty());
    fs::create_directory(directory);
    make_name("second");
    make_name("first");
    std::ofstream(directory / "not-mounted-yet").put('x');
    fs::create_symlink("/proc/self/ns/user", directory / "another-kind");
    mkfifo((directory / "fifo").c_str(), 0600);
    fs::create_directory(directory / "directory");
    const netns_listing listing = list_netns(directory);
    ASSERT_EQ(listing.names.size(), 2U);
    EXPECT_EQ(listing.names[0].name, "first");
    EXPECT_EQ(listing.names[0].key, listing.names[1].key); // two names, one namespace
    EXPECT_EQ(listing.unusable.size(), 4U);
}

TEST_F(NetnsDirectory, TellsOfEveryChangeFromBeforeItExists)
{
    event_loop loop;
    std::vector<std::size_t> counts;
    const std::size_t enough = 3;
    netns_directory watched(loop, directory, [&] {
        const std::size_t count = list_netns(directory).names.size();
        if (counts.empty() || counts.back() != count)
            counts.push_back(count);
        if (counts.size() == 1 && count == 0)
            make_name("one");
        else if (count == 1 && counts.size() == 2)
            fs::remove_all(directory);
        else if (counts.size() == enough)
            loop.stop();
    });
    fs::create_directory(directory);
    loop.run();
    EXPECT_EQ(counts, (std::vector<std::size_t>{0, 1, 0}));

    // And again, as long as it is watched.
    event_loop second_loop;
    bool seen = false;
    netns_directory again(second_loop, directory, [&] {
        seen = list_netns(directory).names.size() == 1;
        if (seen)
            second_loop.stop();
    });
    fs::create_directory(directory);
    make_name("two");
    second_loop.run();
    EXPECT_TRUE(seen);
}

} // namespace

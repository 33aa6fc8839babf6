// SPDX-License-Identifier: GPL-2.0
//
// kelm-agent's configuration: what it means, and how its mistakes are told.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>

#include "kelm-agent/config.h"

namespace
{

using namespace kelm_agent;

agent_config parse(const std::string &text, const std::string &file = "agent.toml")
{
    std::vector<std::string> warnings;
    return parse_config(text, file, warnings);
}

// The complaint, without the file's name: "2: ...".
std::string complaint(const std::string &text)
{
    try {
        parse(text);
    } catch (const config_error &problem) {
        const std::string what = problem.what();
        return what.substr(what.find(':') + 1);
    }
    return "none";
}

std::string session_between(const std::string &name, const std::string &local,
                            const std::string &peer)
{
    return "[[session]]\nname = \"" + name + "\"\nlocal = \"" + local + "\"\npeer = \"" + peer +
           "\"\n";
}

const std::string start = session_between("s", "10.0.0.1", "10.0.0.2");

TEST(agent_config, everything_and_the_defaults)
{
    const session_config least = parse(start).sessions.at(0);
    EXPECT_EQ(least.kind, session_kind::single_hop);
    EXPECT_EQ(least.timing, (intervals{300'000, 300'000}));
    EXPECT_EQ(least.multiplier, 3);
    EXPECT_EQ(least.required_ttl, KELM_AUTH_TTL_255);
    EXPECT_EQ(least.auth, authentication{});
    EXPECT_FALSE(least.passive || least.admin_down);

    const auto config = parse(R"(
        [agent]
        metrics-file = "/var/lib/kelm.prom"
        metrics-listen = "[::1]:9816"
        [defaults]
        min-tx = "50ms"
        multiplier = 5
        [[session]]
        name = "one"
        local = "fe80::1"
        peer = "fe80::2"
        interface = "eth0"
        namespace = "left"
        min-rx = "1.5s"
        role = "passive"
        ttl-security = false
        admin-down = true
        min-echo-rx = "20ms"
        echo = { interval = "30ms", multiplier = 4 }
        auth = { type = "debug-seqnum" }
        [[session]]
        name = "lag"
        type = "lag"
        local = "10.0.0.1"
        peer = "10.0.0.2"
        interface = "bond0"
        members = ["eth1", "eth2"]
        [[session]]
        name = "far"
        type = "sbfd"
        local = "10.0.0.1"
        peer = "10.9.0.2"
        remote-discriminator = 4294967295
        multiplier = 2
        ttl-security = 254
        [[session]]
        name = "echo"
        type = "echo"
        local = "10.0.0.1"
        peer = "10.0.0.2"
        interface = "eth3"
        source = "192.0.2.1"
        peer-mac = "02:00:00:00:00:07"
    )");
    EXPECT_EQ(config.metrics_file, "/var/lib/kelm.prom");
    EXPECT_EQ(config.metrics_listen->port, 9816);
    std::vector<std::string> names;
    for (const auto &session : config.sessions)
        names.push_back(session.name);
    EXPECT_EQ(names,
              (std::vector<std::string>{"one", "one/echo", "lag/eth1", "lag/eth2", "far", "echo"}));
    const auto &one = config.sessions[0];
    EXPECT_EQ(one.timing, (intervals{50'000, 1'500'000}));
    EXPECT_EQ(one.multiplier, 5);
    EXPECT_TRUE(one.passive && one.admin_down);
    EXPECT_EQ(one.required_ttl, 0);
    EXPECT_EQ(one.auth.type, BFD_AUTH_DEBUG_SEQNUM);
    EXPECT_EQ(one.min_echo_rx, 20'000U);
    const auto &guard = config.sessions[1];
    EXPECT_EQ(guard.guards, "one");
    EXPECT_EQ(guard.timing.desired_min_tx, 30'000U);
    EXPECT_EQ(guard.multiplier, 4);
    EXPECT_EQ(config.sessions[2].member, "eth1");
    EXPECT_EQ(config.sessions[3].interface, "bond0");
    EXPECT_EQ(config.sessions[4].remote_discriminator, 4294967295);
    EXPECT_EQ(config.sessions[4].multiplier, 2);
    EXPECT_EQ(config.sessions[4].required_ttl, KELM_AUTH_TTL_254);
    EXPECT_EQ(config.sessions[5].required_ttl, KELM_AUTH_TTL_254);
    EXPECT_EQ(config.sessions[5].source.text(), "192.0.2.1");
    EXPECT_EQ(config.sessions[5].peer_mac->text(), "02:00:00:00:00:07");
}

TEST(agent_config, mistakes_are_told_with_their_line)
{
    const struct {
        std::string text;
        std::string told;
    } cases[] = {
        {"[[session]\n", "1: "},
        {"\n[sesion]\n",
         "2: unknown key 'sesion'; known here: agent, defaults, include, profile, session"},
        {"[[session]]\nlocal = \"10.0.0.1\"\n", "1: 'name' is missing"},
        {"[[session]]\nname = \"a b\"\n", "2: 'name' must be a word"},
        {"[[session]]\nname = \"s\"\nlocal = \"10.0.0.300\"\n", "3: 'local' must be an IPv4"},
        {"[[session]]\nname = \"s\"\nlocal = \"::1\"\npeer = \"10.0.0.2\"\n", "4: 'local' and"},
        {"[[session]]\nname = \"s\"\nlocal = \"fe80::1\"\npeer = \"fe80::2\"\n",
         "4: a link-local 'peer' requires"},
        {start + "min-tx = 300\n", "5: 'min-tx' must be a time"},
        {start + "min-rx = \"999us\"\n", "5: 'min-rx' must be a time with its unit"},
        {start + "min-tx = \"72min\"\n",
         "5: 'min-tx' must be a time with its unit, as in \"300ms\" or \"1.5s\", from 1ms to "
         "4294.967295s"},
        {session_between("s", "10.0.0.1", "10.0.0.1"), "4: 'local' and 'peer' must be different"},
        {session_between("s", "0.0.0.0", "10.0.0.1"), "3: 'local' must be a unicast address"},
        {session_between("s", "10.0.0.1", "255.255.255.255"), "4: 'peer' must be a unicast"},
        {session_between("s", "10.0.0.1", "224.0.0.1"), "4: 'peer' must be a unicast address"},
        {session_between("s", "::1", "ff02::1"), "4: 'peer' must be a unicast address"},
        {session_between("s", "::1", "::"), "4: 'peer' must be a unicast address"},
        {session_between("s", "::ffff:10.0.0.1", "::1"),
         "3: 'local' must be written as an IPv4 address"},
        {start + "interface = \"a/b\"\n", "5: 'interface' must be an interface name"},
        {start + "interface = \"a234567890123456\"\n", "5: 'interface' must be"},
        {start + session_between("t", "10.0.0.1", "10.0.0.2") + "interface = \"eth0\"\n",
         "5: sessions 's' and 't' have the same addresses, but only one has"},
        {start + "interface = \"eth0\"\n" + session_between("t", "10.0.0.1", "10.0.0.2"),
         "6: sessions 's' and 't' have the same addresses"},
        {"[agent]\nmetrics-file = \"/x/kelm.txt\"\n", "2: 'metrics-file' must end in .prom"},
        {"[defaults]\nmin-tx = 5\n", "2: 'min-tx' must be a time"},
        {"[defaults]\ntype = \"both\"\n", "2: 'type' must be one of"},
        {"[defaults]\nlocal = \"224.0.0.1\"\n", "2: 'local' must be a unicast address"},
        {"[defaults]\nauth = { type = \"password\" }\n", "2: 'keys' is missing"},
        {start + "multiplier = 256\n", "5: 'multiplier' must be a number from 1 to 255"},
        {start + "type = \"multi\"\n", "5: 'type' must be one of: single-hop"},
        {start + "role = \"lazy\"\n", "5: 'role' must be \"active\" or \"passive\""},
        {start + "ttl-security = true\n", "5: 'ttl-security' must be 255 or 254"},
        {start + "admin-down = \"no\"\n", "5: 'admin-down' must be true or false"},
        {start + "remote-discriminator = 5\n", "5: unknown key"},
        {start + "type = \"sbfd\"\nremote-discriminator = 0\n", "6: 'remote-discriminator' must"},
        {start + "type = \"echo\"\n", "1: this type of session requires an 'interface'"},
        {start + "type = \"lag\"\ninterface = \"b\"\nmembers = []\n", "7: 'members' must name"},
        {start + "type = \"lag\"\ninterface = \"b\"\nmembers = [\"a b\"]\n",
         "7: 'members' must be names"},
        {start + "type = \"sbfd\"\nremote-discriminator = 1\nrole = \"passive\"\n", "7: this type"},
        {start + "echo = { interval = \"50ms\" }\n", "5: 'echo' requires"},
        {start + "auth = { type = \"keyed-md5\" }\n", "5: 'keys' is missing"},
        {start + "auth = { type = \"none\", keys = [] }\n",
         "5: this type of authentication takes no"},
        {start + "auth = { type = \"password\", keys = [ {}, {}, {} ] }\n",
         "5: 'keys' must be a list of one"},
        {start + "auth = { type = \"password\", keys = [ { id = 256 } ] }\n", "5: 'id' must be"},
        {start + "auth = { type = \"password\", keys = [ { id = 1, file = \"/none\" } ] }\n",
         "5: cannot open key file /none"},
        {start + start, "5: duplicate session name 's'"},
        {start + session_between("t", "10.0.0.1", "10.0.0.2"), "5: session 't' duplicates 's'"},
        {"[agent]\nmetrics-listen = \"[::1]:0\"\n", "2: 'metrics-listen' must be an address"},
        {"[defaults]\nname = \"s\"\n", "2: unknown key 'name'"},
        {"session = 5\n", "1: 'session' must be a list"},
        {"include = [\"missing.toml\"]\n", "1: there is no file missing.toml to include"},
        {start + "minimum-ttl = 250\n", "5: unknown key 'minimum-ttl'"},
        {start + "type = \"multihop\"\nminimum-ttl = 0\n", "6: 'minimum-ttl' must be a number"},
        {"[profile.p]\nmin-tx = 5\n", "2: 'min-tx' must be a time"},
        {"[[session]]\nname = \"s\"\nprofile = \"p\"\n", "3: there is no table [profile.p]"},
        {"[defaults]\non-change = \"program\"\n", "2: 'on-change' must be the full path"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(complaint(c.text).substr(0, c.told.size()), c.told) << c.text;
}

struct key_directory {
    key_directory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "kelm-keys-XXXXXX").string();
        path = mkdtemp(name.data());
    }
    ~key_directory() { std::filesystem::remove_all(path); }

    void put(const std::string &name, const std::string &secret, std::filesystem::perms mode) const
    {
        std::ofstream(path / name) << secret << '\n';
        std::filesystem::permissions(path / name, mode);
    }

    std::filesystem::path path;
};

TEST(agent_config, keys_come_from_files_beside_the_configuration)
{
    const key_directory directory;
    directory.put("old", "first", std::filesystem::perms(0600));
    directory.put("new", "a secret of 20 bytes", std::filesystem::perms(0644));
    directory.put("long", "a secret of 21 bytes!", std::filesystem::perms(0600));
    const std::string file = directory.path / "agent.toml";
    std::vector<std::string> warnings;
    const auto auth = [](const std::string &second, int first_id = 7, int second_id = 9) {
        std::ostringstream text;
        text << start
             << "auth = { type = \"meticulous-sha1\", send = 9, keys = [ { id = " << first_id
             << ", file = \"old\" }, { id = " << second_id << ", file = \"" << second
             << "\" } ] }\n";
        return text.str();
    };
    const auto config = parse_config(auth("new"), file, warnings);
    const authentication &read = config.sessions.front().auth;
    ASSERT_EQ(read.keys.size(), 2U);
    EXPECT_EQ(read.keys[0], (auth_key{7, {'f', 'i', 'r', 's', 't'}}));
    EXPECT_EQ(read.keys[1].secret.size(), 20U);
    EXPECT_EQ(read.sending, 1U);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_NE(warnings.front().find("new is accessible to other users"), std::string::npos);
    EXPECT_THROW(parse_config(auth("long"), file, warnings), config_error);
    EXPECT_THROW(parse_config(auth("new", 9, 9), file, warnings), config_error);
    EXPECT_THROW(parse_config(auth("new", 7, 8), file, warnings), config_error); // none to send
}

// A session's own values come first, then those of its profile, then the defaults.
TEST(agent_config, profiles_and_included_files)
{
    namespace fs = std::filesystem;
    std::string pattern = fs::temp_directory_path() / "kelm-test-XXXXXX";
    const fs::path directory = mkdtemp(pattern.data());
    std::ofstream(directory / "b.toml") << start << "profile = \"fast\"\nmultiplier = 9\n";
    std::ofstream(directory / "a.toml") << "[profile.fast]\nmin-tx = \"10ms\"\nmultiplier = 7\n";
    const std::string file = directory / "agent.toml";
    const std::string text = "include = [\"[ab].toml\", \"none-*\"]\n"
                             "[defaults]\nmin-tx = \"1s\"\nmin-rx = \"2s\"\n";
    const session_config session = parse(text, file).sessions.at(0);
    EXPECT_EQ(session.timing, (intervals{10'000, 2'000'000}));
    EXPECT_EQ(session.multiplier, 9);
    for (const char *mistake : {"[agent]\n", "[profile.fast]\nmin-tx = 5\n", "oops"}) {
        std::ofstream(directory / "a.toml") << mistake;
        try {
            parse(text, file);
            ADD_FAILURE() << mistake;
        } catch (const config_error &problem) {
            EXPECT_NE(std::string(problem.what()).find("/a.toml:"), std::string::npos);
        }
    }
    fs::remove_all(directory);
}

} // namespace

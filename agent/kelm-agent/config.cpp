// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/config.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <deque>
#include <filesystem>
#include <glob.h>
#include <map>
#include <set>
#include <sys/socket.h>

#include "kelm-agent/config_auth.h"
#include "kelm-agent/config_section.h"
#include "kelm-agent/whole_file.h"

namespace kelm_agent
{

namespace
{

constexpr std::int64_t most_32_bits = 0xffffffff;

// Keys allowed in [defaults] and in profiles.
constexpr std::string_view default_keys[] = {
    "namespace",  "interface", "local",        "min-tx", "min-rx",    "type",
    "multiplier", "role",      "ttl-security", "auth",   "on-change",
};

// Needs no quoting in a log line or a metric.
bool is_word(const std::string &text)
{
    return !text.empty() && std::ranges::none_of(text, [](char c) {
        return (c >= 0 && c <= ' ') || c == 0x7f || c == '"' || c == '\\';
    });
}

// As the kernel accepts them.
bool is_interface_name(const std::string &text)
{
    constexpr std::size_t longest = 15;
    return !text.empty() && text.size() <= longest && text != "." && text != ".." &&
           std::ranges::none_of(
               text, [](unsigned char c) { return c <= ' ' || c == 0x7f || c == '/' || c == ':'; });
}

// "127.0.0.1:9100", "[::1]:9100"
std::optional<endpoint> read_endpoint(config_section &section, std::string_view key)
{
    const toml::node *node = section.find(key);
    if (node == nullptr)
        return std::nullopt;
    const std::string text = section.as_text(*node, key);
    const std::size_t colon = text.rfind(':');
    std::string host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    std::uint16_t port = 0;
    const char *const end = text.data() + text.size();
    const char *const digits = colon == std::string::npos ? end : text.data() + colon + 1;
    const auto [stop, problem] = std::from_chars(digits, end, port);
    const auto address = kelm::ip_address::parse(host);
    if (!address || problem != std::errc() || stop != end || port == 0)
        section.fail(*node, "'" + std::string(key) +
                                "' must be an address and a port, as in \"127.0.0.1:9816\" or "
                                "\"[::1]:9816\"");
    return endpoint{*address, port};
}

class reader
{
  public:
    reader(std::string file, std::vector<std::string> &warnings)
        : file_(std::move(file)), warnings_(warnings)
    {
    }

    agent_config read(const toml::table &root);

  private:
    void include(config_section &main);
    void include_matches(const config_section &main, const toml::node &pattern);
    void read_agent(const toml::table &, agent_config &);
    void read_profiles(config_section &);
    void read_sessions(config_section &, agent_config &);
    void check_defaults(const toml::table &);
    std::vector<const toml::table *> others_for(const toml::table &session);
    void read_session(const toml::table &, agent_config &);
    std::string read_name(config_section &);
    void read_place(config_section &, session_config &);
    void read_addresses(config_section &, session_config &);
    void read_timing(config_section &, session_config &);
    void read_security(config_section &, session_config &);
    void read_kind(config_section &, session_config &);
    void read_on_change(config_section &, session_config &);
    void read_echo(config_section &, session_config &);
    void read_peer_mac(config_section &, session_config &);
    void add_guard(config_section &, agent_config &, const session_config &);
    std::vector<std::string> read_members(config_section &, const session_config &);
    void expect_one_session_per_pair(config_section &, const session_config &);
    void add(config_section &, agent_config &, session_config);

    std::string file_;
    std::vector<std::string> &warnings_;
    // Not copies: those lose their line numbers.
    const toml::table *defaults_ = nullptr;
    std::map<std::string, const toml::table *, std::less<>> profiles_;
    std::deque<toml::table> included_;
    std::set<std::string> names_;
    std::map<std::string, std::string> identities_; // session names, by identity
    // Names of sessions with an interface, by their identity without it.
    std::map<std::string, std::string> bound_;
};

agent_config reader::read(const toml::table &root)
{
    agent_config config;
    std::deque<config_section> sections;
    config_section &main = sections.emplace_back(root, file_);
    include(main);
    for (const auto &each : included_)
        sections.emplace_back(each, file_);
    if (const auto *agent = main.find("agent"))
        read_agent(main.as_table(*agent, "agent"), config);
    if (const auto *defaults = main.find("defaults")) {
        defaults_ = &main.as_table(*defaults, "defaults");
        check_defaults(*defaults_);
    }
    for (auto &each : sections)
        read_profiles(each);
    for (auto &each : sections) {
        read_sessions(each, config);
        each.expect_no_more();
    }
    return config;
}

void reader::include(config_section &main)
{
    if (const auto *patterns = main.find("include"))
        for (const auto &each : main.as_array(*patterns, "include"))
            include_matches(main, each);
}

// In the order of their names. A pattern may match nothing, but not because a directory cannot be
// read: its sessions would be gone without a word.
void reader::include_matches(const config_section &main, const toml::node &pattern)
{
    const std::string text = main.as_text(pattern, "include");
    const std::string path = std::filesystem::path(file_).parent_path() / text;
    const auto is_failure = [](const char *, int error) {
        return error == ENOENT || error == ENOTDIR ? 0 : 1;
    };
    glob_t found = {};
    const int result = glob(path.c_str(), 0, is_failure, &found);
    const std::unique_ptr<glob_t, void (*)(glob_t *)> owner(&found, globfree);
    const bool is_pattern = text.find_first_of("*?[") != std::string::npos;
    if (result == GLOB_NOMATCH && !is_pattern)
        main.fail(pattern, "there is no file " + path + " to include");
    if (result != 0 && result != GLOB_NOMATCH)
        main.fail(pattern, "cannot look for files to include at " + path);
    for (std::size_t i = 0; i < found.gl_pathc; ++i) {
        const std::string name = found.gl_pathv[i];
        included_.push_back(toml::parse(read_whole_file(name), name));
    }
}

void reader::read_profiles(config_section &section)
{
    const toml::node *profiles = section.find("profile");
    if (profiles == nullptr)
        return;
    for (const auto &[name, node] : section.as_table(*profiles, "profile")) {
        const toml::table &profile = section.as_table(node, "profile");
        check_defaults(profile);
        if (!profiles_.emplace(name.str(), &profile).second)
            section.fail(node, "duplicate profile '" + std::string(name.str()) + "'");
    }
}

void reader::read_sessions(config_section &section, agent_config &config)
{
    if (const auto *sessions = section.find("session"))
        for (const auto &each : section.as_array(*sessions, "session"))
            read_session(section.as_table(each, "session"), config);
}

void reader::read_agent(const toml::table &table, agent_config &config)
{
    config_section section(table, file_);
    config.metrics_file = section.text("metrics-file", "");
    if (const auto *file = section.find("metrics-file");
        file != nullptr && !config.metrics_file.ends_with(".prom"))
        section.fail(*file, "'metrics-file' must end in .prom, or the node exporter ignores it");
    config.metrics_listen = read_endpoint(section, "metrics-listen");
    section.expect_no_more();
}

// A default must be valid even if no session uses it.
void reader::check_defaults(const toml::table &table)
{
    config_section section(table, file_);
    for (const auto key : default_keys)
        (void)section.find(key);
    section.expect_no_more();
    session_config any;
    read_place(section, any);
    (void)section.address("local");
    read_timing(section, any);
    read_security(section, any);
    read_on_change(section, any);
}

// Where a session's values come from that it does not have itself.
std::vector<const toml::table *> reader::others_for(const toml::table &session)
{
    std::vector<const toml::table *> others;
    config_section section(session, file_);
    if (const auto *profile = section.find("profile")) {
        const auto found = profiles_.find(section.as_text(*profile, "profile"));
        if (found == profiles_.end())
            section.fail(*profile, "there is no table [profile." +
                                       section.as_text(*profile, "profile") + "]");
        others.push_back(found->second);
    }
    if (defaults_ != nullptr)
        others.push_back(defaults_);
    return others;
}

void reader::read_session(const toml::table &table, agent_config &config)
{
    config_section section(table, file_, others_for(table));
    (void)section.find_own("profile");
    session_config session;
    session.name = read_name(section);
    session.admin_down = section.flag("admin-down", false);
    read_place(section, session);
    (void)section.find_own("echo"); // see add_guard
    read_addresses(section, session);
    read_timing(section, session);
    read_security(section, session);
    read_kind(section, session);
    read_on_change(section, session);
    const std::vector<std::string> members = read_members(section, session);
    section.expect_no_more();

    if (members.empty())
        add(section, config, session);
    add_guard(section, config, session);
    for (const auto &member : members) {
        session_config link = session;
        link.name += "/" + member;
        link.member = member;
        add(section, config, link);
    }
}

std::string reader::read_name(config_section &section)
{
    const toml::node &node = section.require("name");
    std::string name = section.as_text(node, "name");
    if (!is_word(name))
        section.fail(node, "'name' must be a word without spaces, quotes and backslashes");
    return name;
}

void reader::read_place(config_section &section, session_config &session)
{
    if (const auto *kind = section.find("type")) {
        const auto known = kind_named(section.as_text(*kind, "type"));
        if (!known)
            section.fail(*kind, "'type' must be one of: single-hop, multihop, lag, echo, sbfd");
        session.kind = *known;
    }
    session.netns = section.text("namespace", "");
    session.interface = section.text("interface", "");
    if (!session.interface.empty() && !is_interface_name(session.interface))
        section.fail(section.require("interface"), "'interface' must be an interface name");
}

void reader::read_addresses(config_section &section, session_config &session)
{
    (void)section.require("local");
    session.local = *section.address("local");
    const toml::node &peer = section.require("peer");
    session.peer = *section.address("peer");
    if (session.local.family != session.peer.family)
        section.fail(peer, "'local' and 'peer' must both be IPv4 or both be IPv6 addresses");
    if (session.local == session.peer)
        section.fail(peer, "'local' and 'peer' must be different addresses");
    const auto &octets = session.peer.octets;
    const bool is_link_local =
        session.peer.family == AF_INET6 && octets[0] == 0xfe && (octets[1] & 0xc0) == 0x80;
    if (is_link_local && session.interface.empty())
        section.fail(peer, "a link-local 'peer' requires an 'interface'");
}

void reader::read_timing(config_section &section, session_config &session)
{
    session.timing.desired_min_tx = section.duration("min-tx", session.timing.desired_min_tx);
    session.timing.required_min_rx = section.duration("min-rx", session.timing.required_min_rx);
    session.multiplier = static_cast<std::uint8_t>(section.number("multiplier", 1, 255, 3));
}

void reader::read_security(config_section &section, session_config &session)
{
    const std::string role = section.text("role", "active");
    if (role != "active" && role != "passive")
        section.fail(section.require("role"), "'role' must be \"active\" or \"passive\"");
    session.passive = role == "passive";

    if (const auto *auth = section.find("auth"))
        session.auth = read_authentication(section.as_table(*auth, "auth"), file_, warnings_);

    const bool is_direct =
        session.kind == session_kind::single_hop || session.kind == session_kind::lag;
    session.required_ttl = is_direct ? KELM_AUTH_TTL_255 : 0;
    if (session.kind == session_kind::echo)
        session.required_ttl = KELM_AUTH_TTL_254; // the neighbour forwards it once
    if (const auto *ttl = section.find("ttl-security")) {
        const auto *required = ttl->as_integer();
        const auto *wanted = ttl->as_boolean();
        if (wanted != nullptr && !wanted->get())
            session.required_ttl = 0;
        else if (required != nullptr && required->get() == 255)
            session.required_ttl = KELM_AUTH_TTL_255;
        else if (required != nullptr && required->get() == 254)
            session.required_ttl = KELM_AUTH_TTL_254;
        else
            section.fail(*ttl, "'ttl-security' must be 255 or 254, the TTL or hop limit that "
                               "packets must arrive with, or false");
    }
}

void reader::read_kind(config_section &section, session_config &session)
{
    const bool wants_interface =
        session.kind == session_kind::echo || session.kind == session_kind::lag;
    if (wants_interface && session.interface.empty())
        section.fail("this type of session requires an 'interface'");
    if (is_alone(session.kind) && session.passive)
        section.fail(section.require("role"), "this type of session cannot be passive");
    read_echo(section, session);
    if (session.kind == session_kind::multihop)
        session.minimum_ttl = static_cast<std::uint8_t>(section.number("minimum-ttl", 1, 255, 0));
    if (session.kind == session_kind::sbfd)
        session.remote_discriminator = static_cast<std::uint32_t>(section.as_number(
            section.require("remote-discriminator"), "remote-discriminator", 1, most_32_bits));
}

void reader::read_on_change(config_section &section, session_config &session)
{
    session.on_change = section.text("on-change", "");
    if (!session.on_change.empty() && !session.on_change.starts_with('/'))
        section.fail(section.require("on-change"),
                     "'on-change' must be the full path of a program, as in "
                     "\"/usr/local/bin/bfd-changed\"");
}

void reader::read_echo(config_section &section, session_config &session)
{
    if (session.kind == session_kind::single_hop)
        session.min_echo_rx = section.duration("min-echo-rx", 0);
    if (session.kind == session_kind::echo) {
        if (const auto source = section.address("source"))
            session.source = *source;
        if (session.source.family != 0 && session.source.family != session.local.family)
            section.fail(section.require("source"),
                         "'source' and 'local' must both be IPv4 or both be IPv6 addresses");
        read_peer_mac(section, session);
    }
}

void reader::read_peer_mac(config_section &section, session_config &session)
{
    const auto *mac = section.find("peer-mac");
    if (mac == nullptr)
        return;
    session.peer_mac = kelm::mac_address::parse(section.as_text(*mac, "peer-mac"));
    if (!session.peer_mac)
        section.fail(*mac, "'peer-mac' must be an Ethernet address, as in \"02:00:00:12:34:56\"");
}

// The echo function is a session of its own, which runs while the guarded one is Up.
void reader::add_guard(config_section &section, agent_config &config, const session_config &guarded)
{
    const toml::node *node = section.find_own("echo");
    if (node == nullptr)
        return;
    if (guarded.kind != session_kind::single_hop || guarded.interface.empty())
        section.fail(*node, "'echo' requires a single-hop session with an 'interface'");
    config_section own(section.as_table(*node, "echo"), file_);
    session_config guard;
    guard.name = guard_name(guarded.name);
    guard.kind = session_kind::echo;
    guard.netns = guarded.netns;
    guard.local = guarded.local;
    guard.peer = guarded.peer;
    guard.interface = guarded.interface;
    guard.guards = guarded.name;
    guard.required_ttl = KELM_AUTH_TTL_254;
    guard.timing.desired_min_tx = own.duration("interval", guarded.timing.desired_min_tx);
    guard.timing.required_min_rx = guard.timing.desired_min_tx;
    guard.multiplier =
        static_cast<std::uint8_t>(own.number("multiplier", 1, 255, guarded.multiplier));
    read_echo(own, guard);
    own.expect_no_more();
    add(section, config, std::move(guard));
}

std::vector<std::string> reader::read_members(config_section &section,
                                              const session_config &session)
{
    std::vector<std::string> members;
    if (session.kind != session_kind::lag)
        return members;
    const toml::node &node = section.require("members");
    for (const auto &each : section.as_array(node, "members")) {
        members.push_back(section.as_text(each, "members"));
        if (!is_interface_name(members.back()) || members.back() == session.interface)
            section.fail(each, "'members' must be names of member interfaces");
    }
    if (members.empty())
        section.fail(node, "'members' must name at least one interface");
    return members;
}

// RFC 5881 section 3: one session per pair of addresses and interface. A session without interface
// would compete with the others for their packets.
void reader::expect_one_session_per_pair(config_section &section, const session_config &session)
{
    session_config anywhere = session;
    anywhere.interface.clear();
    const std::string pair = identity_text(anywhere);
    const auto &others = session.interface.empty() ? bound_ : identities_;
    if (const auto other = others.find(pair); other != others.end())
        section.fail("sessions '" + other->second + "' and '" + session.name +
                     "' have the same addresses, but only one has an 'interface'");
    if (!session.interface.empty())
        bound_.emplace(pair, session.name);
}

void reader::add(config_section &section, agent_config &config, session_config session)
{
    if (!names_.insert(session.name).second)
        section.fail("duplicate session name '" + session.name + "'");
    const auto [same, is_new] = identities_.emplace(identity_text(session), session.name);
    if (!is_new)
        section.fail("session '" + session.name + "' duplicates '" + same->second +
                     "': same type, namespace, addresses and interface");
    expect_one_session_per_pair(section, session);
    config.sessions.push_back(std::move(session));
}

} // namespace

agent_config parse_config(const std::string &text, const std::string &file,
                          std::vector<std::string> &warnings)
{
    try {
        return reader(file, warnings).read(toml::parse(text, file));
    } catch (const toml::parse_error &problem) {
        const auto &path = problem.source().path;
        throw config_error(path ? *path : file, problem.source().begin.line,
                           std::string(problem.description()));
    }
}

agent_config load_config(const std::string &file, std::vector<std::string> &warnings)
{
    return parse_config(read_whole_file(file), file, warnings);
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "platform/user/process.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace kelmd
{

namespace
{

std::string proc_path(pid_t pid, const char *file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

std::optional<std::string> read_file(const std::string &path)
{
    std::ifstream file(path);
    std::string text(std::istreambuf_iterator<char>(file), {});
    if (!file || text.empty())
        return std::nullopt;
    return text;
}

// The words after "name:" at the beginning of a line.
std::optional<std::string_view> line_value(std::string_view text, std::string_view name)
{
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        if (line.starts_with(name) && line.substr(name.size()).starts_with(':'))
            return line.substr(name.size() + 1);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
    return std::nullopt;
}

// Takes the first number off the words; false if they do not begin with one.
template<typename Number>
bool take_number(std::string_view &words, Number &number, int base = 10)
{
    words.remove_prefix(std::min(words.find_first_not_of(" \t"), words.size()));
    const auto [end, error] =
        std::from_chars(words.data(), words.data() + words.size(), number, base);
    if (error != std::errc{})
        return false;
    words.remove_prefix(static_cast<std::size_t>(end - words.data()));
    return true;
}

bool shares_our_user_namespace(pid_t pid)
{
    struct stat theirs;
    struct stat ours;
    return stat(proc_path(pid, "ns/user").c_str(), &theirs) == 0 &&
           stat("/proc/self/ns/user", &ours) == 0 && theirs.st_ino == ours.st_ino &&
           theirs.st_dev == ours.st_dev;
}

std::uint64_t start_time_of(pid_t pid)
{
    const auto text = read_file(proc_path(pid, "stat"));
    return text ? parse_start_time(*text).value_or(0) : 0;
}

bool has_bit(std::uint64_t set, int bit)
{
    return (set >> bit & 1) != 0;
}

bool has_ended(const std::error_code &error)
{
    return error == std::errc::no_such_file_or_directory || error == std::errc::no_such_process;
}

// Adds the network namespaces of a process's threads. False if they cannot all be known.
bool add_namespaces_of(const std::filesystem::path &process, std::set<netns_key> &namespaces)
{
    std::error_code error;
    for (std::filesystem::directory_iterator thread(process / "task", error), end; thread != end;
         thread.increment(error)) {
        struct stat status;
        if (stat((thread->path() / "ns/net").c_str(), &status) == 0)
            namespaces.insert({status.st_dev, status.st_ino});
        else if (!has_ended({errno, std::generic_category()}))
            return false;
    }
    return !error || has_ended(error);
}

} // namespace

std::optional<process_status> parse_status(std::string_view text)
{
    process_status status{};
    auto uids = line_value(text, "Uid");
    auto capabilities = line_value(text, "CapEff");
    uid_t real_uid = 0; // comes first
    if (!uids || !capabilities || !take_number(*uids, real_uid) ||
        !take_number(*uids, status.effective_uid) ||
        !take_number(*capabilities, status.effective_capabilities, 16))
        return std::nullopt;
    return status;
}

std::optional<std::uint64_t> parse_start_time(std::string_view text)
{
    // The second field is the command in parentheses and may hold anything, parentheses too.
    const std::size_t command_end = text.rfind(')');
    if (command_end == std::string_view::npos)
        return std::nullopt;
    text.remove_prefix(command_end + 1);
    constexpr int fields_between = 19; // start time is field 22
    for (int i = 0; i < fields_between; ++i) {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
        text.remove_prefix(std::min(text.find(' '), text.size()));
    }
    std::uint64_t start_time = 0;
    if (!take_number(text, start_time))
        return std::nullopt;
    return start_time;
}

peer_process identify(pid_t pid, uid_t uid)
{
    return {.pid = pid, .uid = uid, .start_time = pid > 0 ? start_time_of(pid) : 0};
}

bool parse_secure(std::string_view auxv)
{
    std::array<unsigned long, 2> entry{}; // type and value
    for (; auxv.size() >= sizeof entry; auxv.remove_prefix(sizeof entry)) {
        std::memcpy(entry.data(), auxv.data(), sizeof entry);
        if (entry[0] == AT_SECURE)
            return entry[1] != 0;
    }
    return true;
}

std::uint64_t capabilities_of(const peer_process &peer)
{
    if (peer.pid <= 0 || peer.start_time == 0)
        return 0;
    const auto text = read_file(proc_path(peer.pid, "status"));
    const auto status = text ? parse_status(*text) : std::nullopt;
    if (!status || status->effective_uid != peer.uid || !shares_our_user_namespace(peer.pid))
        return 0;
    // After the status: a program with file capabilities keeps its user. Root had all before.
    if (peer.uid != 0 && parse_secure(read_file(proc_path(peer.pid, "auxv")).value_or("")))
        return 0;
    // Last, so that all that was read before belongs to this process.
    return start_time_of(peer.pid) == peer.start_time ? status->effective_capabilities : 0;
}

bool have_capability(int capability)
{
    const auto text = read_file("/proc/thread-self/status");
    const auto status = text ? parse_status(*text) : std::nullopt;
    return status && has_bit(status->effective_capabilities, capability);
}

void keep_capabilities(std::span<const int> capabilities)
{
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> kept;
    if (syscall(SYS_capget, &header, kept.data()) != 0)
        return;
    std::array<__u32, _LINUX_CAPABILITY_U32S_3> wanted{};
    for (const int capability : capabilities)
        wanted[static_cast<std::size_t>(CAP_TO_INDEX(capability))] |=
            static_cast<__u32>(CAP_TO_MASK(capability));
    for (std::size_t i = 0; i < kept.size(); ++i) {
        kept[i].effective &= wanted[i];
        kept[i].permitted &= wanted[i];
        kept[i].inheritable = 0;
    }
    syscall(SYS_capset, &header, kept.data());
}

std::string describe_process(pid_t pid)
{
    std::string name = read_file(proc_path(pid, "comm")).value_or("a process\n");
    name.pop_back();
    // A process calls itself what it likes; a log line is one line.
    std::ranges::replace_if(
        name, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return name + " (pid " + std::to_string(pid) + ")";
}

std::optional<std::set<netns_key>> inhabited_namespaces()
{
    std::set<netns_key> inhabited;
    bool sees_init = false;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        std::string_view digits = name;
        pid_t pid = 0;
        if (!take_number(digits, pid) || !digits.empty())
            continue;
        sees_init |= pid == 1;
        if (pid != getpid() && !add_namespaces_of(entry->path(), inhabited))
            return std::nullopt;
    }
    // Where /proc hides processes (hidepid=), the first of all is hidden too.
    if (error || !sees_init)
        return std::nullopt;
    return inhabited;
}

} // namespace kelmd

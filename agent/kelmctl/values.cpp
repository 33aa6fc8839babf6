// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/values.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

#include "kelmctl/command.h"
#include "libkelm/error.h"
#include "libkelm/fd.h"

namespace kelmctl
{

namespace
{

constexpr size_t max_key_file = 4096; // far above any key; somebody named the wrong file

[[noreturn]] void reject(std::string_view what, const std::string &text, const std::string &wanted)
{
    throw usage_error(std::string(what) + ": '" + text + "' is not " + wanted);
}

struct unit {
    std::string_view name;
    double microseconds;
};

constexpr unit units[] = {{"us", 1}, {"ms", 1e3}, {"s", 1e6}, {"min", 60e6}};

} // namespace

uint32_t parse_number(std::string_view what, const std::string &text, uint32_t least, uint32_t most)
{
    const bool hexadecimal = text.starts_with("0x");
    const char *end = text.data() + text.size();
    uint32_t number = 0;
    const auto [stop, problem] =
        std::from_chars(text.data() + (hexadecimal ? 2 : 0), end, number, hexadecimal ? 16 : 10);
    if (problem != std::errc() || stop != end || number < least || number > most)
        reject(what, text,
               "a number from " + std::to_string(least) + " to " + std::to_string(most));
    return number;
}

kelm_microsecs parse_duration(std::string_view what, const std::string &text)
{
    const char *end = text.data() + text.size();
    double number = 0;
    const auto [stop, problem] =
        std::from_chars(text.data(), end, number, std::chars_format::fixed);
    const std::string_view suffix(stop, static_cast<size_t>(end - stop));
    if (problem == std::errc() && number == 0 && suffix.empty())
        return 0;
    for (const auto &unit : units) {
        const double product = std::round(number * unit.microseconds);
        if (problem != std::errc() || suffix != unit.name || number < 0)
            continue;
        if (product > std::numeric_limits<kelm_microsecs>::max())
            reject(what, text, "below 4294 seconds");
        return static_cast<kelm_microsecs>(product);
    }
    reject(what, text, "a time with its unit, as in 300ms, 1.5s or 750us");
}

uint32_t parse_name(std::string_view what, kelm::name_table names, const std::string &text)
{
    const auto number = kelm::number_of(names, text);
    if (!number)
        reject(what, text, "one of: " + kelm::all_names(names));
    return *number;
}

bool parse_switch(std::string_view what, const std::string &text)
{
    if (text != "on" && text != "off")
        reject(what, text, "on or off");
    return text == "on";
}

kelm::ip_address parse_address(std::string_view what, const std::string &text)
{
    const auto address = kelm::ip_address::parse(text);
    if (!address)
        reject(what, text, "an IPv4 or IPv6 address");
    return *address;
}

kelm::mac_address parse_mac(std::string_view what, const std::string &text)
{
    const auto address = kelm::mac_address::parse(text);
    if (!address)
        reject(what, text, "an Ethernet address, as in 02:00:00:12:34:56");
    return *address;
}

uint32_t parse_discriminator(const std::string &text)
{
    return parse_number("discriminator", text, 1, std::numeric_limits<uint32_t>::max());
}

std::vector<uint32_t> parse_discriminators(const std::string &text)
{
    std::vector<uint32_t> list;
    for (size_t start = 0; start <= text.size();) {
        const size_t comma = std::min(text.find(',', start), text.size());
        list.push_back(parse_discriminator(text.substr(start, comma - start)));
        start = comma + 1;
    }
    return list;
}

kelm::bytes read_key(const std::string &path)
{
    const bool is_input = path == "-";
    const kelm::unique_fd file(is_input ? dup(STDIN_FILENO)
                                        : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        kelm::throw_errno(errno, "cannot open key file " + path);
    struct stat status = {};
    if (fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0)
        std::fprintf(stderr, "kelmctl: warning: key file %s is open to other users (chmod 600)\n",
                     path.c_str());

    kelm::bytes key(max_key_file + 1);
    size_t length = 0;
    ssize_t got = 0;
    while (length < key.size() &&
           (got = read(file.get(), key.data() + length, key.size() - length)) > 0)
        length += static_cast<size_t>(got);
    if (got < 0)
        kelm::throw_errno(errno, "cannot read key file " + path);
    if (length > max_key_file)
        throw kelm::error(EFBIG, path + " is too long for a key file");
    key.resize(length);
    if (!key.empty() && key.back() == '\n')
        key.pop_back();
    return key;
}

} // namespace kelmctl

// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/config_auth.h"

#include <algorithm>
#include <filesystem>

#include "libkelm/error.h"
#include "libkelm/key_file.h"
#include "libkelm/names.h"
#include "libkelm/packet.h"

namespace kelm_agent
{

namespace
{

kelm::bytes read_secret(config_section &section, std::vector<std::string> &warnings)
{
    const toml::node &node = section.require("file");
    const std::filesystem::path directory = std::filesystem::path(section.file()).parent_path();
    const std::string path = directory / section.as_text(node, "file");
    try {
        bool is_exposed = false;
        kelm::bytes secret = kelm::read_key_file(path, is_exposed);
        const std::string warning =
            "key file " + path + " is accessible to other users (chmod 600)";
        if (is_exposed && std::ranges::find(warnings, warning) == warnings.end())
            warnings.push_back(warning);
        return secret;
    } catch (const kelm::error &problem) {
        section.fail(node, problem.what());
    }
}

auth_key read_key(const toml::table &table, std::uint8_t type, const std::string &file,
                  std::vector<std::string> &warnings)
{
    config_section section(table, file);
    auth_key key;
    key.id = static_cast<std::uint8_t>(section.as_number(section.require("id"), "id", 0, 255));
    key.secret = read_secret(section, warnings);
    section.expect_no_more();
    try {
        (void)kelm::key_slot({type, key.id, key.secret});
    } catch (const kelm::error &problem) {
        section.fail(problem.what());
    }
    return key;
}

std::uint8_t read_type(config_section &section)
{
    const toml::node &node = section.require("type");
    const auto type = kelm::number_of(kelm::auth_type_names, section.as_text(node, "type"));
    if (!type)
        section.fail(node, "'type' must be one of: " + kelm::all_names(kelm::auth_type_names));
    return static_cast<std::uint8_t>(*type);
}

// The key that is sent: the one with the id `send`, or the first.
std::size_t read_sending(config_section &section, const std::vector<auth_key> &keys)
{
    const toml::node *node = section.find("send");
    if (node == nullptr)
        return 0;
    const auto id = section.as_number(*node, "send", 0, 255);
    const auto found = std::ranges::find(keys, id, &auth_key::id);
    if (found == keys.end())
        section.fail(*node, "'send' must be the id of one of the keys");
    return static_cast<std::size_t>(found - keys.begin());
}

} // namespace

authentication read_authentication(const toml::table &table, const std::string &file,
                                   std::vector<std::string> &warnings)
{
    config_section section(table, file);
    authentication auth;
    auth.type = read_type(section);
    const toml::node *keys = section.find("keys");
    const bool wants_keys = auth.type != BFD_AUTH_NONE && auth.type != BFD_AUTH_DEBUG_SEQNUM;
    if (wants_keys != (keys != nullptr))
        section.fail(wants_keys ? "'keys' is missing: one or two of { id = 1, file = \"...\" }"
                                : "this type of authentication takes no 'keys'");
    if (keys != nullptr) {
        const toml::array &list = section.as_array(*keys, "keys");
        if (list.empty() || list.size() > KELM_NUM_AUTH_KEYS)
            section.fail(list, "'keys' must be a list of one or two keys");
        for (const auto &each : list)
            auth.keys.push_back(
                read_key(section.as_table(each, "keys"), auth.type, file, warnings));
        if (auth.keys.size() == 2 && auth.keys[0].id == auth.keys[1].id)
            section.fail(list, "the keys must have different ids");
    }
    auth.sending = read_sending(section, auth.keys);
    section.expect_no_more();
    return auth;
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/auth_arguments.h"

namespace kelmctl
{

bool has_key(std::uint8_t auth_type)
{
    return auth_type != BFD_AUTH_NONE && auth_type != BFD_AUTH_DEBUG_SEQNUM;
}

namespace
{

kelm::auth_settings read_settings(const arguments &args, std::uint8_t type, const char *id_name,
                                  const char *file_name)
{
    kelm::auth_settings settings;
    settings.type = type;
    settings.key_id = static_cast<std::uint8_t>(args.number(id_name, 0, 255).value_or(1));
    settings.key = read_key(args.required(file_name, args.text(file_name)));
    return settings;
}

} // namespace

kelm::auth_settings auth_argument(const arguments &args)
{
    const auto type = static_cast<std::uint8_t>(
        args.choice("auth", kelm::auth_type_names).value_or(BFD_AUTH_NONE));
    if (has_key(type))
        return read_settings(args, type, "key-id", "key-file");
    for (const char *name : {"key-id", "key-file", "key2-id", "key2-file"})
        if (args.has(name))
            throw usage_error(std::string("'") + name + "' requires an 'auth' type with a key");
    kelm::auth_settings settings;
    settings.type = type;
    return settings;
}

std::optional<kelm::auth_settings> second_key_argument(const arguments &args,
                                                       std::uint8_t auth_type)
{
    if (args.has("key2-id") && !args.has("key2-file"))
        throw usage_error("'key2-file' is missing");
    if (!args.has("key2-file"))
        return std::nullopt;
    return read_settings(args, auth_type, "key2-id", "key2-file");
}

} // namespace kelmctl

// SPDX-License-Identifier: GPL-2.0
//
// The configuration file: from TOML to a complete, validated model.
#pragma once

#include <stdexcept>

#include "kelm-agent/model.h"

namespace kelm_agent
{

// The text names file and line, what is wrong, and what would be valid.
class config_error : public std::runtime_error
{
  public:
    config_error(const std::string &file, std::uint32_t line, const std::string &text)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + text)
    {
    }
};

// Adds to `warnings` what does not make the configuration invalid. Reads key files; relative paths
// are relative to the directory of `file`. Throws config_error, or kelm::error if the file itself
// cannot be read.
agent_config load_config(const std::string &file, std::vector<std::string> &warnings);

// The same for a text; errors name `file`.
agent_config parse_config(const std::string &text, const std::string &file,
                          std::vector<std::string> &warnings);

} // namespace kelm_agent

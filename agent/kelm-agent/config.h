// SPDX-License-Identifier: GPL-2.0
//
// The configuration file: TOML in, a complete and checked model out.
#pragma once

#include <stdexcept>

#include "kelm-agent/model.h"

namespace kelm_agent
{

// Says file and line, what is wrong there, and what would be right.
class config_error : public std::runtime_error
{
  public:
    config_error(const std::string &file, std::uint32_t line, const std::string &text)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + text)
    {
    }
};

// `warnings` gets what does not keep the configuration from being used. Key files are read; names
// that are not absolute start from the directory of `file`. Throws config_error, or kelm::error if
// the file itself cannot be read.
agent_config load_config(const std::string &file, std::vector<std::string> &warnings);

// The same for text that is at hand; `file` is what errors call it.
agent_config parse_config(const std::string &text, const std::string &file,
                          std::vector<std::string> &warnings);

} // namespace kelm_agent

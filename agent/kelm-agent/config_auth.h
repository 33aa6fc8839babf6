// SPDX-License-Identifier: GPL-2.0
#pragma once

#include "kelm-agent/config_section.h"

namespace kelm_agent
{

// The table `auth` of a session, keys included. Throws config_error.
authentication read_authentication(const toml::table &, const std::string &file,
                                   std::vector<std::string> &warnings);

} // namespace kelm_agent

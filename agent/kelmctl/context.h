// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <cerrno>
#include <optional>

#include "kelmctl/options.h"
#include "kelmctl/printer.h"
#include "libkelm/client.h"
#include "libkelm/error.h"
#include "libkelm/interfaces.h"

namespace kelmctl
{

// What a command works with. Connections are made when they are first asked for.
class context
{
  public:
    context(const options &options, std::ostream &stream) : out(options, stream), options_(options)
    {
    }

    const options &opts() const { return options_; }

    kelm::client &client()
    {
        if (!client_)
            client_.emplace(options_.netns);
        return *client_;
    }

    // Those of the namespace that kelm is talked to in.
    const kelm::interfaces &links()
    {
        if (!links_)
            links_.emplace(options_.netns);
        return *links_;
    }

    // Throws kelm::error when there is no such interface.
    std::uint32_t interface_index(const std::string &name)
    {
        const auto index = links().index(name);
        if (!index)
            throw kelm::error(ENODEV,
                              "there is no interface " + name + " in the network namespace");
        return *index;
    }

    printer out;

  private:
    const options &options_;
    std::optional<kelm::client> client_;
    std::optional<kelm::interfaces> links_;
};

} // namespace kelmctl

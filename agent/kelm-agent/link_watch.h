// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <string>

#include "shared/unique_fd.h"

namespace kelm_agent
{

// Readable when something about the network interfaces or neighbours of a namespace has changed.
class link_watch
{
  public:
    // Throws kelm::error.
    explicit link_watch(const std::string &netns);

    int fd() const { return fd_.get(); }
    // Forgets what has been reported.
    void drain();

  private:
    kelm::unique_fd fd_;
};

} // namespace kelm_agent

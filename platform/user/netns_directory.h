// SPDX-License-Identifier: GPL-2.0
//
// The directory of named network namespaces, /run/netns: its names, and a watch on it. Control
// thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "platform/user/event_loop.h"
#include "platform/user/netns_key.h"
#include "shared/unique_fd.h"

namespace kelmd
{

struct netns_name {
    std::string name;
    netns_key key;
    kelm::unique_fd handle;
};

struct netns_listing {
    std::vector<netns_name> names;     // sorted
    std::vector<std::string> unusable; // files there that are no namespace, or not yet
};

// What is in the directory now; nothing if it does not exist. A name is made as a plain file
// first, then its namespace is mounted over it. Throws std::system_error if that cannot be known
// now, because descriptors or memory are short.
[[nodiscard]] netns_listing list_netns(const std::string &directory);

// Opens a namespace's file; no descriptor if it is not one. Throws as list_netns does.
[[nodiscard]] kelm::unique_fd open_netns(const std::string &path, netns_key &key);

class netns_directory
{
  public:
    // Calls changed after every change of the directory's names, from its being made on, and not
    // for mounts on them. Throws std::system_error if there is no watch to be had, or not even the
    // parent directory.
    netns_directory(event_loop &loop, std::string path, std::function<void()> changed);
    ~netns_directory();
    netns_directory(const netns_directory &) = delete;
    netns_directory &operator=(const netns_directory &) = delete;

  private:
    void read_events();
    void watch_what_exists();

    event_loop &loop_;
    const std::string path_;
    const std::function<void()> changed_;
    kelm::unique_fd inotify_;
    int directory_watch_ = -1;
    int parent_watch_ = -1; // while the directory does not exist
};

} // namespace kelmd

// SPDX-License-Identifier: GPL-2.0
#include "platform/user/netns_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <system_error>

#include "platform/user/system_call.h"

namespace kelmd
{

namespace
{

// Whether opening failed because of what the file is, not because resources are short.
bool is_no_namespace(int error)
{
    constexpr std::array reasons{ENOENT, ENOTDIR, ELOOP, EACCES, EPERM, ENXIO, ENODEV};
    return std::ranges::find(reasons, error) != reasons.end();
}

} // namespace

kelm::unique_fd open_netns(const std::string &path, netns_key &key)
{
    // O_NONBLOCK: it may be a FIFO.
    kelm::unique_fd handle(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!handle && is_no_namespace(errno))
        return {};
    checked(path.c_str(), handle.get());
    struct statfs filesystem;
    checked(path.c_str(), fstatfs(handle.get(), &filesystem));
    if (filesystem.f_type != NSFS_MAGIC ||
        checked(path.c_str(), ioctl(handle.get(), NS_GET_NSTYPE)) != CLONE_NEWNET)
        return {};
    struct stat status;
    checked(path.c_str(), fstat(handle.get(), &status));
    key = {status.st_dev, status.st_ino};
    return handle;
}

netns_listing list_netns(const std::string &directory)
{
    netns_listing listing;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; entry != end;
         entry.increment(error)) {
        std::string name = entry->path().filename();
        netns_key key{};
        if (kelm::unique_fd handle = open_netns(entry->path(), key))
            listing.names.push_back({std::move(name), key, std::move(handle)});
        else
            listing.unusable.push_back(std::move(name));
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw std::system_error(error, directory);
    std::ranges::sort(listing.names, {}, &netns_name::name);
    return listing;
}

netns_directory::netns_directory(event_loop &loop, std::string path, std::function<void()> changed)
    : loop_(loop), path_(std::move(path)), changed_(std::move(changed)),
      inotify_(checked("inotify_init1", inotify_init1(IN_CLOEXEC | IN_NONBLOCK)))
{
    watch_what_exists();
    loop_.watch(inotify_.get(), EPOLLIN, [this](std::uint32_t) { read_events(); });
}

netns_directory::~netns_directory()
{
    loop_.unwatch(inotify_.get());
}

// The directory; or its parent, to see it being made.
void netns_directory::watch_what_exists()
{
    const std::string parent = std::filesystem::path(path_).parent_path();
    while (directory_watch_ < 0) {
        directory_watch_ =
            inotify_add_watch(inotify_.get(), path_.c_str(),
                              IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR);
        if (directory_watch_ >= 0 || parent_watch_ >= 0)
            break;
        // Then try again: it may have been made in between.
        parent_watch_ =
            checked(parent.c_str(), inotify_add_watch(inotify_.get(), parent.c_str(),
                                                      IN_CREATE | IN_MOVED_TO | IN_ONLYDIR));
    }
    if (directory_watch_ >= 0 && parent_watch_ >= 0) {
        inotify_rm_watch(inotify_.get(), parent_watch_);
        parent_watch_ = -1;
    }
}

void netns_directory::read_events()
{
    alignas(inotify_event) std::array<char, 4096> buffer;
    ssize_t len = 0;
    while ((len = ::read(inotify_.get(), buffer.data(), buffer.size())) > 0) {
        for (std::size_t at = 0; at < static_cast<std::size_t>(len);) {
            const auto &event = *reinterpret_cast<const inotify_event *>(buffer.data() + at);
            if (event.wd == directory_watch_ && (event.mask & IN_IGNORED) != 0)
                directory_watch_ = -1; // the directory is gone
            at += sizeof event + event.len;
        }
    }
    watch_what_exists();
    changed_();
}

} // namespace kelmd

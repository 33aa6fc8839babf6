// SPDX-License-Identifier: GPL-2.0
#include "kelm-agent/whole_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "libkelm/error.h"
#include "shared/unique_fd.h"

namespace kelm_agent
{

namespace
{

void write_all(int fd, const std::string &content, const std::string &path)
{
    std::size_t written = 0;
    while (written < content.size()) {
        const ssize_t count = write(fd, content.data() + written, content.size() - written);
        if (count < 0 && errno != EINTR)
            kelm::throw_errno(errno, "cannot write " + path);
        written += static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

} // namespace

std::string read_whole_file(const std::string &path)
{
    const kelm::unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        kelm::throw_errno(errno, "cannot open " + path);
    std::string content;
    std::array<char, 65536> piece;
    for (;;) {
        const ssize_t count = read(file.get(), piece.data(), piece.size());
        if (count < 0 && errno != EINTR)
            kelm::throw_errno(errno, "cannot read " + path);
        if (count == 0)
            return content;
        content.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
}

void replace_whole_file(const std::string &path, const std::string &content, mode_t mode)
{
    const std::string temporary = path + ".new";
    const kelm::unique_fd file(
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!file || fchmod(file.get(), mode) != 0)
        kelm::throw_errno(errno, "cannot create " + temporary);
    write_all(file.get(), content, temporary);
    if (rename(temporary.c_str(), path.c_str()) != 0)
        kelm::throw_errno(errno, "cannot rename " + temporary + " to " + path);
}

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
#include "libkelm/key_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

#include "libkelm/error.h"
#include "shared/unique_fd.h"

namespace kelm
{

namespace
{

constexpr std::size_t max_key_file = 4096; // far above any key: probably the wrong file

} // namespace

bytes read_key_file(const std::string &path, bool &is_exposed)
{
    const bool is_input = path == "-";
    const unique_fd file(is_input ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw_errno(errno, "cannot open key file " + path);
    struct stat status = {};
    is_exposed =
        fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & 077) != 0;

    bytes key(max_key_file + 1);
    std::size_t length = 0;
    ssize_t got = 0;
    while (length < key.size() &&
           (got = read(file.get(), key.data() + length, key.size() - length)) > 0)
        length += static_cast<std::size_t>(got);
    if (got < 0)
        throw_errno(errno, "cannot read key file " + path);
    if (length > max_key_file)
        throw error(EFBIG, path + " is too long for a key file");
    key.resize(length);
    if (!key.empty() && key.back() == '\n')
        key.pop_back();
    return key;
}

} // namespace kelm

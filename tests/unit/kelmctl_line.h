// SPDX-License-Identifier: GPL-2.0
//
// Running kelmctl inside a test.
#ifndef KELMCTL_LINE_H
#define KELMCTL_LINE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "kelmctl/run.h"

namespace kelmctl_line
{

using kelmctl::exit_status;

// A command line as main() gets it.
class words
{
  public:
    explicit words(const std::string &line)
    {
        std::istringstream stream(line);
        for (std::string word; stream >> word;)
            storage_.push_back(word);
        for (auto &word : storage_)
            pointers_.push_back(word.data());
        pointers_.push_back(nullptr);
    }

    std::span<char *const> span() const { return std::span(pointers_).first(pointers_.size() - 1); }

  private:
    std::vector<std::string> storage_;
    std::vector<char *> pointers_;
};

struct outcome {
    exit_status status;
    std::string out;
    std::string err;
};

inline outcome run_line(const std::string &line)
{
    std::ostringstream out;
    std::ostringstream err;
    const exit_status status = kelmctl::run(words("kelmctl " + line).span(), out, err);
    return {status, out.str(), err.str()};
}

// A file that goes with the test.
class temporary_file
{
  public:
    explicit temporary_file(const std::string &content)
    {
        const int fd = mkstemp(path_.data());
        EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
        close(fd);
    }
    ~temporary_file() { unlink(path_.c_str()); }
    const std::string &path() const { return path_; }

  private:
    std::string path_ = testing::TempDir() + "kelmctl-test-XXXXXX";
};

} // namespace kelmctl_line

#endif

// SPDX-License-Identifier: GPL-2.0
//
// Running kelmctl inside a test.
#pragma once

#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "kelmctl/run.h"

namespace kelmctl_line
{

struct outcome {
    kelmctl::exit_status status;
    std::string out;
    std::string err;
};

// Runs a command line, with words as a shell makes them of it where nothing is quoted.
inline outcome run_line(const std::string &line)
{
    std::istringstream stream("kelmctl " + line);
    std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (auto &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    std::ostringstream out;
    std::ostringstream err;
    const auto status = kelmctl::run(std::span(argv).first(words.size()), out, err);
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

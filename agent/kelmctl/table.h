// SPDX-License-Identifier: GPL-2.0
//
// Records as a table for people.
#pragma once

#include <limits>
#include <span>

#include "kelmctl/record.h"

namespace kelmctl
{

constexpr std::size_t any_width = std::numeric_limits<std::size_t>::max();

// The heading and a line for each record. Where that is wider than `max_width`, the columns with
// the labels of `expendable` are left out, one after the other until it fits.
std::vector<std::string> table_lines(const std::vector<record> &, std::size_t max_width = any_width,
                                     std::span<const std::string_view> expendable = {});

} // namespace kelmctl

// SPDX-License-Identifier: GPL-2.0
//
// Records as a table for people.
#ifndef KELMCTL_TABLE_H
#define KELMCTL_TABLE_H

#include <limits>
#include <span>

#include "kelmctl/record.h"

namespace kelmctl
{

constexpr size_t any_width = std::numeric_limits<size_t>::max();

// The heading and a line for each record. Where that is wider than `max_width`, the columns with
// the labels of `expendable` are left out, one after the other until it fits.
std::vector<std::string> table_lines(const std::vector<record> &, size_t max_width = any_width,
                                     std::span<const std::string_view> expendable = {});

} // namespace kelmctl

#endif

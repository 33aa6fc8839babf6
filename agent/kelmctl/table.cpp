// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/table.h"

#include <algorithm>
#include <cctype>

namespace kelmctl
{

namespace
{

constexpr std::size_t gap = 2;

struct column {
    std::string label;
    std::size_t width;
    bool right;
};

std::string heading(std::string label)
{
    std::ranges::transform(label, label.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return label;
}

const cell *find_cell(const record &in, const std::string &label)
{
    const auto found = std::ranges::find(in.cells(), label, &cell::label);
    return found == in.cells().end() ? nullptr : &*found;
}

// A record may lack cells that others have: what is new goes behind what its record has before it.
std::vector<column> find_columns(const std::vector<record> &records)
{
    std::vector<column> columns;
    for (const auto &record : records) {
        auto next = columns.begin();
        for (const auto &cell : record.cells()) {
            if (!cell.brief || cell.label.empty())
                continue;
            auto found = std::ranges::find(columns, cell.label, &column::label);
            if (found == columns.end())
                found = columns.insert(next, {cell.label, cell.label.size(), cell.is_counter});
            found->width = std::max(found->width, cell.text.size());
            next = found + 1;
        }
    }
    return columns;
}

std::size_t total_width(const std::vector<column> &columns)
{
    std::size_t total = 0;
    for (const auto &column : columns)
        total += (total == 0 ? 0 : gap) + column.width;
    return total;
}

std::string row(const std::vector<column> &columns, const std::vector<std::string> &texts)
{
    std::string line;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string padding(columns[i].width - texts[i].size(), ' ');
        line += (i == 0 ? "" : std::string(gap, ' ')) +
                (columns[i].right ? padding + texts[i] : texts[i] + padding);
    }
    return line.substr(0, line.find_last_not_of(' ') + 1);
}

} // namespace

std::vector<std::string> table_lines(const std::vector<record> &records, std::size_t max_width,
                                     std::span<const std::string_view> expendable)
{
    std::vector<column> columns = find_columns(records);
    for (const auto label : expendable)
        if (total_width(columns) > max_width)
            std::erase_if(columns, [&](const column &column) { return column.label == label; });

    std::vector<std::string> texts;
    texts.reserve(columns.size());
    for (const auto &column : columns)
        texts.push_back(heading(column.label));
    std::vector<std::string> lines = {row(columns, texts)};
    for (const auto &record : records) {
        texts.clear();
        for (const auto &column : columns) {
            const cell *found = find_cell(record, column.label);
            texts.push_back(found == nullptr || found->text.empty() ? "-" : found->text);
        }
        lines.push_back(row(columns, texts));
    }
    return lines;
}

} // namespace kelmctl

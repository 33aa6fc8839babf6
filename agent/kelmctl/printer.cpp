// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/printer.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <ostream>

#include "libkelm/error.h"

namespace kelmctl
{

namespace
{

using json = nlohmann::ordered_json;

json to_json(const json_value &value)
{
    if (const auto *time = std::get_if<kelm_time>(&value))
        return {{"sec", time->sec}, {"nsec", time->nsec}};
    if (const auto *flag = std::get_if<bool>(&value))
        return *flag;
    if (const auto *number = std::get_if<uint64_t>(&value))
        return *number;
    return std::get<std::string>(value);
}

json to_json(const record &from)
{
    json object = json::object();
    for (const auto &cell : from.cells()) {
        const size_t dot = cell.key.find('.');
        if (cell.key.empty())
            continue;
        if (dot == std::string::npos)
            object[cell.key] = to_json(cell.value);
        else
            object[cell.key.substr(0, dot)][cell.key.substr(dot + 1)] = to_json(cell.value);
    }
    return object;
}

// An interface's name need not be UTF-8.
void put_json(std::ostream &out, const json &value, bool pretty)
{
    out << value.dump(pretty ? 4 : -1, ' ', false, json::error_handler_t::replace) << '\n';
}

std::string heading(std::string label)
{
    std::ranges::transform(label, label.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return label;
}

std::string padding(size_t width, const std::string &text)
{
    return std::string(width - std::min(width, text.size()), ' ');
}

struct column {
    std::string label;
    size_t width;
    bool right;
};

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

void put_row(std::ostream &out, const std::vector<column> &columns,
             const std::vector<std::string> &texts)
{
    std::string row;
    for (size_t i = 0; i < columns.size(); i++) {
        const std::string pad = padding(columns[i].width, texts[i]);
        row += (i == 0 ? "" : "  ") + (columns[i].right ? pad + texts[i] : texts[i] + pad);
    }
    out << row.substr(0, row.find_last_not_of(' ') + 1) << '\n';
}

void put_table(std::ostream &out, const std::vector<record> &records)
{
    const std::vector<column> columns = find_columns(records);
    std::vector<std::string> texts;
    for (const auto &column : columns)
        texts.push_back(heading(column.label));
    put_row(out, columns, texts);
    for (const auto &record : records) {
        texts.clear();
        for (const auto &column : columns) {
            const cell *found = find_cell(record, column.label);
            texts.push_back(found == nullptr || found->text.empty() ? "-" : found->text);
        }
        put_row(out, columns, texts);
    }
}

void put_block(std::ostream &out, const record &record)
{
    size_t width = 0;
    for (const auto &cell : record.cells())
        width = std::max(width, cell.label.size());
    bool first = true;
    for (const auto &cell : record.cells()) {
        if (cell.label.empty())
            continue;
        if (first)
            out << cell.label << ' ' << cell.text << '\n';
        else if (!cell.text.empty())
            out << "    " << cell.label << padding(width + 2, cell.label) << cell.text << '\n';
        first = false;
    }
}

void put_line(std::ostream &out, const record &record, bool everything)
{
    const char *separator = "";
    for (const auto &cell : record.cells()) {
        if (cell.text.empty() || !(cell.brief || everything))
            continue;
        out << separator << cell.label << (cell.label.empty() ? "" : " ") << cell.text;
        separator = "  ";
    }
    out << '\n';
}

} // namespace

struct printer::array {
    json records = json::array();
    bool used = false;
};

printer::printer(const options &options, std::ostream &out)
    : options_(options), out_(out), array_(std::make_unique<array>())
{
}

printer::~printer() = default;

void printer::list(std::vector<record> records, bool blocks)
{
    array_->used = true;
    if (options_.json) {
        for (const auto &record : records)
            array_->records.push_back(to_json(record));
        return;
    }
    if (blocks || options_.statistics) {
        for (const auto &record : records) {
            out_ << (separate_ ? "\n" : "");
            put_block(out_, record);
            separate_ = true;
        }
    } else if (!records.empty()) {
        out_ << (separate_ ? "\n" : "");
        put_table(out_, records);
        separate_ = true;
    }
}

void printer::lines(std::vector<record> records)
{
    if (options_.json)
        return list(std::move(records));
    for (const auto &record : records)
        put_line(out_, record, options_.statistics);
}

void printer::event(const record &record)
{
    if (options_.json)
        put_json(out_, to_json(record), options_.pretty);
    else
        put_line(out_, record, options_.statistics);
    out_.flush();
    check_output();
}

void printer::finish()
{
    if (options_.json && array_->used)
        put_json(out_, array_->records, options_.pretty);
    out_.flush();
    check_output();
}

void printer::check_output()
{
    if (!out_)
        throw kelm::error(EIO, "cannot write the output");
}

} // namespace kelmctl

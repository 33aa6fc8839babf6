// SPDX-License-Identifier: GPL-2.0
#include "kelmctl/printer.h"

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <ostream>

#include "kelmctl/table.h"
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
    if (const auto *number = std::get_if<std::uint64_t>(&value))
        return *number;
    if (const auto *rate = std::get_if<double>(&value))
        return *rate;
    return std::get<std::string>(value);
}

json to_json(const record &from)
{
    json object = json::object();
    for (const auto &cell : from.cells()) {
        const std::size_t dot = cell.key.find('.');
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

std::string padding(std::size_t width, const std::string &text)
{
    return std::string(width - std::min(width, text.size()), ' ');
}

void put_table(std::ostream &out, const std::vector<record> &records)
{
    for (const auto &line : table_lines(records))
        out << line << '\n';
}

void put_block(std::ostream &out, const record &record)
{
    std::size_t width = 0;
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
    prepare(records);
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
    prepare(records);
    for (const auto &record : records)
        put_line(out_, record, options_.statistics);
}

void printer::event(record shown)
{
    if (options_.timestamps)
        shown.tell_times();
    if (options_.json)
        put_json(out_, to_json(shown), options_.pretty);
    else
        put_line(out_, shown, options_.statistics);
    flush();
}

void printer::array_at_once(const std::vector<record> &records)
{
    json all = json::array();
    for (const auto &record : records)
        all.push_back(to_json(record));
    put_json(out_, all, options_.pretty);
    flush();
}

void printer::text_at_once(const std::vector<std::string> &lines)
{
    for (const auto &line : lines)
        out_ << line << '\n';
    flush();
}

void printer::finish()
{
    if (options_.json && array_->used)
        put_json(out_, array_->records, options_.pretty);
    flush();
}

void printer::prepare(std::vector<record> &records) const
{
    if (options_.timestamps)
        for (auto &record : records)
            record.tell_times();
}

void printer::flush()
{
    out_.flush();
    if (!out_)
        throw kelm::error(EIO, "cannot write the output");
}

} // namespace kelmctl

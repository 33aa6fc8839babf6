// SPDX-License-Identifier: GPL-2.0
#pragma once

#include <iosfwd>
#include <memory>

#include "kelmctl/options.h"
#include "kelmctl/record.h"

namespace kelmctl
{

// Shows records in the form that the options ask for. Lists are shown by finish(): in JSON they
// are one array together.
class printer
{
  public:
    printer(const options &, std::ostream &);
    ~printer();

    // A table for people, or a block for each where they want everything.
    void list(std::vector<record>, bool blocks = false);
    // A line for each.
    void lines(std::vector<record>);
    // One line, at once.
    void event(record);
    // Output that is repeated: a JSON array of its own, or lines as they are.
    void array_at_once(const std::vector<record> &);
    void text_at_once(const std::vector<std::string> &lines);

    // Throws kelm::error when the output could not be written.
    void finish();

  private:
    struct array; // the JSON

    void prepare(std::vector<record> &) const;
    void flush();

    const options &options_;
    std::ostream &out_;
    std::unique_ptr<array> array_;
    bool separate_ = false; // an empty line goes in front of the next table or block
};

} // namespace kelmctl

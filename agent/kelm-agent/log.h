// SPDX-License-Identifier: GPL-2.0
//
// The agent's log: one line per event, as text, as JSON, or as fields for the journal.
#pragma once

#include <string>
#include <vector>

namespace kelm_agent
{

enum class log_form { text, json, journal };

// The journal if standard error is connected to it, else text.
log_form default_log_form();

struct log_field {
    std::string name; // lower case
    std::string value;
};

class logger
{
  public:
    explicit logger(log_form form) : form_(form) {}

    void error(const std::string &text) const;
    void warning(const std::string &text) const;
    void info(const std::string &text, const std::vector<log_field> &fields = {}) const;

  private:
    void write(int priority, const std::string &text, const std::vector<log_field> &fields) const;

    log_form form_;
};

} // namespace kelm_agent

// SPDX-License-Identifier: GPL-2.0
//
// The text builder of the protocol library, whose own texts never fill their buffers.
#include <gtest/gtest.h>

#include "trace_text.h"

namespace
{

TEST(trace_text, writes_numbers_in_full_and_cuts_off_what_does_not_fit)
{
    trace_text<40> text;
    EXPECT_STREQ(text.c_str(), "");
    text << 0u << " " << 10u << " " << 4294967295u << " " << hex_byte{0x0f} << hex_byte{0xa0};
    EXPECT_STREQ(text.c_str(), "0 10 4294967295 0fa0");

    trace_text<5> narrow;
    narrow << "abc" << 4567u << "x";
    EXPECT_STREQ(narrow.c_str(), "abc4");
}

} // namespace

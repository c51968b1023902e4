// The console's menu: its text, the line reader and the dispatch of the items typed.
#pragma once

#include <cstddef>
#include <cstdio>

namespace fsu::console {

constexpr std::size_t kLineSize = 1024;  // lines are cut at 1023 characters

// Prints the rule, the 23 item lines, the rule and the prompt.
void help_printf();

// Reads one line from `in` up to a line feed or carriage return, keeping at most size - 1
// characters (the rest of a longer line is read and dropped). Returns the number of
// characters kept, or -1 when the input has ended before any character came.
int read_console_line(std::FILE* in, char* line, std::size_t size);

// Decimal-prefix conversion of a typed line: leading blanks, a sign and digits; 0 for an
// empty or non-numeric line; values beyond int saturate.
int console_number(const char* line);

// Serves the menu on `in` until the input ends.
void menu_loop(std::FILE* in);

}  // namespace fsu::console

// Texts that others chose, such as names of hosts and labels of disks, on the way to a terminal or to a program.
#pragma once

#include <string>
#include <string_view>

namespace tool {

// With "?" for control characters, which would act on the terminal, and for what is no UTF-8.
std::string printable(std::string_view text);

// With U+FFFD for what is no UTF-8, which no reader of JSON takes.
std::string valid_utf8(std::string_view text);

// Characters as a terminal counts them.
size_t width_of(std::string_view text);

}  // namespace tool

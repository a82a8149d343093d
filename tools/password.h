// Passwords stand in no list of processes: they come from the terminal, a file or standard input.
#pragma once

#include <string>

namespace tool {

constexpr const char *password_file_help =
    "A file whose first line is the password; - for standard input. Asked for when left out";

// file: "-" is standard input; empty: asks on the terminal.
std::string read_password(const std::string &file);

}  // namespace tool

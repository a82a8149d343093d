// Configuration texts as lines, for models that do without the library's scanner.
#pragma once

#include <string>
#include <vector>

namespace tarn::fuzz {

using Lines = std::vector<std::string>;  // without their newlines

// As a file is loaded: a missing last newline is there, and an empty file is an empty line.
Lines lines_of(const std::string &text);
std::string text_of(const Lines &lines);

std::string trimmed(std::string text);  // without blanks and tabs at both ends
bool is_section_line(const std::string &line);

}  // namespace tarn::fuzz

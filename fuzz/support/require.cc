#include "fuzz/support/require.h"

#include <cstdio>
#include <cstdlib>

namespace tarn::fuzz {

void fail(const char *file, int line, const std::string &what) {
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what.c_str());
  abort();
}

std::string shown(const std::string &text) {
  std::string quoted = "\"";
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    char escaped[8];
    if (character == '\n') {
      quoted += "\\n";
    } else if (byte < ' ' || byte > '~' || character == '\\' || character == '"') {
      snprintf(escaped, sizeof escaped, "\\x%02x", byte);
      quoted += escaped;
    } else {
      quoted += character;
    }
  }
  return quoted + "\"";
}

std::string shown(const std::optional<std::string> &text) {
  return text ? shown(*text) : "(none)";
}

std::string shown(const std::map<std::string, std::string> &values) {
  std::string text;
  for (const auto &[key, value] : values) text += key + " = " + shown(value) + "; ";
  return text;
}

}  // namespace tarn::fuzz

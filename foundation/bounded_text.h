// Copying into a text of fixed size.
#pragma once

#include <cstddef>
#include <cstring>

namespace tarn {

// Copies as much as the field holds, and always ends it.
template <size_t size>
void copy_bounded(char (&field)[size], const char *text) {
  const size_t length = strnlen(text, size - 1);
  memcpy(field, text, length);
  field[length] = '\0';
}

}  // namespace tarn

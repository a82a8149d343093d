#include "include/tarncluster_util.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <utility>

int Decimal_String_To_Integer(const char *text, int64_t *value) {
  if (text == nullptr || value == nullptr) return -EINVAL;
  const bool negative = *text == '-';
  if (negative) ++text;

  uint64_t sum = 0;
  int digits = 0;
  for (; *text >= '0' && *text <= '9'; ++text, ++digits) sum = sum * 10 + static_cast<uint64_t>(*text - '0');
  *value = static_cast<int64_t>(negative ? 0 - sum : sum);
  return digits;
}

int Integer_To_Decimal_String(char *buffer, int *size, int64_t value) {
  if (buffer == nullptr || size == nullptr || *size < 1) return -EINVAL;
  char text[32];
  const int length = snprintf(text, sizeof text, "%" PRId64, value);
  memcpy(buffer, text, static_cast<size_t>(length) + 1);
  return 0;
}

void Swap_Integer(int *a, int *b) {
  if (a != nullptr && b != nullptr) std::swap(*a, *b);
}

int Size_Unit_Conversion(uint64_t size, float *value, char *unit, int unit_size) {
  static constexpr const char *units[] = {"byte", "KB", "MB", "GB", "TB"};
  constexpr size_t last = sizeof units / sizeof units[0] - 1;
  if (value == nullptr || unit == nullptr) return -EINVAL;

  // In float all through, as the result is: a computation in double would choose another unit near the limits.
  float scaled = static_cast<float>(size);
  size_t step = 0;
  for (; scaled > 1024.0F && step < last; ++step) scaled *= 1.0F / 1024.0F;
  *value = scaled;

  const size_t needed = strlen(units[step]) + 1;
  if (unit_size < 1 || needed > static_cast<size_t>(unit_size)) return -EOVERFLOW;
  memcpy(unit, units[step], needed);
  return 0;
}

#include "listing.h"

#include <tarncluster_util.h>

#include <cstdio>

namespace tool {

Cell text_cell(const std::string &text) {
  return {text, Json(json_object_new_string_len(text.data(), static_cast<int>(text.size())))};
}

Cell number_cell(int64_t number) {
  return {std::to_string(number), Json(json_object_new_int64(number))};
}

Cell size_cell(uint64_t bytes) {
  float value = 0;
  char unit[8];
  check(Size_Unit_Conversion(bytes, &value, unit, sizeof unit), "cannot convert a size");
  char text[64];
  snprintf(text, sizeof text, bytes > 1024 ? "%.1f %s" : "%.0f %s", static_cast<double>(value), unit);
  return {text, Json(json_object_new_uint64(bytes))};
}

Cell choice_cell(bool is_so, const char *yes, const char *no) {
  return {is_so ? yes : no, Json(json_object_new_boolean(is_so ? 1 : 0))};
}

}  // namespace tool

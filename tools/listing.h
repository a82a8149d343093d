// Lists and records: a table for people, JSON for programs. A family says once, in a table of columns, what it shows.
#pragma once

#include <cstdint>

#include "report.h"

namespace tool {

// What stands in one place: a text for people and a value for programs.
struct Cell {
  std::string text;
  Json json;
};

Cell text_cell(const std::string &text);
Cell number_cell(int64_t number);
Cell size_cell(uint64_t bytes);  // "1.5 GB", and the number of bytes
Cell choice_cell(bool is_so, const char *yes, const char *no);

// Without a title only programs see it; without a value in its cells only people do.
template <typename Record>
struct Column {
  const char *title;
  const char *key;
  Cell (*cell)(const Record &record);
};

namespace detail {

// Puts the columns of a record into an object, and hands those that have a title on.
template <typename Record, size_t count, typename Visitor>
Json take_columns(const Record &record, const Column<Record> (&columns)[count], const Visitor &visit) {
  Json object(json_object_new_object());
  for (const Column<Record> &column : columns) {
    Cell cell = column.cell(record);
    if (cell.json) json_object_object_add(object.get(), column.key, cell.json.release());
    if (column.title != nullptr) visit(column.title, cell.text);
  }
  return object;
}

}  // namespace detail

// A chain of records, a row for each.
template <typename Record, size_t count>
void print_list(const Record *record, const Column<Record> (&columns)[count], bool as_json) {
  std::vector<std::string> titles;
  for (const Column<Record> &column : columns) {
    if (column.title != nullptr) titles.emplace_back(column.title);
  }
  Json list(json_object_new_array());
  Rows rows;
  for (; record != nullptr; record = record->next) {
    rows.emplace_back();
    const auto add_to_row = [&](const char *, const std::string &text) { rows.back().push_back(text); };
    json_object_array_add(list.get(), detail::take_columns(*record, columns, add_to_row).release());
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table(titles, rows);
  }
}

// One record, a row for each column.
template <typename Record, size_t count>
void print_record(const Record &record, const Column<Record> (&columns)[count], bool as_json) {
  Rows rows;
  const auto add_row = [&](const char *title, const std::string &text) { rows.push_back({title, text}); };
  const Json object = detail::take_columns(record, columns, add_row);
  if (as_json) {
    print_json(object);
  } else {
    print_table({"KEY", "VALUE"}, rows);
  }
}

}  // namespace tool

#include "include/tarncluster_util.h"

#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "conf/line_scanner.h"
#include "conf/nodes.h"
#include "conf/replacement_file.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

// A loaded file. Its length is known, so that bytes behind a NUL are not lost.
struct Loaded_Text {
  Heap_Text bytes;
  size_t length = 0;

  std::string_view view() const { return {bytes.get(), length}; }
};

// 0 or a failure, which is always negative here: a positive status would mean nothing to the callers.
int load(const char *function, const char *path, bool missing_is_fine, Loaded_Text *text) {
  char *bytes = nullptr;
  const int result = Cache_Conf_File(path, &bytes);
  text->bytes.reset(bytes);
  if (bytes != nullptr) {
    text->length = static_cast<size_t>(result);
    return 0;
  }
  const int failure = result > 0 ? -result : result;
  if (failure == -ENOENT && missing_is_fine) return 0;
  TARN_DEBUG_AS(function, "Can't cache file \"%s\" error! (%d)", path, failure);
  return failure;
}

// Where in a text a section's lines and a key's line stand, as offsets.
struct Location {
  bool section_found = false;
  size_t section_end = 0;  // where the next section line begins, or the text's end
  bool key_found = false;
  size_t key_begin = 0;  // the key's line, newline included
  size_t key_end = 0;
  std::string_view value;
};

bool enter_section(Line_Reader *lines, std::string_view section) {
  if (section.empty()) return true;  // the lines at the top
  for (std::string_view line; lines->next_that_begins_with('[', &line);) {
    if (opens_section(line, section)) return true;
  }
  return false;
}

Location locate(const char *function, std::string_view text, const char *section, std::string_view key) {
  Location found;
  Line_Reader lines(text);
  found.section_found = enter_section(&lines, section != nullptr ? section : "");
  found.section_end = text.size();
  if (!found.section_found) return found;

  for (std::string_view line; lines.next(&line);) {
    const Conf_Line scanned = scan_line(line, blanks);
    if (scanned.kind == Conf_Line::Kind::section) {
      found.section_end = lines.begin();
      break;
    }
    if (scanned.kind == Conf_Line::Kind::bad_section) {
      TARN_DEBUG_AS(function, "Bad section line: %.*s!", static_cast<int>(line.size()), line.data());
    }
    if (scanned.kind == Conf_Line::Kind::pair && scanned.name == key) {
      found.key_found = true;
      found.key_begin = lines.begin();
      found.key_end = lines.end();
      found.value = scanned.value;
      break;
    }
  }
  return found;
}

void put(FILE *stream, std::string_view text, size_t begin, size_t end) {
  if (begin < end) fwrite(text.data() + begin, 1, end - begin, stream);
}

// Where the first line that is not empty begins.
size_t skip_empty_lines(std::string_view text) {
  size_t begin = 0;
  while (begin < text.size() && text[begin] == '\n') ++begin;
  return begin;
}

// Where the last line that is not empty ends, without its newline; not before begin.
size_t drop_empty_lines(std::string_view text, size_t begin, size_t end) {
  while (end > begin && text[end - 1] == '\n') --end;
  return end;
}

struct Change {
  const char *section;  // may be null
  const char *key;
  const char *value;  // null removes the key

  const char *section_name() const { return section != nullptr ? section : ""; }
};

void write_new_section(FILE *stream, const Change &change) {
  fprintf(stream, "[%s]\n%s = %s\n", change.section_name(), change.key, change.value);
}

void replace_key(FILE *stream, std::string_view text, const Location &found, const Change &change) {
  put(stream, text, 0, found.key_begin);
  if (change.value != nullptr) fprintf(stream, "%s = %s\n", change.key, change.value);
  put(stream, text, found.key_end, text.size());
}

void append_key(FILE *stream, std::string_view text, const Location &found, const Change &change) {
  const size_t begin = skip_empty_lines(text);
  put(stream, text, begin, drop_empty_lines(text, begin, found.section_end));
  fprintf(stream, "\n%s = %s\n\n", change.key, change.value);
  put(stream, text, found.section_end, text.size());
}

void append_section(FILE *stream, std::string_view text, const Change &change) {
  const size_t begin = skip_empty_lines(text);
  const size_t end = drop_empty_lines(text, begin, text.size());
  put(stream, text, begin, end);
  if (begin < end) fputs("\n\n", stream);
  write_new_section(stream, change);
}

// Writes the changed text; the failures are those of a key that is to be removed and is not there.
int write_changed(const char *function, FILE *stream, const Loaded_Text &text, const Change &change) {
  if (!text.bytes) {
    write_new_section(stream, change);
    return 0;
  }
  const Location found = locate(function, text.view(), change.section, change.key);
  if (found.key_found) {
    replace_key(stream, text.view(), found, change);
  } else if (found.section_found) {
    if (change.value == nullptr) return -ENODATA;
    append_key(stream, text.view(), found, change);
  } else {
    if (change.value == nullptr) return -ENOANO;
    append_section(stream, text.view(), change);
  }
  return 0;
}

int replace(const char *function, const char *path, Temporary_File *temporary, const Kept_Mode &mode) {
  const int status = temporary->rename_to(path);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't rename from %s to %s! (%d)", temporary->name(), path, status);
    return status;
  }
  return restore_mode(function, path, mode);
}

int change_file(const char *function, const char *path, const Kept_Mode &mode, const Change &change) {
  Loaded_Text text;
  int status = load(function, path, change.value != nullptr, &text);
  if (status != 0) return status;

  // The lock makes this name unique.
  Temporary_File temporary;
  status = temporary.set_name(path);
  if (status != 0) return status;
  Stream stream = temporary.open(mode);
  if (!stream) {
    status = -errno;
    TARN_DEBUG_AS(function, "Can't open tmp file \"%s\" error! (%d)", temporary.name(), status);
    return status;
  }
  status = write_changed(function, stream.get(), text, change);
  if (status != 0) return status;
  // Every trouble with the stream is -1, its negated error mark: callers know it so.
  if (finish_stream(std::move(stream)) != 0) return -1;
  return replace(function, path, &temporary, mode);
}

// Whether the texts would still be one line each; a "]" would end the section's name early.
bool fits_one_line(const Change &change) {
  return strpbrk(change.section_name(), "\n]") == nullptr && !has_newline(change.key) &&
         (change.value == nullptr || !has_newline(change.value));
}

template <typename Number>
int get_number(const char *path, const char *section, const char *key, Number *value) {
  return get_narrow_number(value, [=](int64_t *wide) { return Get_Conf_File_Int64_Value(path, section, key, wide); });
}

}  // namespace
}  // namespace tarn

int Get_Conf_File_String_Value(const char *path, const char *section, const char *key, char *buffer, int *size) {
  if (path == nullptr || key == nullptr || buffer == nullptr || size == nullptr || *size < 1) {
    TARN_DEBUG("Bad parameters!");
    return -EINVAL;
  }
  tarn::Loaded_Text text;
  const int status = tarn::load(__func__, path, false, &text);
  if (status != 0) return status;

  const tarn::Location found = tarn::locate(__func__, text.view(), section, key);
  if (!found.section_found) return -ENOANO;
  if (!found.key_found) return -ENODATA;
  const bool fits = found.value.size() < static_cast<size_t>(*size);
  *size = static_cast<int>(found.value.size());  // without the terminator, unlike the node functions: callers know both
  if (!fits) return -EOVERFLOW;
  memcpy(buffer, found.value.data(), found.value.size());
  buffer[found.value.size()] = '\0';
  return 0;
}

int Get_Conf_File_Int64_Value(const char *path, const char *section, const char *key, int64_t *value) {
  if (value == nullptr) return -EINVAL;
  char text[32];
  int size = sizeof text;
  const int status = Get_Conf_File_String_Value(path, section, key, text, &size);
  if (status == 0) *value = strtoll(text, nullptr, 10);
  return status;
}

int Get_Conf_File_Int8_Value(const char *path, const char *section, const char *key, int8_t *value) {
  return tarn::get_number(path, section, key, value);
}

int Get_Conf_File_Int16_Value(const char *path, const char *section, const char *key, int16_t *value) {
  return tarn::get_number(path, section, key, value);
}

int Get_Conf_File_Int32_Value(const char *path, const char *section, const char *key, int32_t *value) {
  return tarn::get_number(path, section, key, value);
}

int Set_Conf_File_String_Value(const char *path, const char *section, const char *key, const char *value) {
  if (path == nullptr || key == nullptr) return -EINVAL;
  const tarn::Change change = {section, key, value};
  if (!tarn::fits_one_line(change)) return -EINVAL;

  const tarn::Kept_Mode mode = tarn::kept_mode(path);
  const tarn::Replacement_Lock lock(path);
  if (!lock.held()) {
    TARN_DEBUG("Can't get file lock of %s error!", path);
    return -ENOLCK;
  }
  return tarn::change_file(__func__, path, mode, change);
}

// Requires a section, unlike the text form: callers rely on the refusal.
int Set_Conf_File_Integer_Value(const char *path, const char *section, const char *key, int64_t value) {
  if (section == nullptr) return -EINVAL;
  char text[32];
  snprintf(text, sizeof text, "%" PRId64, value);
  return Set_Conf_File_String_Value(path, section, key, text);
}

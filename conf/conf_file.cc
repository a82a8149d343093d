#include "conf/conf_file.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "conf/conf_text.h"
#include "conf/replacement_file.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr const char *write_function = "Write_Conf_File";

int read_conf_file(const char *path, Sect_Node **sections, bool *cut_short) {
  *sections = nullptr;
  char *text = nullptr;
  const int length = Cache_Conf_File(path, &text);
  const Heap_Text loaded(text);
  if (length < 0) {
    if (length != -ENOENT) {
      TARN_DEBUG_AS("Read_Conf_File", "Can't cache the specified conf file \"%s\" error (%d)!", path, length);
    }
    return length;
  }
  // A failed read answers with a positive number and no text.
  return loaded ? parse_conf_text(loaded.get(), sections, cut_short) : -EINVAL;
}

bool fit_text_format(const Sect_Node *sections) {
  for (; sections != nullptr; sections = sections->next) {
    if (!fits_text_format(*sections)) return false;
  }
  return true;
}

int report_failed_write(const char *path, int status) {
  TARN_ERROR_AS(write_function, "Can't write conf nodes into file \"%s\" error! (%d)", path, status);
  return status;
}

int report_failed_open(const char *path, int status) {
  TARN_ERROR_AS(write_function, "Can't open file %s error! (%d)", path, status);
  return status;
}

// Writes and closes; the content is on the disk after success.
int write_sections(const char *path, Stream stream, const Sect_Node *sections) {
  errno = 0;  // so that it tells of a failed write, not of something earlier
  int status = Write_Sect_Node(stream.get(), sections);
  const int finished = finish_stream(std::move(stream));
  if (status == 0) status = finished;
  return status != 0 ? report_failed_write(path, status) : 0;
}

int write_temporary(Temporary_File *temporary, const Kept_Mode &mode, const Sect_Node *sections) {
  if (!fit_text_format(sections)) return report_failed_write(temporary->name(), -EINVAL);
  Stream stream = temporary->open(mode);
  if (!stream) return report_failed_open(temporary->name(), -errno);
  return write_sections(temporary->name(), std::move(stream), sections);
}

int report_no_lock(const char *function, const char *path) {
  TARN_DEBUG_AS(function, "Can't get file lock of %s error!", path);
  return -ENOLCK;
}

int report_unreadable(const char *function, const char *path, int status) {
  TARN_DEBUG_AS(function, "Can't parse the conf file %s error! (%d)", path, status);
  return status;
}

int update_file(const char *function, const char *path, const Sect_Node *sections) {
  const int status = Update_Conf_File(path, sections);
  if (status != 0) TARN_DEBUG_AS(function, "Can't update the conf file \"%s\" error! (%d)", path, status);
  return status;
}

// Puts a section that stays its caller's into a chain, and takes it out again whole.
class Lent_Section {
 public:
  Lent_Section(Sect_Node *section, Sect_Node **link) : link_(link) {
    section->next = *link;
    *link = section;
  }
  ~Lent_Section() { unlink_node(link_); }
  Lent_Section(const Lent_Section &) = delete;
  Lent_Section &operator=(const Lent_Section &) = delete;

 private:
  Sect_Node **link_;
};

int replace_section(const char *function, const char *path, const char *name, Sect_Node *section) {
  Sections sections;
  const int read = read_whole_conf_file(path, &sections);
  if (read < 0 && read != -ENOENT) return report_unreadable(function, path, read);

  Sect_Node **link = find_section_link(&sections.first, name);
  if (*link != nullptr) {
    Free_Sect_Node(unlink_node(link));
  } else if (section == nullptr) {
    return read == -ENOENT ? -ENOENT : -ENOANO;
  }
  if (section == nullptr) return update_file(function, path, sections.first);
  const Lent_Section lent(section, link);
  return update_file(function, path, sections.first);
}

int apply_pairs(const char *function, const char *path, const char *name, const Pair_Node *pairs) {
  Sections sections;
  const int read = read_whole_conf_file(path, &sections);
  if (read < 0) return report_unreadable(function, path, read);

  Sect_Node *found = *find_section_link(&sections.first, name);
  if (found == nullptr) return -ENOANO;
  for (; pairs != nullptr; pairs = pairs->next) {
    const int status = Set_Pair_String_Value(&found->pairs, pairs->key, pairs->value);
    if (status != 0) {
      TARN_ERROR_AS(function, "Can't set pair string %s %s! (%d)", pairs->key,
                    pairs->value != nullptr ? pairs->value : "", status);
      return status;
    }
  }
  return update_file(function, path, sections.first);
}

// A section with copies of the pairs. Every one must have a value here: there is nothing to remove yet.
int make_section(const char *function, const char *name, const Pair_Node *pairs, Sections *sections) {
  Sect_Node *section = nullptr;
  int status = Create_Sect_Node(&section, name);
  if (status != 0) {
    TARN_DEBUG_AS(function, "Can'r create a sect node error! (%d, %s)", status, name);
    return status;
  }
  sections->first = section;
  Chain_End<Pair_Node> end(&section->pairs);
  for (; pairs != nullptr; pairs = pairs->next) {
    status = Create_Pair_Node(end.link(), pairs->key, pairs->value);
    if (status != 0) {
      TARN_DEBUG_AS(function, "Can't create a pair node error! (%d, %s, %s)", status, pairs->key,
                    pairs->value != nullptr ? pairs->value : "");
      return status;
    }
    end.advance();
  }
  return 0;
}

// The nameless section can only stand first: anywhere else its pairs would belong to the section before it.
int put_nameless_section_first(const char *function, Sections *sections) {
  Sect_Node *nameless = nullptr;
  const int status = Create_Sect_Node(&nameless, "");
  if (status != 0) {
    TARN_DEBUG_AS(function, "Can'r create a sect node error! (%d, %s)", status, "");
    return status;
  }
  nameless->next = sections->first;
  sections->first = nameless;
  return 0;
}

bool any_value(const Pair_Node *pairs) {
  while (pairs != nullptr && pairs->value == nullptr) pairs = pairs->next;
  return pairs != nullptr;
}

int merge_pairs(const char *function, const char *section, const Pair_Node *pairs, Sections *sections) {
  if (section[0] == '\0' && sections->first->name[0] != '\0' && any_value(pairs)) {
    const int status = put_nameless_section_first(function, sections);
    if (status != 0) return status;
  }
  for (; pairs != nullptr; pairs = pairs->next) {
    const int status = Set_Conf_String_Value(sections->first, section, pairs->key, pairs->value);
    if (status != 0) {
      TARN_DEBUG_AS(function, "Can't set conf string %p/%s/%s/%s error! (%d)",
                    static_cast<const void *>(sections->first), section, pairs->key,
                    pairs->value != nullptr ? pairs->value : "", status);
      return status;
    }
  }
  return 0;
}

void set_pairs(const char *function, const char *path, const char *section, const Pair_Node *pairs) {
  const Replacement_Lock lock(path);
  if (!lock.held()) {
    report_no_lock(function, path);
    return;
  }
  Sections sections;
  const int read = read_whole_conf_file(path, &sections);
  if (read < 0 && read != -ENOENT) {
    report_unreadable(function, path, read);
    return;
  }
  const int status = sections.first != nullptr ? merge_pairs(function, section, pairs, &sections)
                                               : make_section(function, section, pairs, &sections);
  if (status == 0) update_file(function, path, sections.first);
}

}  // namespace

int read_whole_conf_file(const char *path, Sections *sections) {
  bool cut_short = false;
  const int result = read_conf_file(path, &sections->first, &cut_short);
  if (!cut_short) return result;
  Free_Sect_Node(std::exchange(sections->first, nullptr));
  return -ENOMEM;
}

}  // namespace tarn

int Read_Conf_File(const char *path, Sect_Node **sections) {
  if (path == nullptr || sections == nullptr) return -EINVAL;
  bool cut_short = false;
  return tarn::read_conf_file(path, sections, &cut_short);
}

int Write_Conf_File(const char *path, const Sect_Node *sections) {
  if (path == nullptr) return -EINVAL;
  if (!tarn::fit_text_format(sections)) return tarn::report_failed_write(path, -EINVAL);
  tarn::Stream stream(fopen(path, "we"));
  if (!stream) return tarn::report_failed_open(path, -errno);
  const int status = tarn::write_sections(path, std::move(stream), sections);
  if (status != 0) Druvo_Really_Unlink(path);
  return status;
}

int Update_Conf_File(const char *path, const Sect_Node *sections) {
  if (path == nullptr) return -EINVAL;
  const tarn::Kept_Mode mode = tarn::kept_mode(path);
  tarn::Temporary_File temporary;
  int status = temporary.set_name(path, getpid());
  if (status == 0) status = tarn::write_temporary(&temporary, mode, sections);
  if (status != 0) {
    TARN_ERROR("Can't write conf file \"%s\" error! (%d)", temporary.name(), status);
    return status;
  }

  status = temporary.rename_to(path);
  if (status != 0) TARN_ERROR("Can't rename conf file \"%s\" error! (%d)", temporary.name(), status);
  const int restored = tarn::restore_mode(__func__, path, mode);
  return restored != 0 ? restored : status;
}

int Get_Conf_File_Section(const char *path, const char *name, Sect_Node **section) {
  if (path == nullptr || name == nullptr || section == nullptr) return -EINVAL;
  *section = nullptr;
  tarn::Sections sections;
  const int read = Read_Conf_File(path, &sections.first);
  if (read < 0) return read;
  Sect_Node **link = tarn::find_section_link(&sections.first, name);
  if (*link == nullptr) return -ENOANO;
  *section = tarn::unlink_node(link);
  return 0;
}

int Set_Conf_File_Section(const char *path, const char *name, Sect_Node *section) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  const tarn::Replacement_Lock lock(path);
  if (!lock.held()) return tarn::report_no_lock(__func__, path);
  return tarn::replace_section(__func__, path, name, section);
}

int Update_Conf_File_Section(const char *path, const char *name, const Sect_Node *section) {
  if (path == nullptr || name == nullptr || section == nullptr) return -EINVAL;
  const tarn::Replacement_Lock lock(path);
  if (!lock.held()) return tarn::report_no_lock(__func__, path);
  return tarn::apply_pairs(__func__, path, name, section->pairs);
}

// Answers 0 even when nothing could be set: callers learn of failures from the log only, and depend on it.
int Set_Conf_File_Pair_Values(const char *path, const char *section, const Pair_Node *pairs) {
  if (path == nullptr || section == nullptr || pairs == nullptr) return -EINVAL;
  tarn::set_pairs(__func__, path, section, pairs);
  return 0;
}

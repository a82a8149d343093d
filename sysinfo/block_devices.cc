#include "sysinfo/block_devices.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "foundation/program.h"
#include "foundation/report.h"

static_assert(offsetof(Block_Device, type2) == 32);

namespace tarn {
namespace {

// The redirection goes to a file of that name: the command is what it has always been.
constexpr char block_id_command[] = "/usr/local/sbin/blkid 2>/dev/NULL";
constexpr size_t listed_line_size = 256;  // what the list has always seen of a line
constexpr size_t asked_line_size = 8192;  // longer than any line of the tool
constexpr unsigned int sector_size = 512;

constexpr int device_room = 24;
constexpr int uuid_room = 40;
constexpr int label_room = 16;
constexpr int type_room = 12;
constexpr size_t fact_size = 32;
constexpr size_t model_room = 32;
constexpr size_t vendor_room = fact_size + 1;

// The tool's lines, each as far as it has room. The rest of a long one is dropped, and so is what stands behind a NUL:
// a label cannot pose as a line.
template <size_t size>
class Block_Id_Lines {
 public:
  Block_Id_Lines() : command_(popen(block_id_command, "re")) {}
  bool started() const { return command_ != nullptr; }

  const char *next() {
    size_t length = 0;
    int c = getc_unlocked(command_.get());
    if (c == EOF) return nullptr;
    for (; c != '\n' && c != EOF; c = getc_unlocked(command_.get())) {
      if (length < size - 1) line_[length++] = static_cast<char>(c);
    }
    line_[length] = '\0';
    return line_;
  }

 private:
  Command command_;
  char line_[size];
};

// ----------------------------------------------------------------------------------------------------------- the list

// Takes the value that a pattern introduces, and goes on behind its closing quote. Without the pattern the value is
// empty and the place stays; false when there is no closing quote.
bool take_value(const char **place, const char *pattern, size_t skip, std::string_view *value) {
  const char *found = strstr(*place, pattern);
  *value = {};
  if (found == nullptr) return true;
  if (strlen(found) < skip) return false;
  const char *start = found + skip;
  const char *quote = strchr(start, '"');
  if (quote == nullptr) return false;
  *value = {start, static_cast<size_t>(quote - start)};
  *place = quote + 1;
  return true;
}

struct Device_Line {
  std::string_view device, uuid, type, type2;

  bool parse(const char *line);
  size_t texts_size() const { return device.size() + uuid.size() + type.size() + type2.size() + 4; }
};

bool Device_Line::parse(const char *line) {
  constexpr char uuid_tag[] = "UUID=\"";
  constexpr char type_tag[] = "TYPE=\"";
  constexpr size_t tag_length = sizeof type_tag - 1;
  const char *colon = strchr(line, ':');
  if (colon == nullptr) return false;
  device = {line, static_cast<size_t>(colon - line)};
  const char *place = colon + 1;
  if (!take_value(&place, uuid_tag, sizeof uuid_tag - 1, &uuid)) return false;
  if (!take_value(&place, type_tag, tag_length, &type)) return false;
  if (type.data() == nullptr) return true;
  // One character more is skipped of the second type: readers of the list know it so.
  return take_value(&place, type_tag, tag_length + 1, &type2);
}

char *put_text(char *end, std::string_view text) {
  if (!text.empty()) memcpy(end, text.data(), text.size());
  end[text.size()] = '\0';
  return end + text.size() + 1;
}

Block_Device *make_device(const Device_Line &line) {
  const size_t size = sizeof(Block_Device) + line.texts_size();
  auto *made = static_cast<Block_Device *>(malloc(size));
  if (made == nullptr) {
    TARN_ERROR_AS("Scan_Block_Device_Info", "Can't allocate %d bytes memory!", static_cast<int>(size));
    return nullptr;
  }
  made->type = put_text(made->type2, line.type2);
  made->uuid = put_text(made->type, line.type);
  made->device = put_text(made->uuid, line.uuid);
  put_text(made->device, line.device);
  return made;
}

// --------------------------------------------------------------------------------------------------------- the queries

// A value that is missing or too long leaves its text empty.
void take_tag(const char *line, const char *tag, char *value, int room) {
  static_cast<void>(Get_Blkid_Tag_Value(line, tag, value, &room));
}

// --------------------------------------------------------------------------------------------------------- /sys/block

// A device's path, taken apart: the disk's letters, and what stands behind them.
struct Device_Name {
  const char *disk;
  int disk_length;
  const char *part;

  explicit Device_Name(const char *path);
};

Device_Name::Device_Name(const char *path) : disk(path) {
  for (const char *folder : {"/dev/mapper/", "/dev/"}) {
    if (strncmp(path, folder, strlen(folder)) != 0) continue;
    disk = path + strlen(folder);
    break;
  }
  for (part = disk; *part >= 'a' && *part <= 'z';) ++part;
  disk_length = static_cast<int>(part - disk);
}

// A path of /sys/block; one that does not fit names nothing.
struct System_Path {
  char text[PATH_MAX];
  bool fits;

  template <typename... Parts>
  explicit System_Path(const char *format, Parts... parts) {
    const int length = snprintf(text, sizeof text, format, parts...);
    fits = length >= 0 && static_cast<size_t>(length) < sizeof text;
  }
};

uint64_t read_size(const Device_Name &name) {
  const bool is_disk = name.part[0] == '\0';
  const System_Path path = is_disk ? System_Path("/sys/block/%s/size", name.disk)
                                   : System_Path("/sys/block/%.*s/%s/size", name.disk_length, name.disk, name.disk);
  char digits[65];
  int size = sizeof digits - 1;
  if (!path.fits || Simple_Read_File(path.text, digits, &size) != 0) return 0;
  digits[size] = '\0';
  return strtoull(digits, nullptr, 10) * sector_size;
}

// The only partition of a disk counts as none.
unsigned int read_partition(const Device_Name &name) {
  const auto number = static_cast<unsigned int>(strtoul(name.part, nullptr, 10));
  if (number != 1) return number;
  const System_Path second("/sys/block/%.*s/%.*s2", name.disk_length, name.disk, name.disk_length, name.disk);
  unsigned int is_folder = 0;
  return second.fits && Check_Folder(second.text, &is_folder) == 0 && is_folder == 1 ? 1 : 0;
}

// Reads what a disk tells of itself, without the blanks at its end; nothing is written when it cannot be read.
int read_fact(const Device_Name &name, const char *what, size_t room, char *text) {
  const System_Path path("/sys/block/%.*s/device/%s", name.disk_length, name.disk, what);
  if (!path.fits) return -ENAMETOOLONG;
  char fact[fact_size + 1];
  int size = fact_size;
  const int status = Simple_Read_File(path.text, fact, &size);
  if (status != 0) return status;
  fact[size] = '\0';
  size_t length = strnlen(fact, room - 1);
  while (length > 0 && fact[length - 1] == ' ') --length;
  put_text(text, {fact, length});
  return 0;
}

}  // namespace

int Get_Blkid_Tag_Value(const char *line, const char *tag, char *value, int *length) {
  char pattern[32];
  snprintf(pattern, sizeof pattern, " %s=\"", tag);
  const char *found = strstr(line, pattern);
  const char *start = found != nullptr ? found + strlen(pattern) : nullptr;
  const char *quote = start != nullptr ? strchr(start, '"') : nullptr;
  if (quote == nullptr) return -ENODATA;
  const auto size = static_cast<size_t>(quote - start);
  const bool fits = length == nullptr || size < static_cast<size_t>(*length);
  if (length != nullptr) *length = static_cast<int>(size);
  if (!fits) return -EOVERFLOW;
  put_text(value, {start, size});
  return 0;
}

}  // namespace tarn

int Scan_Block_Device_Info(Block_Device **list) {
  if (list == nullptr) return -EINVAL;
  tarn::Block_Id_Lines<tarn::listed_line_size> lines;
  if (!lines.started()) return 0;
  while (const char *line = lines.next()) {
    tarn::Device_Line parsed;
    if (!parsed.parse(line)) continue;
    Block_Device *device = tarn::make_device(parsed);
    if (device == nullptr) return -ENOMEM;
    device->next = *list;
    *list = device;
  }
  return 0;
}

int Query_Block_Info_By_Path(const char *path, char *uuid, char *label, char *type) {
  if (path == nullptr || uuid == nullptr || label == nullptr || type == nullptr) return -EINVAL;
  uuid[0] = label[0] = type[0] = '\0';
  const size_t length = strlen(path);
  if (length + 1 >= static_cast<size_t>(tarn::device_room)) return -ENODEV;

  tarn::Block_Id_Lines<tarn::asked_line_size> lines;
  if (!lines.started()) return -ENODEV;
  while (const char *line = lines.next()) {
    if (strncmp(line, path, length) != 0 || line[length] != ':') continue;
    tarn::take_tag(line, "UUID", uuid, tarn::uuid_room);
    tarn::take_tag(line, "LABEL", label, tarn::label_room);
    tarn::take_tag(line, "TYPE", type, tarn::type_room);
    return 0;
  }
  return -ENODEV;
}

int Query_Block_Info_By_Id(const char *uuid, char *device, char *label, char *type) {
  if (uuid == nullptr || device == nullptr || label == nullptr || type == nullptr) return -EINVAL;
  device[0] = label[0] = type[0] = '\0';
  if (strlen(uuid) >= static_cast<size_t>(tarn::uuid_room)) return -ENODEV;

  char pattern[64];
  snprintf(pattern, sizeof pattern, " UUID=\"%s\"", uuid);
  tarn::Block_Id_Lines<tarn::asked_line_size> lines;
  if (!lines.started()) return -ENODEV;
  while (const char *line = lines.next()) {
    const char *colon = strchr(line, ':');
    if (colon == nullptr || colon - line >= tarn::device_room || strstr(line, pattern) == nullptr) continue;
    tarn::put_text(device, {line, static_cast<size_t>(colon - line)});
    tarn::take_tag(line, "LABEL", label, tarn::label_room);
    tarn::take_tag(line, "TYPE", type, tarn::type_room);
    return 0;
  }
  return -ENODEV;
}

int Query_Block_Device_Info(const char *path, uint64_t *size, unsigned int *partition, char *vendor, char *model) {
  if (path == nullptr || size == nullptr || partition == nullptr || vendor == nullptr || model == nullptr) {
    return -EINVAL;
  }
  *size = 0;
  *partition = 0;
  vendor[0] = model[0] = '\0';
  const tarn::Device_Name name(path);
  *size = tarn::read_size(name);
  *partition = tarn::read_partition(name);
  tarn::read_fact(name, "model", tarn::model_room, model);
  return tarn::read_fact(name, "vendor", tarn::vendor_room, vendor);
}

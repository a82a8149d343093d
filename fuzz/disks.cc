// Any output of the block-id tool, any mount table, any smb.conf and any name: the lists and the queries see what
// models of a few lines see, and no text leaves its field. The input is a name, which stands for a device, a UUID, a
// link's name, its target and a mount point; then the mount table and smb.conf; the rest is the tool's output.
#include <fuzzer/FuzzedDataProvider.h>
#include <mntent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "tests/support/files.h"
#include "tests/sysinfo/disks.h"

namespace {

constexpr char tool_output_file[] = "/tmp/blkid.output";

}  // namespace

// The tool's output comes from a file: a process for each query would be most of the work.
extern "C" FILE *popen(const char *command, const char *) {
  REQUIRE(strcmp(command, "/usr/local/sbin/blkid 2>/dev/NULL") == 0);
  return fopen(tool_output_file, "re");
}
extern "C" int pclose(FILE *stream) {
  return fclose(stream);
}

namespace tarn::fuzz {
namespace {

constexpr size_t listed = 255, asked = 8191;  // what the list and the queries see of a line

// A record's text: it ends within its field.
template <size_t size>
std::string text_in(const char (&field)[size]) {
  const size_t length = strnlen(field, size);
  REQUIRE(length < size);
  return std::string(field, length);
}

// ---------------------------------------------------------------------------------------------------- the tool's lines

std::vector<std::string> lines_in(const std::string &output, size_t seen) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < output.size();) {
    const size_t end = std::min(output.find('\n', start), output.size());
    const std::string line = output.substr(start, std::min(end - start, seen));
    lines.push_back(line.substr(0, line.find('\0')));
    start = end + 1;
  }
  return lines;
}

struct Device {
  std::string device, uuid, type, type2;
};

// False when the value has no end.
bool take(const std::string &line, const std::string &tag, size_t skip, size_t *place, std::string *value) {
  const size_t start = line.find(tag, *place);
  if (start == line.npos) return true;
  const size_t end = start + skip > line.size() ? line.npos : line.find('"', start + skip);
  if (end == line.npos) return false;
  *value = line.substr(start + skip, end - start - skip);
  *place = end + 1;
  return true;
}

std::optional<Device> device_in(const std::string &line) {
  const size_t colon = line.find(':');
  if (colon == line.npos) return {};
  Device device = {line.substr(0, colon), "", "", ""};
  size_t place = colon + 1;
  if (!take(line, "UUID=\"", 6, &place, &device.uuid)) return {};
  const size_t before = place;
  if (!take(line, "TYPE=\"", 6, &place, &device.type)) return {};
  if (place != before && !take(line, "TYPE=\"", 7, &place, &device.type2)) return {};
  return device;
}

std::string tag_in(const std::string &line, const std::string &tag, size_t room) {
  const size_t start = line.find(" " + tag + "=\"");
  if (start == line.npos) return "";
  const size_t value = start + tag.size() + 3, end = line.find('"', value);
  return end == line.npos || end - value >= room ? "" : line.substr(value, end - value);
}

void check_device_list(const std::string &output) {
  std::vector<Device> expected;
  for (const std::string &line : lines_in(output, listed)) {
    const std::optional<Device> device = device_in(line);
    if (device) expected.insert(expected.begin(), *device);
  }
  Block_Device *list = nullptr;
  REQUIRE_EQUAL(Scan_Block_Device_Info(&list), 0);
  size_t number = 0;
  while (list != nullptr) {
    REQUIRE(number < expected.size());
    REQUIRE_EQUAL(std::string(list->device), expected[number].device);
    REQUIRE_EQUAL(std::string(list->uuid), expected[number].uuid);
    REQUIRE_EQUAL(std::string(list->type), expected[number].type);
    REQUIRE_EQUAL(std::string(list->type2), expected[number].type2);
    Block_Device *const next = list->next;
    free(list);
    list = next;
    ++number;
  }
  REQUIRE_EQUAL(number, expected.size());
}

struct Fields {
  char uuid[40], device[24], label[16], type[12];

  Fields() { memset(static_cast<void *>(this), 'x', sizeof *this); }
  void require_facts_of(const std::string &line) const {
    REQUIRE_EQUAL(text_in(label), tag_in(line, "LABEL", sizeof label));
    REQUIRE_EQUAL(text_in(type), tag_in(line, "TYPE", sizeof type));
  }
};

void check_query_by_path(const std::string &path, const std::string &output) {
  const std::vector<std::string> lines = lines_in(output, asked);
  const auto line =
      std::find_if(lines.begin(), lines.end(), [&](const std::string &one) { return one.starts_with(path + ":"); });
  const bool found = path.size() <= 22 && line != lines.end();
  Fields fields;
  REQUIRE_EQUAL(Query_Block_Info_By_Path(path.c_str(), fields.uuid, fields.label, fields.type), found ? 0 : -ENODEV);
  REQUIRE_EQUAL(text_in(fields.uuid), found ? tag_in(*line, "UUID", sizeof fields.uuid) : std::string());
  fields.require_facts_of(found ? *line : "");
}

void check_query_by_id(const std::string &uuid, const std::string &output) {
  const std::vector<std::string> lines = lines_in(output, asked);
  const auto line = std::find_if(lines.begin(), lines.end(), [&](const std::string &one) {
    return one.find(':') < 24 && one.find(" UUID=\"" + uuid + "\"") != one.npos;
  });
  const bool found = uuid.size() <= 39 && line != lines.end();
  Fields fields;
  REQUIRE_EQUAL(Query_Block_Info_By_Id(uuid.c_str(), fields.device, fields.label, fields.type), found ? 0 : -ENODEV);
  REQUIRE_EQUAL(text_in(fields.device), found ? line->substr(0, line->find(':')) : std::string());
  fields.require_facts_of(found ? *line : "");
}

// ------------------------------------------------------------------------------------------------------------- mounts

// The other way through the table, with the same reader.
void check_mount_list() {
  Mount_Info *list = nullptr;
  REQUIRE_EQUAL(Scan_Mount_Info(&list), 0);
  std::vector<const Mount_Info *> mounts;
  for (const Mount_Info *one = list; one != nullptr; one = one->next) mounts.insert(mounts.begin(), one);
  FILE *table = setmntent("/etc/mtab", "re");
  for (const Mount_Info *one : mounts) {
    const mntent *entry = getmntent(table);
    REQUIRE(entry != nullptr);
    REQUIRE_EQUAL(std::string(one->device), std::string(entry->mnt_fsname));
    REQUIRE_EQUAL(std::string(one->mount_point), std::string(entry->mnt_dir));
    REQUIRE_EQUAL(std::string(one->fs_type), std::string(entry->mnt_type));
    REQUIRE_EQUAL(std::string(one->options), std::string(entry->mnt_opts));
    REQUIRE_EQUAL(one->freq, entry->mnt_freq);
    REQUIRE_EQUAL(one->passno, entry->mnt_passno);
  }
  REQUIRE(getmntent(table) == nullptr);
  endmntent(table);
  Free_Mount_Info(list);
}

template <typename Query>
void check_volume(Query query, const std::string &name) {
  struct {
    Volume_Info info;
    char guard[8];
  } filled;
  memset(&filled, 'x', sizeof filled);
  const int status = query(name.c_str(), &filled.info);
  REQUIRE_EQUAL(std::string(filled.guard, sizeof filled.guard), std::string("xxxxxxxx"));
  if (query == Query_Volume_Info_BY_Id && status == -EINVAL) return;
  const Volume_Info &info = filled.info;
  const std::string texts = text_in(info.device) + text_in(info.shortcut) + text_in(info.uuid) + text_in(info.type) +
                            text_in(info.label) + text_in(info.model) + text_in(info.vendor);
  REQUIRE(status != -EINVAL || texts.empty());
  REQUIRE(status != 0 || text_in(info.vendor) == "ACME");
}

// ------------------------------------------------------------------------------------------------------------- shares

bool can_be_a_link(const std::string &name) {
  return !name.empty() && name.size() <= 255 && name.find('/') == name.npos && name != "." && name != ".." &&
         name != "A_DATA";
}

bool is_hidden(const std::string &name) {
  char value[32];
  int size = sizeof value;
  int status = Get_Conf_File_String_Value("/etc/config/smb.conf", name.c_str(), "browsable", value, &size);
  if (status == -ENODATA) {
    size = sizeof value;
    status = Get_Conf_File_String_Value("/etc/config/smb.conf", name.c_str(), "browseable", value, &size);
  }
  return status == 0 ? strcasecmp(value, "no") == 0 : status != -ENODATA;
}

void check_shares(const std::string &name) {
  std::vector<std::string> expected = {"usual"};
  if (name != "TMBackup" && name != "usual") expected.push_back(name);
  std::sort(expected.begin(), expected.end());
  const std::string link = "/share/" + name;
  REQUIRE(name == "usual" || symlink("A_DATA/folder", link.c_str()) == 0);
  Share_Info *list = nullptr;
  int count = -1;
  REQUIRE_EQUAL(Scan_Share_List(&list, &count), 0);
  REQUIRE_EQUAL(static_cast<size_t>(count), expected.size());
  const Share_Info *share = list;
  for (const std::string &one : expected) {
    REQUIRE_EQUAL(std::string(share->name), one);
    REQUIRE_EQUAL(share->flags, is_hidden(one) ? TARN_SHARE_HIDDEN : 0);
    share = share->next;
  }
  Release_Share_List(&list);
  if (name != "usual") unlink(link.c_str());
}

// A link that leads to its own name where it can, so that both are long. "" is no target, nor is one that is longer
// than the kernel takes.
void check_shortcut(const std::string &target) {
  const std::string link = "/share/" + (can_be_a_link(target) && target != "usual" ? target : "link");
  if (target.empty() || symlink(target.c_str(), link.c_str()) != 0) return;
  char shortcut[44];
  const int status = Query_Mount_Shortcut(("/share/" + target).c_str(), shortcut);
  REQUIRE_EQUAL(status, target.size() <= 44 ? 0 : -ENOENT);
  if (status == 0 && target != "A_DATA/folder") REQUIRE_EQUAL(text_in(shortcut), link.substr(0, 43));
  unlink(link.c_str());
}

void make_folders() {
  static const test::Made_Up_Disks *disks = nullptr;
  if (disks != nullptr) return;
  disks = new test::Made_Up_Disks;
  for (const char *disk : {"", "sda/", "x/"}) {
    disks->add(disk + std::string("device/vendor"), "ACME \n");
    disks->add(disk + std::string("device/model"), std::string(40, 'm'));
  }
  disks->add("sda/sda1/size", "1000\n");
  std::filesystem::create_directories("/share/A_DATA/folder");
  std::filesystem::create_symlink("A_DATA/folder", "/share/usual");
  std::filesystem::remove("/etc/mtab");
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tarn::fuzz;
  FuzzedDataProvider input(data, size);
  const std::string name = input.ConsumeRandomLengthString(600).c_str();
  const std::string mount_table = input.ConsumeRandomLengthString();
  const std::string samba = input.ConsumeRandomLengthString();
  const std::string output = input.ConsumeRemainingBytesAsString();
  make_folders();
  tarn::test::write_file("/etc/mtab", mount_table);
  tarn::test::write_file("/etc/config/smb.conf", samba);
  tarn::test::write_file(tool_output_file, output);

  check_device_list(output);
  check_query_by_path(name, output);
  check_query_by_id(name, output);
  check_mount_list();
  for (const char *folder : {"", "/dev/", "/share/"}) check_volume(Query_Volume_Info_BY_Path, folder + name);
  check_volume(Query_Volume_Info_BY_Path, "/share/usual");
  check_volume(Query_Volume_Info_BY_Id, name);
  if (can_be_a_link(name)) check_shares(name);
  check_shortcut(name);
  return 0;
}

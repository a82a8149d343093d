// Mounts, shares, volumes and block devices.
#include <mntent.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tests/faults/families.h"
#include "tests/sysinfo/disks.h"
#include "tests/sysinfo/mounted.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

// ------------------------------------------------------------------------------------------------------ the appliance

// Once for the whole program: a volume on the second of a disk's partitions, with a link to it and a share on it.
void make_volume() {
  static const Made_Up_Disks disks;
  disks.add("sda/sda1/size", "2000\n");
  disks.add_folder("sda/sda2");
  disks.add("sda/device/vendor", "ACME \n");
  disks.add("sda/device/model", "Fast \n");
  static const Mounted volume("tmpfs", "/share/A_DATA", "tmpfs", 0, "size=64k");
  fs::create_directories("/share/A_DATA/Public");
  fs::create_symlink("A_DATA/Public", "/share/Public");
  fs::create_symlink("A_DATA", "/share/Volume");
  use_block_id_that_prints(
      "/dev/sda1: LABEL=\"data\" UUID=\"0a-1\" TYPE=\"ext4\"\n/dev/sdb1: UUID=\"0b-1\" TYPE=\"vfat\"\n");
  use_mount_table("/dev/sda1 /share/A_DATA ext4 rw 0 0\ntmpfs /tmp tmpfs rw 0 0\n");
  // The system's reader of mount tables takes memory once, for good.
  Mount_Info *mounts = nullptr;
  Scan_Mount_Info(&mounts);
  Free_Mount_Info(mounts);
}

void prepare_appliance(World &) {
  [[maybe_unused]] static const bool made = (make_volume(), true);
  write_file("/etc/config/smb.conf", "[Public]\nbrowsable = yes\n[Volume]\nbrowsable = no\n");
}

// ------------------------------------------------------------------------------------------------- what is handed out

char shown_text[512];  // a call must not allocate for itself

int show(World &w, int status) {
  if (status == 0) w.found = shown_text;
  return status;
}

int scan_mounts(World &w) {
  Mount_Info *list = nullptr;
  const int status = Scan_Mount_Info(&list);
  shown_text[0] = '\0';
  for (const Mount_Info *one = list; one != nullptr; one = one->next) {
    strcat(strcat(shown_text, one->mount_point), ";");
  }
  Free_Mount_Info(list);
  return show(w, status);
}

int scan_shares(World &w) {
  Share_Info *list = nullptr;
  int count = -1;
  const int status = Scan_Share_List(&list, &count);
  shown_text[0] = '\0';
  int seen = 0;
  for (const Share_Info *one = list; one != nullptr; one = one->next, ++seen) {
    const size_t used = strlen(shown_text);
    snprintf(shown_text + used, sizeof shown_text - used, "%s %x;", one->name, one->flags);
  }
  if (count != seen) strcat(shown_text, "another count");
  const bool handed_out = list != nullptr;
  Release_Share_List(&list);
  return status != 0 && handed_out ? 1 : show(w, status);
}

// What the lists may hold when something about a share cannot be read: it is hidden, or missing.
std::vector<std::string> lesser_share_lists() {
  std::vector<std::string> lists;
  for (const char *one : {"", "Public 0;", "Public 10;"}) {
    for (const char *other : {"", "Volume 10;"}) lists.push_back(std::string(one) + other);
  }
  return lists;
}

template <typename Query>
std::function<int(World &)> entry_of(Query query, const char *wanted) {
  return [=](World &w) {
    mntent *entry = nullptr;
    const int status = query(wanted, &entry);
    if (entry != nullptr) w.found = entry->mnt_dir;
    return status;
  };
}

int find_shortcut(World &w) {
  char shortcut[44];
  const int status = Query_Mount_Shortcut("/share/A_DATA", shortcut);
  if (status == 0) strcpy(shown_text, shortcut);
  return show(w, status);
}

template <typename Query>
std::function<int(World &)> volume_of(Query query, const char *name) {
  return [=](World &w) {
    Volume_Info info;
    const int status = query(name, &info);
    snprintf(shown_text, sizeof shown_text, "%s %s %s %s %s|%s|%u %s %llu", info.device, info.uuid, info.label,
             info.type, info.vendor, info.model, info.partition, info.shortcut,
             static_cast<unsigned long long>(info.total_bytes));
    return show(w, status);
  };
}

// What a volume may look like when one of the dispensable facts cannot be read.
std::vector<std::string> volumes_with_less(const std::string &total, const std::string &total_unread) {
  const std::string texts = "/dev/sda1 0a-1 data ext4 ACME|";
  return {texts + "Fast|1 /share/Volume " + total, texts + "|1 /share/Volume " + total,
          texts + "Fast|0 /share/Volume " + total, texts + "Fast|1 /share/A_DATA " + total,
          texts + "Fast|1 /share/Volume " + total_unread};
}

Scenario volume_scenario(std::string function, std::string situation, std::function<int(World &)> call,
                         const std::string &total, const std::string &total_unread) {
  const std::vector<std::string> shown = volumes_with_less(total, total_unread);
  return {.function = function,
          .situation = situation,
          .prepare = prepare_appliance,
          .call = call,
          .result = shown.front(),
          .lesser_results = shown,
          .out_of_memory = {-ENODEV, -ENOMEM},
          .answer = any_error};
}

int scan_devices(World &w) {
  Block_Device *list = nullptr;
  const int status = Scan_Block_Device_Info(&list);
  shown_text[0] = '\0';
  while (list != nullptr) {
    const size_t used = strlen(shown_text);
    snprintf(shown_text + used, sizeof shown_text - used, "%s %s %s;", list->device, list->uuid, list->type);
    Block_Device *const next = list->next;
    free(list);
    list = next;
  }
  return show(w, status);
}

int block_info_by_path(World &w) {
  char uuid[40], label[16], type[12];
  const int status = Query_Block_Info_By_Path("/dev/sda1", uuid, label, type);
  snprintf(shown_text, sizeof shown_text, "%s %s %s", uuid, label, type);
  return show(w, status);
}

int block_info_by_id(World &w) {
  char device[24], label[16], type[12];
  const int status = Query_Block_Info_By_Id("0a-1", device, label, type);
  snprintf(shown_text, sizeof shown_text, "%s %s %s", device, label, type);
  return show(w, status);
}

int device_info(World &w) {
  uint64_t size = 0;
  unsigned int partition = 0;
  char vendor[36], model[32];
  const int status = Query_Block_Device_Info("/dev/sda1", &size, &partition, vendor, model);
  snprintf(shown_text, sizeof shown_text, "%llu %u %s %s", static_cast<unsigned long long>(size), partition, vendor,
           model);
  return show(w, status);
}

}  // namespace

std::vector<Scenario> mounts_and_shares() {
  return {
      // A table that cannot be read further ends there: its reader does not tell.
      {.function = "Scan_Mount_Info",
       .prepare = prepare_appliance,
       .call = scan_mounts,
       .result = "/tmp;/share/A_DATA;",
       .lesser_results = {""}},
      {.function = "Query_Mount_Entry_By_Device",
       .prepare = prepare_appliance,
       .call = entry_of(Query_Mount_Entry_By_Device, "/dev/sda1"),
       .result = "/share/A_DATA",
       .answers = {{Call::read, Place::other, -ENOTDIR}}},
      {.function = "Query_Mount_Entry_By_Path",
       .prepare = prepare_appliance,
       .call = entry_of(Query_Mount_Entry_By_Path, "/share/A_DATA"),
       .result = "/share/A_DATA",
       .answers = {{Call::read, Place::other, -ENOTDIR}}},
      {.function = "Scan_Share_List",
       .prepare = prepare_appliance,
       .call = scan_shares,
       .result = "Public 0;Volume 10;",
       .lesser_results = lesser_share_lists()},
      {.function = "Query_Mount_Shortcut",
       .prepare = prepare_appliance,
       .call = find_shortcut,
       .result = "/share/Volume",
       .out_of_memory = {-ENOENT},
       .answer = -ENOENT},
      volume_scenario("Query_Volume_Info_BY_Path", "of a device", volume_of(Query_Volume_Info_BY_Path, "/dev/sda1"),
                      "65536", "65536"),
      volume_scenario("Query_Volume_Info_BY_Path", "of a folder", volume_of(Query_Volume_Info_BY_Path, "/share/A_DATA"),
                      "1024000", "0"),
      volume_scenario("Query_Volume_Info_BY_Id", "", volume_of(Query_Volume_Info_BY_Id, "0a-1"), "65536", "65536"),
  };
}

std::vector<Scenario> block_devices() {
  return {
      // A tool that cannot be started, or whose output ends, knows no devices.
      {.function = "Scan_Block_Device_Info",
       .prepare = prepare_appliance,
       .call = scan_devices,
       .result = "/dev/sdb1 0b-1 vfat;/dev/sda1 0a-1 ext4;",
       .lesser_results = {""}},
      {.function = "Query_Block_Info_By_Path",
       .prepare = prepare_appliance,
       .call = block_info_by_path,
       .result = "0a-1 data ext4",
       .out_of_memory = {-ENODEV},
       .answer = -ENODEV},
      {.function = "Query_Block_Info_By_Id",
       .prepare = prepare_appliance,
       .call = block_info_by_id,
       .result = "/dev/sda1 data ext4",
       .out_of_memory = {-ENODEV},
       .answer = -ENODEV},
      // Only the vendor is indispensable.
      {.function = "Query_Block_Device_Info",
       .prepare = prepare_appliance,
       .call = device_info,
       .result = "1024000 1 ACME Fast",
       .lesser_results = {"0 1 ACME Fast", "1024000 0 ACME Fast", "1024000 1 ACME "}},
  };
}

}  // namespace tarn::test

#include <tarncluster_util.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "listing.h"

namespace tool {
namespace {

constexpr const char *block_id_tool = "/usr/local/sbin/blkid";

// ------------------------------------------------------------------------------------------------------------- mounts

using Mounts = std::unique_ptr<Mount_Info, decltype(&Free_Mount_Info)>;

constexpr Column<Mount_Info> mount_columns[] = {
    {"DEVICE", "device", [](const Mount_Info &mount) { return text_cell(mount.device); }},
    {"MOUNT POINT", "mount_point", [](const Mount_Info &mount) { return text_cell(mount.mount_point); }},
    {"TYPE", "type", [](const Mount_Info &mount) { return text_cell(mount.fs_type); }},
    {"OPTIONS", "options", [](const Mount_Info &mount) { return text_cell(mount.options); }},
};

// The library puts each entry before those that it had found.
template <typename Record>
Record *in_order_of_finding(Record *list) {
  Record *first = nullptr;
  while (list != nullptr) {
    Record *next = std::exchange(list->next, first);
    first = std::exchange(list, next);
  }
  return first;
}

void list_mounts(bool as_json) {
  Mount_Info *last = nullptr;
  const int status = Scan_Mount_Info(&last);
  const Mounts mounts(in_order_of_finding(last), Free_Mount_Info);
  check(status, "cannot read the mounted file systems");
  print_list(mounts.get(), mount_columns, as_json);
}

// ------------------------------------------------------------------------------------------------------------- shares

struct Release_Shares {
  void operator()(Share_Info *list) const { Release_Share_List(&list); }
};
using Shares = std::unique_ptr<Share_Info, Release_Shares>;

bool has_flags(const Share_Info &share, unsigned int flags) {
  return (share.flags & flags) == flags;
}

std::string notes_on(const Share_Info &share) {
  std::string notes;
  for (const auto &[flags, note] : {std::pair{TARN_SHARE_HIDDEN, "hidden"}, std::pair{TARN_SHARE_EXTERNAL, "external"},
                                    std::pair{TARN_SHARE_READ_ONLY, "read-only"}}) {
    if (has_flags(share, flags)) notes += (notes.empty() ? "" : ", ") + std::string(note);
  }
  return notes.empty() ? "-" : notes;
}

Cell mode_cell(const Share_Info &share) {
  char octal[16];
  snprintf(octal, sizeof octal, "%04o", share.mode & 07777);
  return text_cell(octal);
}

Cell time_cell(time_t seconds) {
  Cell cell = number_cell(seconds);
  struct tm parts;
  char text[32];
  if (localtime_r(&seconds, &parts) != nullptr && strftime(text, sizeof text, "%F %T", &parts) > 0) cell.text = text;
  return cell;
}

Cell flag_cell(const Share_Info &share, unsigned int flags) {
  return choice_cell(has_flags(share, flags), "yes", "no");
}

constexpr Column<Share_Info> share_columns[] = {
    {"SHARE", "name", [](const Share_Info &share) { return text_cell(share.name); }},
    {"MODE", "mode", mode_cell},
    {"OWNER", "uid", [](const Share_Info &share) { return number_cell(share.uid); }},
    {"GROUP", "gid", [](const Share_Info &share) { return number_cell(share.gid); }},
    {"FREE", "free_bytes", [](const Share_Info &share) { return size_cell(static_cast<uint64_t>(share.free_bytes)); }},
    {"CHANGED", "changed", [](const Share_Info &share) { return time_cell(share.mtime); }},
    {"NOTES", "",
     [](const Share_Info &share) {
       return Cell{notes_on(share), nullptr};
     }},
    {nullptr, "hidden", [](const Share_Info &share) { return flag_cell(share, TARN_SHARE_HIDDEN); }},
    {nullptr, "external", [](const Share_Info &share) { return flag_cell(share, TARN_SHARE_EXTERNAL); }},
    {nullptr, "read_only", [](const Share_Info &share) { return flag_cell(share, TARN_SHARE_READ_ONLY); }},
};

void scan_shares(bool as_json) {
  Share_Info *first = nullptr;
  check(Scan_Share_List(&first, nullptr), "cannot read /share");
  const Shares shares(first);
  print_list(shares.get(), share_columns, as_json);
}

// ------------------------------------------------------------------------------------------------------------ volumes

constexpr Column<Volume_Info> volume_columns[] = {
    {"Device", "device", [](const Volume_Info &volume) { return text_cell(volume.device); }},
    {"Partition", "partition", [](const Volume_Info &volume) { return number_cell(volume.partition); }},
    {"Mounted at", "shortcut", [](const Volume_Info &volume) { return text_cell(volume.shortcut); }},
    {"Type", "type", [](const Volume_Info &volume) { return text_cell(volume.type); }},
    {"Label", "label", [](const Volume_Info &volume) { return text_cell(volume.label); }},
    {"UUID", "uuid", [](const Volume_Info &volume) { return text_cell(volume.uuid); }},
    {"Total", "total_bytes", [](const Volume_Info &volume) { return size_cell(volume.total_bytes); }},
    {"Available", "avail_bytes", [](const Volume_Info &volume) { return size_cell(volume.avail_bytes); }},
    {"Vendor", "vendor", [](const Volume_Info &volume) { return text_cell(volume.vendor); }},
    {"Model", "model", [](const Volume_Info &volume) { return text_cell(volume.model); }},
};

void show_volume(const std::string &path_or_uuid, bool as_json) {
  need_program(block_id_tool);
  const bool is_path = path_or_uuid.find('/') != path_or_uuid.npos;
  Volume_Info volume = {};
  const int status = is_path ? Query_Volume_Info_BY_Path(path_or_uuid.c_str(), &volume)
                             : Query_Volume_Info_BY_Id(path_or_uuid.c_str(), &volume);
  if (status == -ENOTDIR) throw Failure("no file system is mounted from or at " + path_or_uuid);
  check(status, "cannot tell of the volume " + path_or_uuid);
  print_record(volume, volume_columns, as_json);
}

// -------------------------------------------------------------------------------------------------------------- disks

void free_devices(Block_Device *list) {
  while (list != nullptr) {
    Block_Device *next = list->next;
    std::free(list);
    list = next;
  }
}
using Devices = std::unique_ptr<Block_Device, decltype(&free_devices)>;

// What the kernel tells of a device. A virtual one has no vendor, which the query reports as a failure.
struct Device_Facts {
  uint64_t size = 0;
  unsigned int partition = 0;
  char vendor[33] = "", model[32] = "";

  explicit Device_Facts(const Block_Device &device) {
    static_cast<void>(Query_Block_Device_Info(device.device, &size, &partition, vendor, model));
  }
};

constexpr Column<Block_Device> device_columns[] = {
    {"DEVICE", "device", [](const Block_Device &device) { return text_cell(device.device); }},
    {"SIZE", "size", [](const Block_Device &device) { return size_cell(Device_Facts(device).size); }},
    {"TYPE", "type", [](const Block_Device &device) { return text_cell(device.type); }},
    {"UUID", "uuid", [](const Block_Device &device) { return text_cell(device.uuid); }},
    {nullptr, "partition", [](const Block_Device &device) { return number_cell(Device_Facts(device).partition); }},
    {"VENDOR", "vendor", [](const Block_Device &device) { return text_cell(Device_Facts(device).vendor); }},
    {"MODEL", "model", [](const Block_Device &device) { return text_cell(Device_Facts(device).model); }},
};

void list_devices(bool as_json) {
  need_program(block_id_tool);
  Block_Device *last = nullptr;
  const int status = Scan_Block_Device_Info(&last);
  const Devices devices(in_order_of_finding(last), free_devices);
  check(status, "cannot list the block devices");
  print_list(devices.get(), device_columns, as_json);
}

CLI::App *add_noun_with_verb(CLI::App &app, const char *noun, const char *description, const char *verb,
                             const char *verb_description) {
  CLI::App *command = app.add_subcommand(noun, description);
  command->require_subcommand(1);
  return command->add_subcommand(verb, verb_description);
}

}  // namespace

void add_volume_commands(CLI::App &app, const Settings &settings) {
  CLI::App *mounts = add_noun_with_verb(app, "mount", "This appliance's mounted file systems", "list",
                                        "List the mounted file systems");
  mounts->footer("Example: tarncluster mount list");
  mounts->callback([&settings] { list_mounts(settings.json); });

  CLI::App *disks = add_noun_with_verb(app, "disk", "This appliance's disks", "list",
                                       "List the block devices that hold file systems");
  disks->footer("Example: tarncluster disk list");
  disks->callback([&settings] { list_devices(settings.json); });

  auto path_or_uuid = std::make_shared<std::string>();
  CLI::App *volume = add_noun_with_verb(app, "volume", "This appliance's volumes", "show", "Tell of a mounted volume");
  volume->add_option("PATH|UUID", *path_or_uuid, "Its device, a share folder that is its mount point, or its UUID")
      ->required();
  volume->footer("Example: tarncluster volume show /dev/sda1");
  volume->callback([path_or_uuid, &settings] { show_volume(*path_or_uuid, settings.json); });

  CLI::App *scan = app.get_subcommand("share")->add_subcommand("scan", "List this appliance's own shared folders");
  scan->footer("Example: tarncluster share scan");
  scan->callback([&settings] { scan_shares(settings.json); });
}

}  // namespace tool

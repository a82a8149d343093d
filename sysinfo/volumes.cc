#include "sysinfo/mounts.h"

#include <sys/statfs.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "foundation/bounded_text.h"

static_assert(sizeof(Volume_Info) == 224);

namespace tarn {
namespace {

constexpr char device_prefix[] = "/dev/";

void set_shortcut(const char *mount_point, Volume_Info *info) {
  if (Query_Mount_Shortcut(mount_point, info->shortcut) != 0) copy_bounded(info->shortcut, mount_point);
}

void set_sizes(const struct statfs &status, Volume_Info *info) {
  const auto block = static_cast<uint64_t>(status.f_bsize);
  info->avail_bytes = status.f_bavail * block;
  info->total_bytes = status.f_blocks * block;
}

// The whole path is asked for, however much of it the record keeps.
int read_block_info(const char *device, Volume_Info *info) {
  return Query_Block_Info_By_Path(device, info->uuid, info->label, info->type);
}

int read_device_info(const char *device, Volume_Info *info) {
  return Query_Block_Device_Info(device, &info->total_bytes, &info->partition, info->vendor, info->model);
}

// Where the device is mounted; the file system's size replaces the device's.
int read_mount_of(const char *device, Volume_Info *info) {
  mntent *entry = nullptr;
  const int status = Query_Mount_Entry_By_Device(device, &entry);
  if (status != 0) return status;
  struct statfs file_system;
  if (statfs(entry->mnt_dir, &file_system) == 0) set_sizes(file_system, info);
  set_shortcut(entry->mnt_dir, info);
  return 0;
}

int describe_device(const char *device, Volume_Info *info) {
  int status = read_block_info(device, info);
  if (status != 0) return status;
  copy_bounded(info->device, device);
  status = read_device_info(device, info);
  return status == 0 ? read_mount_of(device, info) : status;
}

// The device's size is read last, and stays: callers know the two queries to differ in it.
int describe_share_folder(const char *path, Volume_Info *info) {
  char real_path[PATH_MAX];
  struct statfs file_system;
  if (realpath(path, real_path) == nullptr || statfs(real_path, &file_system) != 0) return -errno;
  mntent *entry = nullptr;
  int status = Query_Mount_Entry_By_Path(real_path, &entry);
  if (status != 0) return status;
  copy_bounded(info->device, entry->mnt_fsname);
  set_shortcut(real_path, info);
  set_sizes(file_system, info);
  status = read_block_info(entry->mnt_fsname, info);
  return status == 0 ? read_device_info(entry->mnt_fsname, info) : status;
}

}  // namespace
}  // namespace tarn

int Query_Volume_Info_BY_Path(const char *path, Volume_Info *info) {
  if (path == nullptr || info == nullptr) return -EINVAL;
  memset(info, 0, sizeof *info);
  if (strncmp(path, tarn::device_prefix, sizeof tarn::device_prefix - 1) == 0) {
    return tarn::describe_device(path, info);
  }
  return tarn::lies_below_share(path) ? tarn::describe_share_folder(path, info) : -EINVAL;
}

int Query_Volume_Info_BY_Id(const char *uuid, Volume_Info *info) {
  if (uuid == nullptr || info == nullptr || strlen(uuid) >= sizeof info->uuid) return -EINVAL;
  memset(info, 0, sizeof *info);
  int status = Query_Block_Info_By_Id(uuid, info->device, info->label, info->type);
  if (status != 0) return status;
  tarn::copy_bounded(info->uuid, uuid);
  status = tarn::read_device_info(info->device, info);
  return status == 0 ? tarn::read_mount_of(info->device, info) : status;
}

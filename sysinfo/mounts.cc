#include "sysinfo/mounts.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "foundation/report.h"

static_assert(offsetof(Mount_Info, options) == 40);

namespace tarn {
namespace {

struct Text_End {
  char *place;
  char *put(const char *text) {
    char *start = place;
    place = stpcpy(place, text) + 1;
    return start;
  }
};

Mount_Info *make_mount(const mntent &entry) {
  const size_t size = sizeof(Mount_Info) + strlen(entry.mnt_opts) + strlen(entry.mnt_type) + strlen(entry.mnt_dir) +
                      strlen(entry.mnt_fsname) + 4;
  auto *made = static_cast<Mount_Info *>(malloc(size));
  if (made == nullptr) {
    TARN_ERROR_AS("Scan_Mount_Info", "Can't allocate %d bytes memory!", static_cast<int>(size));
    return nullptr;
  }
  made->passno = entry.mnt_passno;
  made->freq = entry.mnt_freq;
  Text_End texts = {made->options};
  texts.put(entry.mnt_opts);
  made->fs_type = texts.put(entry.mnt_type);
  made->mount_point = texts.put(entry.mnt_dir);
  made->device = texts.put(entry.mnt_fsname);
  return made;
}

// The reader's own entry goes to the caller; it outlives the table's closing.
template <typename Matches>
int find_entry(const Matches &matches, mntent **found) {
  *found = nullptr;
  const Mount_Table table(setmntent(mount_table, "re"));
  if (table == nullptr) return -errno;
  while (mntent *entry = getmntent(table.get())) {
    if (!matches(*entry)) continue;
    *found = entry;
    return 0;
  }
  return -ENOTDIR;
}

}  // namespace
}  // namespace tarn

int Scan_Mount_Info(Mount_Info **list) {
  if (list == nullptr) return -EINVAL;
  const tarn::Mount_Table table(setmntent(tarn::mount_table, "re"));
  if (table == nullptr) return -errno;
  while (const mntent *entry = getmntent(table.get())) {
    Mount_Info *made = tarn::make_mount(*entry);
    if (made == nullptr) return -ENOMEM;
    made->next = *list;
    *list = made;
  }
  return 0;
}

void Free_Mount_Info(Mount_Info *list) {
  while (list != nullptr) {
    Mount_Info *next = list->next;
    free(list);
    list = next;
  }
}

int Query_Mount_Entry_By_Device(const char *device, struct mntent **entry) {
  if (device == nullptr || entry == nullptr) return -EINVAL;
  return tarn::find_entry([&](const mntent &found) { return strcmp(found.mnt_fsname, device) == 0; }, entry);
}

int Query_Mount_Entry_By_Path(const char *mount_point, struct mntent **entry) {
  if (mount_point == nullptr || entry == nullptr) return -EINVAL;
  return tarn::find_entry([&](const mntent &found) { return strcmp(found.mnt_dir, mount_point) == 0; }, entry);
}

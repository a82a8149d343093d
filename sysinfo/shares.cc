#include "sysinfo/mounts.h"

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "foundation/report.h"

static_assert(offsetof(Share_Info, name) == 48);

const char *g_rypszReservedShare[] = {"TMBackup", nullptr};

namespace tarn {
namespace {

constexpr char function[] = "Scan_Share_List";
constexpr char samba_file[] = "/etc/config/smb.conf";
constexpr char external_folder[] = "external/";
constexpr unsigned int udf_type = 0x15013346;
constexpr unsigned int iso9660_type = 0x9660;
constexpr unsigned int without_write_bits = 0xFF6D;
constexpr int value_size = 32;
constexpr size_t shortcut_size = sizeof Volume_Info::shortcut;

struct Facts {
  struct stat status;
  struct statfs file_system;
  char real_path[PATH_MAX];
};

struct Share_Link {
  char path[sizeof share_prefix + NAME_MAX];
  explicit Share_Link(const char *name) { snprintf(path, sizeof path, "%s%s", share_prefix, name); }
};

// False for what is no share. An entry whose type the folder does not tell counts as none.
bool read_facts(int folder, const dirent &entry, Facts *facts) {
  if (entry.d_type != DT_LNK || strcmp(entry.d_name, g_rypszReservedShare[0]) == 0) return false;
  if (fstatat(folder, entry.d_name, &facts->status, 0) != 0 || !S_ISDIR(facts->status.st_mode)) return false;
  const Share_Link link(entry.d_name);
  if (realpath(link.path, facts->real_path) == nullptr || statfs(facts->real_path, &facts->file_system) != 0)
    return false;
  if (lies_below_share(facts->real_path)) return true;
  TARN_DEBUG_AS(function, "Skip the manual configured shared folder %s, %s!", entry.d_name, facts->real_path);
  return false;
}

// Hidden when the settings say so, and when they cannot be read for another reason than that the key is missing.
bool is_hidden(const char *name) {
  int status = -ENODATA;
  char value[value_size];
  for (const char *key : {"browsable", "browseable"}) {
    int size = sizeof value;
    status = Get_Conf_File_String_Value(samba_file, name, key, value, &size);
    if (status != -ENODATA) break;
  }
  if (status == -ENODATA) return false;
  return status != 0 || strcasecmp(value, "No") == 0;
}

bool is_mount_point(const Mount_Info *mounts, const char *path) {
  for (; mounts != nullptr; mounts = mounts->next) {
    if (strcmp(mounts->mount_point, path) == 0) return true;
  }
  return false;
}

unsigned int place_flags(const char *name, const char *real_path, const Mount_Info *mounts) {
  const char *rest = real_path + share_prefix_length;
  if (strncmp(rest, external_folder, sizeof external_folder - 1) == 0) {
    return is_mount_point(mounts, real_path) ? TARN_SHARE_EXTERNAL : 0;
  }
  if (strstr(rest, "_DATA/") == nullptr) {
    TARN_DEBUG_AS(function, "Found an non-auto-generated shared folder %s, %s!", name, real_path);
  }
  return 0;
}

bool is_optical(const struct statfs &file_system) {
  const auto type = static_cast<unsigned int>(file_system.f_type);
  return type == udf_type || type == iso9660_type;
}

Share_Info *make_share(const char *name, const Facts &facts, unsigned int flags) {
  const size_t length = strlen(name);
  const size_t size = sizeof(Share_Info) + length + 1;
  auto *share = static_cast<Share_Info *>(malloc(size));
  if (share == nullptr) {
    TARN_ERROR_AS(function, "ERROR: Failed to allocate memory of %d bytes.", static_cast<int>(size));
    return nullptr;
  }
  const bool optical = is_optical(facts.file_system);
  share->next = nullptr;
  share->mtime = static_cast<int>(facts.status.st_mtim.tv_sec);
  share->mtime_nsec = static_cast<int>(facts.status.st_mtim.tv_nsec);
  share->mode = optical ? facts.status.st_mode & without_write_bits : facts.status.st_mode;
  share->flags = optical ? flags | TARN_SHARE_READ_ONLY : flags;
  share->uid = facts.status.st_uid;
  share->gid = facts.status.st_gid;
  share->fs_type = static_cast<int>(facts.file_system.f_type);
  share->block_size = static_cast<int>(facts.file_system.f_bsize);
  share->free_bytes = static_cast<int64_t>(facts.file_system.f_bfree) * static_cast<int64_t>(facts.file_system.f_bsize);
  memcpy(share->name, name, length + 1);
  return share;
}

// Two sorted lists as one; of shares that compare equal the first list's come first.
Share_Info *merge(Share_Info *first, Share_Info *second) {
  Share_Info *merged = nullptr;
  Share_Info **end = &merged;
  while (first != nullptr && second != nullptr) {
    Share_Info **smaller = strcmp(second->name, first->name) < 0 ? &second : &first;
    *end = *smaller;
    *smaller = (*end)->next;
    end = &(*end)->next;
  }
  *end = first != nullptr ? first : second;
  return merged;
}

// The shares as they are found, in sorted runs of 1, 2, 4 and so on, the oldest in the longest: thousands of shares
// take no memory of their own and few comparisons each.
class Sorted_Shares {
 public:
  Sorted_Shares() = default;
  ~Sorted_Shares() {
    Share_Info *rest = take();
    Release_Share_List(&rest);
  }
  Sorted_Shares(const Sorted_Shares &) = delete;
  Sorted_Shares &operator=(const Sorted_Shares &) = delete;

  void add(Share_Info *share);
  Share_Info *take();
  int count() const { return count_; }

 private:
  Share_Info *runs_[32] = {};
  int count_ = 0;
};

void Sorted_Shares::add(Share_Info *share) {
  Share_Info **run = runs_;
  for (; *run != nullptr; ++run) share = merge(std::exchange(*run, nullptr), share);
  *run = share;
  ++count_;
}

Share_Info *Sorted_Shares::take() {
  Share_Info *all = nullptr;
  for (Share_Info *&run : runs_) all = merge(std::exchange(run, nullptr), all);
  return all;
}

// As much of a link's path as the field holds.
void write_shortcut(const char *name, char *shortcut) {
  const Share_Link link(name);
  const size_t length = strnlen(link.path, shortcut_size - 1);
  memcpy(shortcut, link.path, length);
  shortcut[length] = '\0';
}

int gather_shares(DIR *folder, const Mount_Info *mounts, Sorted_Shares *shares) {
  while (const dirent *entry = readdir(folder)) {
    Facts facts;
    if (!read_facts(dirfd(folder), *entry, &facts)) continue;
    const unsigned int hidden = is_hidden(entry->d_name) ? TARN_SHARE_HIDDEN : 0;
    Share_Info *share = make_share(entry->d_name, facts, hidden | place_flags(entry->d_name, facts.real_path, mounts));
    if (share == nullptr) return -ENOMEM;
    shares->add(share);
  }
  return 0;
}

}  // namespace
}  // namespace tarn

int Scan_Share_List(Share_Info **list, int *count) {
  if (list == nullptr) {
    TARN_ERROR("Invalid input parameter.");
    return -EINVAL;
  }
  *list = nullptr;
  if (count != nullptr) *count = 0;
  Mount_Info *mounts = nullptr;
  Scan_Mount_Info(&mounts);
  const tarn::Mount_List owner(mounts);

  const tarn::Folder folder(opendir(tarn::share_prefix));
  if (folder == nullptr) {
    const int failure = -errno;
    TARN_ERROR("Failed to opendir(%s)! (%d)", tarn::share_prefix, failure);
    return failure;
  }
  tarn::Sorted_Shares shares;
  const int status = tarn::gather_shares(folder.get(), mounts, &shares);
  if (status != 0) return status;
  if (count != nullptr) *count = shares.count();
  *list = shares.take();
  return 0;
}

void Release_Share_List(Share_Info **list) {
  if (list == nullptr) return;
  while (*list != nullptr) {
    Share_Info *next = (*list)->next;
    free(*list);
    *list = next;
  }
}

int Query_Mount_Shortcut(const char *mount_point, char *shortcut) {
  if (mount_point == nullptr || shortcut == nullptr) return -EINVAL;
  if (!tarn::lies_below_share(mount_point)) return -ENOENT;
  const tarn::Folder folder(opendir("/share"));
  if (folder == nullptr) return -ENOENT;
  while (const dirent *entry = readdir(folder.get())) {
    if (entry->d_type != DT_LNK) continue;
    char target[tarn::shortcut_size + 1] = "";
    if (readlinkat(dirfd(folder.get()), entry->d_name, target, tarn::shortcut_size) < 0) continue;
    if (strcmp(target, mount_point + tarn::share_prefix_length) != 0) continue;
    tarn::write_shortcut(entry->d_name, shortcut);
    return 0;
  }
  return -ENOENT;
}

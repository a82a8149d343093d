#include "fsutil/tree_walk.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "foundation/report.h"
#include "fsutil/path_checks.h"

namespace tarn {
namespace {

constexpr int kept_parents = 64;  // descriptors that one side keeps open on its way down
constexpr size_t first_capacity = PATH_MAX;

}  // namespace

int Path_Text::reserve(size_t size) {
  if (size <= capacity_) return 0;
  const size_t capacity = std::max({size, 2 * capacity_, first_capacity});
  char *grown = static_cast<char *>(realloc(text_.get(), capacity));
  if (grown == nullptr) return -ENOMEM;
  static_cast<void>(text_.release());
  text_.reset(grown);
  capacity_ = capacity;
  return 0;
}

int Path_Text::assign(const char *text) {
  const size_t length = strlen(text);
  const int status = reserve(length + 1);
  if (status != 0) return status;
  memcpy(text_.get(), text, length + 1);
  length_ = length;
  return 0;
}

int Path_Text::append(const char *name) {
  const size_t length = strlen(name);
  const int status = reserve(length_ + 1 + length + 1);
  if (status != 0) return status;
  text_.get()[length_] = '/';
  memcpy(text_.get() + length_ + 1, name, length + 1);
  length_ += length + 1;
  return 0;
}

int full_path_at(const char *function, int dir_fd, const char *path, Path_Text *full) {
  int status = 0;
  if (dir_fd == AT_FDCWD || path[0] == '/') {
    status = full->assign(path);
  } else {
    char base[PATH_MAX];
    const int length = Get_FD_Path(dir_fd, base, sizeof base - 1);
    if (length < 0) {
      TARN_DEBUG_AS(function, "Can't get the base path by its FD %d error!, %d", dir_fd, -EINVAL);
      return -EINVAL;
    }
    base[length] = '\0';
    status = full->assign(base);
    if (status == 0) status = full->append(path);
  }
  // The text ends without a slash; entries are appended with theirs.
  while (status == 0 && full->length() > 1 && full->text()[full->length() - 1] == '/') full->cut(full->length() - 1);
  return status;
}

int Folder_Cursor::enter(const char *name, Parent *parent) {
  Descriptor folder(openat(fd(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return -errno;
  if (kept_ < kept_parents) {
    parent->fd = current_.release();
    ++kept_;
  } else {
    struct stat status;
    if (fstat(fd(), &status) != 0) return -errno;
    parent->device = status.st_dev;
    parent->inode = status.st_ino;
  }
  current_ = std::move(folder);
  return 0;
}

int Folder_Cursor::leave(Parent *parent) {
  if (parent->fd >= 0) {
    current_ = Descriptor(parent->fd);
    parent->fd = -1;
    --kept_;
    return 0;
  }
  Descriptor folder(openat(fd(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return -errno;
  struct stat status;
  if (fstat(folder.get(), &status) != 0) return -errno;
  if (status.st_dev != parent->device || status.st_ino != parent->inode) return -ESTALE;
  current_ = std::move(folder);
  return 0;
}

void Folder_Cursor::forget(Parent *parent) {
  Descriptor(std::exchange(parent->fd, -1));
}

Tree_Walk::~Tree_Walk() {
  while (stack_ != nullptr) drop_last();
}

int Tree_Walk::push(const char *name, const timespec &modified) {
  const size_t length = strlen(name);
  auto *folder = static_cast<Pending_Folder *>(malloc(sizeof(Pending_Folder) + length + 1));
  if (folder == nullptr) return -ENOMEM;
  *folder = {.next = stack_,
             .source_parent = {},
             .destination_parent = {},
             .modified = modified,
             .visited = false,
             .entered = false};
  memcpy(folder->name, name, length + 1);
  stack_ = folder;
  return 0;
}

void Tree_Walk::drop_last() {
  Pending_Folder *folder = stack_;
  stack_ = folder->next;
  Folder_Cursor::forget(&folder->source_parent);
  Folder_Cursor::forget(&folder->destination_parent);
  free(folder);
}

}  // namespace tarn

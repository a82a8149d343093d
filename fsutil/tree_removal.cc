#include <unistd.h>

#include "foundation/report.h"
#include "fsutil/path_checks.h"
#include "fsutil/tree_walk.h"
#include "include/tarncluster_util.h"

namespace tarn {
namespace {

constexpr char function[] = "Remove_Folder_Tree_At";

class Removal_Visitor {
 public:
  explicit Removal_Visitor(Tree_Walk *walk) : walk_(walk) {}

  int visit(const char *name, unsigned char type);
  void unreadable(int error) const;
  int after_folder() const { return walk_->abort().value(); }
  int enter(Pending_Folder *) const { return 0; }
  int leave(Pending_Folder *folder);

 private:
  Tree_Walk *walk_;
};

void Removal_Visitor::unreadable(int error) const {
  TARN_ERROR_AS(function, "Can't opendir %s error! (%d)", walk_->path(), -error);
}

// The type as the folder tells it will do: should it be wrong in the meantime, neither a folder is unlinked nor a link
// gone into.
int Removal_Visitor::visit(const char *name, unsigned char type) {
  if (type == DT_UNKNOWN) {
    struct stat status;
    if (fstatat(walk_->fd(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      TARN_ERROR_AS(function, "Can't fstat file: %s/%s", walk_->path(), name);
      return 0;
    }
    type = S_ISDIR(status.st_mode) ? DT_DIR : DT_REG;
  }
  if (type == DT_DIR) return walk_->push(name, {});
  if (unlinkat(walk_->fd(), name, 0) == 0 || errno == ENOENT) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't unlink file %s/%s error! (%d)", walk_->path(), name, failure);
  return 0;
}

int Removal_Visitor::leave(Pending_Folder *folder) {
  if (unlinkat(walk_->fd(), folder->name, AT_REMOVEDIR) == 0 || errno == ENOENT) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't rmdir %s error! (%d)", walk_->path(), failure);
  return 0;
}

int remove_name(int dir_fd, const char *path, int flags) {
  return unlinkat(dir_fd, path, flags) == 0 ? 0 : -errno;
}

}  // namespace
}  // namespace tarn

int Remove_Folder_Tree_At(int dir_fd, const char *path, unsigned int *abort_flag) {
  if (!tarn::is_folder_descriptor(dir_fd) || path == nullptr) return -EINVAL;
  struct stat root;
  if (fstatat(dir_fd, path, &root, AT_SYMLINK_NOFOLLOW) != 0) return -errno;
  if (!S_ISDIR(root.st_mode)) return tarn::remove_name(dir_fd, path, 0);
  tarn::Path_Text full;
  int status = tarn::full_path_at(__func__, dir_fd, path, &full);
  if (status != 0) return status;
  const tarn::Abort_Flag abort(abort_flag);
  if (abort.is_set()) return abort.value();

  tarn::Descriptor folder(openat(dir_fd, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  const int unopened = folder ? 0 : errno;
  tarn::Tree_Walk walk(std::move(folder), std::move(full), abort);
  tarn::Removal_Visitor visitor(&walk);
  if (unopened != 0) visitor.unreadable(unopened);
  bool finished = false;
  status = walk.run(&visitor, &finished);
  if (status != 0 || !finished || abort.is_set()) return status != 0 ? status : abort.value();
  return tarn::remove_name(dir_fd, path, AT_REMOVEDIR);
}

int Remove_Folder_Tree(const char *path, unsigned int *abort_flag) {
  return Remove_Folder_Tree_At(AT_FDCWD, path, abort_flag);
}

#include <cstdlib>

#include "foundation/report.h"
#include "fsutil/bulk_transfer.h"
#include "fsutil/file_copy.h"
#include "fsutil/path_checks.h"
#include "fsutil/tree_walk.h"

namespace tarn {
namespace {

constexpr char function[] = "Copy_Folder_Tree_At";
constexpr mode_t mode_bits = 07777;

// The destination's root: what the caller named, and what it is.
struct Destination {
  int dir_fd;
  const char *path;
  struct stat status;
};

int report_untimed(const Destination &root, int status) {
  if (status != 0)
    TARN_DEBUG_AS(function, "Can't chtime the folder (%d, %s) error! (%d)", root.dir_fd, root.path, status);
  return status;
}

class Copy_Visitor {
 public:
  Copy_Visitor(Tree_Walk *walk, const Destination &root, Descriptor root_folder, Path_Text path, char *buffer)
      : walk_(walk), root_(root), cursor_(std::move(root_folder)), path_(std::move(path)), buffer_(buffer) {}

  int visit(const char *name, unsigned char type);
  void unreadable(int error) const;
  int after_folder() const { return 0; }
  int enter(Pending_Folder *folder);
  int leave(Pending_Folder *folder);

 private:
  int copy_entry(const char *name, const struct stat &status);
  int copy_folder_entry(const char *name, const Place &source, const Place &destination, const struct stat &status);

  Tree_Walk *walk_;
  const Destination &root_;
  Folder_Cursor cursor_;
  Path_Text path_;
  Path_Text entry_path_;
  Path_Text entry_destination_;
  char *buffer_;
};

void Copy_Visitor::unreadable(int error) const {
  TARN_DEBUG_AS(function, "Can't opendir %s (%d)", walk_->path(), -error);
}

// Paths are put together for the log only.
int Copy_Visitor::visit(const char *name, unsigned char) {
  int status = entry_path_.assign(walk_->path());
  if (status == 0) status = entry_path_.append(name);
  if (status == 0) status = entry_destination_.assign(path_.text());
  if (status == 0) status = entry_destination_.append(name);
  if (status != 0) return status;
  struct stat found;
  if (fstatat(walk_->fd(), name, &found, AT_SYMLINK_NOFOLLOW) == 0) return copy_entry(name, found);
  const int failure = -errno;
  TARN_DEBUG_AS(function, "Can't fstat file %s error! (%d)", entry_path_.text(), failure);
  return failure;
}

int Copy_Visitor::copy_entry(const char *name, const struct stat &status) {
  const Place source(walk_->fd(), name, AT_FDCWD, entry_path_.text());
  const Place destination(cursor_.fd(), name, root_.dir_fd, entry_destination_.text());
  if (S_ISDIR(status.st_mode)) return copy_folder_entry(name, source, destination, status);
  if (S_ISREG(status.st_mode)) {
    const int copied = copy_file(source, destination, &status, {buffer_, walk_->abort(), nullptr, true});
    if (copied != 0) {
      TARN_DEBUG_AS(function, "Can't copy file (%s -> %d, %s) error! (%d)", source.shown, destination.shown_fd,
                    destination.shown, copied);
    }
    return copied;
  }
  if (!S_ISLNK(status.st_mode)) return 0;
  const int made = copy_symlink(source, destination, &status);
  if (made != 0) {
    TARN_DEBUG_AS(function, "Can't create symlink (%d, %s) error! (%d)", destination.shown_fd, destination.shown, made);
  }
  return made;
}

int Copy_Visitor::copy_folder_entry(const char *name, const Place &source, const Place &destination,
                                    const struct stat &status) {
  if (is_same_file(status, root_.status)) return 0;  // the copy itself, when it grows within its source
  const int pushed = walk_->push(name, status.st_mtim);
  if (pushed != 0) return pushed;
  const int made = copy_folder(source, destination, &status);
  if (made != 0) {
    TARN_DEBUG_AS(function, "Can't create folder (%d, %s) error! (%d)", destination.shown_fd, destination.shown, made);
  }
  return made;
}

int Copy_Visitor::enter(Pending_Folder *folder) {
  const int entered = cursor_.enter(folder->name, &folder->destination_parent);
  return entered == 0 ? path_.append(folder->name) : entered;
}

// The time goes to the root, not to the folder that was left: programs rely on a copied subfolder's time being that of
// its copy.
int Copy_Visitor::leave(Pending_Folder *folder) {
  report_untimed(root_, set_modified_time(root_.dir_fd, root_.path, folder->modified));
  if (!folder->entered) return 0;
  path_.cut(path_.length() - strlen(folder->name) - 1);
  return cursor_.leave(&folder->destination_parent);
}

// Looked at without a slash at the end, with which a file would look like nothing at all.
int look_at_source(int dir_fd, const Path_Text &path, const char *given, struct stat *status) {
  if (fstatat(dir_fd, given, status, 0) != 0) {
    const int failure = -errno;
    TARN_DEBUG_AS(function, "Can't fstat folder %s error!, %d", path.text(), failure);
    return failure;
  }
  if (S_ISDIR(status->st_mode)) return 0;
  TARN_DEBUG_AS(function, "The source path %s is not a folder error!, %d", path.text(), -ENOTDIR);
  return -ENOTDIR;
}

// Finds the destination, or makes it. A new one counts as without mode and owner, and gets both.
int prepare_destination(const struct stat &source, Destination *root) {
  const mode_t mode = source.st_mode & mode_bits;
  if (fstatat(root->dir_fd, root->path, &root->status, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISDIR(root->status.st_mode)) return 0;
    TARN_DEBUG_AS(function, "The destination path (%d, %s) is not a folder error!, %d", root->dir_fd, root->path,
                  -ENOTDIR);
    return -ENOTDIR;
  }
  if (errno != ENOENT) return -errno;
  root->status = {};
  if (mkdirat(root->dir_fd, root->path, mode) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't mkdirat the dst folder (%d, %s, %o) error! (%d)", root->dir_fd, root->path, mode,
                failure);
  return failure;
}

int set_destination_attributes(const struct stat &source, const Destination &root) {
  const mode_t mode = source.st_mode & mode_bits;
  if ((root.status.st_mode & mode_bits) != mode && fchmodat(root.dir_fd, root.path, mode, AT_SYMLINK_NOFOLLOW) != 0) {
    const int failure = -errno;
    TARN_ERROR_AS(function, "Can't fchmodat the dest folder (%d, %s, %d) error! (%d)", root.dir_fd, root.path,
                  static_cast<int>(mode), failure);
    return failure;
  }
  if (root.status.st_uid == source.st_uid && root.status.st_gid == source.st_gid) return 0;
  if (fchownat(root.dir_fd, root.path, source.st_uid, source.st_gid, AT_SYMLINK_NOFOLLOW) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(function, "Can't fchownat the dest folder (%d, %s, %d, %d) error! (%d)", root.dir_fd, root.path,
                static_cast<int>(source.st_uid), static_cast<int>(source.st_gid), failure);
  return failure;
}

int walk_and_copy(Descriptor source_folder, Path_Text source_path, const struct stat &source, Destination *root,
                  const Abort_Flag &abort) {
  Descriptor folder(openat(root->dir_fd, root->path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder || fstat(folder.get(), &root->status) != 0) return -errno;
  const Heap_Text buffer(static_cast<char *>(malloc(copy_buffer_size)));
  Path_Text path;
  if (buffer == nullptr || path.assign(root->path) != 0) return -ENOMEM;

  Tree_Walk walk(std::move(source_folder), std::move(source_path), abort);
  Copy_Visitor visitor(&walk, *root, std::move(folder), std::move(path), buffer.get());
  if (walk.fd() < 0) visitor.unreadable(errno);
  bool finished = false;
  const int status = walk.run(&visitor, &finished);
  return finished ? report_untimed(*root, set_modified_time(root->dir_fd, root->path, source.st_mtim)) : status;
}

}  // namespace
}  // namespace tarn

int Copy_Folder_Tree_At(int source_dir_fd, const char *source, int destination_dir_fd, const char *destination,
                        unsigned int *abort_flag) {
  if (!tarn::is_folder_descriptor(source_dir_fd) || !tarn::is_folder_descriptor(destination_dir_fd) ||
      source == nullptr || destination == nullptr) {
    return -EINVAL;
  }
  tarn::Path_Text path;
  int status = tarn::full_path_at(__func__, source_dir_fd, source, &path);
  if (status != 0) return status;
  tarn::Path_Text plain;  // the destination without a slash at its end
  status = tarn::full_path_at(__func__, AT_FDCWD, destination, &plain);
  if (status != 0) return status;

  struct stat found;
  status = tarn::look_at_source(source_dir_fd, path, source, &found);
  tarn::Destination root = {destination_dir_fd, plain.text(), {}};
  if (status == 0) status = tarn::prepare_destination(found, &root);
  if (status == 0) status = tarn::set_destination_attributes(found, root);
  const tarn::Abort_Flag abort(abort_flag);
  if (status != 0 || abort.is_set()) return status;
  tarn::Descriptor folder(openat(source_dir_fd, source, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return tarn::walk_and_copy(std::move(folder), std::move(path), found, &root, abort);
}

int Copy_Folder_Tree(const char *source, const char *destination, unsigned int *abort_flag) {
  return Copy_Folder_Tree_At(AT_FDCWD, source, AT_FDCWD, destination, abort_flag);
}

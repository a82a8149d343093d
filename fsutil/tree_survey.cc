#include "foundation/report.h"
#include "fsutil/path_checks.h"
#include "fsutil/tree_walk.h"
#include "include/tarncluster_util.h"

static_assert(sizeof(Tree_Stat) == 24);

namespace tarn {
namespace {

constexpr char function[] = "State_Folder_Tree_At";

class Survey_Visitor {
 public:
  Survey_Visitor(Tree_Walk *walk, Tree_Stat *statistics) : walk_(walk), statistics_(statistics) {}

  int visit(const char *name, unsigned char type);
  void unreadable(int error);
  int after_folder() const { return 0; }
  int enter(Pending_Folder *) const { return 0; }
  int leave(Pending_Folder *) const { return 0; }

  void count_folder(const struct stat &status);
  int trouble() const { return trouble_; }  // the last positive errno

 private:
  Tree_Walk *walk_;
  Tree_Stat *statistics_;
  int trouble_ = 0;
};

void Survey_Visitor::count_folder(const struct stat &status) {
  ++statistics_->folder_count;
  statistics_->total_blocks += status.st_blocks;
}

void Survey_Visitor::unreadable(int error) {
  TARN_DEBUG_AS(function, "Can't opendir %s (%d)", walk_->path(), error);
  trouble_ = error;
}

int Survey_Visitor::visit(const char *name, unsigned char) {
  struct stat status;
  if (fstatat(walk_->fd(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    trouble_ = errno;
    TARN_DEBUG_AS(function, "Can't fstat file %s/%s error!, %d", walk_->path(), name, trouble_);
    return 0;
  }
  if (S_ISDIR(status.st_mode)) {
    count_folder(status);
    return walk_->push(name, status.st_mtim);
  }
  if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode)) return 0;
  ++statistics_->file_count;
  statistics_->total_size += status.st_size;
  statistics_->total_blocks += status.st_blocks;
  return 0;
}

int look_at_root(int dir_fd, const char *given, const Path_Text &path, struct stat *status) {
  if (fstatat(dir_fd, given, status, 0) != 0) {
    const int failure = -errno;
    TARN_DEBUG_AS(function, "Can't fstat folder %s error!, %d", path.text(), failure);
    return failure;
  }
  if (S_ISDIR(status->st_mode)) return 0;
  TARN_DEBUG_AS(function, "The path %s is not a folder error!, %d", path.text(), -ENOTDIR);
  return -ENOTDIR;
}

}  // namespace
}  // namespace tarn

int State_Folder_Tree_At(int dir_fd, const char *path, Tree_Stat *statistics, unsigned int *abort_flag) {
  if (!tarn::is_folder_descriptor(dir_fd) || path == nullptr || statistics == nullptr) return -EINVAL;
  tarn::Path_Text full;
  int status = tarn::full_path_at(__func__, dir_fd, path, &full);
  if (status != 0) return status;
  struct stat root;
  status = tarn::look_at_root(dir_fd, path, full, &root);
  if (status != 0) return status;

  tarn::Descriptor folder(openat(dir_fd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const int unopened = folder ? 0 : errno;
  tarn::Tree_Walk walk(std::move(folder), std::move(full), tarn::Abort_Flag(abort_flag));
  tarn::Survey_Visitor visitor(&walk, statistics);
  visitor.count_folder(root);
  if (walk.abort().is_set()) return 0;
  if (unopened != 0) visitor.unreadable(unopened);
  bool finished = false;
  status = walk.run(&visitor, &finished);
  if (status != 0) return status;
  return finished ? visitor.trouble() : 0;
}

int State_Folder_Tree(const char *path, Tree_Stat *statistics, unsigned int *abort_flag) {
  return State_Folder_Tree_At(AT_FDCWD, path, statistics, abort_flag);
}

// One iterative walk over a folder tree, for copy, survey and removal. It goes from folder to folder by descriptors, so
// that no link leads it elsewhere and depth costs nothing; path texts are kept for the log alone.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "foundation/owners.h"
#include "fsutil/abort_flag.h"

namespace tarn {

// A path that grows and shrinks at its end.
class Path_Text {
 public:
  // -ENOMEM leaves the text as it was.
  int assign(const char *text);
  int append(const char *name);  // "/" and the name
  void cut(size_t length) { text_.get()[length_ = length] = '\0'; }

  const char *text() const { return text_.get(); }
  size_t length() const { return length_; }

 private:
  int reserve(size_t size);

  Heap_Text text_;
  size_t length_ = 0;
  size_t capacity_ = 0;
};

// The path of a folder descriptor and a path relative to it; the path alone where that is enough. -EINVAL, with a
// report under the function's name, when the descriptor's path cannot be read; -ENOMEM.
int full_path_at(const char *function, int dir_fd, const char *path, Path_Text *full);

// The open folder of one side of a walk.
class Folder_Cursor {
 public:
  // The way back: the parent's descriptor, or, deep down, what the parent must turn out to be.
  struct Parent {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
  };

  explicit Folder_Cursor(Descriptor root) : current_(std::move(root)) {}

  int fd() const { return current_.get(); }
  int enter(const char *name, Parent *parent);  // 0, or -errno: the cursor stays
  int leave(Parent *parent);                    // 0, or -errno: the tree was moved while the walk was in it
  static void forget(Parent *parent);

 private:
  Descriptor current_;
  int kept_ = 0;
};

// A subfolder that waits for its turn, or, once visited, one that the walk is in.
struct Pending_Folder {
  Pending_Folder *next;
  Folder_Cursor::Parent source_parent;
  Folder_Cursor::Parent destination_parent;
  timespec modified;
  bool visited;
  bool entered;
  char name[];
};

class Tree_Walk {
 public:
  Tree_Walk(Descriptor root, Path_Text path, Abort_Flag abort)
      : cursor_(std::move(root)), path_(std::move(path)), abort_(abort) {}
  ~Tree_Walk();
  Tree_Walk(const Tree_Walk &) = delete;
  Tree_Walk &operator=(const Tree_Walk &) = delete;

  int fd() const { return cursor_.fd(); }
  const char *path() const { return path_.text(); }
  const Abort_Flag &abort() const { return abort_; }

  // Takes the current folder's subfolder in, to be entered later.
  int push(const char *name, const timespec &modified);
  void drop_last();

  // Reads folder after folder. The visitor is told of each entry and of each step between folders; what it answers but
  // 0 ends the walk. Subfolders are entered in the reverse of the order in which they were found, each after everything
  // in its parent. Returns 0 at the end of the tree; finished tells whether that was reached.
  //
  //   int visit(const char *name, unsigned char type)  of the current folder; DT_UNKNOWN: look yourself
  //   void unreadable(int error)                       the current folder cannot be opened or read
  //   int after_folder()                               its entries are through, or the flag is set
  //   int enter(Pending_Folder *)                      the walk went into it
  //   int leave(Pending_Folder *)                      the walk is back in its parent; the path still names it
  template <typename Visitor>
  int run(Visitor *visitor, bool *finished);

 private:
  template <typename Visitor>
  int read_folder(Visitor *visitor);
  template <typename Visitor>
  int leave_visited(Visitor *visitor);
  template <typename Visitor>
  int descend(Visitor *visitor);

  Folder_Cursor cursor_;
  Path_Text path_;
  Abort_Flag abort_;
  Pending_Folder *stack_ = nullptr;
  Heap<char> entries_;
};

inline bool is_dot_or_dot_dot(const char *name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

inline constexpr size_t entries_size = 32768;

// As an open folder is read: whole buffers of entries.
template <typename Visitor>
int Tree_Walk::read_folder(Visitor *visitor) {
  if (entries_ == nullptr) entries_.reset(static_cast<char *>(malloc(entries_size)));
  if (entries_ == nullptr) return -ENOMEM;
  for (;;) {
    const ssize_t length = getdents64(fd(), entries_.get(), entries_size);
    if (length < 0) visitor->unreadable(errno);
    if (length <= 0) return 0;
    for (ssize_t position = 0; position < length;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(entries_.get() + position);
      position += entry->d_reclen;
      if (abort_.is_set()) return 0;
      if (is_dot_or_dot_dot(entry->d_name)) continue;
      const int status = visitor->visit(entry->d_name, entry->d_type);
      if (status != 0) return status;
    }
  }
}

template <typename Visitor>
int Tree_Walk::leave_visited(Visitor *visitor) {
  while (stack_ != nullptr && stack_->visited) {
    int status = stack_->entered ? cursor_.leave(&stack_->source_parent) : 0;
    if (status == 0) status = visitor->leave(stack_);
    if (status != 0) return status;
    path_.cut(path_.length() - strlen(stack_->name) - 1);
    drop_last();
  }
  return 0;
}

template <typename Visitor>
int Tree_Walk::descend(Visitor *visitor) {
  const int status = path_.append(stack_->name);
  if (status != 0) return status;
  stack_->visited = true;
  if (abort_.is_set()) return 0;
  const int entered = cursor_.enter(stack_->name, &stack_->source_parent);
  stack_->entered = entered == 0;
  if (entered == 0) return visitor->enter(stack_);
  visitor->unreadable(-entered);
  return 0;
}

template <typename Visitor>
int Tree_Walk::run(Visitor *visitor, bool *finished) {
  *finished = false;
  for (bool readable = fd() >= 0;; readable = stack_->entered) {
    int status = readable ? read_folder(visitor) : 0;
    if (status == 0) status = visitor->after_folder();
    if (status == 0) status = leave_visited(visitor);
    if (status != 0) return status;
    if (stack_ == nullptr) break;
    status = descend(visitor);
    if (status != 0 || abort_.is_set()) return status;
  }
  *finished = true;
  return 0;
}

}  // namespace tarn

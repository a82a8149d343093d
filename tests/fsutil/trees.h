// Folder trees for tests: made, and described field by field for comparison.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace tarn::test {

// What a name in a tree is.
struct Entry {
  mode_t mode = 0;  // type and permission bits
  uid_t user = 0;
  gid_t group = 0;
  int64_t seconds = 0;  // of the modification time
  int64_t nanoseconds = 0;
  std::string content;  // of a file; the target of a link

  bool operator==(const Entry &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Entry &entry);

// By the path below the root, which itself is "".
using Tree = std::map<std::string, Entry>;
Tree tree_of(const std::string &root);

void set_times(const std::string &path, int64_t seconds, int64_t nanoseconds);  // of links too

// Files, links, pipes, sockets, set-id bits, owners, times and names of all kinds, in folders of which some are empty.
void make_odd_tree(const std::string &root);

// Folders named "d" one in another, to a depth that no path text could name; a file "f" in each of the last.
void make_chain(const std::string &root, int depth);
int depth_of_chain(const std::string &root);  // -1 when the file at its end is missing

// While it lives, a process of its own swaps folders for links to another place, as fast as it can, one after another.
class Racing_Process {
 public:
  Racing_Process(const std::vector<std::string> &folders, const std::string &link_target);
  ~Racing_Process();
  Racing_Process(const Racing_Process &) = delete;
  Racing_Process &operator=(const Racing_Process &) = delete;

 private:
  pid_t pid_;
};

// Runs a piece of work again and again while a thread sets the flag at another moment each time, from its beginning to
// its end. The work answers whether it was cut short; goes on until that has happened often enough.
void abort_at_all_moments(unsigned int *flag, const std::function<void()> &prepare, const std::function<bool()> &work);

void run(const std::string &command);  // by the shell; must succeed

}  // namespace tarn::test

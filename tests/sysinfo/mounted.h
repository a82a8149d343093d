// Mounts and mount tables in the test's hands. All of it needs a throw-away root.
#pragma once

#include <sys/statfs.h>

#include <functional>
#include <string>

namespace tarn::test {

// A mount that ends with its holder; the folder is made.
class Mounted {
 public:
  Mounted(const std::string &source, const std::string &target, const std::string &type, unsigned long flags = 0,
          const std::string &data = "");
  ~Mounted();
  Mounted(const Mounted &) = delete;
  Mounted &operator=(const Mounted &) = delete;
  const std::string &path() const { return target_; }

 private:
  const std::string target_;
};

// What /etc/mtab says.
void use_real_mount_table();
void use_mount_table(const std::string &text);
void remove_mount_table();

// While it lives, statfs answers as the test says.
class Statfs_Answers {
 public:
  using Answer = std::function<int(const char *path, struct statfs *status)>;
  explicit Statfs_Answers(Answer answer);
  ~Statfs_Answers();
  Statfs_Answers(const Statfs_Answers &) = delete;
  Statfs_Answers &operator=(const Statfs_Answers &) = delete;
};

int real_statfs(const char *path, struct statfs *status);

}  // namespace tarn::test

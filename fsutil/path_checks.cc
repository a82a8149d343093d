#include "include/tarncluster_util.h"

#include <cerrno>
#include <cstring>

int Get_Filename(const char *path, const char **name) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  const char *slash = strrchr(path, '/');
  *name = slash != nullptr ? slash + 1 : path;
  return 0;
}

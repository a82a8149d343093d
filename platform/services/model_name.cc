// The name by which an appliance shows its model.
#include "tarncluster_util.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

// The first that holds a name: what the administrator chose, else what the machine's firmware says.
constexpr const char *kSources[] = {"/etc/tarncluster-model", "/sys/class/dmi/id/product_name"};
constexpr char kFallback[] = "Virtual appliance";

// The first line of a file, as far as it fits; empty when there is none.
void read_line(const char *path, char *buffer, size_t size) {
  buffer[0] = '\0';
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  const ssize_t length = read(fd, buffer, size - 1);
  close(fd);
  buffer[length > 0 ? length : 0] = '\0';
  buffer[strcspn(buffer, "\n")] = '\0';
}

}  // namespace

int Get_Display_Model_Name(char *buffer, int size) {
  if (buffer == nullptr || size < 1) return -EINVAL;
  for (const char *source : kSources) {
    read_line(source, buffer, static_cast<size_t>(size));
    if (buffer[0] != '\0') return 0;
  }
  snprintf(buffer, static_cast<size_t>(size), "%s", kFallback);
  return 0;
}

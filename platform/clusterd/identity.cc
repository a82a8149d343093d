#include "platform/clusterd/identity.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "platform/clusterd/log.h"
#include "platform/clusterd/member_paths.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

bool exists(const char *path) {
  struct stat status;
  return stat(path, &status) == 0;
}

bool is_letter_or_digit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

}  // namespace

bool is_slave_id(std::string_view id) {
  return !id.empty() && id.size() <= 8 && std::all_of(id.begin(), id.end(), is_letter_or_digit);
}

int load_identity(Identity *identity) {
  identity->is_master = exists(kMasterFlag);
  identity->is_slave = exists(kSlaveFlag);
  if (!identity->is_master && !identity->is_slave) return -ENOENT;
  if (!identity->is_slave) return 0;

  char id[9];
  int size = sizeof(id);
  int result = Get_Conf_File_String_Value(kIdentityFile, "global", "MSKey", id, &size);
  // The working copy may be lost with the volume it is on.
  if (result == -ENOENT)
    result = Get_Conf_File_String_Value(kKeptIdentityFile, "global", "MSKey", id, &(size = sizeof(id)));
  if (result != 0) {
    log_line("cannot read the slave's id (MSKey of section global) from %s (%d)", kIdentityFile, result);
    return result < 0 ? result : -EINVAL;
  }
  if (!is_slave_id(id) || std::string_view(id) == kMasterId) {
    log_line("%s: \"%s\" is no slave's id", kIdentityFile, id);
    return -EINVAL;
  }
  identity->slave_id = id;
  return 0;
}

}  // namespace tarn::platform

// The table of mounted file systems, and the folder of the shares.
#pragma once

#include <mntent.h>

#include <cstring>
#include <memory>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr char mount_table[] = "/etc/mtab";
inline constexpr char share_prefix[] = "/share/";
inline constexpr size_t share_prefix_length = sizeof share_prefix - 1;

using Mount_Table = std::unique_ptr<FILE, Give_Back<endmntent>>;
using Mount_List = std::unique_ptr<Mount_Info, Give_Back<Free_Mount_Info>>;

inline bool lies_below_share(const char *path) {
  return strncmp(path, share_prefix, share_prefix_length) == 0;
}

}  // namespace tarn

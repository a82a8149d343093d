// Reading and replacing configuration files for those that hold the file's lock.
#pragma once

#include "conf/nodes.h"

namespace tarn {

// As Read_Conf_File, for who writes the sections back: fails with -ENOMEM when memory ended before all were read, since
// the rest would vanish from the file.
int read_whole_conf_file(const char *path, Sections *sections);

}  // namespace tarn

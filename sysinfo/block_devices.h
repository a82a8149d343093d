// A line of the block-id tool.
#pragma once

#include "include/tarncluster_util.h"

namespace tarn {

// Copies the value of a tag that has a blank before it. length: the buffer's size, receives the value's length; null:
// the buffer holds whatever the line does. 0, -ENODATA, -EOVERFLOW (nothing is copied).
int Get_Blkid_Tag_Value(const char *line, const char *tag, char *value, int *length);

}  // namespace tarn

// Copying through a buffer, for those who copy many files.
#pragma once

#include "fsutil/abort_flag.h"
#include "include/tarncluster_util.h"

namespace tarn {

inline constexpr size_t copy_buffer_size = 32768;

// As Copy_File_Data without offsets, through a buffer of copy_buffer_size bytes.
int copy_data(int in_fd, int out_fd, int64_t length, char *buffer, const Abort_Flag &abort, uint64_t *counter);

}  // namespace tarn

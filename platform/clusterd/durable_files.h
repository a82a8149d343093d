// Small files that are there as a whole or not at all, also after a power cut.
#ifndef TARN_PLATFORM_CLUSTERD_DURABLE_FILES_H
#define TARN_PLATFORM_CLUSTERD_DURABLE_FILES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::platform {

bool is_there(const std::string &path);

// Something that is another one once the file has changed.
std::string state_of_file(const std::string &path);

// Each answers 0 or -errno.

// Makes a folder and its parents; parents that it makes are open to all readers.
int make_folder(const std::string &path, mode_t permissions);

// Puts a file in place of what is there.
int write_durably(const std::string &path, const std::string &text, mode_t permissions);

// Takes a file away; one that is not there is fine.
int remove_durably(const std::string &path);

// Of a text of at most this many bytes; a longer one is -EFBIG.
int read_text(const std::string &path, size_t limit, std::string *text);

// Runs a program by its path, without a shell, and waits for it. Answers its exit status, 127 when it cannot be run, or
// 128 and more when a signal ended it.
int run_program(const std::vector<std::string> &words);

// For changes of which each is tried whatever became of the others: the first failure is the result of them all.
inline void keep_first(int *result, int next) {
  if (*result == 0) *result = next;
}

}  // namespace tarn::platform

#endif

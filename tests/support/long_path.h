// Paths at the limit of what the kernel takes.
#pragma once

#include <string>

namespace tarn::test {

// A path of exactly this length below a folder, in components of at most 200 characters; nothing is made.
std::string path_of_length(const std::string &folder, size_t length);

}  // namespace tarn::test

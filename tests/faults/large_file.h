// Files of megabytes, which are not to be read a character at a time.
#pragma once

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace tarn::test {

inline std::string read_large_file(const std::string &path) {
  std::string content(std::filesystem::file_size(path), '\0');
  std::ifstream stream(path, std::ios::binary);
  if (!stream.read(content.data(), static_cast<std::streamsize>(content.size()))) throw std::runtime_error(path);
  return content;
}

}  // namespace tarn::test

#include "tests/support/long_path.h"

#include <algorithm>

namespace tarn::test {

std::string path_of_length(const std::string &folder, size_t length) {
  std::string path = folder;
  while (path.size() < length) {
    const size_t rest = length - path.size() - 1;
    // Leaves at least two characters (a "/" and a letter) for the next component, or nothing.
    const size_t component = rest <= 200 ? rest : std::min<size_t>(200, rest - 2);
    path += "/" + std::string(component, 'd');
  }
  return path;
}

}  // namespace tarn::test

#include "tests/support/certificates.h"

#include <cstdlib>
#include <stdexcept>

#include "tests/support/files.h"

namespace tarn::test {
namespace {

struct Certificates {
  Certificates() {
    if (system((TARN_SOURCE_DIR "/tests/support/make_certificates " + folder.path()).c_str()) != 0) {
      throw std::runtime_error("cannot make certificates: " + read_file(folder / "make_certificates.log"));
    }
  }
  const Temporary_Folder folder;
};

}  // namespace

std::string certificate_file(const std::string &name) {
  static const Certificates made;
  return made.folder / name;
}

}  // namespace tarn::test

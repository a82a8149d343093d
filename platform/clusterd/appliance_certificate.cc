#include "platform/clusterd/appliance_certificate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/io.h"
#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr char kOpenssl[] = "/usr/bin/openssl";
constexpr size_t kLongestCertificate = 65536;

}  // namespace

int ensure_appliance_certificate(const std::string &path) {
  if (is_there(path)) return 0;
  int result = make_folder(path.substr(0, path.rfind('/')), 0755);
  if (result != 0) return result;

  // The program writes into a file that nobody else may read from the beginning.
  const std::string draft = path + ".draft";
  unlink(draft.c_str());
  if (!Descriptor(open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600))) return -errno;
  const int status = run_program({kOpenssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                                  "-nodes", "-batch", "-days", "36500", "-sha256", "-subj",
                                  "/O=tarncluster/CN=appliance", "-keyout", draft, "-out", draft});
  std::string text;
  result = status == 0 ? read_text(draft, kLongestCertificate, &text) : -EIO;
  if (result == 0) result = write_durably(path, text, 0600);
  unlink(draft.c_str());
  if (result != 0) log_line("cannot make %s: openssl ended with %d (%d)", path.c_str(), status, result);
  return result;
}

}  // namespace tarn::platform

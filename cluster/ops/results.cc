#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cluster/ops/abort_flags.h"
#include "cluster/ops/command.h"
#include "cluster/ops/escape.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr unsigned poll_interval_ms = 1000;

// Takes an element's path when the element is that of the member; the path found before gives way to it.
int take_result_path(const char *function, json_object *element, const char *identity, const char *id, char **path,
                     Heap_Text *found) {
  const char *element_id = find_text(element, identity);
  if (element_id == nullptr) {
    TARN_ERROR_AS(function, "Can't get cluster id! (%d)", -ENOENT);
    return -ENOENT;
  }
  if (strcmp(element_id, id) != 0) return 0;
  const char *result_path = find_text(element, "result_path");
  if (result_path == nullptr) {
    TARN_ERROR_AS(function, "Can't get result! (%d)", -ENOENT);
    return -ENOENT;
  }
  char *copy = nullptr;
  Remove_Escape(result_path, &copy);
  if (copy == nullptr) return -ENOMEM;
  found->reset(copy);
  *path = copy;
  return 0;
}

}  // namespace
}  // namespace tarn

int Parse_Cluster_Cmd_Status(const char *reply, int *status) {
  if (reply == nullptr || status == nullptr) return -EINVAL;
  const tarn::Json object = tarn::parse_json(reply);
  if (!object) return tarn::report_no_json(__func__);
  const char *text = tarn::find_text(object.get(), "cluster_cmd_status");
  if (text == nullptr) {
    TARN_ERROR("Can't get cluster command status! (%d)", -EINVAL);
    return -EINVAL;
  }
  *status = static_cast<int>(strtol(text, nullptr, 10));
  return 0;
}

int Parse_Result_Path(const char *reply, int mode, const char *id, char **path) {
  if (reply == nullptr || id == nullptr || path == nullptr) return -EINVAL;
  const tarn::Json object = tarn::parse_json(reply);
  if (!object) return tarn::report_no_json(__func__);

  const char *identity = mode == 0 ? "slave_id" : "master_id";
  tarn::Heap_Text found;  // the last match; it is the caller's, also when a later element is bad
  const auto take = [&](json_object *element) {
    return tarn::take_result_path("Parse_Result_Path", element, identity, id, path, &found);
  };
  const int status = tarn::walk_arrays(__func__, object.get(), take);
  static_cast<void>(found.release());
  return status;
}

int Polling_Result(const char *path, int timeout_s) {
  if (path == nullptr) return -EINVAL;
  const uint64_t start = timeout_s > 0 ? Rough_Tick() : 0;
  const int flag_on_entry = tarn::abort_flag();
  if (flag_on_entry != 0) return flag_on_entry;

  for (;;) {
    if (timeout_s > 0 && Rough_Tick_Diff(start) > static_cast<uint64_t>(timeout_s) * 1000) return -ETIME;
    struct stat status;
    // A path that cannot be looked at counts as there: who reads it learns the reason.
    if (stat(path, &status) == 0 || errno != ENOENT) return tarn::abort_flag();
    Sleep_MSec(tarn::poll_interval_ms);
    if (tarn::abort_flag() != 0) return -ENOENT;
  }
}

int Polling_Int_Result(const char *path, int *value) {
  if (path == nullptr || value == nullptr) return -EINVAL;
  const int waited = Polling_Result(path, -1);
  if (waited != 0) return waited;

  const tarn::Descriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) {
    const int status = -errno;
    TARN_ERROR("Can't open result file %s! (%d)", path, status);
    return status;
  }
  // Four bytes, no fewer, though writers write as many as the number has: programs on both sides know it so.
  constexpr size_t digits = 4;
  char text[digits + 1] = "";
  errno = 0;
  if (read(file.get(), text, digits) != static_cast<ssize_t>(digits)) {
    const int status = errno != 0 ? -errno : -EIO;
    TARN_ERROR("Can't read result file %s! (%d) (%s)", path, status, text);
    return status;
  }
  *value = static_cast<int>(strtol(text, nullptr, 10));
  return 0;
}

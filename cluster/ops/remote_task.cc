#include <cerrno>
#include <cstdio>
#include <cstring>

#include "cluster/ops/json.h"
#include "foundation/program.h"

namespace tarn {
namespace {

constexpr char curl[] = "/sbin/curl";
constexpr char curl_words[] = "/sbin/curl -L -k --retry 1 --connect-timeout 10 -m 10 -s ''";
constexpr size_t command_size = 512;  // of the whole command, as members of every age have it
constexpr int answer_size = 256;

bool is_host(const char *host) {
  return host != nullptr && strpbrk(host, ";`") == nullptr;
}

// The request's address; cut, it would be another's.
class Request {
 public:
  Request(const char *host, const char *sid, int port, int backup, int create_bg, int progress, const char *extra)
      : length_(snprintf(url_, sizeof url_,
                         "http://%s:%d/cgi-bin/druvo/druvosrv.cgi?sid=%s&func=tarn_cluster_backup_restore_bg_task"
                         "&backup=%d&create_bg=%d&progress=%d%s%s",
                         host, port, sid, backup, create_bg, progress, extra != nullptr ? "&" : "",
                         extra != nullptr ? extra : "")) {}

  bool fits() const { return length_ >= 0 && static_cast<size_t>(length_) + sizeof curl_words <= command_size; }
  const char *url() const { return url_; }

 private:
  char url_[command_size];
  int length_;
};

void take_answer(const char *line, int *status) {
  const Json answer = parse_json(line);
  json_object *value = find_member(answer.get(), "status");
  if (value == nullptr) {
    puts("[Tarn] Can't set background task");
  } else if (status != nullptr) {
    *status = json_object_get_int(value);
  }
}

}  // namespace
}  // namespace tarn

int backup_restore_set_remote_bg_task(const char *host, const char *sid, int port, int backup, int create_bg,
                                      int progress, const char *extra, int *status) {
  constexpr int always = -1;  // callers look at the status
  if (!tarn::is_host(host) || sid == nullptr) return always;
  const tarn::Request request(host, sid, port, backup, create_bg, progress, extra);
  if (!request.fits()) return always;

  const char *const arguments[] = {tarn::curl, "-L", "-k", "--retry", "1",           "--connect-timeout",
                                   "10",       "-m", "10", "-s",      request.url(), nullptr};
  tarn::Program program;
  if (program.start(arguments) != 0) return -ENOENT;
  char line[tarn::answer_size];
  if (program.read_line(line, sizeof line)) tarn::take_answer(line, status);
  return always;
}

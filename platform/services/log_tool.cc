// log_tool: appends one line to the log of the member's events. Installed as /sbin/log_tool in a member's root.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace {

constexpr char kEventLog[] = "/var/log/tarncluster_events.log";

struct Event {
  const char *text = nullptr;
  const char *type = nullptr;
  const char *user = nullptr;
};

int usage() {
  fprintf(stderr, "usage: log_tool -a TEXT -t TYPE -u USER\nappends one line to %s; TYPE is 0, 1 or 2\n", kEventLog);
  return 2;
}

bool read_options(int count, char **arguments, Event *event) {
  int option;
  while ((option = getopt(count, arguments, "a:t:u:")) != -1) {
    switch (option) {
      case 'a':
        event->text = optarg;
        break;
      case 't':
        event->type = optarg;
        break;
      case 'u':
        event->user = optarg;
        break;
      default:
        return false;
    }
  }
  return optind == count && event->text && event->type && event->user && strlen(event->type) == 1 &&
         strchr("012", event->type[0]) != nullptr;
}

// Callers put a backslash before the characters that a shell would take for its own; an event stays on one line.
std::string plain_text(const char *text) {
  std::string plain;
  for (const char *c = text; *c != '\0'; ++c) {
    if (*c == '\\' && c[1] != '\0' && strchr("\"$\\", c[1]) != nullptr) ++c;
    plain += static_cast<unsigned char>(*c) < ' ' ? ' ' : *c;
  }
  return plain;
}

std::string line_of(const Event &event) {
  const time_t now = time(nullptr);
  tm local = {};
  char date[32] = "";
  if (localtime_r(&now, &local) != nullptr) strftime(date, sizeof(date), "%F %T", &local);
  return std::string(date) + " type " + event.type + " user " + plain_text(event.user) + ": " + plain_text(event.text) +
         "\n";
}

// One write for the whole line, so that lines written at the same time do not mix.
bool append(const std::string &line) {
  const int fd = open(kEventLog, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (fd < 0) return false;
  const ssize_t written = write(fd, line.data(), line.size());
  if (written >= 0 && static_cast<size_t>(written) != line.size()) errno = ENOSPC;
  const bool whole = written == static_cast<ssize_t>(line.size());
  return close(fd) == 0 && whole;
}

}  // namespace

int main(int count, char **arguments) {
  Event event;
  if (!read_options(count, arguments, &event)) return usage();
  if (append(line_of(event))) return 0;
  fprintf(stderr, "log_tool: cannot write %s: %s\n", kEventLog, strerror(errno));
  return 1;
}

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cluster/ops/own_addresses.h"
#include "foundation/owners.h"
#include "foundation/program.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char browse_name[] = "Tarn_Cluster_Browse_Slave";
constexpr char browse_command[] = "/usr/sbin/avahi-browse -rt _tarncluster._tcp 2>/dev/null";
constexpr int line_size = 255;

// The text behind "[" and before the first `end` behind that; it lies in the line. False when the line has none.
struct Bracketed {
  const char *text = nullptr;
  size_t length = 0;

  bool find(const char *line, char end) {
    const char *opening = strchr(line, '[');
    const char *closing = opening != nullptr ? strchr(opening + 1, end) : nullptr;
    if (closing == nullptr) return false;
    text = opening + 1;
    length = static_cast<size_t>(closing - text);
    return true;
  }
};

template <size_t size>
void copy_cut(char (&field)[size], const Bracketed &found) {
  const size_t length = found.length < size ? found.length : size - 1;
  memcpy(field, found.text, length);
  field[length] = '\0';
}

// Whether a piece of a TXT string holds a key; its number is what stands behind its "=".
bool take_number(const char *piece, const char *key, int *value) {
  if (strstr(piece, key) == nullptr) return false;
  const char *equals = strchr(piece, '=');
  if (equals == nullptr) return false;
  *value = static_cast<int>(strtol(equals + 1, nullptr, 10));  // ends at a closing quote, too
  return true;
}

// The announcements as their lines come: an entry is put together, and listed when its TXT string is complete.
class Browser {
 public:
  explicit Browser(const Own_Addresses &own) : own_(own) {}
  ~Browser() { Free_Browse_Serv(first_); }
  Browser(const Browser &) = delete;
  Browser &operator=(const Browser &) = delete;

  int take_line(char *line);  // -ENOMEM ends the reading
  int count() const { return count_; }
  Tarn_Browse_Serv *release() { return std::exchange(first_, nullptr); }

 private:
  void take_host_name(const char *line);
  void take_address(const char *line);
  void take_port(const char *line);
  int take_text(char *text);
  int take_piece(const char *piece);
  bool is_complete() const;
  int append();

  const Own_Addresses &own_;
  Tarn_Browse_Serv entry_ = {};
  Tarn_Browse_Serv *first_ = nullptr;
  Tarn_Browse_Serv **end_ = &first_;
  int count_ = 0;
};

int Browser::take_line(char *line) {
  if (strchr(line, '+') != nullptr) return 0;
  if (strstr(line, "hostname") != nullptr) {
    take_host_name(line);
  } else if (strstr(line, "address") != nullptr) {
    take_address(line);
  } else if (entry_.port == 0 && strstr(line, "port") != nullptr) {
    take_port(line);
  } else if (char *text = strstr(line, "webport")) {
    return take_text(text);
  }
  return 0;
}

void Browser::take_host_name(const char *line) {
  Bracketed name;
  if (!name.find(line, '.')) return;
  copy_cut(entry_.hostname, name);
  TARN_DEBUG_AS(browse_name, "hostname = %s", entry_.hostname);
}

// Compared whole with this appliance's own addresses, before it is cut.
void Browser::take_address(const char *line) {
  Bracketed address;
  if (!address.find(line, ']')) return;
  if (own_.holds({address.text, address.length})) {
    entry_ = {};
    return;
  }
  copy_cut(entry_.address, address);
  TARN_DEBUG_AS(browse_name, "address = %s", entry_.address);
}

void Browser::take_port(const char *line) {
  Bracketed port;
  if (!port.find(line, ']')) return;
  entry_.port = static_cast<int>(strtol(port.text, nullptr, 10));
  TARN_DEBUG_AS(browse_name, "port = %d", entry_.port);
}

int Browser::take_text(char *text) {
  char *rest = nullptr;
  for (const char *piece = strtok_r(text, ",", &rest); piece != nullptr; piece = strtok_r(nullptr, ",", &rest)) {
    const int status = take_piece(piece);
    if (status != 0) return status;
  }
  return 0;
}

// One piece feeds one value. "webport" is found in "sslwebport", too, so it has to come first: announcers know it so.
int Browser::take_piece(const char *piece) {
  if (entry_.webport == 0) {
    if (take_number(piece, "webport", &entry_.webport)) TARN_DEBUG_AS(browse_name, "webport = %d", entry_.webport);
    return 0;
  }
  if (take_number(piece, "sslwebport", &entry_.sslwebport)) {
    TARN_DEBUG_AS(browse_name, "sslwebport = %d", entry_.sslwebport);
    return 0;
  }
  if (!take_number(piece, "master", &entry_.master)) return 0;
  TARN_DEBUG_AS(browse_name, "master = %d", entry_.master);
  const int status = is_complete() ? append() : 0;
  entry_ = {};
  return status;
}

bool Browser::is_complete() const {
  return entry_.port != 0 && entry_.webport != 0 && entry_.sslwebport != 0 && entry_.address[0] != '\0' &&
         entry_.hostname[0] != '\0';
}

int Browser::append() {
  auto *record = static_cast<Tarn_Browse_Serv *>(malloc(sizeof(Tarn_Browse_Serv)));
  if (record == nullptr) {
    TARN_ERROR_AS(browse_name, "Can't allocate memory for service browsing! (%d)", -ENOMEM);
    return -ENOMEM;
  }
  *record = entry_;
  *end_ = record;
  end_ = &record->next;
  ++count_;
  return 0;
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Browse_Slave(Tarn_Browse_Serv **list) {
  if (list == nullptr) return -EINVAL;
  *list = nullptr;
  const tarn::Own_Addresses own;
  if (!own.known()) TARN_ERROR("Can't scan network interface! (%d)", own.status());

  errno = 0;
  const tarn::Command command(popen(tarn::browse_command, "re"));
  if (command == nullptr) {
    const int failure = errno != 0 ? -errno : -ENOMEM;
    TARN_ERROR("Can't browse tarn cluster service! (%d)", failure);
    return failure;
  }
  tarn::Browser browser(own);
  char line[tarn::line_size];
  int status = 0;
  while (status == 0 && fgets(line, sizeof line, command.get()) != nullptr) status = browser.take_line(line);
  const int count = browser.count();
  *list = browser.release();
  if (status == 0) status = own.status();
  return status != 0 ? status : count;
}

void Free_Browse_Serv(Tarn_Browse_Serv *list) {
  while (list != nullptr) {
    Tarn_Browse_Serv *next = list->next;
    free(list);
    list = next;
  }
}

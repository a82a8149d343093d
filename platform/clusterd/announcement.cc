#include "platform/clusterd/announcement.h"

#include <cerrno>
#include <cstdlib>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/restart.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

constexpr char kSettings[] = "/etc/config/Gavrix.conf";
constexpr int kWebPort = 8080;
constexpr int kSecureWebPort = 443;
constexpr int kNone = -1;
constexpr size_t kLongestFile = 65536;

// kNone: there is no such setting.
int read_setting(const char *section, const char *key) {
  char text[16];
  int size = sizeof(text);
  return Get_Conf_File_String_Value(kSettings, section, key, text, &size) == 0 ? atoi(text) : kNone;
}

bool is_port(int number) {
  return number > 0 && number <= 65535;
}

int web_port() {
  const int port = read_setting("System", "Web Access Port");
  return is_port(port) ? port : kWebPort;
}

// Who announces a port of 0 is not listed by anybody: -1 says that there is none, as a slave's description does.
int secure_web_port() {
  if (!is_there(kSettings)) return kSecureWebPort;
  if (read_setting("Stunnel", "Enable") <= 0) return kNone;
  const int port = read_setting("Stunnel", "Port");
  return is_port(port) ? port : kSecureWebPort;
}

}  // namespace

Announcement::~Announcement() {
  if (is_written_ && !is_restart_requested()) remove_durably(file_);
}

// One string with the web port first: browsers know it so. Announced by IPv4, whose addresses are good without the name
// of an interface.
std::string Announcement::text() const {
  return "<?xml version=\"1.0\" standalone=\"no\"?>\n"
         "<!DOCTYPE service-group SYSTEM \"avahi-service.dtd\">\n"
         "<!-- Made by tarnclusterd; gone when it ends. -->\n"
         "<service-group>\n"
         "  <name replace-wildcards=\"yes\">%h</name>\n"
         "  <service protocol=\"ipv4\">\n"
         "    <type>_tarncluster._tcp</type>\n"
         "    <port>" +
         std::to_string(port_) + "</port>\n    <txt-record>webport=" + std::to_string(web_port()) +
         ",sslwebport=" + std::to_string(secure_web_port()) + ",master=" + (is_master_ ? "1" : "0") +
         "</txt-record>\n"
         "  </service>\n"
         "</service-group>\n";
}

void Announcement::refresh() {
  const std::string wanted = text();
  std::string present;
  int result = 0;
  // What is announced anew vanishes for a moment.
  if (read_text(file_, kLongestFile, &present) != 0 || present != wanted) result = write_durably(file_, wanted, 0644);
  is_written_ = result == 0;
  // Without its folder nobody is here who would announce.
  if (result != 0 && result != -ENOENT) log_line("cannot announce this appliance in %s (%d)", file_.c_str(), result);
}

}  // namespace tarn::platform

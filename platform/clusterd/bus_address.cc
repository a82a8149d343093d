#include "platform/clusterd/bus_address.h"

#include <cerrno>

#include "platform/clusterd/enrolment.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/member_records.h"
#include "platform/wire.h"
#include "tarncluster_util.h"

namespace tarn::platform {

int read_bus_url(const std::string &bus_folder, const Identity &identity, std::string *url) {
  const std::string path = bus_folder + "/bus.conf";
  char text[300];
  int size = sizeof(text);
  const int result = Get_Conf_File_String_Value(path.c_str(), "bus", "url", text, &size);
  if (result != 0) {
    log_line("cannot read the bus's address (url of section bus) from %s (%d)", path.c_str(), result);
    return result < 0 ? result : -EINVAL;
  }
  std::string host;
  int port = 0;
  if (!parse_bus_url(text, &host, &port)) {
    log_line("%s: the bus is reached by tls://HOST:PORT only", path.c_str());
    return -EINVAL;
  }
  std::string address;
  *url = read_master_address(identity.own_name(), &address) == 0 ? bus_url_of(address, port) : text;
  return 0;
}

int read_master_listener(const std::string &bus_folder, const Identity &identity, std::string *host, int *port) {
  std::string url;
  const int result = read_bus_url(bus_folder, identity, &url);
  if (result != 0) return result;
  int bus_port = 0;
  parse_bus_url(url, host, &bus_port);
  int32_t number = 0;
  const std::string path = bus_folder + "/bus.conf";
  *port = Get_Conf_File_Int32_Value(path.c_str(), "bus", "listener", &number) == 0 ? number : kListenerPort;
  return 0;
}

}  // namespace tarn::platform

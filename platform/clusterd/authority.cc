#include "platform/clusterd/authority.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/log.h"

namespace tarn::platform {

namespace {

constexpr size_t kLongestPem = 65536;
constexpr size_t kIdLength = 8;

}  // namespace

bool Authority::is_here() const {
  return is_there(folder_ + "/ca.key");
}

bool Authority::has_member(const std::string &id) const {
  return is_slave_id(id) && is_there(member_folder(id));
}

std::string Authority::make_id() const {
  static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  constexpr size_t count = sizeof(letters) - 1;
  for (;;) {
    unsigned char bytes[64];
    if (getentropy(bytes, sizeof(bytes)) != 0) return {};
    std::string id;
    for (const unsigned char byte : bytes) {
      // The numbers above the last multiple of the count would make some letters likelier than others.
      if (byte < 256 / count * count && id.size() < kIdLength) id += letters[byte % count];
    }
    if (id.size() == kIdLength && !has_member(id)) return id;
  }
}

int Authority::run(const std::string &command, const std::string &last) const {
  if (!is_here()) return -ENOKEY;
  const int status = run_program({setup_program_, command, folder_, last});
  if (status == 0) return 0;
  log_line("%s %s ended with %d", setup_program_.c_str(), command.c_str(), status);
  return -EIO;
}

int Authority::add_member(const std::string &id, Credentials *credentials) {
  if (!is_here()) return -ENOKEY;
  int result = write_durably(unsettled_file(), id, 0600);
  if (result == 0) result = run("add", id);
  const std::string folder = member_folder(id);
  if (result == 0) result = read_text(folder + "/member.crt", kLongestPem, &credentials->certificate);
  if (result == 0) result = read_text(folder + "/member.key", kLongestPem, &credentials->key);
  if (result == 0) result = read_text(folder_ + "/ca.crt", kLongestPem, &credentials->authority);
  return result;
}

int Authority::remove_member(const std::string &id) {
  return has_member(id) ? run("remove", id) : 0;
}

int Authority::settle() {
  return remove_durably(unsettled_file());
}

std::string Authority::undo_unsettled() {
  std::string id;
  if (read_text(unsettled_file(), kIdLength, &id) != 0) return {};
  if (!is_slave_id(id)) id.clear();
  if (remove_member(id) == 0) settle();
  return id;
}

int Authority::update_bus() {
  const int result = run("permit", "/");
  if (result == 0) reload_bus_server();
  return result;
}

// A bus server that is down reads its configuration when it starts.
void Authority::reload_bus_server() const {
  std::string text;
  std::string name;
  if (read_text(run_folder_ + "/bus.pid", 32, &text) != 0) return;
  const int pid = atoi(text.c_str());
  if (pid <= 1 || read_text("/proc/" + std::to_string(pid) + "/comm", 64, &name) != 0 || name != "nats-server\n")
    return log_line("the bus server %d is not there to read its members anew", pid);
  if (kill(pid, SIGHUP) != 0) log_line("the bus server could not be told to read its members anew (%d)", -errno);
}

int Authority::judge(const std::string &name, const std::string &certificate) const {
  if (!is_here()) return -ENOKEY;
  if (!is_slave_id(name)) return -EINVAL;
  std::string held;
  const int result = read_text(member_folder(name) + "/member.crt", kLongestPem, &held);
  if (result == -ENOENT) return -ENOANO;
  if (result != 0) return result;
  return is_same_certificate(held, certificate) ? 0 : -ENOANO;
}

std::string Authority::certificate() const {
  std::string text;
  return read_text(folder_ + "/ca.crt", kLongestPem, &text) == 0 ? text : "";
}

}  // namespace tarn::platform

#include "platform/clusterd/enrolment.h"

#include <dirent.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/json_text.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/member_paths.h"
#include "platform/clusterd/member_records.h"

namespace tarn::platform {

namespace {

constexpr char kUrlScheme[] = "tls://";
constexpr int kLargestPort = 65535;

bool is_port(int port) {
  return port >= 1 && port <= kLargestPort;
}

int read_members_of(json_object *object, Invitation *invitation) {
  json_object *list = nullptr;
  if (!json_object_object_get_ex(object, "list", &list)) return -EINVAL;
  const int result = parse_list(json_object_to_json_string_ext(list, JSON_C_TO_STRING_PLAIN), &invitation->members);
  if (result != 0) return result;
  const bool is_in_it =
      std::any_of(invitation->members.begin() + 1, invitation->members.end(),
                  [invitation](const Member_Entry &entry) { return entry.id == invitation->slave_id; });
  return is_in_it ? 0 : -EINVAL;
}

int write_credentials(const Invitation &invitation, const std::string &bus_folder) {
  int result = make_folder(bus_folder, 0700);
  const std::string conf =
      "[bus]\nurl = " + invitation.bus_url + "\nlistener = " + std::to_string(invitation.listener_port) + "\n";
  if (result == 0) result = write_durably(bus_folder + "/ca.crt", invitation.credentials.authority, 0600);
  if (result == 0) result = write_durably(bus_folder + "/member.key", invitation.credentials.key, 0600);
  if (result == 0) result = write_durably(bus_folder + "/member.crt", invitation.credentials.certificate, 0600);
  if (result == 0) result = write_durably(bus_folder + "/bus.conf", conf, 0600);
  return result;
}

int write_identity(const std::string &slave_id) {
  const std::string text = "[global]\nMSKey = " + slave_id + "\n";
  int result = make_folder(kWorkingFolder, 0755);
  if (result == 0) result = write_durably(kKeptIdentityFile, text, 0644);
  if (result == 0) result = write_durably(kIdentityFile, text, 0644);
  return result;
}

int write_role() {
  const int result = make_folder("/var/zopel", 0755);
  return result == 0 ? write_durably(kSlaveFlag, "", 0644) : result;
}

int write_membership(const Invitation &invitation, const std::string &bus_folder) {
  int result = write_credentials(invitation, bus_folder);
  if (result == 0) result = apply_list(invitation.members);
  if (result == 0) result = write_master_address(invitation.slave_id, invitation.members.front().address);
  if (result == 0) result = write_identity(invitation.slave_id);
  return result == 0 ? write_role() : result;
}

int remove_share_lists() {
  const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir(kShareListFolder), closedir);
  if (!folder) return errno == ENOENT ? 0 : -errno;
  int result = 0;
  while (const dirent *entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (is_slave_id(name)) keep_first(&result, remove_durably(std::string(kShareListFolder) + "/" + name));
  }
  return result;
}

// The role goes first: without it nothing of the rest means anything.
int remove_membership(const std::string &bus_folder) {
  int result = remove_durably(kSlaveFlag);
  for (const char *file : {"/bus.conf", "/member.crt", "/member.key", "/ca.crt"})
    keep_first(&result, remove_durably(bus_folder + file));
  for (const char *path :
       {kIdentityFile, kKeptIdentityFile, kMembersFile, kKeptMembersFile, kMasterFile, kKeptMasterFile})
    keep_first(&result, remove_durably(path));
  keep_first(&result, remove_share_lists());
  return result;
}

int set_mark() {
  const int result = make_folder(kKeptFolder, 0755);
  return result == 0 ? write_durably(kUnfinishedMark, "", 0600) : result;
}

}  // namespace

bool parse_bus_url(const std::string &url, std::string *host, int *port) {
  if (!url.starts_with(kUrlScheme)) return false;
  const std::string place = url.substr(sizeof(kUrlScheme) - 1);
  const size_t colon = place.rfind(':');
  if (colon == std::string::npos) return false;
  std::string name = place.substr(0, colon);
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  const std::string digits = place.substr(colon + 1);
  if (!is_address(name) || digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos || !is_port(atoi(digits.c_str())))
    return false;
  *host = name;
  *port = atoi(digits.c_str());
  return true;
}

std::string bus_url_of(const std::string &host, int port) {
  const bool is_ipv6 = host.find(':') != std::string::npos;
  return kUrlScheme + (is_ipv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string text_of_invitation(const Invitation &invitation) {
  const Json object(json_object_new_object());
  add_text(object.get(), "slave_id", invitation.slave_id);
  add_text(object.get(), "certificate", invitation.credentials.certificate);
  add_text(object.get(), "key", invitation.credentials.key);
  add_text(object.get(), "authority", invitation.credentials.authority);
  add_text(object.get(), "bus", invitation.bus_url);
  add_number(object.get(), "listener", invitation.listener_port);
  json_object_object_add(object.get(), "list", json_tokener_parse(text_of_list(invitation.members).c_str()));
  return json_object_to_json_string_ext(object.get(), JSON_C_TO_STRING_PLAIN);
}

int read_invitation(const std::string &text, Invitation *invitation) {
  const Json object = parse_object(text);
  if (!object) return -EINVAL;
  Invitation read;
  read.slave_id = text_member(object.get(), "slave_id").value_or("");
  read.credentials.certificate = text_member(object.get(), "certificate").value_or("");
  read.credentials.key = text_member(object.get(), "key").value_or("");
  read.credentials.authority = text_member(object.get(), "authority").value_or("");
  read.bus_url = text_member(object.get(), "bus").value_or("");
  read.listener_port = number_member(object.get(), "listener").value_or(0);
  std::string host;
  int port = 0;
  if (!is_slave_id(read.slave_id) || read.slave_id == kMasterId || !is_port(read.listener_port) ||
      !parse_bus_url(read.bus_url, &host, &port))
    return -EINVAL;
  int result = read_members_of(object.get(), &read);
  if (result == 0) result = check_credentials(read.credentials, read.slave_id);
  if (result == 0) *invitation = std::move(read);
  return result;
}

bool is_member() {
  return is_there(kMasterFlag) || is_there(kSlaveFlag);
}

int join(const Invitation &invitation, const std::string &bus_folder) {
  int result = set_mark();
  if (result == 0) result = write_membership(invitation, bus_folder);
  if (result == 0) result = remove_durably(kUnfinishedMark);
  if (result == 0) return 0;
  log_line("the files of a slave could not be written (%d)", result);
  if (remove_membership(bus_folder) == 0) remove_durably(kUnfinishedMark);
  return result;
}

// The mark stays for the next start, which removes what a handler that still runs may write meanwhile.
int leave(const std::string &bus_folder) {
  int result = set_mark();
  keep_first(&result, remove_membership(bus_folder));
  if (result != 0) log_line("the files of a slave could not be removed (%d)", result);
  return result;
}

int finish_interrupted_change(const std::string &bus_folder) {
  if (!is_there(kUnfinishedMark)) return 0;
  const int result = remove_membership(bus_folder);
  return result == 0 ? remove_durably(kUnfinishedMark) : result;
}

}  // namespace tarn::platform

// Any text as the argument of the handlers that write what other members tell: the files are then what a model of each
// handler makes of the JSON, to the byte, no other file is there, and the answer is its code or, for what is no JSON,
// none. The input is
//
//     ROLE TEXT
//
// ROLE is a digit, without a blank behind it: 0 of no cluster, 1 on the master, 2 on a slave, 3 on both.
#include <json-c/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::fuzz {
namespace {

using Maybe = std::optional<std::string>;
using Files = std::map<std::string, std::string>;  // contents by their paths

struct Put {
  void operator()(json_object *object) const { json_object_put(object); }
};
using Json = std::unique_ptr<json_object, Put>;

struct Free {
  void operator()(char *text) const { free(text); }
};
using Heap_Text = std::unique_ptr<char, Free>;

const std::string cluster_folder = "/mnt/tarncluster/config/", kept_folder = "/etc/config/tarn_cluster/";
const std::string share_folder = cluster_folder + "share_list/";
const std::string slaves_file = cluster_folder + "tarn_service_s.conf";
const std::string kept_slaves_file = kept_folder + "tarn_service_s.conf";
const std::string master_file = cluster_folder + "tarn_service_m.conf";
const std::string kept_master_file = kept_folder + "tarn_service_m.conf";
const std::string kept_identity_file = kept_folder + "tarn_cluster_s.conf";
const std::string master_flag = "/var/zopel/tarn_cluster_m.enable", slave_flag = "/var/zopel/tarn_cluster_s.enable";

const std::string own_id = "QNself01", master_id = "QNmaster";
const std::string own_address = "127.0.0.1";  // the only one in the root

// --------------------------------------------------------------------------------------------------------- the members

struct Member {
  std::string name;
  std::map<std::string, std::string> values;
};
using Members = std::vector<Member>;

constexpr const char *keys[] = {"HostName",
                                "Address",
                                "ID",
                                "PID",
                                "UsrCnt",
                                "Type",
                                "Status",
                                "WebPort",
                                "SslWebPort",
                                "BackupResult",
                                "RestoreResult",
                                "BackupProgress",
                                "RestoreProgress",
                                "RestorePID",
                                "LastBackup",
                                "LastRestore",
                                "Quota",
                                "LeaveTime",
                                "SID",
                                "Model",
                                "Firmware",
                                "LastRestoreFile"};

// Far and running, so the master passes on to it what it gets.
Member member(const std::string &name) {
  Member made{name, {}};
  for (const char *key : keys) made.values[key] = "1";
  made.values["Address"] = "10.77.9.9";
  made.values["PID"] = std::to_string(getpid());
  return made;
}

Members all_members() {
  return {member(master_id), member("QNslave1"), member(own_id)};
}

std::string text_of(const Members &members) {
  std::string text;
  for (const Member &one : members) {
    text += "[" + one.name + "]\n";
    for (const char *key : keys) text += std::string(key) + " = " + one.values.at(key) + "\n";
    text += "\n";
  }
  return text;
}

Member *find(Members *members, const std::string &name) {
  const auto found = std::ranges::find(*members, name, &Member::name);
  return found != members->end() ? &*found : nullptr;
}

Files files_before() {
  const std::string members = text_of(all_members());
  const std::string entry = "[" + own_id + "]\nAddress = 10.77.0.1\n";
  return {{slaves_file, members},
          {kept_slaves_file, members},
          {master_file, entry},
          {kept_master_file, entry},
          {kept_identity_file, "[global]\nMSKey = " + own_id + "\n"},
          {share_folder + "QNslave1", "[old]\npath = /old\n\n"}};
}

// ------------------------------------------------------------------------------------------------ what the JSON says

json_object *find_member(json_object *object, const char *key) {
  return json_object_is_type(object, json_type_object) ? json_object_object_get(object, key) : nullptr;
}

Maybe text_member(json_object *object, const char *key) {
  json_object *found = find_member(object, key);
  if (!json_object_is_type(found, json_type_string)) return {};
  const std::string text(json_object_get_string(found), static_cast<size_t>(json_object_get_string_len(found)));
  return text.find('\0') == text.npos ? Maybe(text) : Maybe();
}

Maybe line_member(json_object *object, const char *key) {
  const Maybe text = text_member(object, key);
  return text && text->find('\n') == text->npos ? text : Maybe();
}

Maybe id_member(json_object *object, const char *key) {
  const Maybe id = text_member(object, key);
  if (!id || id->empty() || id->size() > 8 || *id == "." || *id == "..") return {};
  for (const unsigned char c : *id) {
    if (c <= ' ' || c >= 0x7f || strchr("/[]", c) != nullptr) return {};
  }
  return id;
}

// ------------------------------------------------------------------------------------------ what each handler does
// then

std::string without_backslashes(std::string text) {
  std::erase(text, '\\');
  return text;
}

Maybe share_section(json_object *share) {
  const Maybe name = line_member(share, "share_name");
  if (!name || name->empty() || name->find(']') != name->npos) return {};
  std::string text = "[" + name->substr(0, 64) + "]\n";
  for (const std::string key : {"read list", "write list", "invalid users", "path"}) {
    const Maybe value = line_member(share, key.c_str());
    if (!value) return {};
    text += key + " = " + without_backslashes(*value).substr(0, key == "path" ? 4095 : std::string::npos) + "\n";
  }
  return text + "\n";
}

int store_shares(json_object *object, Files *files) {
  const Maybe id = id_member(object, "slave_id");
  if (!id) return -EINVAL;
  std::string text;
  bool had_empty = false;
  json_object_object_foreach(object, key, value) {
    static_cast<void>(key);
    if (!json_object_is_type(value, json_type_array)) continue;
    const size_t length = json_object_array_length(value);
    had_empty = had_empty || length == 0;
    for (size_t index = 0; index < length; ++index) {
      const Maybe section = share_section(json_object_array_get_idx(value, index));
      if (!section) return -ENOENT;
      text += *section;
    }
  }
  const std::string path = share_folder + *id;
  if (!text.empty()) {
    (*files)[path] = text;
  } else if (had_empty && files->contains(path)) {
    (*files)[path] = "";
  }
  return 0;
}

int store_members(const Members &members, Files *files) {
  (*files)[slaves_file] = text_of(members);
  (*files)[kept_slaves_file] = text_of(members);
  return 0;
}

// On the master the slaves are told that a stranger leaves, too, and the last one's answer counts.
int leave(Members members, const std::string &id, Files *files) {
  Member *subject = find(&members, id);
  if (subject == nullptr) return files->contains(master_flag) ? 0 : -ENOANO;
  members.erase(members.begin() + (subject - members.data()));
  return store_members(members, files);
}

int store_info(json_object *object, Files *files) {
  const Maybe id = id_member(object, "slave_id");
  if (!id) return -EINVAL;
  Members members = all_members();
  if (text_member(object, "MSKey") == Maybe("NULL")) return leave(members, *id, files);

  Member described = find(&members, *id) != nullptr ? *find(&members, *id) : member(*id);
  const Maybe name = id_member(object, "MSKey");
  if (!name) return -EINVAL;
  described.name = *name;
  constexpr std::pair<const char *, size_t> texts[] = {
      {"Address", 63}, {"SID", 8}, {"HostName", 14}, {"Model", 31}, {"Firmware", 31}};
  for (const auto &[key, limit] : texts) {
    const Maybe value = line_member(object, key);
    if (!value) return -EINVAL;
    described.values[key] = value->substr(0, limit);
  }
  for (const char *key : {"Type", "WebPort", "SslWebPort", "UsrCnt"}) {
    described.values[key] = std::to_string(json_object_get_int(find_member(object, key)));
  }
  const auto quota = static_cast<int32_t>(json_object_get_int64(find_member(object, "Quota")));
  described.values["Quota"] = std::to_string(quota);
  Member *subject = find(&members, *id);
  if (subject == nullptr) return -ENOANO;  // who is on neither list cannot be deleted from the kept one
  *subject = described;
  return store_members(members, files);
}

int store_address_of(const std::string &id, const std::string &address, Files *files) {
  Members members = all_members();
  if (Member *subject = find(&members, id); subject != nullptr) {
    subject->values["Address"] = address;
    return store_members(members, files);
  }
  for (const std::string &path : {slaves_file, kept_slaves_file}) {  // behind one empty line, which is there
    (*files)[path] += "[" + id + "]\nAddress = " + address + "\n";
  }
  return 0;
}

int store_address(json_object *object, Files *files) {
  const Maybe id = id_member(object, "slave_id");
  if (!id) return -EINVAL;
  if (files->contains(master_flag)) return 0;
  if (!files->contains(slave_flag)) return -EBADRQC;
  const Maybe address = text_member(object, "Address");
  const auto is_control = [](unsigned char c) { return c < ' ' || c == 0x7f; };
  if (!address || address->empty() || address->size() > 63 || std::ranges::any_of(*address, is_control)) return -EINVAL;
  if (*id == master_id) {
    for (const std::string &path : {master_file, kept_master_file}) {
      (*files)[path] = "[" + own_id + "]\nAddress = " + *address + "\n";
    }
    return 0;
  }
  return *address == own_address ? store_address_of(*id, *address, files) : -EINVAL;
}

// --------------------------------------------------------------------------------------------------------------- files

constexpr const char *folders[] = {"/mnt/tarncluster", "/etc/config", "/var/zopel", "/var/lock"};

Files files_now() {
  Files files;
  for (const char *folder : folders) {
    for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
      if (!entry.is_directory()) files[entry.path()] = test::read_file(entry.path());
    }
  }
  return files;
}

void set_files(const Files &now, const Files &wanted) {
  for (const auto &[path, text] : now) {
    if (!wanted.contains(path)) std::filesystem::remove(path);
  }
  for (const auto &[path, text] : wanted) {
    const auto found = now.find(path);
    if (found == now.end() || found->second != text) test::write_file(path, text);
  }
}

void require_answer(const char *answer, bool is_json, int code) {
  REQUIRE_EQUAL(answer != nullptr, is_json);
  if (!is_json) return;
  const Json reply(json_tokener_parse(answer));
  REQUIRE(json_object_is_type(reply.get(), json_type_object));
  REQUIRE_EQUAL(json_object_object_length(reply.get()), 1);
  REQUIRE(json_object_is_type(find_member(reply.get(), "return"), json_type_int));
  REQUIRE_EQUAL(json_object_get_int(find_member(reply.get(), "return")), code);
}

std::string argument;  // that the handler runs with

struct Handler {
  char *(*handle)(const char *argument);
  int (*model)(json_object *object, Files *files);  // the code
};

void check(const Handler &handler, const Files &before) {
  const Json object(json_tokener_parse(argument.c_str()));
  Files expected = before;
  const bool is_object = json_object_is_type(object.get(), json_type_object);
  const int code = is_object ? handler.model(object.get(), &expected) : -EINVAL;

  const Heap_Text answer(handler.handle(argument.c_str()));
  require_answer(answer.get(), object != nullptr, code);
  const Files now = files_now();
  REQUIRE_EQUAL(now, expected);
  set_files(now, before);
}

void check_all(int role) {
  Files before = files_before();
  if ((role & 1) != 0) before[master_flag] = "";
  if ((role & 2) != 0) before[slave_flag] = "";
  set_files(files_now(), before);
  constexpr Handler handlers[] = {{Tarn_Cluster_Send_Share_List_Cb, store_shares},
                                  {Tarn_Cluster_Send_Slave_Info_Cb, store_info},
                                  {Tarn_Cluster_Update_Bind_Addr_Cb, store_address}};
  for (const Handler &handler : handlers) check(handler, before);
}

void make_folders() {
  static const bool made = [] {
    std::filesystem::create_directories(share_folder);
    std::filesystem::create_directories(kept_folder);
    test::write_file("/etc/nsswitch.conf", "hosts: files\n");  // nobody is asked for the names of hosts
    return true;
  }();
  static_cast<void>(made);
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" {

// The platform's and the shell's part: what is passed on is the very argument, and only two commands are ever run.
int Cluster_Master_Cmd(const char *command, const char *argument, char **reply) {
  using namespace tarn::fuzz;
  REQUIRE_EQUAL(std::string(argument), tarn::fuzz::argument);
  const Json object(json_tokener_parse(command));
  REQUIRE_EQUAL(json_object_object_length(object.get()), 3);
  REQUIRE_EQUAL(json_object_get_int(find_member(object.get(), "op_code")), 1);
  REQUIRE_EQUAL(text_member(object.get(), "fname"), Maybe("Tarn_Cluster_Send_Share_List_Cb"));
  REQUIRE(id_member(object.get(), "slave_id").has_value());
  *reply = strdup(R"({"return": 0})");
  return 0;
}

int system(const char *command) {
  const std::string text = command;
  REQUIRE(text == "/etc/init.d/druvosrv_c.sh reload 1>/dev/null 2>&1 &" ||
          text == "/etc/init.d/druvosrv_c.sh restart 1>/dev/null 2>&1 &");
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return -1;
  tarn::fuzz::make_folders();
  tarn::fuzz::argument = std::string(reinterpret_cast<const char *>(data) + 1, size - 1).c_str();
  tarn::fuzz::check_all(data[0] & 3);
  return 0;
}

}  // extern "C"

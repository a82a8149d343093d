#include "cluster/ops/members.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char master_flag[] = "/var/zopel/tarn_cluster_m.enable";
constexpr char slave_flag[] = "/var/zopel/tarn_cluster_s.enable";

struct Member_Name {
  char text[sizeof Tarn_Serv_Conf::Name + 1] = "";
  explicit Member_Name(const Tarn_Serv_Conf &member) {
    const std::string_view name = name_of(member);
    memcpy(text, name.data(), name.size());
  }
};

bool is_running(const Tarn_Serv_Conf &member) {
  return member.Status != 0 && Is_Process_Existed(member.PID) == 1;
}

bool is_target(const Tarn_Serv_Conf &member, const char *about_id) {
  return name_of(member) != about_id && Is_IP_Localhost(member.Address) == 0 && is_running(member);
}

int report_no_memory(const Broadcast &what) {
  TARN_ERROR_AS(what.function, "Can't allocate memory for broadcast %s! (%d)", what.subject, -ENOMEM);
  return -ENOMEM;
}

// The reply, when one came, is logged; what it says does not count.
int send_to_slave(const Broadcast &what, const char *slave_id, const char *command, const char *argument) {
  char *text = nullptr;
  const int code = send_texts(what.function, Direction::master_to_slave, command, argument, no_timeout, &text);
  const Heap_Text reply(text);
  if (text == nullptr) return code;
  Json parsed = parse_slave_reply(what, slave_id, text);
  if (parsed == nullptr) return -ENOMEM;
  if (what.replies != nullptr && json_object_array_add(what.replies, parsed.get()) == 0) {
    static_cast<void>(parsed.release());
  }
  return code;
}

}  // namespace

bool is_master() {
  return Check_File(master_flag) == 1;
}

bool is_slave() {
  return Check_File(slave_flag) == 1;
}

std::string_view name_of(const Tarn_Serv_Conf &member) {
  return {member.Name, strnlen(member.Name, sizeof member.Name)};
}

void run_command(const char *command) {
  [[maybe_unused]] const int ignored = system(command);
}

void reload_sync_service() {
  run_command("/etc/init.d/druvosrv_c.sh reload 1>/dev/null 2>&1 &");
}

void restart_sync_service() {
  run_command("/etc/init.d/druvosrv_c.sh restart 1>/dev/null 2>&1 &");
}

int read_members(const char *function, Member_List *members) {
  Tarn_Serv_Conf *list = nullptr;
  const int status = Tarn_Cluster_Serv_Conf_Read(slaves_file, &list);
  members->reset(list);
  const bool failed = status != 0 && status != -ENOANO;
  if (failed || (status == 0 && list == nullptr)) {
    TARN_ERROR_AS(function, "Can't read Tarn service file %s! (%d)", slaves_file, status);
  }
  return status;
}

int read_member(const char *function, const char *id, Member_List *member) {
  Tarn_Serv_Conf *found = nullptr;
  const int status = Tarn_Cluster_Service_Get(slaves_file, id, &found);
  member->reset(found);
  if (status == -ENOANO) {
    TARN_INFO_AS(function, "Can't find slave id %s!", id);
  } else if (status != 0 || found == nullptr) {
    TARN_ERROR_AS(function, "Can't read Tarn service file! (%d)", status);
  }
  return status;
}

Json parse_slave_reply(const Broadcast &what, const char *slave_id, const char *reply) {
  Json parsed = parse_json(reply);
  if (parsed == nullptr) {
    report_no_memory(what);
  } else {
    TARN_DEBUG_AS(what.function, "Broadcast %s to slave %s, result: %d", what.action, slave_id,
                  json_object_get_int(find_member(parsed.get(), "return")));
  }
  return parsed;
}

int broadcast(const Broadcast &what, const Tarn_Serv_Conf *members, const char *about_id, const char *argument,
              int code) {
  for (const Tarn_Serv_Conf *member = members; member != nullptr; member = member->next) {
    if (!is_target(*member, about_id)) continue;
    const Member_Name slave(*member);
    Json_Builder command = command_object(Op_Code::call_handler);
    command.text("fname", what.handler).text("slave_id", slave.text);
    const char *command_text = command.serialised();
    if (command_text == nullptr) return report_no_memory(what);
    code = send_to_slave(what, slave.text, command_text, argument);
  }
  return code;
}

int broadcast_from_master(const Broadcast &what, const char *about_id, const char *argument, int code) {
  if (!is_master()) return code;
  Member_List members;
  const int status = read_members(what.function, &members);
  return status != 0 ? status : broadcast(what, members.get(), about_id, argument, code);
}

}  // namespace tarn

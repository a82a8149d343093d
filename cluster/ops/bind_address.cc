#include <cerrno>
#include <cstring>

#include "cluster/ops/members.h"
#include "cluster/ops/own_addresses.h"
#include "cluster/ops/wire_checks.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char update_name[] = "Tarn_Cluster_Update_Bind_Addr";
constexpr char handler_name[] = "Tarn_Cluster_Update_Bind_Addr_Cb";
constexpr char kept_identity_file[] = "/etc/config/tarn_cluster/tarn_cluster_s.conf";
constexpr size_t address_size = sizeof Tarn_Serv_Conf::Address;  // a longer one could not be read back

constexpr Broadcast bind_broadcast = {
    .function = update_name,
    .handler = handler_name,
    .subject = "update bind",
    .action = "update bind",
    .replies = nullptr,
};

constexpr const char *all_files[] = {kept_master_file, master_file, kept_slaves_file, slaves_file};
constexpr const char *master_files[] = {kept_master_file, master_file};
constexpr const char *slaves_files[] = {kept_slaves_file, slaves_file};

int report_not_member(const char *function) {
  TARN_ERROR_AS(function, "I'm not druvo cluster! (%d)", -EBADRQC);
  return -EBADRQC;
}

int report_unread(const char *function, const char *path, int status) {
  if (status != 0) TARN_ERROR_AS(function, "Can't read config %s! (%d)", path, status);
  return status;
}

int read_id(const char *function, const char *path, char (&id)[slave_id_size]) {
  int size = slave_id_size;
  return report_unread(function, path, Get_Conf_File_String_Value(path, "global", "MSKey", id, &size));
}

// The first failure ends it; what was written before stays.
template <size_t count>
int write_address(const char *function, const char *const (&files)[count], const char *section, const char *address) {
  for (const char *file : files) {
    const int status = Set_Conf_File_String_Value(file, section, "Address", address);
    if (status == 0) continue;
    TARN_ERROR_AS(function, "Can't update address %s to config %s! (%d)", address, file, status);
    return status;
  }
  return 0;
}

int report_no_scan(const char *function, int status) {
  TARN_ERROR_AS(function, "Can't scan network interface! (%d)", status);
  return status;
}

// ------------------------------------------------------------------------------------------------------------- sender

Json_Builder change_argument(const char *member_id, const char *address) {
  Json_Builder argument;
  argument.text("slave_id", member_id).text("Address", address);
  return argument;
}

// On a slave: only its own id will do, and then there is nothing to be done.
int check_on_slave(const char *member_id) {
  if (!is_slave()) return report_not_member(update_name);
  char own_id[slave_id_size];
  const int status = read_id(update_name, slave_identity_file, own_id);
  if (status != 0) return status;
  if (strcmp(member_id, own_id) == 0) return 0;
  TARN_ERROR_AS(update_name, "Bad request, invalid slave ID! (%d)", -EBADRQC);
  return -EBADRQC;
}

int send_change(const char *slave_id, const char *argument, char **reply) {
  Json_Builder command = command_object(Op_Code::call_handler);
  command.text("fname", handler_name).text("slave_id", slave_id);
  const char *command_text = command.serialised();
  if (command_text == nullptr) {
    TARN_ERROR_AS(update_name, "Can't allocate memory for broadcast %s! (%d)", bind_broadcast.subject, -ENOMEM);
    return -ENOMEM;
  }
  char *text = nullptr;
  const int code = send_texts(update_name, Direction::master_to_slave, command_text, argument, no_timeout, &text);
  Heap_Text answer(text);
  if (answer == nullptr) return code;
  if (parse_slave_reply(bind_broadcast, slave_id, text) == nullptr) return -ENOMEM;
  *reply = answer.release();
  return code;
}

// The slave checks the address and stores it itself.
int change_slave(const char *slave_id, const char *address, char **reply) {
  Tarn_Serv_Conf *found = nullptr;
  int status = Tarn_Cluster_Service_Get(slaves_file, slave_id, &found);
  const Member_List record(found);
  if (status == 0 && record == nullptr) status = -ENOANO;
  if (status != 0) {
    TARN_ERROR_AS(update_name, "Invalid cluster id %s! (%d)", slave_id, status);
    return status;
  }
  if (strcmp(record->Address, address) == 0) return 0;
  const Json_Builder argument = change_argument(slave_id, address);
  const char *text = argument.serialised();
  return text != nullptr ? send_change(slave_id, text, reply) : report_no_json(update_name);
}

int check_own_address(const char *own_id, const char *address, bool *unchanged) {
  char current[address_size];
  int size = sizeof current;
  const int status = Get_Conf_File_String_Value(master_file, own_id, "Address", current, &size);
  if (status != 0) {
    TARN_ERROR_AS(update_name, "Can't read address from config %s! (%d)", master_file, status);
    return status;
  }
  *unchanged = strcmp(current, address) == 0;
  return 0;
}

// Tells the running slaves, and hands their answers to the caller.
int tell_slaves(const char *own_id, const char *address, char **reply) {
  const Json_Builder argument = change_argument(own_id, address);
  const char *argument_text = argument.serialised();
  if (argument_text == nullptr) return report_no_json(update_name);
  Member_List members;
  const int status = read_members(update_name, &members);
  if (status != 0 || members == nullptr) return status;

  Json_Builder answer;
  json_object *results = json_object_new_array();
  answer.add("result_list", results);
  if (!answer.complete()) return report_no_json(update_name);
  Broadcast what = bind_broadcast;
  what.replies = results;
  const int code = broadcast(what, members.get(), own_id, argument_text, 0);
  const char *text = answer.serialised();
  const bool handed_over = text != nullptr && Clone_String(text, reply, nullptr) == 0;
  restart_sync_service();
  return handed_over ? code : report_no_json(update_name);
}

int change_master(const char *own_id, const char *address, char **reply) {
  bool unchanged = false;
  int status = check_own_address(own_id, address, &unchanged);
  if (status != 0 || unchanged) return status;
  const Own_Addresses own;
  if (!own.known()) return report_no_scan(update_name, own.status());
  if (!own.holds(address)) {
    TARN_ERROR_AS(update_name, "Update a not exist address! (%d)", -EINVAL);
    return -EINVAL;
  }
  status = write_address(update_name, all_files, own_id, address);
  return status == 0 ? tell_slaves(own_id, address, reply) : status;
}

// ------------------------------------------------------------------------------------------------------------ handler

// What goes into the files must stay in its line, and must be read back.
const char *find_address(const json_object *object) {
  const char *address = find_text(object, "Address");
  if (address == nullptr) {
    TARN_ERROR_AS(handler_name, "Can't get address! (%d)", -EINVAL);
    return nullptr;
  }
  if (address[0] != '\0' && is_address_text(address, address_size)) return address;
  TARN_ERROR_AS(handler_name, "Invalid address! (%d)", -EINVAL);
  return nullptr;
}

int store_master_address(const char *address) {
  char own_id[slave_id_size];
  const int status = read_id(handler_name, kept_identity_file, own_id);
  return status == 0 ? write_address(handler_name, master_files, own_id, address) : status;
}

int store_own_address(const char *id, const char *address) {
  const Own_Addresses own;
  if (own.status() != 0) return report_no_scan(handler_name, own.status());
  if (!own.holds(address)) {
    TARN_ERROR_AS(handler_name, "Update invalid address %s! (%d)", address, -EINVAL);
    return -EINVAL;
  }
  const int status = write_address(handler_name, slaves_files, id, address);
  if (status == 0) restart_sync_service();
  return status;
}

int store_address(const json_object *object) {
  const char *id = find_subject_id(handler_name, object);
  if (id == nullptr) return -EINVAL;
  if (is_master()) return 0;
  if (!is_slave()) return report_not_member(handler_name);
  const char *address = find_address(object);
  if (address == nullptr) return -EINVAL;

  Tarn_Serv_Conf *list = nullptr;
  const int status = Tarn_Cluster_Serv_Conf_Read(slaves_file, &list);
  const Member_List members(list);
  if (status != 0 || list == nullptr) {
    TARN_ERROR_AS(handler_name, "Can't read config %s! (%d)", slaves_file, status);
    return status;
  }
  // The first record is the master's.
  return name_of(*list) == id ? store_master_address(address) : store_own_address(id, address);
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Update_Bind_Addr(const char *member_id, const char *address, char **reply) {
  if (member_id == nullptr || address == nullptr || reply == nullptr) return -EINVAL;

  *reply = nullptr;
  if (!tarn::is_master()) return tarn::check_on_slave(member_id);
  char own_id[tarn::slave_id_size];
  const int status = tarn::read_id(__func__, tarn::slave_identity_file, own_id);
  if (status != 0) return status;
  return strcmp(member_id, own_id) == 0 ? tarn::change_master(own_id, address, reply)
                                        : tarn::change_slave(member_id, address, reply);
}

char *Tarn_Cluster_Update_Bind_Addr_Cb(const char *argument) {
  return tarn::run_handler(__func__, argument, tarn::store_address);
}

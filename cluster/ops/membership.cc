#include <cerrno>

#include "cluster/ops/members.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr int service_port = 62695;
constexpr char administrator[] = "admin";

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Add_Slave(const char *address, int port, const char *user, const char *password, char **reply) {
  if (address == nullptr || reply == nullptr) return -EINVAL;

  const tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::add_slave);
  tarn::Json_Builder argument;  // never logged: it holds the password
  argument.text("Address", address)
      .number("Port", port > 0 ? port : tarn::service_port)
      .text("User", user != nullptr ? user : tarn::administrator);
  if (password != nullptr) argument.text("Password", password);
  const int result =
      tarn::send_command(__func__, tarn::Direction::master_control, command, argument, tarn::no_timeout, reply);
  if (result == 0) TARN_DEBUG("result: \n%s", *reply != nullptr ? *reply : "");
  return result;
}

int Tarn_Cluster_Remove_Slave(const char *slave_id, char **reply) {
  if (slave_id == nullptr || reply == nullptr) return -EINVAL;

  *reply = nullptr;
  Tarn_Serv_Conf *record = nullptr;
  const int status = Tarn_Cluster_Service_Get(tarn::slaves_file, slave_id, &record);
  const bool found = record != nullptr;
  Release_Serv_List_Conf(record);
  if (status == -ENOANO) {
    TARN_DEBUG("Remove a slave which doesn't exist.");
    return status;
  }
  if (status != 0 || !found) {
    TARN_ERROR("Can't read service config file! (%d)", status);  // with 0 for no record: callers know the line
    return status;
  }
  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::remove_slave);
  command.text("slave_id", slave_id);
  tarn::Json_Builder argument;
  argument.text("slave_id", slave_id);
  return tarn::send_command(__func__, tarn::Direction::master_control, command, argument, tarn::no_timeout, reply);
}

int Tarn_Cluster_Update_Network_Info(const char *master_id, char **reply) {
  if (master_id == nullptr || reply == nullptr) return -EINVAL;

  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::update_network_info);
  command.text("master_id", master_id);
  tarn::Json_Builder argument;
  argument.text("master_id", master_id);
  return tarn::send_command(__func__, tarn::Direction::slave_to_master, command, argument, tarn::no_timeout, reply);
}

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cluster/ops/members.h"
#include "cluster/ops/wire_checks.h"
#include "conf/nodes.h"
#include "conf/replacement_file.h"
#include "foundation/bounded_text.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char system_file[] = "/etc/config/Gavrix.conf";
constexpr char quota_file[] = "/etc/config/usr_quota.conf";
constexpr char send_name[] = "Tarn_Cluster_Send_Slave_Info";
constexpr char handler_name[] = "Tarn_Cluster_Send_Slave_Info_Cb";

constexpr int default_web_port = 8080;
constexpr int default_ssl_web_port = 443;
constexpr size_t model_room = 64;  // what the platform fills
constexpr char leaving[] = "NULL";

// ------------------------------------------------------------------------------------------------------------- sender

// A value of the appliance's configuration; null, with a report when the noun is given, when it is missing.
const char *find_setting(const Sections &sections, const char *section, const char *key, const char *noun) {
  const char *value = nullptr;
  int status = Get_Conf_String_Pointer(sections.first, section, key, &value);
  if (status == 0 && value == nullptr) status = -ENODATA;
  if (status == 0) return value;
  if (noun != nullptr) TARN_ERROR_AS(send_name, "Can't get %s! (%d)", noun, status);
  return nullptr;
}

int number_in(const char *text) {
  return static_cast<int>(strtol(text, nullptr, 10));
}

// A value that does not fit leaves the default.
template <size_t size>
void refresh_text(const Sections &sections, const char *key, const char *noun, const char *fallback,
                  char (&field)[size]) {
  copy_bounded(field, fallback);
  const char *value = find_setting(sections, "System", key, noun);
  if (value == nullptr) return;
  if (strlen(value) < size) {
    copy_bounded(field, value);
  } else {
    TARN_ERROR_AS(send_name, "Buffer overflow when get %s! (%d)", key, -EOVERFLOW);
  }
}

void refresh_model(Tarn_Serv_Conf *record) {
  copy_bounded(record->Model, "Unkown Model");  // spelled as everybody knows it
  char name[model_room] = "";
  if (Get_Display_Model_Name(name, sizeof name) != 0) return;
  name[sizeof name - 1] = '\0';
  copy_bounded(record->Model, name);
}

void refresh_ports(const Sections &sections, Tarn_Serv_Conf *record) {
  constexpr char noun[] = "NAS web access port";
  const char *web_port = find_setting(sections, "System", "Web Access Port", noun);
  record->WebPort = web_port != nullptr ? number_in(web_port) : default_web_port;

  record->SslWebPort = -1;
  const char *enabled = find_setting(sections, "Stunnel", "Enable", noun);
  if (enabled == nullptr || number_in(enabled) == 0) return;
  const char *ssl_port = find_setting(sections, "Stunnel", "Port", nullptr);
  record->SslWebPort = ssl_port != nullptr ? number_in(ssl_port) : default_ssl_web_port;
}

void refresh_quota(Tarn_Serv_Conf *record) {
  record->Quota = 0;
  Sections sections;
  if (Read_Conf_File(quota_file, &sections.first) < 0) return;
  const char *enabled = find_setting(sections, "", "User Enable", nullptr);
  if (enabled == nullptr || strcmp(enabled, "TRUE") != 0) return;
  const char *size = find_setting(sections, "", "User Size", "user quota");
  if (size != nullptr) record->Quota = strtoll(size, nullptr, 10);
}

int refresh(Tarn_Serv_Conf *record) {
  Sections sections;
  const int read = Read_Conf_File(system_file, &sections.first);
  if (read < 0) {
    TARN_ERROR_AS(send_name, "Can't read conf %s ! (%d)", system_file, read);
    return read;
  }
  refresh_text(sections, "Server Name", "NAS host name", "Unknown Host", record->HostName);
  refresh_model(record);
  refresh_text(sections, "Version", "NAS version", "Unknown Firmware Version", record->Firmware);
  refresh_ports(sections, record);
  refresh_quota(record);
  return 0;
}

int read_own_record(const char *own_id, Member_List *record) {
  Tarn_Serv_Conf *found = nullptr;
  const int status = Tarn_Cluster_Service_Get(slaves_file, own_id, &found);
  record->reset(found);
  if (status == -ENOANO) {
    TARN_DEBUG_AS(send_name, "Remove a slave which doesn't exist.");  // borrowed from the removal, and known so
  } else if (status != 0) {
    TARN_ERROR_AS(send_name, "Can't read service config file %s! (%d)", slaves_file, status);
  }
  return status;
}

Json_Builder describe(const Tarn_Serv_Conf &record, const char *own_id) {
  char name[sizeof record.Name + 1] = "";
  memcpy(name, record.Name, sizeof record.Name);
  Json_Builder argument;
  argument.text("slave_id", own_id)
      .number("Type", record.Type)
      .number("WebPort", record.WebPort)
      .number("SslWebPort", record.SslWebPort)
      .number("UsrCnt", record.UsrCnt)
      .number("Quota", static_cast<int32_t>(record.Quota))  // it travels in 32 bits: older members read no more
      .text("Address", record.Address)
      .text("MSKey", name)
      .text("SID", record.SID)
      .text("HostName", record.HostName)
      .text("Model", record.Model)
      .text("Firmware", record.Firmware);
  return argument;
}

// ------------------------------------------------------------------------------------------------------------ handler

int number_of(const json_object *object, const char *key) {
  return json_object_get_int(find_member(object, key));
}

// The texts of a description. One that is missing, or that would not stay in its line, refuses it.
struct Description {
  const char *name;
  const char *address;
  const char *sid;
  const char *host_name;
  const char *model;
  const char *firmware;

  explicit Description(const json_object *object)
      : name(find_member_id(object, "MSKey")),
        address(find_line(object, "Address")),
        sid(find_line(object, "SID")),
        host_name(find_line(object, "HostName")),
        model(find_line(object, "Model")),
        firmware(find_line(object, "Firmware")) {}

  bool complete() const {
    return name != nullptr && address != nullptr && sid != nullptr && host_name != nullptr && model != nullptr &&
           firmware != nullptr;
  }
};

void overwrite(const json_object *object, const Description &description, Tarn_Serv_Conf *record) {
  record->fields = TARN_SERV_ALL;
  record->Type = number_of(object, "Type");
  record->WebPort = number_of(object, "WebPort");
  record->SslWebPort = number_of(object, "SslWebPort");
  record->UsrCnt = number_of(object, "UsrCnt");
  record->Quota = static_cast<int32_t>(json_object_get_int64(find_member(object, "Quota")));
  copy_bounded(record->Address, description.address);
  copy_bounded(record->Name, description.name);
  copy_bounded(record->SID, description.sid);
  copy_bounded(record->HostName, description.host_name);
  copy_bounded(record->Model, description.model);
  copy_bounded(record->Firmware, description.firmware);
}

int report_not_set(const char *id, const char *path, int status) {
  if (status != 0) TARN_ERROR_AS(handler_name, "Can't set service %s to config file %s! (%d)", id, path, status);
  return status;
}

// The kept copy goes first; the working copy's result counts.
int delete_member(const char *id) {
  report_not_set(id, kept_slaves_file, Tarn_Cluster_Service_Set(kept_slaves_file, id, nullptr));
  return report_not_set(id, slaves_file, Tarn_Cluster_Service_Set(slaves_file, id, nullptr));
}

// Changes the working copy under its lock, which is given back before the kept copy is written: both have one lock,
// since a lock is named by the base name. Leaves the record null when there is none to change.
int update_working_copy(const json_object *object, const Description &description, const char *id,
                        Member_List *record) {
  const Replacement_Lock lock(slaves_file);
  if (!lock.held()) {
    TARN_ERROR_AS(handler_name, "Can't get file lock of %s error!", slaves_file);
    return 0;
  }
  if (read_member(handler_name, id, record) != 0 || *record == nullptr) return 0;
  overwrite(object, description, record->get());
  return report_not_set(id, slaves_file, Tarn_Cluster_Service_Set_NoLock(slaves_file, id, record->get()));
}

// A member that is not in the working copy is deleted from the kept one.
int update_member(const json_object *object, const char *id) {
  const Description description(object);
  if (!description.complete()) {
    TARN_ERROR_AS(handler_name, "Can't get slave information! (%d)", -EINVAL);
    return -EINVAL;
  }
  Member_List record;
  const int status = update_working_copy(object, description, id, &record);
  if (status != 0) return status;
  return report_not_set(id, kept_slaves_file, Tarn_Cluster_Service_Set(kept_slaves_file, id, record.get()));
}

// It names the share list's handler, which stores nothing of it and answers 0: slaves of every age take it so.
constexpr Broadcast info_broadcast = {
    .function = handler_name,
    .handler = "Tarn_Cluster_Send_Share_List_Cb",
    .subject = "slave info",
    .action = "send slave info",
    .replies = nullptr,
};

int store_and_pass_on(json_object *object, const char *argument) {
  const char *id = find_subject_id(handler_name, object);
  if (id == nullptr) return -EINVAL;

  const char *name = find_text(object, "MSKey");
  const bool leaves = name != nullptr && strcmp(name, leaving) == 0;
  const int status = leaves ? delete_member(id) : update_member(object, id);
  if (!leaves && status != 0) return status;
  reload_sync_service();
  return broadcast_from_master(info_broadcast, id, argument, status);
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Send_Slave_Info(const char *master_id, char **reply) {
  if (master_id == nullptr || reply == nullptr) return -EINVAL;

  *reply = nullptr;
  char own_id[tarn::slave_id_size];
  int status = tarn::read_own_slave_id(__func__, own_id);
  if (status != 0) return status;
  tarn::Member_List record;
  status = tarn::read_own_record(own_id, &record);
  if (status != 0 || record == nullptr) return status;
  status = tarn::refresh(record.get());
  if (status != 0) return status;
  tarn::reload_sync_service();

  const tarn::Json_Builder argument = tarn::describe(*record, own_id);
  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::call_handler);
  command.text("fname", tarn::handler_name).text("master_id", master_id);
  return tarn::send_command(__func__, tarn::Direction::slave_to_master, command, argument, tarn::no_timeout, reply);
}

char *Tarn_Cluster_Send_Slave_Info_Cb(const char *argument) {
  return tarn::run_handler(__func__, argument,
                           [&](json_object *object) { return tarn::store_and_pass_on(object, argument); });
}

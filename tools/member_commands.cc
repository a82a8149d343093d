#include <tarncluster_util.h>

#include <cerrno>
#include <cstring>
#include <iostream>

#include "discovery.h"
#include "listing.h"
#include "password.h"
#include "record_fields.h"

namespace tool {
namespace {

using Record = Tarn_Serv_Conf;

#define MEMBER_FIELD(field, bit, kind) TOOL_RECORD_FIELD(Record, field, bit, kind)

constexpr Record_Field member_fields[] = {
    MEMBER_FIELD(HostName, TARN_SERV_HOST_NAME, text),
    MEMBER_FIELD(Address, TARN_SERV_ADDRESS, text),
    MEMBER_FIELD(ID, TARN_SERV_ID, int32),
    MEMBER_FIELD(PID, TARN_SERV_PID, int32),
    MEMBER_FIELD(UsrCnt, TARN_SERV_USR_CNT, int32),
    MEMBER_FIELD(Type, TARN_SERV_TYPE, int32),
    MEMBER_FIELD(Status, TARN_SERV_STATUS, int32),
    MEMBER_FIELD(WebPort, TARN_SERV_WEB_PORT, int32),
    MEMBER_FIELD(SslWebPort, TARN_SERV_SSL_WEB_PORT, int32),
    MEMBER_FIELD(BackupResult, TARN_SERV_BACKUP_RESULT, int32),
    MEMBER_FIELD(RestoreResult, TARN_SERV_RESTORE_RESULT, int32),
    MEMBER_FIELD(BackupProgress, TARN_SERV_BACKUP_PROGRESS, int32),
    MEMBER_FIELD(RestoreProgress, TARN_SERV_RESTORE_PROGRESS, int32),
    MEMBER_FIELD(RestorePID, TARN_SERV_RESTORE_PID, int32),
    MEMBER_FIELD(LastBackup, TARN_SERV_LAST_BACKUP, int64),
    MEMBER_FIELD(LastRestore, TARN_SERV_LAST_RESTORE, int64),
    MEMBER_FIELD(Quota, TARN_SERV_QUOTA, int64),
    MEMBER_FIELD(LeaveTime, TARN_SERV_LEAVE_TIME, int64),
    MEMBER_FIELD(SID, TARN_SERV_SID, text),
    MEMBER_FIELD(Model, TARN_SERV_MODEL, text),
    MEMBER_FIELD(Firmware, TARN_SERV_FIRMWARE, text),
    MEMBER_FIELD(LastRestoreFile, TARN_SERV_LAST_RESTORE_FILE, text),
};

#undef MEMBER_FIELD

template <size_t size>
std::string bounded(const char (&field)[size]) {
  return {field, strnlen(field, size)};  // a field may be full, without an end
}

std::string name_of(const Record &record) {
  return bounded(record.Name);
}

Json to_json(const Record &record) {
  Json object(json_object_new_object());
  json_object_object_add(object.get(), "Name", json_object_new_string(name_of(record).c_str()));
  add_to_json(object.get(), &record, record.fields, member_fields);
  return object;
}

using Records = std::unique_ptr<Record, decltype(&Release_Serv_List_Conf)>;

void list_members(const std::string &file, bool as_json) {
  Record *first = nullptr;
  check(Tarn_Cluster_Serv_Conf_Read(file.c_str(), &first), "cannot read " + file);
  const Records records(first, Release_Serv_List_Conf);
  Json list(json_object_new_array());
  Rows rows;
  for (const Record *record = first; record != nullptr; record = record->next) {
    json_object_array_add(list.get(), to_json(*record).release());
    rows.push_back({name_of(*record), bounded(record->HostName), bounded(record->Address),
                    std::to_string(record->Status), bounded(record->Model), bounded(record->Firmware)});
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table({"NAME", "HOST", "ADDRESS", "STATUS", "MODEL", "FIRMWARE"}, rows);
  }
}

void show_member(const std::string &file, const std::string &name, bool as_json) {
  Record *found = nullptr;
  check(Tarn_Cluster_Service_Get(file.c_str(), name.c_str(), &found), "cannot read " + name + " in " + file);
  const Records record(found, Release_Serv_List_Conf);
  if (as_json) {
    print_json(to_json(*found));
    return;
  }
  Rows rows = rows_of(found, found->fields, member_fields);
  rows.insert(rows.begin(), {"Name", name_of(*found)});
  print_table({"KEY", "VALUE"}, rows);
}

void set_member(const std::string &file, const std::string &name, const std::vector<std::string> &assignments) {
  Record record;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  if (name.empty() || name.size() >= sizeof record.Name) throw Failure("a member's name has 1 to 8 characters");
  std::memcpy(record.Name, name.c_str(), name.size() + 1);
  record.fields = TARN_SERV_NAME;
  for (const std::string &assignment : assignments) {
    assign(&record, &record.fields, member_fields, assignment, "a member");
  }
  check(Tarn_Cluster_Service_Set(file.c_str(), name.c_str(), &record), "cannot set " + name + " in " + file);
}

// ------------------------------------------------------------------------------------------------- joining and leaving

struct New_Member {
  std::string appliance, user = "admin", password_file;
  int port = 0;
  bool is_discovered = false, takes_all = false;
};

std::vector<Appliance> appliances_of(const New_Member &wanted) {
  if (wanted.is_discovered) return pick_appliances(announced_appliances(), wanted.appliance, wanted.takes_all);
  if (wanted.appliance.empty()) throw Failure("say which appliance: its address, or --discovered");
  return {{"", wanted.appliance, wanted.port, false}};
}

Json add_appliance(const Appliance &appliance, const New_Member &wanted, const std::string &password) {
  char *reply = nullptr;
  const int status =
      Tarn_Cluster_Add_Slave(appliance.address.c_str(), appliance.port, wanted.user.c_str(), password.c_str(), &reply);
  const std::string what = "cannot add " + appliance.address;
  if (status == -EEXIST) throw Failure(what + ": it is a member of a cluster already (-17)");
  return take_reply(status, reply, what);
}

std::string id_in(const Json &reply) {
  json_object *id = nullptr;
  return json_object_object_get_ex(reply.get(), "slave_id", &id) ? json_object_get_string(id) : "";
}

// One that cannot be added does not keep the others out.
void add_all(const std::vector<Appliance> &appliances, const New_Member &wanted, const std::string &password,
             bool as_json) {
  Json list(json_object_new_array());
  Rows rows;
  std::string failures;
  for (const Appliance &appliance : appliances) {
    try {
      Json reply = add_appliance(appliance, wanted, password);
      rows.push_back({appliance.host, appliance.address, id_in(reply)});
      json_object_object_add(reply.get(), "host", json_object_new_string(appliance.host.c_str()));
      json_object_object_add(reply.get(), "address", json_object_new_string(appliance.address.c_str()));
      json_object_array_add(list.get(), reply.release());
    } catch (const Failure &failure) {
      failures += (failures.empty() ? "" : "; ") + std::string(failure.what());
    }
  }
  if (as_json) {
    print_json(list);
  } else {
    print_table({"HOST", "ADDRESS", "NAME"}, rows);
  }
  if (!failures.empty()) throw Failure(failures);
}

void add_member(const New_Member &wanted, bool as_json) {
  const std::vector<Appliance> appliances = appliances_of(wanted);  // before the password is asked for
  const std::string password = read_password(wanted.password_file);
  if (wanted.takes_all) return add_all(appliances, wanted, password, as_json);
  const Json reply = add_appliance(appliances.front(), wanted, password);
  if (as_json) {
    print_json(reply);
  } else {
    std::cout << id_in(reply) << "\n";
  }
}

void remove_member(const std::string &name, bool as_json) {
  char *reply = nullptr;
  const int status = Tarn_Cluster_Remove_Slave(name.c_str(), &reply);
  check_reply(status, reply, "cannot remove " + name, as_json);
}

struct Arguments {
  std::string file = members_file;
  std::string name;
  std::vector<std::string> assignments;
};

void add_add_command(CLI::App *member, const Settings &settings) {
  auto wanted = std::make_shared<New_Member>();
  CLI::App *add = member->add_subcommand("add", "Add an appliance to the cluster, as a slave; on the master");
  CLI::Option *appliance = add->add_option(
      "ADDRESS", wanted->appliance, "The appliance's address; with --discovered its host name or address, or nothing");
  CLI::Option *port = add->add_option("--port", wanted->port, "The port of its service (62695)");
  add->add_option("--user", wanted->user, "Its administrator")->capture_default_str();
  add->add_option("--password-file", wanted->password_file, password_file_help);
  CLI::Option *discovered = add->add_flag("--discovered", wanted->is_discovered,
                                          "Take it from what \"browse\" finds: the one that is named, or the only one");
  add->add_flag("--all", wanted->takes_all, "With --discovered: all that are in no cluster")
      ->needs(discovered)
      ->excludes(appliance);
  discovered->excludes(port);
  add->footer(
      "Prints the new slave's id; with --all, a table.\n\nExample: tarncluster member add 10.77.0.12 --user admin\n"
      "         tarncluster member add --discovered nas2");
  add->callback([wanted, &settings] { add_member(*wanted, settings.json); });
}

}  // namespace

void add_member_commands(CLI::App &app, const Settings &settings) {
  CLI::App *member = app.add_subcommand("member", "Read and change the records of the cluster's members");
  member->require_subcommand(1);
  auto arguments = std::make_shared<Arguments>();
  member->add_option("--file", arguments->file, "The service file")->capture_default_str();

  add_add_command(member, settings);

  CLI::App *leave = member->add_subcommand("remove", "Remove a slave from the cluster; on the master");
  leave->add_option("NAME", arguments->name, "The slave")->required();
  leave->footer("Example: tarncluster member remove QN2a1b3c");
  leave->callback([arguments, &settings] { remove_member(arguments->name, settings.json); });

  CLI::App *list = member->add_subcommand("list", "List the members");
  list->footer("Example: tarncluster member list");
  list->callback([arguments, &settings] { list_members(arguments->file, settings.json); });

  CLI::App *show = member->add_subcommand("show", "Print one member's record");
  show->add_option("NAME", arguments->name, "The member")->required();
  show->footer("Example: tarncluster member show QN2a1b3c");
  show->callback([arguments, &settings] { show_member(arguments->file, arguments->name, settings.json); });

  CLI::App *set = member->add_subcommand("set", "Add a member's record, or change the given keys of it");
  set->add_option("NAME", arguments->name, "The member")->required();
  set->add_option("KEY=VALUE", arguments->assignments, "The keys to set")->required();
  set->footer("Example: tarncluster member set QN2a1b3c Address=10.0.0.2 Status=1");
  set->callback([arguments] { set_member(arguments->file, arguments->name, arguments->assignments); });

  CLI::App *remove = member->add_subcommand("forget", "Delete a member's record from the file; the member is not told");
  remove->add_option("NAME", arguments->name, "The member")->required();
  remove->footer("Example: tarncluster member forget QN2a1b3c");
  remove->callback([arguments] {
    check(Tarn_Cluster_Service_Set(arguments->file.c_str(), arguments->name.c_str(), nullptr),
          "cannot delete " + arguments->name + " from " + arguments->file);
  });
}

}  // namespace tool

#include <tarncluster_util.h>

#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iostream>

#include "report.h"

namespace tool {
namespace {

using Record = Tarn_Serv_Conf;

struct Member_Field {
  const char *name;
  unsigned bit;
  enum class Kind { int32, int64, text } kind;
  size_t offset;
  size_t size;
};

using enum Member_Field::Kind;

#define MEMBER_FIELD(field, bit, kind) \
  { #field, bit, kind, offsetof(Record, field), sizeof(Record::field) }

constexpr Member_Field member_fields[] = {
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

std::string name_of(const Record &record) {
  return {record.Name, strnlen(record.Name, sizeof record.Name)};
}

std::string value_of(const Record &record, const Member_Field &field) {
  const char *bytes = reinterpret_cast<const char *>(&record) + field.offset;
  if (field.kind == text) return {bytes, strnlen(bytes, field.size)};
  int64_t wide = 0;
  int32_t narrow = 0;
  if (field.kind == int32) {
    std::memcpy(&narrow, bytes, sizeof narrow);
    wide = narrow;
  } else {
    std::memcpy(&wide, bytes, sizeof wide);
  }
  return std::to_string(wide);
}

template <typename Number>
void put_number(char *place, const std::string &value, const char *name) {
  Number number = 0;
  const char *end = value.data() + value.size();
  const auto [stop, error] = std::from_chars(value.data(), end, number);
  if (error != std::errc() || stop != end) throw Failure(value + " is no number for " + name);
  std::memcpy(place, &number, sizeof number);
}

void put_value(Record *record, const Member_Field &field, const std::string &value) {
  char *place = reinterpret_cast<char *>(record) + field.offset;
  if (field.kind == int32) {
    put_number<int32_t>(place, value, field.name);
  } else if (field.kind == int64) {
    put_number<int64_t>(place, value, field.name);
  } else {
    if (value.size() >= field.size) {
      throw Failure(std::string(field.name) + " takes at most " + std::to_string(field.size - 1) + " characters");
    }
    std::memcpy(place, value.c_str(), value.size() + 1);
  }
  record->fields |= field.bit;
}

// Puts "KEY=VALUE" into the record.
void assign(Record *record, const std::string &assignment) {
  const size_t equals = assignment.find('=');
  if (equals == assignment.npos) throw Failure(assignment + " is not of the form KEY=VALUE");
  for (const Member_Field &field : member_fields) {
    if (assignment.compare(0, equals, field.name) == 0) return put_value(record, field, assignment.substr(equals + 1));
  }
  throw Failure("a member has no key " + assignment.substr(0, equals));
}

Json to_json(const Record &record) {
  Json object(json_object_new_object());
  json_object_object_add(object.get(), "Name", json_object_new_string(name_of(record).c_str()));
  for (const Member_Field &field : member_fields) {
    if ((record.fields & field.bit) == 0) continue;
    const std::string value = value_of(record, field);
    json_object_object_add(
        object.get(), field.name,
        field.kind == text ? json_object_new_string(value.c_str()) : json_object_new_int64(std::stoll(value)));
  }
  return object;
}

using Records = std::unique_ptr<Record, decltype(&Release_Serv_List_Conf)>;

void list_members(const std::string &file, bool as_json) {
  Record *first = nullptr;
  check(Tarn_Cluster_Serv_Conf_Read(file.c_str(), &first), "cannot read " + file);
  const Records records(first, Release_Serv_List_Conf);
  Json list(json_object_new_array());
  std::vector<std::vector<std::string>> rows;
  for (const Record *record = first; record != nullptr; record = record->next) {
    json_object_array_add(list.get(), to_json(*record).release());
    rows.push_back({name_of(*record), record->HostName, record->Address, std::to_string(record->Status), record->Model,
                    std::string(record->Firmware, strnlen(record->Firmware, sizeof record->Firmware))});
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
  std::vector<std::vector<std::string>> rows = {{"Name", name_of(*found)}};
  for (const Member_Field &field : member_fields) {
    if ((found->fields & field.bit) != 0) rows.push_back({field.name, value_of(*found, field)});
  }
  print_table({"KEY", "VALUE"}, rows);
}

void set_member(const std::string &file, const std::string &name, const std::vector<std::string> &assignments) {
  Record record;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  if (name.empty() || name.size() >= sizeof record.Name) throw Failure("a member's name has 1 to 8 characters");
  std::memcpy(record.Name, name.c_str(), name.size() + 1);
  record.fields = TARN_SERV_NAME;
  for (const std::string &assignment : assignments) assign(&record, assignment);
  check(Tarn_Cluster_Service_Set(file.c_str(), name.c_str(), &record), "cannot set " + name + " in " + file);
}

// A password stands in no list of processes: it comes from the terminal, a file or standard input ("-").
std::string read_password(const std::string &file) {
  if (file.empty()) {
    const char *typed = getpass("Password: ");
    if (typed == nullptr) throw Failure("no terminal to ask for the password; give --password-file");
    return typed;
  }
  std::ifstream opened;
  if (file != "-") opened.open(file);
  std::istream &source = file == "-" ? std::cin : opened;
  std::string password;
  if (!std::getline(source, password)) throw Failure("cannot read a password from " + file);
  return password;
}

struct New_Member {
  std::string address, user = "admin", password_file;
  int port = 0;
};

void add_member(const New_Member &member, bool as_json) {
  const std::string password = read_password(member.password_file);
  char *reply = nullptr;
  const int status =
      Tarn_Cluster_Add_Slave(member.address.c_str(), member.port, member.user.c_str(), password.c_str(), &reply);
  const std::string what = "cannot add " + member.address;
  if (as_json) return check_reply(status, reply, what, as_json);
  const Text owner(reply);
  check(status, what);
  const Json object(json_tokener_parse(reply != nullptr ? reply : ""));
  json_object *id = nullptr;
  if (json_object_object_get_ex(object.get(), "slave_id", &id)) std::cout << json_object_get_string(id) << "\n";
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

}  // namespace

void add_member_commands(CLI::App &app, const Settings &settings) {
  CLI::App *member = app.add_subcommand("member", "Read and change the records of the cluster's members");
  member->require_subcommand(1);
  auto arguments = std::make_shared<Arguments>();
  member->add_option("--file", arguments->file, "The service file")->capture_default_str();

  auto fresh = std::make_shared<New_Member>();
  CLI::App *add = member->add_subcommand("add", "Add an appliance to the cluster, as a slave; on the master");
  add->add_option("ADDRESS", fresh->address, "The appliance's address")->required();
  add->add_option("--port", fresh->port, "The port of its service (62695)");
  add->add_option("--user", fresh->user, "Its administrator")->capture_default_str();
  add->add_option("--password-file", fresh->password_file,
                  "A file whose first line is the password; - for standard input. Asked for when left out");
  add->footer("Prints the new slave's id.\n\nExample: tarncluster member add 10.77.0.12 --user admin");
  add->callback([fresh, &settings] { add_member(*fresh, settings.json); });

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

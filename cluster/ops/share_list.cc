#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cluster/ops/escape.h"
#include "cluster/ops/members.h"
#include "cluster/ops/wire_checks.h"
#include "conf/conf_file.h"
#include "foundation/bounded_text.h"
#include "foundation/report.h"

namespace tarn {
namespace {

constexpr char samba_file[] = "/etc/config/smb.conf";
constexpr char share_folder[] = "/mnt/tarncluster/config/share_list";
constexpr char send_name[] = "Tarn_Cluster_Send_Share_List";
constexpr char handler_name[] = "Tarn_Cluster_Send_Share_List_Cb";

// A member's share list file.
struct Share_File {
  char path[PATH_MAX];
  explicit Share_File(const char *id) { snprintf(path, sizeof path, "%s/%s", share_folder, id); }
};

// ------------------------------------------------------------------------------------------------------ share records

// A key of a share: in smb.conf and in the records, and on the wire by the same name.
struct Share_Key {
  const char *key;
  unsigned int bit;
  char *Tarn_Share_Conf::*list;  // null for the path
  const char *missing;           // what the handler reports when it is not there
};

// The line for the missing "invalid users" is that of "write list": those who search the logs know it so.
constexpr Share_Key read_list = {"read list", TARN_SHARE_READ_LIST, &Tarn_Share_Conf::read_list, "read list"};
constexpr Share_Key write_list = {"write list", TARN_SHARE_WRITE_LIST, &Tarn_Share_Conf::write_list, "write list"};
constexpr Share_Key invalid_users = {"invalid users", TARN_SHARE_INVALID_USERS, &Tarn_Share_Conf::invalid_users,
                                     "write list"};
constexpr Share_Key share_path = {"path", TARN_SHARE_PATH, nullptr, "path"};

constexpr const Share_Key *sent_order[] = {&invalid_users, &read_list, &write_list, &share_path};
constexpr const Share_Key *received_order[] = {&read_list, &write_list, &invalid_users, &share_path};

// A list of records that grows at its end.
class Share_List {
 public:
  Share_List() = default;
  ~Share_List() { Release_Share_List_Conf(first_); }
  Share_List(const Share_List &) = delete;
  Share_List &operator=(const Share_List &) = delete;

  const Tarn_Share_Conf *first() const { return first_; }

  // The new record at the end, empty but for its name; null with a report when memory ends.
  Tarn_Share_Conf *append(const char *function, const char *name);

 private:
  Tarn_Share_Conf *first_ = nullptr;
  Tarn_Share_Conf **end_ = &first_;
};

int report_no_record(const char *function) {
  TARN_ERROR_AS(function, "Can't allocate memory for service browsing! (%d)", -ENOMEM);
  return -ENOMEM;
}

Tarn_Share_Conf *Share_List::append(const char *function, const char *name) {
  auto *record = static_cast<Tarn_Share_Conf *>(calloc(1, sizeof(Tarn_Share_Conf)));
  if (record == nullptr) {
    report_no_record(function);
    return nullptr;
  }
  copy_bounded(record->Name, name);  // the wire carries the whole name
  record->fields = TARN_SHARE_NAME;
  *end_ = record;
  end_ = &record->next;
  return record;
}

// Takes a heap text over.
int set_value(const char *function, const Share_Key &key, Heap_Text value, Tarn_Share_Conf *record) {
  if (value == nullptr) return report_no_record(function);
  record->fields |= key.bit;
  if (key.list != nullptr) {
    record->*key.list = value.release();
  } else {
    copy_bounded(record->path, value.get());
  }
  return 0;
}

int write_shares(const char *function, const char *path, const Share_List &shares) {
  const int status = Tarn_Cluster_Share_Conf_Write(path, shares.first());
  if (status != 0) TARN_ERROR_AS(function, "Write share list config %s error! (%d)", path, status);
  return status;
}

// ------------------------------------------------------------------------------------------------------------- sender

int report_no_element() {
  TARN_ERROR_AS(send_name, "Can't allocate memory for local command return string! (%d)", -ENOMEM);
  return -ENOMEM;
}

// A nameless section cannot be a share: its record would be a section without a head.
bool takes_part(const Sect_Node &section) {
  const char *value = nullptr;
  return section.name[0] != '\0' && strcmp(section.name, "global") != 0 &&
         Get_Pair_String_Buffer(section.pairs, "tarn", &value) == 0 && value != nullptr &&
         strcasecmp(value, "yes") == 0;
}

// One share, for the wire and for this slave's own file.
int add_share(const Sect_Node &section, json_object *array, Share_List *shares) {
  Tarn_Share_Conf *record = shares->append(send_name, section.name);
  if (record == nullptr) return -ENOMEM;
  Json_Builder element;
  element.text("share_name", section.name);
  for (const Share_Key *key : sent_order) {
    const char *value = nullptr;
    if (Get_Pair_String_Buffer(section.pairs, key->key, &value) != 0 || value == nullptr) continue;
    element.text(key->key, value);
    char *copy = nullptr;
    Clone_String(value, &copy, nullptr);
    const int status = set_value(send_name, *key, Heap_Text(copy), record);
    if (status != 0) return status;
  }
  Json made(element.release());
  if (made == nullptr || json_object_array_add(array, made.get()) != 0) return report_no_element();
  static_cast<void>(made.release());
  return 0;
}

int gather_shares(json_object *array, Share_List *shares) {
  Sections sections;
  const int read = read_whole_conf_file(samba_file, &sections);
  if (read < 0 && read != -ENOENT) {
    TARN_ERROR_AS(send_name, "Can't read the samba config file %s! (%d)", samba_file, read);
    return read;
  }
  for (const Sect_Node *section = sections.first; section != nullptr; section = section->next) {
    if (!takes_part(*section)) continue;
    const int status = add_share(*section, array, shares);
    if (status != 0) return status;
  }
  return 0;
}

// ------------------------------------------------------------------------------------------------------------ handler

int take_value(const Share_Key &key, const json_object *element, Tarn_Share_Conf *record) {
  const char *text = find_line(element, key.key);
  if (text == nullptr) {
    TARN_ERROR_AS(handler_name, "Can't get %s! (%d)", key.missing, -ENOENT);
    return -ENOENT;
  }
  char *copy = nullptr;
  Remove_Escape(text, &copy);
  return set_value(handler_name, key, Heap_Text(copy), record);
}

// A name becomes the head of a section.
const char *find_share_name(const json_object *element) {
  const char *name = find_line(element, "share_name");
  return name != nullptr && name[0] != '\0' && strchr(name, ']') == nullptr ? name : nullptr;
}

int take_share(const json_object *element, Share_List *shares) {
  const char *name = find_share_name(element);
  if (name == nullptr) {
    TARN_ERROR_AS(handler_name, "Can't get share folder name! (%d)", -ENOENT);
    return -ENOENT;
  }
  Tarn_Share_Conf *record = shares->append(handler_name, name);
  if (record == nullptr) return -ENOMEM;
  for (const Share_Key *key : received_order) {
    const int status = take_value(*key, element, record);
    if (status != 0) return status;
  }
  return 0;
}

int empty_file(const char *path) {
  if (Check_File(path) != 1) return 0;
  if (truncate(path, 0) == 0) return 0;
  const int failure = -errno;
  TARN_ERROR_AS(handler_name, "Can't truncate config %s! (%d)", path, failure);
  return failure;
}

constexpr Broadcast share_broadcast = {
    .function = handler_name,
    .handler = handler_name,
    .subject = "share list",
    .action = "send share list",
    .replies = nullptr,
};

int store_and_pass_on(json_object *object, const char *argument) {
  const char *id = find_subject_id(handler_name, object);
  if (id == nullptr) return -EINVAL;

  Share_List shares;
  bool had_empty_array = false;
  const auto take = [&](const json_object *element) { return take_share(element, &shares); };
  const int status = walk_arrays(handler_name, object, take, &had_empty_array);
  if (status != 0) return status;

  const Share_File file(id);
  if (shares.first() == nullptr) return had_empty_array ? empty_file(file.path) : 0;
  return broadcast_from_master(share_broadcast, id, argument, write_shares(handler_name, file.path, shares));
}

}  // namespace
}  // namespace tarn

int Tarn_Cluster_Send_Share_List(const char *master_id, char **reply) {
  if (master_id == nullptr || reply == nullptr) return -EINVAL;

  *reply = nullptr;
  char own_id[tarn::slave_id_size];
  int status = tarn::read_own_slave_id(__func__, own_id);
  if (status != 0) return status;
  tarn::Json array(json_object_new_array());
  if (array == nullptr) return tarn::report_no_json(__func__);
  tarn::Share_List shares;
  status = tarn::gather_shares(array.get(), &shares);
  if (status != 0) return status;

  // The list goes out all the same when it cannot be kept here; an id that is none names no file.
  const tarn::Share_File file(own_id);
  if (shares.first() != nullptr && tarn::is_member_id(own_id)) tarn::write_shares(__func__, file.path, shares);

  tarn::Json_Builder argument;
  argument.text("slave_id", own_id).add("share_list", array.release());
  TARN_DEBUG("share list:\n%s", argument.serialised() != nullptr ? argument.serialised() : "");
  tarn::Json_Builder command = tarn::command_object(tarn::Op_Code::call_handler);
  command.text("fname", tarn::handler_name).text("master_id", master_id);
  return tarn::send_command(__func__, tarn::Direction::slave_to_master, command, argument, tarn::no_timeout, reply);
}

char *Tarn_Cluster_Send_Share_List_Cb(const char *argument) {
  return tarn::run_handler(__func__, argument,
                           [&](json_object *object) { return tarn::store_and_pass_on(object, argument); });
}

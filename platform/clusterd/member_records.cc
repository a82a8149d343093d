#include "platform/clusterd/member_records.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>

#include "platform/clusterd/durable_files.h"
#include "platform/clusterd/identity.h"
#include "platform/clusterd/log.h"
#include "platform/clusterd/member_paths.h"
#include "tarncluster_util.h"

namespace tarn::platform {

namespace {

constexpr const char *kCopies[] = {kKeptMembersFile, kMembersFile};
constexpr int kLockMs = 10000;
constexpr size_t kLongestRecordFile = size_t{16} << 20;

struct List_Release {
  void operator()(Tarn_Serv_Conf *list) const { Release_Serv_List_Conf(list); }
};
using Records = std::unique_ptr<Tarn_Serv_Conf, List_Release>;

// The file's lock, which both copies of a file share since it is named by their base name.
class File_Lock {
 public:
  explicit File_Lock(const char *path) : path_(path), is_held_(Get_File_Lock(path, kLockMs) == 1) {}
  ~File_Lock() {
    if (is_held_) Release_File_Lock(path_);
  }
  File_Lock(const File_Lock &) = delete;
  File_Lock &operator=(const File_Lock &) = delete;
  bool is_held() const { return is_held_; }

 private:
  const char *const path_;
  const bool is_held_;
};

int read_records(const char *path, Records *records) {
  Tarn_Serv_Conf *list = nullptr;
  const int result = Tarn_Cluster_Serv_Conf_Read(path, &list);
  records->reset(list);
  return result == -ENOENT ? 0 : result;
}

template <size_t size>
std::string text_of(const char (&field)[size]) {
  return std::string(field, strnlen(field, size));
}

template <size_t size>
void copy_text(const std::string &text, char (&field)[size]) {
  memcpy(field, text.data(), std::min(text.size(), size - 1));
}

Tarn_Serv_Conf record_of(const Member_Entry &entry) {
  Tarn_Serv_Conf record;
  Tarn_Cluster_Serv_Conf_Preset(&record);
  copy_text(entry.id, record.Name);
  copy_text(entry.address, record.Address);
  copy_text(entry.host_name, record.HostName);
  record.ID = entry.number;
  record.fields = TARN_SERV_NAME | TARN_SERV_ADDRESS | TARN_SERV_ID | TARN_SERV_STATUS | TARN_SERV_PID;
  if (!entry.host_name.empty()) record.fields |= TARN_SERV_HOST_NAME;
  return record;
}

Tarn_Serv_Conf *find(const Records &records, const std::string &id) {
  Tarn_Serv_Conf *record = records.get();
  while (record != nullptr && text_of(record->Name) != id) record = record->next;
  return record;
}

// Puts a record before all others; the caller holds the lock.
int move_to_front(const char *path, const std::string &id) {
  Records records;
  const int result = read_records(path, &records);
  Tarn_Serv_Conf *front = find(records, id);
  if (result != 0 || front == nullptr || front == records.get()) return result;
  Tarn_Serv_Conf *before = records.get();
  while (before->next != front) before = before->next;
  before->next = front->next;
  front->next = records.release();
  records.reset(front);
  return Tarn_Cluster_Serv_Conf_Write_NoLock(path, records.get());
}

int add_to_copy(const char *path, const Member_Entry &entry) {
  Records records;
  const int result = read_records(path, &records);
  if (result != 0 || find(records, entry.id) != nullptr) return result;
  const Tarn_Serv_Conf record = record_of(entry);
  return Tarn_Cluster_Service_Set_NoLock(path, entry.id.c_str(), &record);
}

int apply_to_copy(const char *path, const Member_List &list, std::set<std::string> *gone) {
  Records records;
  int result = read_records(path, &records);
  if (result != 0) return result;
  std::set<std::string> wanted;
  for (const Member_Entry &entry : list) {
    wanted.insert(entry.id);
    if (find(records, entry.id) != nullptr) continue;
    const Tarn_Serv_Conf record = record_of(entry);
    keep_first(&result, Tarn_Cluster_Service_Set_NoLock(path, entry.id.c_str(), &record));
  }
  for (const Tarn_Serv_Conf *record = records.get(); record != nullptr; record = record->next) {
    const std::string id = text_of(record->Name);
    if (wanted.contains(id)) continue;
    keep_first(&result, Tarn_Cluster_Service_Set_NoLock(path, id.c_str(), nullptr));
    gone->insert(id);
  }
  if (result == 0) result = move_to_front(path, list.front().id);
  return result;
}

int make_folders() {
  int result = make_folder(kShareListFolder, 0755);  // in the working folder
  if (result == 0) result = make_folder(kWorkingFolder, 0755);
  return result == 0 ? make_folder(kKeptFolder, 0755) : result;
}

void copy_if_lost(const std::string &from, const std::string &to) {
  std::string text;
  if (is_there(to) || read_text(from, kLongestRecordFile, &text) != 0) return;
  const int result = write_durably(to, text, 0644);
  log_line("%s was lost and is taken from %s (%d)", to.c_str(), from.c_str(), result);
}

}  // namespace

int read_members(Member_List *list) {
  Records records;
  const int result = read_records(kMembersFile, &records);
  list->clear();
  for (const Tarn_Serv_Conf *record = records.get(); record != nullptr; record = record->next) {
    const Member_Entry entry = {text_of(record->Name), text_of(record->Address), text_of(record->HostName),
                                std::max(record->ID, 0)};
    // What others could not take as a member's entry is not told them.
    if (is_slave_id(entry.id) && is_address(entry.address)) {
      list->push_back(entry);
      if (!is_host_name(entry.host_name)) list->back().host_name.clear();
    }
  }
  return result;
}

int add_member(const Member_Entry &entry, bool first) {
  int result = make_folders();
  if (result != 0) return result;
  const File_Lock lock(kMembersFile);
  if (!lock.is_held()) return -ENOLCK;
  for (const char *path : kCopies) {
    int added = add_to_copy(path, entry);
    if (added == 0 && first) added = move_to_front(path, entry.id);
    keep_first(&result, added);
  }
  return result;
}

int delete_member(const std::string &id) {
  const File_Lock lock(kMembersFile);
  if (!lock.is_held()) return -ENOLCK;
  int result = 0;
  int absent = 0;
  for (const char *path : kCopies) {
    const int deleted = Tarn_Cluster_Service_Set_NoLock(path, id.c_str(), nullptr);
    if (deleted == -ENOANO) {
      ++absent;
    } else {
      keep_first(&result, deleted);
    }
  }
  return absent == 2 ? -ENOANO : result;
}

int apply_list(const Member_List &list) {
  int result = make_folders();
  if (result != 0) return result;
  std::set<std::string> gone;
  {
    const File_Lock lock(kMembersFile);
    if (!lock.is_held()) return -ENOLCK;
    for (const char *path : kCopies) keep_first(&result, apply_to_copy(path, list, &gone));
  }
  for (const std::string &id : gone) delete_share_list(id);
  return result;
}

int set_address(const std::string &id, const std::string &address) {
  Tarn_Serv_Conf change;
  Tarn_Cluster_Serv_Conf_Preset(&change);
  copy_text(address, change.Address);
  change.fields = TARN_SERV_ADDRESS;
  const File_Lock lock(kMembersFile);
  if (!lock.is_held()) return -ENOLCK;
  int result = 0;
  for (const char *path : kCopies) {
    Tarn_Serv_Conf *raw = nullptr;
    int set = Tarn_Cluster_Service_Get(path, id.c_str(), &raw);
    const Records record(raw);
    if (set == 0) set = Tarn_Cluster_Service_Set_NoLock(path, id.c_str(), &change);
    keep_first(&result, set == -ENOENT ? -ENOANO : set);
  }
  return result;
}

int mark_presence(const std::map<std::string, bool> &is_up) {
  const File_Lock lock(kMembersFile);
  if (!lock.is_held()) return -ENOLCK;
  Records records;
  int result = read_records(kMembersFile, &records);
  for (Tarn_Serv_Conf *record = records.get(); record != nullptr; record = record->next) {
    const std::string id = text_of(record->Name);
    const auto entry = is_up.find(id);
    if (entry == is_up.end()) continue;
    const int status = entry->second ? 1 : 0;
    const int pid = entry->second ? getpid() : 0;
    const unsigned int both = TARN_SERV_STATUS | TARN_SERV_PID;
    if ((record->fields & both) == both && record->Status == status && record->PID == pid) continue;
    Tarn_Serv_Conf change;
    Tarn_Cluster_Serv_Conf_Preset(&change);
    change.Status = status;
    change.PID = pid;
    change.fields = both;
    keep_first(&result, Tarn_Cluster_Service_Set_NoLock(kMembersFile, id.c_str(), &change));
  }
  return result;
}

void delete_share_list(const std::string &id) {
  if (is_slave_id(id)) remove_durably(std::string(kShareListFolder) + "/" + id);
}

int read_master_address(const std::string &section, std::string *address) {
  int result = -ENODATA;
  for (const char *path : {kKeptMasterFile, kMasterFile}) {
    char text[64];
    int size = sizeof(text);
    result = Get_Conf_File_String_Value(path, section.c_str(), "Address", text, &size);
    if (result != 0 || !is_address(text)) continue;
    *address = text;
    return 0;
  }
  return result == 0 ? -ENODATA : result;
}

int write_master_address(const std::string &section, const std::string &address) {
  int result = make_folders();
  const std::string text = "[" + section + "]\nAddress = " + address + "\n";
  for (const char *path : {kKeptMasterFile, kMasterFile}) {
    if (result == 0) result = write_durably(path, text, 0644);
  }
  return result;
}

void restore_lost_copies() {
  if (make_folders() != 0) return;
  const char *const pairs[][2] = {
      {kIdentityFile, kKeptIdentityFile}, {kMembersFile, kKeptMembersFile}, {kMasterFile, kKeptMasterFile}};
  for (const auto &pair : pairs) {
    copy_if_lost(pair[1], pair[0]);
    copy_if_lost(pair[0], pair[1]);
  }
}

std::string state_of_members_file() {
  return state_of_file(kMembersFile);
}

}  // namespace tarn::platform

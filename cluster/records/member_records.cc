#include "include/tarncluster_util.h"

#include <cerrno>
#include <cstring>

#include "cluster/records/record_engine.h"

namespace tarn {
namespace {

using Member = Tarn_Serv_Conf;
using enum Field_Kind;

static_assert(sizeof(Member) == 328 && offsetof(Member, next) == 0);

#define MEMBER_FIELD(bit, kind, field, list_limit, single_limit, create_rank, update_rank)         \
  Record_Field {                                                                                   \
#field, bit, kind, offsetof(Member, field), list_limit, single_limit, create_rank, update_rank \
  }

// In the order in which sections are read. The list reader's limit for Firmware is longer than the field: a long text
// runs on into LastRestoreFile, which is read behind it. Callers of both readers depend on the two limits.
constexpr std::array member_fields = {
    MEMBER_FIELD(TARN_SERV_TYPE, int32, Type, 0, 0, 6, 1),
    MEMBER_FIELD(TARN_SERV_ID, int32, ID, 0, 0, 3, 2),
    MEMBER_FIELD(TARN_SERV_PID, int32, PID, 0, 0, 4, 3),
    MEMBER_FIELD(TARN_SERV_USR_CNT, int32, UsrCnt, 0, 0, 5, 4),
    MEMBER_FIELD(TARN_SERV_STATUS, int32, Status, 0, 0, 7, 5),
    MEMBER_FIELD(TARN_SERV_WEB_PORT, int32, WebPort, 0, 0, 8, 6),
    MEMBER_FIELD(TARN_SERV_SSL_WEB_PORT, int32, SslWebPort, 0, 0, 9, 7),
    MEMBER_FIELD(TARN_SERV_BACKUP_RESULT, int32, BackupResult, 0, 0, 10, 8),
    MEMBER_FIELD(TARN_SERV_RESTORE_RESULT, int32, RestoreResult, 0, 0, 11, 9),
    MEMBER_FIELD(TARN_SERV_BACKUP_PROGRESS, int32, BackupProgress, 0, 0, 12, 10),
    MEMBER_FIELD(TARN_SERV_RESTORE_PROGRESS, int32, RestoreProgress, 0, 0, 13, 11),
    MEMBER_FIELD(TARN_SERV_RESTORE_PID, int32, RestorePID, 0, 0, 14, 12),
    MEMBER_FIELD(TARN_SERV_LAST_BACKUP, int64, LastBackup, 0, 0, 15, 13),
    MEMBER_FIELD(TARN_SERV_LAST_RESTORE, int64, LastRestore, 0, 0, 16, 14),
    MEMBER_FIELD(TARN_SERV_QUOTA, int64, Quota, 0, 0, 17, 15),
    MEMBER_FIELD(TARN_SERV_LEAVE_TIME, int64, LeaveTime, 0, 0, 18, 16),
    MEMBER_FIELD(TARN_SERV_ADDRESS, text, Address, 64, 64, 2, 18),
    MEMBER_FIELD(TARN_SERV_SID, text, SID, 9, 9, 19, 17),
    MEMBER_FIELD(TARN_SERV_HOST_NAME, text, HostName, 15, 15, 1, 19),
    MEMBER_FIELD(TARN_SERV_MODEL, text, Model, 32, 32, 20, 20),
    MEMBER_FIELD(TARN_SERV_FIRMWARE, text, Firmware, 64, 32, 21, 21),
    MEMBER_FIELD(TARN_SERV_LAST_RESTORE_FILE, text, LastRestoreFile, 64, 64, 22, 22),
};

#undef MEMBER_FIELD

static_assert(limits_stay_within(sizeof(Member), member_fields));

constexpr auto create_order = positions_by(&Record_Field::create_rank, member_fields);
constexpr auto update_order = positions_by(&Record_Field::update_rank, member_fields);

constexpr Record_Family members = {
    .record_size = sizeof(Member),
    .fields_offset = offsetof(Member, fields),
    .texts_end = sizeof(Member),
    .known_bits = TARN_SERV_ALL,
    .name = {offsetof(Member, Name), sizeof Member::Name, sizeof Member::Name, sizeof Member::Name, TARN_SERV_NAME,
             TARN_SERV_NAME, 0},
    .fields = member_fields,
    .create_order = create_order,
    .update_order = update_order,
    .create_function = "Create_Tarn_Serv_Sect_Node",
    .lists_are_created_by_it = true,
    .to_sections_function = "Tarn_Cluster_All_Serv_To_Sect_Node",
    .to_records_function = "Tarn_Cluster_All_Serv_From_Sect_Node",
    .to_record_function = "Tarn_Service_From_Sect_Node",
    .record_noun = "slave",
    .noun = "service",
    .list_noun = "service",
    .structure_noun = "service",
};

}  // namespace
}  // namespace tarn

void Release_Serv_List_Conf(Tarn_Serv_Conf *list) {
  tarn::release_records(tarn::members, list);
}

void Tarn_Cluster_Serv_Conf_Preset(Tarn_Serv_Conf *rec) {
  if (rec != nullptr) memset(rec, 0, sizeof *rec);
}

int Tarn_Cluster_All_Serv_From_Sect_Node(const Sect_Node *sections, Tarn_Serv_Conf **out) {
  return tarn::list_from_sections(tarn::members, sections, out);
}

int Tarn_Cluster_All_Serv_To_Sect_Node(const Tarn_Serv_Conf *list, Sect_Node **out) {
  return tarn::records_to_sections(tarn::members, list, out);
}

int Tarn_Cluster_Serv_To_Sect_Node(const Tarn_Serv_Conf *rec, Sect_Node *section) {
  return tarn::update_section(tarn::members, rec, section);
}

int Tarn_Service_From_Sect_Node(const Sect_Node *section, Tarn_Serv_Conf **out) {
  if (section == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *record = nullptr;
  const int status = tarn::section_to_record(tarn::members, section, &record);
  tarn::hand_over(record, out);
  return status;
}

int Tarn_Cluster_Serv_Conf_Read(const char *path, Tarn_Serv_Conf **out) {
  if (path == nullptr || out == nullptr) return -EINVAL;
  void *list = nullptr;
  const int status = tarn::read_records(tarn::members, __func__, path, &list);
  tarn::hand_over(list, out);
  return status;
}

int Tarn_Cluster_Serv_Conf_Write(const char *path, const Tarn_Serv_Conf *list) {
  // No list is not an empty list: it would wipe the cluster's members.
  if (path == nullptr || list == nullptr) return -EINVAL;
  return tarn::write_records_locked(tarn::members, __func__, path, list);
}

int Tarn_Cluster_Serv_Conf_Write_NoLock(const char *path, const Tarn_Serv_Conf *list) {
  if (path == nullptr || list == nullptr) return -EINVAL;
  return tarn::write_records(tarn::members, __func__, path, list);
}

int Tarn_Cluster_Service_Get(const char *path, const char *name, Tarn_Serv_Conf **out) {
  if (path == nullptr || name == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *record = nullptr;
  const int status = tarn::get_record(tarn::members, __func__, path, name, &record);
  tarn::hand_over(record, out);
  return status;
}

int Tarn_Cluster_Service_Set(const char *path, const char *name, const Tarn_Serv_Conf *rec) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  if (tarn::sets_nothing(tarn::members, rec)) return 0;
  return tarn::set_record_locked(tarn::members, __func__, path, name, rec);
}

int Tarn_Cluster_Service_Set_NoLock(const char *path, const char *name, const Tarn_Serv_Conf *rec) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  if (tarn::sets_nothing(tarn::members, rec)) return 0;
  return tarn::set_record(tarn::members, __func__, path, name, rec);
}

#include "include/tarncluster_util.h"

#include <cerrno>
#include <cstring>

#include "cluster/records/record_engine.h"
#include "conf/replacement_file.h"
#include "foundation/report.h"

namespace tarn {
namespace {

using Settings = Tarn_Backup_Conf;
using enum Field_Kind;

static_assert(sizeof(Settings) == 8672);

constexpr uint16_t text_limit = 4096;  // whatever the field's size: a longer text runs on, and readers depend on it

#define SETTING(bit, kind, field, limit, rank)                             \
  Record_Field {                                                           \
#field, bit, kind, offsetof(Settings, field), limit, limit, rank, rank \
  }

// Read and written in one order, the texts by their place: where one runs on, the next key wins.
constexpr std::array setting_fields = {
    SETTING(TARN_BACKUP_SCHEDULE, int32, Schedule, 0, 1),
    SETTING(TARN_BACKUP_STATUS, int32, Status, 0, 2),
    SETTING(TARN_BACKUP_PID, int32, PID, 0, 3),
    SETTING(TARN_BACKUP_LAST_BACKUP, int64, LastBackup, 0, 4),
    SETTING(TARN_BACKUP_LAST_RESTORE, int64, LastRestore, 0, 5),
    SETTING(TARN_BACKUP_SCHEDULE_TIME, text, ScheduleTime, text_limit, 6),
    SETTING(TARN_BACKUP_ADDRESS, text, Address, text_limit, 7),
    SETTING(TARN_BACKUP_PASSWORD, text, Password, text_limit, 8),
    SETTING(TARN_BACKUP_PATH, text, BackupPath, text_limit, 9),
    SETTING(TARN_BACKUP_FILE, text, BackupFile, text_limit, 10),
    SETTING(TARN_BACKUP_RESTORE_PATH, text, RestorePath, text_limit, 11),
};

#undef SETTING

static_assert(limits_stay_within(sizeof(Settings), setting_fields));

constexpr auto create_order = positions_by(&Record_Field::create_rank, setting_fields);

// A single record without a name or a list: only its section is read and filled.
constexpr Record_Family settings_family = {
    .record_size = sizeof(Settings),
    .fields_offset = offsetof(Settings, fields),
    .texts_end = sizeof(Settings),
    .known_bits = TARN_BACKUP_ALL,
    .name = {},
    .fields = setting_fields,
    .create_order = create_order,
    .update_order = create_order,
};

int report_no_lock(const char *function, const char *path) {
  TARN_ERROR_AS(function, "Can't get file lock of %s!", path);
  return -ENOLCK;
}

int fill_sections(const char *function, const Settings *record, Sect_Node **sections) {
  int status = Create_Sect_Node(sections, "global");
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't allocate a section node for a Tarn backup conf!");
    return status;
  }
  status = Tarn_Backup_Conf_To_Sect_Node(record, sections);
  if (status != 0) TARN_ERROR_AS(function, "Can't translate a Tarn backup conf to the setc node! (%d)", status);
  return status;
}

}  // namespace
}  // namespace tarn

void Tarn_Backup_Conf_Preset(Tarn_Backup_Conf *rec) {
  if (rec == nullptr) return;
  memset(rec, 0, sizeof *rec);
  rec->PID = -1;
}

int Tarn_Backup_Conf_From_Sect_Node(const Sect_Node *section, Tarn_Backup_Conf *rec) {
  if (section == nullptr || section->pairs == nullptr || rec == nullptr) return -EINVAL;
  Tarn_Backup_Conf_Preset(rec);
  return tarn::read_record(tarn::settings_family, section, rec);
}

int Tarn_Backup_Conf_To_Sect_Node(const Tarn_Backup_Conf *rec, Sect_Node **sections) {
  if (rec == nullptr || sections == nullptr || *sections == nullptr) return -EINVAL;
  return tarn::append_pairs(tarn::settings_family, rec, *sections);
}

int Tarn_Backup_Conf_Read(const char *path, Tarn_Backup_Conf *rec) {
  if (path == nullptr || rec == nullptr) return -EINVAL;
  const tarn::File_Lock lock(path);
  if (!lock.held()) return tarn::report_no_lock(__func__, path);

  tarn::Sections sections;
  const int read = Read_Conf_File(path, &sections.first);
  if (read < 0) return read;
  const Sect_Node *first = sections.first;
  if (first == nullptr) {
    Tarn_Backup_Conf_Preset(rec);
    return 0;
  }
  const int status = Tarn_Backup_Conf_From_Sect_Node(first, rec);
  if (status != 0) {
    TARN_ERROR("Tarn_Backup_Conf_From_Sect_Node(%p, %p) error: %d (%p)", static_cast<const void *>(first),
               static_cast<const void *>(rec), status, static_cast<const void *>(first->pairs));
  }
  return status;
}

int Tarn_Backup_Conf_Write(const char *path, const Tarn_Backup_Conf *rec) {
  if (path == nullptr || rec == nullptr) return -EINVAL;
  if (tarn::sets_nothing(tarn::settings_family, rec)) return 0;
  const tarn::Replacement_Lock lock(path);
  if (!lock.held()) return tarn::report_no_lock(__func__, path);

  tarn::Sections sections;
  const int status = tarn::fill_sections(__func__, rec, &sections.first);
  return status == 0 ? tarn::update_record_file(__func__, path, sections.first) : status;
}

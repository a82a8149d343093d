#include "cluster/records/task_records.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "cluster/records/record_engine.h"
#include "foundation/owners.h"
#include "foundation/report.h"

namespace tarn {
namespace {

using Task = Backgrnd_Task_Conf;
using enum Field_Kind;

static_assert(sizeof(Task) == 424 && offsetof(Task, next) == 0 && offsetof(Task, progress) == 16);

constexpr uint16_t real_limit = 64;

// In the order in which sections are read: the key "task_id" replaces the section's name.
constexpr std::array task_fields = {
    Record_Field{"status", TARN_TASK_STATUS, int32, offsetof(Task, status), 0, 0, 1, 2},
    Record_Field{"slave_id", TARN_TASK_SLAVE_ID, text, offsetof(Task, slave_id), 9, 9, 2, 1},
    Record_Field{"type_name", TARN_TASK_TYPE_NAME, text, offsetof(Task, type_name), 128, 128, 3, 3},
    Record_Field{"task_id", TARN_TASK_ID, text, offsetof(Task, task_id), 128, 128, 4, 4},
    Record_Field{"task_name", TARN_TASK_NAME, text, offsetof(Task, task_name), 128, 128, 5, 5},
    Record_Field{"progress", TARN_TASK_PROGRESS, real, offsetof(Task, progress), real_limit, real_limit, 6, 6},
};

static_assert(limits_stay_within(sizeof(Task), task_fields));

constexpr auto create_order = positions_by(&Record_Field::create_rank, task_fields);
constexpr auto update_order = positions_by(&Record_Field::update_rank, task_fields);

constexpr Record_Family tasks = {
    .record_size = sizeof(Task),
    .fields_offset = offsetof(Task, fields),
    .texts_end = sizeof(Task),
    .known_bits = 0x7FFFFF,  // more than there are: callers' masks of members have always passed
    .name = {offsetof(Task, task_id), sizeof Task::task_id, sizeof Task::task_id - 1, 0, 0, TARN_TASK_PROGRESS,
             TARN_TASK_ID},
    .fields = task_fields,
    .create_order = create_order,
    .update_order = update_order,
    .create_function = "Create_Backgrnd_Task_Sect_Node",
    .lists_are_created_by_it = false,
    .to_sections_function = "Backgrnd_Task_All_Task_To_Sect_Node",
    .to_records_function = "Backgrnd_Task_All_Task_From_Sect_Node",
    .to_record_function = "Backgrnd_Task_From_Sect_Node",
    .record_noun = "slave",
    .noun = "service",
    .list_noun = "service",
    .structure_noun = "service",
};

using Task_Owner = std::unique_ptr<Task, Give_Back<Release_Backgrnd_Task_Conf>>;

int report_unread(const char *function, int status) {
  TARN_ERROR_AS(function, "Can't read background task confi file! (%d)", status);
  return status;
}

// A member's task; -ENOANO also for a name that no task can have, since a shorter one would be another's.
int get_member_task(const Task_Name &name, Task_Owner *task) {
  if (!name.fits()) return -ENOANO;
  Task *found = nullptr;
  const int status = Backgrnd_Task_Get(task_file, name.text(), &found);
  task->reset(found);
  return status;
}

int set_member_task(const char *function, const Task_Name &name, const Task &task) {
  const int status = Backgrnd_Task_Set(task_file, name.text(), &task);
  if (status != 0) {
    TARN_ERROR_AS(function, "Can't write background task config file %s! (%d)", task_file, status);
  }
  return status;
}

}  // namespace

Task_Name::Task_Name(const char *member, bool is_backup)
    : length_(snprintf(text_, sizeof text_, "%s_%c", member, is_backup ? 'b' : 'r')) {}

int change_task_progress(const char *function, const char *member, bool is_backup, double progress, unsigned bits) {
  const Task_Name name(member, is_backup);
  Task_Owner task;
  const int status = get_member_task(name, &task);
  if (status != 0 || task == nullptr) return report_unread(function, status);
  task->progress = progress;
  task->fields |= bits;
  return set_member_task(function, name, *task);
}

}  // namespace tarn

void Release_Backgrnd_Task_Conf(Backgrnd_Task_Conf *list) {
  tarn::release_records(tarn::tasks, list);
}

void Backgrnd_Task_Conf_Preset(Backgrnd_Task_Conf *rec) {
  if (rec != nullptr) memset(rec, 0, sizeof *rec);
}

int Backgrnd_Task_All_Task_From_Sect_Node(const Sect_Node *sections, Backgrnd_Task_Conf **out) {
  return tarn::list_from_sections(tarn::tasks, sections, out);
}

int Backgrnd_Task_All_Task_To_Sect_Node(const Backgrnd_Task_Conf *list, Sect_Node **out) {
  return tarn::records_to_sections(tarn::tasks, list, out);
}

int Backgrnd_Task_Task_To_Sect_Node(const Backgrnd_Task_Conf *rec, Sect_Node *section) {
  return tarn::update_section(tarn::tasks, rec, section);
}

int Backgrnd_Task_From_Sect_Node(const Sect_Node *section, Backgrnd_Task_Conf **out) {
  if (section == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *record = nullptr;
  const int status = tarn::section_to_record(tarn::tasks, section, &record);
  tarn::hand_over(record, out);
  return status;
}

int Backgrnd_Task_Conf_Read(const char *path, Backgrnd_Task_Conf **out) {
  if (path == nullptr || out == nullptr) return -EINVAL;
  void *list = nullptr;
  const int status = tarn::read_records_locked(tarn::tasks, __func__, path, &list);
  tarn::hand_over(list, out);
  return status;
}

int Backgrnd_Task_Conf_Write(const char *path, const Backgrnd_Task_Conf *list) {
  if (path == nullptr || list == nullptr) return -EINVAL;
  return tarn::write_records_locked(tarn::tasks, __func__, path, list);
}

int Backgrnd_Task_Get(const char *path, const char *name, Backgrnd_Task_Conf **out) {
  if (path == nullptr || name == nullptr || out == nullptr) return -EINVAL;
  void *record = nullptr;
  const int status = tarn::get_record_locked(tarn::tasks, __func__, path, name, &record);
  if (status != -ENOLCK) *out = nullptr;
  tarn::hand_over(record, out);
  return status;
}

int Backgrnd_Task_Set(const char *path, const char *name, const Backgrnd_Task_Conf *rec) {
  if (path == nullptr || name == nullptr) return -EINVAL;
  if (tarn::sets_nothing(tarn::tasks, rec)) return 0;
  return tarn::set_record_locked(tarn::tasks, __func__, path, name, rec);
}

int Set_Backgrnd_Task_Progress(const char *name, int is_backup, double progress) {
  if (name == nullptr) return -EINVAL;
  return tarn::change_task_progress(__func__, name, is_backup != 0, progress, 0);  // no progress where there is none
}

int Update_Backgrnd_Task_Status(const char *name, int is_backup, int result) {
  if (name == nullptr) return -EINVAL;
  const tarn::Task_Name task_name(name, is_backup != 0);
  tarn::Task_Owner task;
  const int status = tarn::get_member_task(task_name, &task);
  if (status != 0 || task == nullptr) return status;
  if (result < 0) task->status = TARN_TASK_FAILED;
  if (result == 0) task->status = TARN_TASK_FINISHED;
  return tarn::set_member_task(__func__, task_name, *task);
}

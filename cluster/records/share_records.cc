#include "include/tarncluster_util.h"

#include <cerrno>
#include <cstring>

#include "cluster/records/record_engine.h"

namespace tarn {
namespace {

using Share = Tarn_Share_Conf;
using enum Field_Kind;

static_assert(sizeof(Share) == 4200 && offsetof(Share, next) == 0 && offsetof(Share, path) == 77);

// Read, created and updated in one order.
constexpr std::array share_fields = {
    Record_Field{"read list", TARN_SHARE_READ_LIST, heap_text, offsetof(Share, read_list), 0, 0, 1, 1},
    Record_Field{"write list", TARN_SHARE_WRITE_LIST, heap_text, offsetof(Share, write_list), 0, 0, 2, 2},
    Record_Field{"invalid users", TARN_SHARE_INVALID_USERS, heap_text, offsetof(Share, invalid_users), 0, 0, 3, 3},
    Record_Field{"path", TARN_SHARE_PATH, text, offsetof(Share, path), sizeof Share::path, sizeof Share::path, 4, 4},
};

static_assert(limits_stay_within(sizeof(Share), share_fields));

constexpr auto create_order = positions_by(&Record_Field::create_rank, share_fields);
constexpr auto update_order = positions_by(&Record_Field::update_rank, share_fields);

constexpr Record_Family shares = {
    .record_size = sizeof(Share),
    .fields_offset = offsetof(Share, fields),
    .texts_end = offsetof(Share, path) + sizeof Share::path,
    .known_bits = TARN_SHARE_ALL,
    .name = {offsetof(Share, Name), sizeof Share::Name, sizeof Share::Name - 1, sizeof Share::Name - 1, TARN_SHARE_NAME,
             0, 0},
    .fields = share_fields,
    .create_order = create_order,
    .update_order = update_order,
    .create_function = "Create_Tarn_Share_Sect_Node",
    .lists_are_created_by_it = false,
    .to_sections_function = "Tarn_Cluster_All_Share_To_Sect_Node",
    .to_records_function = "Tarn_Cluster_All_Share_From_Sect_Node",
    .to_record_function = "Tarn_Share_From_Sect_Node",
    .record_noun = "share",
    .noun = "share folder",
    .list_noun = "share",
    .structure_noun = "share list",
};

}  // namespace
}  // namespace tarn

void Release_Share_List_Conf(Tarn_Share_Conf *list) {
  tarn::release_records(tarn::shares, list);
}

void Tarn_Cluster_Share_List_Preset(Tarn_Share_Conf *rec) {
  if (rec != nullptr) memset(rec, 0, sizeof *rec);
}

int Tarn_Cluster_All_Share_From_Sect_Node(const Sect_Node *sections, Tarn_Share_Conf **out) {
  return tarn::list_from_sections(tarn::shares, sections, out);
}

int Tarn_Cluster_All_Share_To_Sect_Node(const Tarn_Share_Conf *list, Sect_Node **out) {
  return tarn::records_to_sections(tarn::shares, list, out);
}

int Tarn_Cluster_Share_To_Sect_Node(const Tarn_Share_Conf *rec, Sect_Node *section) {
  return tarn::update_section(tarn::shares, rec, section);
}

int Tarn_Share_From_Sect_Node(const Sect_Node *section, Tarn_Share_Conf **out) {
  if (section == nullptr || out == nullptr) return -EINVAL;
  *out = nullptr;
  void *record = nullptr;
  const int status = tarn::section_to_record(tarn::shares, section, &record);
  tarn::hand_over(record, out);
  return status;
}

int Tarn_Cluster_Share_Conf_Read(const char *path, Tarn_Share_Conf **out) {
  if (path == nullptr || out == nullptr) return -EINVAL;
  void *list = nullptr;
  const int status = tarn::read_records_locked(tarn::shares, __func__, path, &list);
  tarn::hand_over(list, out);
  return status;
}

int Tarn_Cluster_Share_Conf_Write(const char *path, const Tarn_Share_Conf *list) {
  if (path == nullptr || list == nullptr) return -EINVAL;
  return tarn::write_records_locked(tarn::shares, __func__, path, list);
}

int Tarn_Cluster_Share_Get(const char *path, const char *name, Tarn_Share_Conf **out) {
  if (path == nullptr || name == nullptr || out == nullptr) return -EINVAL;
  void *record = nullptr;
  const int status = tarn::get_record_locked(tarn::shares, __func__, path, name, &record);
  if (status != -ENOLCK) *out = nullptr;
  tarn::hand_over(record, out);
  return status;
}

int Tarn_Cluster_Share_Set(const char *path, const char *name, const Tarn_Share_Conf *rec) {
  if (path == nullptr) return -EINVAL;
  if (tarn::sets_nothing(tarn::shares, rec)) return 0;
  return tarn::set_record_locked(tarn::shares, __func__, path, name, rec);
}

// The table of all exported functions, family by family. A new function gets an entry in its family and is thereby
// proven: against failing allocations, failing system calls, full and read-only disks, locks that are not to be had,
// and power loss.
#include "tests/conf/chains.h"
#include "tests/faults/families.h"

namespace tarn::test {

const std::vector<Scenario> &scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> joined;
    for (const auto &family :
         {log_and_text(),  processes(),      traced_memory(), string_lists(),    locks(),
          path_checks(),   bulk_transfer(),  file_copies(),   trees(),           temporary_files(),
          nodes(),         conf_text(),      conf_files(),    single_values(),   addresses(),
          sockets(),       exact_transfer(), tls_sessions(),  interfaces(),      mounts_and_shares(),
          block_devices(), member_records(), share_records(), backup_settings(), background_tasks(),
          commands(),      discovery(),      backups()}) {
      joined.insert(joined.end(), family.begin(), family.end());
    }
    return joined;
  }();
  return all;
}

const std::vector<Pure_Function> &pure_functions() {
  static Sections sections = make_sections({{"a", {{"k", "1"}}}});
  static char text[64];
  static int size, number;
  static int8_t small;
  static int16_t medium;
  static int32_t large;
  static int64_t wide;
  static float scaled;
  static const char *found;
  static const Pair_Node *const pairs = sections->pairs;
  static const unsigned char address[16] = {0xfd};
  static Tarn_Backup_Conf settings;
  static std::vector<Pure_Function> all = {
      {"Log_DateTime_Format", [] { Log_DateTime_Format(0, text, 24, 3); }},
      {"Change_Date_To_String_By_Format_Ex", [] { Change_Date_To_String_By_Format_Ex(0, text, sizeof text, 3); }},
      {"Change_Time_To_String_By_Format_Ex", [] { Change_Time_To_String_By_Format_Ex(0, text, sizeof text, 0, 12); }},
      {"Decimal_String_To_Integer", [] { Decimal_String_To_Integer("12", &wide); }},
      {"Integer_To_Decimal_String", [] { Integer_To_Decimal_String(text, &(size = sizeof text), 12); }},
      {"Swap_Integer", [] { Swap_Integer(&size, &number); }},
      {"Str_To_Bool", [] { Str_To_Bool("true", 4); }},
      {"Size_Unit_Conversion", [] { Size_Unit_Conversion(1 << 20, &scaled, text, sizeof text); }},
      {"Time_Unit_Conversion", [] { Time_Unit_Conversion(7322, nullptr, text, sizeof text); }},
      {"Sleep_MSec", [] { Sleep_MSec(0); }},
      {"Rough_Tick", [] { Rough_Tick(); }},
      {"Rough_Tick_Diff", [] { Rough_Tick_Diff(0); }},
      {"Tick_Diff", [] { Tick_Diff(0); }},
      {"Is_Process_Existed", [] { Is_Process_Existed(1); }},
      {"Encrypt_String", [] { Encrypt_String("text", text); }},
      {"Get_Filename", [] { Get_Filename("/a/b", &found); }},
      {"Free_Pair_Node", [] { Free_Pair_Node(nullptr); }},
      {"Free_Sect_Node", [] { Free_Sect_Node(nullptr); }},
      {"Get_Pair_String_Buffer", [] { Get_Pair_String_Buffer(pairs, "k", &found); }},
      {"Get_Pair_String_Value", [] { Get_Pair_String_Value(pairs, "k", text, &(size = sizeof text)); }},
      {"Get_Pair_Int64_Value", [] { Get_Pair_Int64_Value(pairs, "k", &wide); }},
      {"Get_Pair_Int8_Value", [] { Get_Pair_Int8_Value(pairs, "k", &small); }},
      {"Get_Pair_Int16_Value", [] { Get_Pair_Int16_Value(pairs, "k", &medium); }},
      {"Get_Pair_Int32_Value", [] { Get_Pair_Int32_Value(pairs, "k", &large); }},
      {"Get_Conf_String_Pointer", [] { Get_Conf_String_Pointer(sections.get(), "a", "k", &found); }},
      {"Get_Conf_String_Value", [] { Get_Conf_String_Value(sections.get(), "a", "k", text, &(size = sizeof text)); }},
      {"Get_Conf_Int64_Value", [] { Get_Conf_Int64_Value(sections.get(), "a", "k", &wide); }},
      {"Get_Conf_Int8_Value", [] { Get_Conf_Int8_Value(sections.get(), "a", "k", &small); }},
      {"Get_Conf_Int16_Value", [] { Get_Conf_Int16_Value(sections.get(), "a", "k", &medium); }},
      {"Get_Conf_Int32_Value", [] { Get_Conf_Int32_Value(sections.get(), "a", "k", &large); }},
      {"IPv6_Check_Subnet", [] { IPv6_Check_Subnet(address, address, 128); }},
      {"Free_Network_Interface", [] { Free_Network_Interface(nullptr); }},
      {"Free_Mount_Info", [] { Free_Mount_Info(nullptr); }},
      {"Release_Share_List", [] { Release_Share_List(nullptr); }},
      {"Release_Serv_List_Conf", [] { Release_Serv_List_Conf(nullptr); }},
      {"Tarn_Cluster_Serv_Conf_Preset", [] { Tarn_Cluster_Serv_Conf_Preset(nullptr); }},
      {"Release_Share_List_Conf", [] { Release_Share_List_Conf(nullptr); }},
      {"Tarn_Cluster_Share_List_Preset", [] { Tarn_Cluster_Share_List_Preset(nullptr); }},
      {"Tarn_Backup_Conf_Preset", [] { Tarn_Backup_Conf_Preset(&settings); }},
      {"Tarn_Backup_Conf_From_Sect_Node", [] { Tarn_Backup_Conf_From_Sect_Node(sections.get(), &settings); }},
      {"Release_Backgrnd_Task_Conf", [] { Release_Backgrnd_Task_Conf(nullptr); }},
      {"Backgrnd_Task_Conf_Preset", [] { Backgrnd_Task_Conf_Preset(nullptr); }},
      {"Free_Browse_Serv", [] { Free_Browse_Serv(nullptr); }},
      {"Check_Temp_Filename", [] { Check_Temp_Filename("/a/b"); }},
      {"Set_Abort", [] { Set_Abort(&g_bAbort); }},
      {"Set_Slave_On_Master", [] { Set_Slave_On_Master(&g_bSlaveOnMaster); }},
  };
  static const bool joined = [] {
    const std::vector<Pure_Function> more = pure_foundation_functions();
    all.insert(all.end(), more.begin(), more.end());
    return true;
  }();
  static_cast<void>(joined);
  return all;
}

}  // namespace tarn::test

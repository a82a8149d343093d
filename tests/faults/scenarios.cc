// The table of all exported functions. A new function gets an entry here and is thereby proven: against failing
// allocations, failing system calls, full and read-only disks, locks that are not to be had, and power loss.
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "tests/cluster/ops/platform_doubles.h"
#include "tests/conf/chains.h"
#include "tests/faults/scenario.h"

namespace tarn::test {
namespace {

const std::string conf = "# c\n[a]\nk = 1\nlong = some text\n\n[b]\nk = 2\n";
const std::string conf_shown = "[a]k=1;long=some text;[b]k=2;";
const std::string conf_written = "[a]\nk = 1\nlong = some text\n\n[b]\nk = 2\n\n";

const std::string members =
    "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n"
    "[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
const std::string members_shown = "m1 193 1 10.0.0.1;m2 193 2 10.0.0.2;";
const std::string members_made = "[m1]Address=10.0.0.1;Status=1;[m2]Address=10.0.0.2;Status=2;";
const std::string members_written =
    "[m1]\nAddress = 10.0.0.1\nStatus = 1\n\n"
    "[m2]\nAddress = 10.0.0.2\nStatus = 2\n\n";

const char identity_file[] = "/mnt/tarncluster/config/tarn_cluster_s.conf";
const std::string json_reply = R"({"cluster_cmd_status":"7","r":[{"slave_id":"s1","result_path":"\\/p"}]})";
const std::string json_argument = R"({"slave_id":"s1","Test":"hello"})";

// How families of functions answer.
const std::vector<Answer> cache_answers = {{Call::read, Place::file, positive_errno}};
const std::vector<Answer> chain_answers = {{Call::read, Place::file, -EINVAL}, {Call::write, Place::lock, -ENOLCK}};
const std::vector<Answer> value_answers = {{Call::write, Place::lock, -ENOLCK},
                                           {Call::write, Place::temporary, -1},
                                           {Call::sync, Place::temporary, -1},
                                           {Call::close, Place::temporary, -1}};

Scenario in_memory(std::string function, std::function<void(World &)> prepare, std::function<int(World &)> call,
                   std::string result) {
  return {.function = function, .prepare = prepare, .call = call, .result = result};
}

Scenario reader(std::string function, std::string text, std::function<int(World &)> call, int success,
                std::string result) {
  return {.function = function, .before = text, .after = text, .call = call, .success = success, .result = result};
}

// Replaces the file under its lock by way of the chains of sections.
Scenario locked_writer(std::string function, std::string situation, std::optional<std::string> before,
                       std::optional<std::string> after, std::function<void(World &)> prepare,
                       std::function<int(World &)> call) {
  return {.function = function,
          .situation = situation,
          .before = before,
          .after = after,
          .prepare = prepare,
          .call = call,
          .answers = chain_answers,
          .without_lock = -ENOLCK,
          .on_full_disk = -ENOSPC};
}

// The same for a caller that has the lock.
Scenario writer(std::string function, std::optional<std::string> before, std::optional<std::string> after,
                std::function<void(World &)> prepare, std::function<int(World &)> call) {
  Scenario made = locked_writer(function, "", before, after, prepare, call);
  made.without_lock.reset();
  return made;
}

Scenario value_writer(std::string function, std::string situation, std::optional<std::string> before,
                      std::optional<std::string> after, std::function<int(World &)> call) {
  Scenario made = locked_writer(function, situation, before, after, nullptr, call);
  made.answers = value_answers;
  made.on_full_disk = -1;
  return made;
}

Scenario with(Scenario scenario, const std::function<void(Scenario &)> &change) {
  change(scenario);
  return scenario;
}

void give_pair(World &w) {
  w.pairs = make_pairs({{"k", "1"}}).release();
}
void give_sections(World &w) {
  w.sections = make_sections({{"a", {{"k", "1"}}}}).release();
}
void give_section(World &w) {
  w.given_sections = make_sections({{"a", {{"k", "new"}, {"n", "5"}}}}).release();
}
void give_chain(World &w) {
  w.given_sections = make_sections({{"a", {{"k", "new"}}}, {"b", {{"k", "newer"}}}}).release();
}
void give_record(World &w) {
  strcpy(w.given_record.Name, "m1");
  w.given_record.Status = 5;
  w.given_record.fields = TARN_SERV_STATUS;
}
void give_list(World &w) {
  w.sections = nullptr;
  char text[] = "[m1]\nStatus = 1\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  Parse_Conf_Cache(text, &w.given_sections);
  Tarn_Cluster_All_Serv_From_Sect_Node(w.given_sections, &w.records);
}
void open_for_writing(World &w) {
  w.stream = fopen(w.path(), "we");
}
void make_log(World &w) {
  Simp_Log_Create(w.path(), &w.log, 24, 3, 0);
}
void open_log(World &w) {
  make_log(w);
  Simp_Log_Open(w.log, 0);
}
// What a process leaves that is killed while it replaces the file.
void leave_lock_of_dead_process(World &w) {
  const int owner = dead_pid();
  write_file(owned_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), owner));
  write_file(w.file + ".tmp", "half");
  write_file(w.file + ".tmp." + std::to_string(owner), "half");
}
void leave_stale_lock(World &w) {
  write_file(owned_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
}
void leave_stale_foreign_lock(World &w) {
  write_file(foreign_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
}

void stand_in_for_the_platform(World &) {
  static std::optional<Platform_Doubles> doubles;
  doubles.emplace();
  doubles->answer(0, "reply");
  write_file(identity_file, "[global]\nMSKey = s1\n");
}

std::vector<Scenario> log_and_text() {
  return {
      {.function = "Simp_Log_Create",
       .situation = "in new folders",
       .call = [](World &w) { return Simp_Log_Create(w.new_path.c_str(), &w.log, 24, 3, 0); },
       .result = "log",
       .also_made = {"deep"}},
      {.function = "Simp_Log_Create",
       .situation = "emptied",
       .before = "old\n",
       .after = "",
       .call = [](World &w) { return Simp_Log_Create(w.path(), &w.log, 24, 3, 1); },
       .result = "log",
       .silent = true},
      {.function = "Simp_Log_Open",
       .before = "old\n",
       .after = "old\n",
       .prepare = make_log,
       .call = [](World &w) { return Simp_Log_Open(w.log, 0); },
       .result = "log"},
      {.function = "Simp_Log_Close",
       .before = "old\n",
       .after = "old\n",
       .prepare = open_log,
       .call = [](World &w) { return Simp_Log_Close(w.log); },
       .result = "log"},
      {.function = "Simp_Log_Release",
       .before = "old\n",
       .after = "old\n",
       .prepare = open_log,
       .call = [](World &w) { return Simp_Log_Release(std::exchange(w.log, nullptr)), 0; }},
      {.function = "Simp_Log_Write",
       .before = "",
       .after = "",
       .prepare = open_log,
       .call = [](World &w) { return Simp_Log_Write(w.log, "line"); },
       .result = "log",
       .promise = Promise::varies},
      {.function = "Simp_Log_Write",
       .situation = "more than the buffer holds",
       .before = "",
       .after = "",
       .prepare = open_log,
       .call = [](World &w) { return Simp_Log_Write(w.log, "%4140d", 1); },
       .result = "log",
       .answers = {{Call::write, Place::file, -EIO}},
       .promise = Promise::varies},
      in_memory(
          "Clone_String", nullptr, [](World &w) { return Clone_String("text", &w.text, &w.size); }, "text"),
      {.function = "Druvo_Really_Unlink",
       .before = "text",
       .call = [](World &w) { return Druvo_Really_Unlink(w.path()); },
       .answers = {{Call::unlink, Place::file, -1}}},
      {.function = "Druvo_Unlinkat",
       .before = "text",
       .call = [](World &w) { return Druvo_Unlinkat(-1, w.folder.c_str(), w.base_name.c_str(), 0); },
       .answers = {{Call::unlink, Place::file, -1}}},
  };
}

std::vector<Scenario> locks() {
  const auto take = [](World &w) { return Get_File_Lock(w.path(), 10000); };
  return {
      {.function = "Get_File_Lock",
       .call = take,
       .success = 1,
       .answers = {{Call::write, Place::lock, 0}},
       .keeps_lock = true,
       .without_lock = 0},
      {.function = "Get_File_Lock",
       .situation = "left by a dead process",
       .prepare = leave_stale_lock,
       .call = take,
       .success = 1,
       .answers = {{Call::write, Place::lock, 0}},
       .keeps_lock = true},
      {.function = "Release_File_Lock",
       .prepare = [](World &w) { Get_File_Lock(w.path(), 0); },
       .call = [](World &w) { return Release_File_Lock(w.path()); },
       .success = 1},
      {.function = "Check_File_Lock",
       .prepare = leave_stale_foreign_lock,
       .call = [](World &w) { return Check_File_Lock(w.path(), 10000); },
       .stale_lock_may_stay = true},
      {.function = "Open_Shared_File",
       .before = "old text\n",
       .after = "old text\n",
       .call = [](World &w) { return Open_Shared_File(w.path(), "r+", &w.stream); },
       .result = "stream",
       .answers = {{Call::write, Place::lock, -ETIME}},
       .keeps_lock = true,
       .without_lock = -ETIME},
      {.function = "Close_Shared_File",
       .before = "old text\n",
       .after = "new text\n",
       .prepare = [](World &w) { Open_Shared_File(w.path(), "r+", &w.stream), fputs("new", w.stream); },
       .call = [](World &w) { return Close_Shared_File(w.path(), std::exchange(w.stream, nullptr)); },
       .may_be_cut = true,
       .promise = Promise::none},
  };
}

std::vector<Scenario> nodes() {
  return {
      in_memory(
          "Create_Pair_Node", nullptr, [](World &w) { return Create_Pair_Node(&w.pairs, "k", "v"); }, "k=v;"),
      in_memory(
          "Create_Integer_Pair_Node", nullptr, [](World &w) { return Create_Integer_Pair_Node(&w.pairs, "k", 7); },
          "k=7;"),
      in_memory(
          "Create_Sect_Node", nullptr, [](World &w) { return Create_Sect_Node(&w.sections, "a"); }, "[a]"),
      in_memory(
          "Set_Pair_String_Value", give_pair, [](World &w) { return Set_Pair_String_Value(&w.pairs, "k", "long"); },
          "k=long;"),
      in_memory(
          "Set_Pair_Integer_Value", give_pair, [](World &w) { return Set_Pair_Integer_Value(&w.pairs, "n", 12); },
          "k=1;n=12;"),
      in_memory(
          "Set_Conf_String_Value", give_sections,
          [](World &w) { return Set_Conf_String_Value(w.sections, "b", "k", "2"); }, "[a]k=1;[b]k=2;"),
      in_memory(
          "Set_Conf_Integer_Value", give_sections,
          [](World &w) { return Set_Conf_Integer_Value(w.sections, "a", "n", 12); }, "[a]k=1;n=12;"),
  };
}

std::vector<Scenario> conf_text() {
  const auto copy_text = [](World &w) { w.text = strdup(conf.c_str()); };
  return {
      with(reader(
               "Cache_Conf_File", conf, [](World &w) { return Cache_Conf_File(w.path(), &w.text); },
               static_cast<int>(conf.size()), conf),
           [](Scenario &s) { s.answers = cache_answers; }),
      {.function = "Parse_Conf_Cache",
       .prepare = copy_text,
       .call =
           [](World &w) {
             char *text = w.text;
             const int sections = Parse_Conf_Cache(text, &w.sections);
             text[0] = '\0';  // it has been taken to pieces
             return sections;
           },
       .success = 2,
       .result = conf_shown,
       .may_be_cut = true,
       .out_of_memory = {-ENOMEM, 0, 1}},
      {.function = "Parse_Conf_Stream",
       .before = conf,
       .after = conf,
       .prepare = [](World &w) { w.stream = fopen(w.path(), "re"); },
       .call = [](World &w) { return Parse_Conf_Stream(w.stream, &w.sections); },
       .success = 2,
       .result = conf_shown + "stream",
       .may_be_cut = true,
       .out_of_memory = {-ENOMEM, 0, 1},
       // What the stream cannot read is the stream's affair: the text seems to end there.
       .answers = {{Call::read, Place::file, 0}},
       .promise = Promise::none},
      {.function = "Write_Pair_Node",
       .after = "k = 1\n",
       .prepare = [](World &w) { open_for_writing(w), give_pair(w); },
       .call = [](World &w) { return Write_Pair_Node(w.stream, w.pairs); },
       .result = "k=1;stream",
       .promise = Promise::none},
      {.function = "Write_Sect_Node",
       .after = "[a]\nk = 1\n\n",
       .prepare = [](World &w) { open_for_writing(w), give_sections(w); },
       .call = [](World &w) { return Write_Sect_Node(w.stream, w.sections); },
       .result = "[a]k=1;stream",
       .promise = Promise::none},
  };
}

std::vector<Scenario> conf_files() {
  const std::string chain_written = "[a]\nk = new\n\n[b]\nk = newer\n\n";
  const std::string section_written = "[a]\nk = new\nn = 5\n\n[b]\nk = 2\n\n";
  const std::string merged = "[a]\nk = new\nlong = some text\nn = 5\n\n[b]\nk = 2\n\n";
  const auto set_section = [](World &w) { return Set_Conf_File_Section(w.path(), "a", w.given_sections); };
  const auto set_pairs = [](World &w) { return Set_Conf_File_Pair_Values(w.path(), "a", w.given_sections->pairs); };
  const auto silent = [](Scenario &s) {
    s.silent = true;
    s.without_lock = s.on_full_disk = 0;
  };
  return {
      with(reader(
               "Read_Conf_File", conf, [](World &w) { return Read_Conf_File(w.path(), &w.sections); }, 2, conf_shown),
           [](Scenario &s) {
             s.may_be_cut = true;
             s.out_of_memory = {-ENOMEM, 0, 1};
             s.answers = chain_answers;
           }),
      with(writer("Write_Conf_File", conf, chain_written, give_chain,
                  [](World &w) { return Write_Conf_File(w.path(), w.given_sections); }),
           [](Scenario &s) {
             s.promise = Promise::in_place;
             s.on_full_disk.reset();
           }),
      writer("Update_Conf_File", conf, chain_written, give_chain,
             [](World &w) { return Update_Conf_File(w.path(), w.given_sections); }),
      with(reader(
               "Get_Conf_File_Section", conf,
               [](World &w) { return Get_Conf_File_Section(w.path(), "a", &w.sections); }, 0, "[a]k=1;long=some text;"),
           [](Scenario &s) {
             s.answers = chain_answers;
             s.out_of_memory = {-ENOMEM, -ENOANO};
           }),
      locked_writer("Set_Conf_File_Section", "", conf, section_written, give_section, set_section),
      locked_writer("Set_Conf_File_Section", "in a missing file", {}, "[a]\nk = new\nn = 5\n\n", give_section,
                    set_section),
      locked_writer("Set_Conf_File_Section", "removed", conf, "[b]\nk = 2\n\n", nullptr, set_section),
      locked_writer(
          "Set_Conf_File_Section", "under a lock left by a dead process", conf, section_written,
          [](World &w) { give_section(w), leave_lock_of_dead_process(w); }, set_section),
      locked_writer("Update_Conf_File_Section", "", conf, merged, give_section,
                    [](World &w) { return Update_Conf_File_Section(w.path(), "a", w.given_sections); }),
      with(locked_writer("Set_Conf_File_Pair_Values", "", conf, merged, give_section, set_pairs), silent),
      with(locked_writer("Set_Conf_File_Pair_Values", "in a missing file", {}, "[a]\nk = new\nn = 5\n\n", give_section,
                         set_pairs),
           silent),
  };
}

std::vector<Scenario> single_values() {
  const std::string text = "# c\n[a]\nk = 7\n\n[b]\n";
  const auto get = [](World &w) {
    return Get_Conf_File_String_Value(w.path(), "a", "k", w.buffer, &(w.size = sizeof w.buffer));
  };
  const auto set = [](World &w) { return Set_Conf_File_String_Value(w.path(), "a", "k", "new"); };
  const auto remove_missing = [](World &w) { return Set_Conf_File_String_Value(w.path(), "a", "no", nullptr); };
  return {
      reader("Get_Conf_File_String_Value", text, get, 0, "7/1"),
      reader(
          "Get_Conf_File_Int64_Value", text,
          [](World &w) { return Get_Conf_File_Int64_Value(w.path(), "a", "k", &w.number); }, 0, "7"),
      reader(
          "Get_Conf_File_Int8_Value", text,
          [](World &w) {
            int8_t value = 0;
            const int status = Get_Conf_File_Int8_Value(w.path(), "a", "k", &value);
            return w.number = value, status;
          },
          0, "7"),
      reader(
          "Get_Conf_File_Int16_Value", text,
          [](World &w) {
            int16_t value = 0;
            const int status = Get_Conf_File_Int16_Value(w.path(), "a", "k", &value);
            return w.number = value, status;
          },
          0, "7"),
      reader(
          "Get_Conf_File_Int32_Value", text,
          [](World &w) {
            int32_t value = 0;
            const int status = Get_Conf_File_Int32_Value(w.path(), "a", "k", &value);
            return w.number = value, status;
          },
          0, "7"),
      value_writer("Set_Conf_File_String_Value", "", text, "# c\n[a]\nk = new\n\n[b]\n", set),
      with(value_writer("Set_Conf_File_String_Value", "under a lock left by a dead process", text,
                        "# c\n[a]\nk = new\n\n[b]\n", set),
           [](Scenario &s) { s.prepare = leave_lock_of_dead_process; }),
      value_writer("Set_Conf_File_String_Value", "in a missing file", {}, "[a]\nk = new\n", set),
      with(value_writer("Set_Conf_File_String_Value", "removing a missing key", text, text, remove_missing),
           [](Scenario &s) { s.success = -ENODATA; }),
      value_writer("Set_Conf_File_Integer_Value", "", text, "# c\n[a]\nk = 7\n\n[b]\nn = -5\n\n",
                   [](World &w) { return Set_Conf_File_Integer_Value(w.path(), "b", "n", -5); }),
  };
}

std::vector<Scenario> member_records() {
  const std::string updated = "[m1]\nStatus = 5\nAddress = 10.0.0.1\n\n[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  const std::string one_left = "[m2]\nStatus = 2\nAddress = 10.0.0.2\n\n";
  const std::string other = "[old]\nStatus = 9\n\n";
  const auto set = [](World &w) { return Tarn_Cluster_Service_Set(w.path(), "m1", &w.given_record); };
  const auto give_member_section = [](World &w) { w.sections = make_sections({{"m1", {{"Status", "1"}}}}).release(); };
  const auto hands_out_records = [](Scenario &s) { s.result = members_shown; };
  return {
      with(in_memory(
               "Tarn_Cluster_All_Serv_From_Sect_Node",
               [](World &w) {
                 give_list(w);
                 Release_Serv_List_Conf(std::exchange(w.records, nullptr));
               },
               [](World &w) { return Tarn_Cluster_All_Serv_From_Sect_Node(w.given_sections, &w.records); },
               members_shown),
           [](Scenario &s) { s.may_be_cut = true; }),
      with(in_memory(
               "Tarn_Cluster_All_Serv_To_Sect_Node", give_list,
               [](World &w) { return Tarn_Cluster_All_Serv_To_Sect_Node(w.records, &w.sections); },
               members_made + members_shown),
           [](Scenario &s) { s.may_be_cut = true; }),
      in_memory(
          "Tarn_Cluster_Serv_To_Sect_Node",
          [=](World &w) { give_member_section(w), give_record(w), w.given_record.Status = 55; },
          [](World &w) { return Tarn_Cluster_Serv_To_Sect_Node(&w.given_record, w.sections); }, "[m1]Status=55;"),
      in_memory(
          "Tarn_Service_From_Sect_Node", give_member_section,
          [](World &w) { return Tarn_Service_From_Sect_Node(w.sections, &w.records); }, "[m1]Status=1;m1 64 1 ;"),
      with(reader(
               "Tarn_Cluster_Serv_Conf_Read", members,
               [](World &w) { return Tarn_Cluster_Serv_Conf_Read(w.path(), &w.records); }, 0, members_shown),
           [](Scenario &s) {
             s.may_be_cut = true;
             s.answers = chain_answers;
           }),
      with(locked_writer("Tarn_Cluster_Serv_Conf_Write", "", other, members_written, give_list,
                         [](World &w) { return Tarn_Cluster_Serv_Conf_Write(w.path(), w.records); }),
           hands_out_records),
      with(writer("Tarn_Cluster_Serv_Conf_Write_NoLock", other, members_written, give_list,
                  [](World &w) { return Tarn_Cluster_Serv_Conf_Write_NoLock(w.path(), w.records); }),
           hands_out_records),
      with(reader(
               "Tarn_Cluster_Service_Get", members,
               [](World &w) { return Tarn_Cluster_Service_Get(w.path(), "m1", &w.records); }, 0, "m1 192 1 10.0.0.1;"),
           [](Scenario &s) {
             s.answers = chain_answers;
             s.out_of_memory = {-ENOMEM, -ENOANO};
           }),
      locked_writer("Tarn_Cluster_Service_Set", "", members, updated, give_record, set),
      locked_writer("Tarn_Cluster_Service_Set", "in a missing file", {}, "[m1]\nStatus = 5\n\n", give_record, set),
      locked_writer("Tarn_Cluster_Service_Set", "deleted", members, one_left, nullptr,
                    [](World &w) { return Tarn_Cluster_Service_Set(w.path(), "m1", nullptr); }),
      writer("Tarn_Cluster_Service_Set_NoLock", members, updated, give_record,
             [](World &w) { return Tarn_Cluster_Service_Set_NoLock(w.path(), "m1", &w.given_record); }),
  };
}

std::vector<Scenario> commands() {
  return {
      in_memory(
          "Tarn_Cluster_Send_File", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Send_File(0, "s1", "/here", "/there", "progress", &w.text); }, "reply"),
      in_memory(
          "Tarn_Cluster_Recv_File", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Recv_File(1, "0", "/there", "/here", nullptr, &w.text); }, "reply"),
      with(in_memory(
               "Parse_Cluster_Cmd_Status", nullptr,
               [](World &w) {
                 int parsed = 0;
                 const int status = Parse_Cluster_Cmd_Status(json_reply.c_str(), &parsed);
                 return w.number = parsed, status;
               },
               "7"),
           [](Scenario &s) { s.parses = json_reply; }),
      with(in_memory(
               "Parse_Result_Path", nullptr,
               [](World &w) { return Parse_Result_Path(json_reply.c_str(), 0, "s1", &w.text); }, "/p"),
           [](Scenario &s) { s.parses = json_reply; }),
      reader(
          "Polling_Result", "text", [](World &w) { return Polling_Result(w.path(), 1); }, 0, ""),
      reader(
          "Polling_Int_Result", "1234",
          [](World &w) {
            int value = 0;
            const int status = Polling_Int_Result(w.path(), &value);
            return w.number = value, status;
          },
          0, "1234"),
      in_memory(
          "System_Log_Append", stand_in_for_the_platform,
          [](World &) { return System_Log_Append(0, "us\"er", "a %s", "message"); }, ""),
      in_memory(
          "Tarn_Cluster_Test", stand_in_for_the_platform,
          [](World &w) { return Tarn_Cluster_Test(0, "s1", "hello", &w.text); }, "reply"),
      with(in_memory(
               "Tarn_Cluster_Test_Cb", nullptr,
               [](World &w) {
                 w.text = Tarn_Cluster_Test_Cb(json_argument.c_str());
                 return w.text != nullptr ? 0 : -ENOMEM;
               },
               R"({ "return": 0, "received": "hello" })"),
           [](Scenario &s) { s.parses = json_argument; }),
  };
}

}  // namespace

const std::vector<Scenario> &scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> joined;
    for (const auto &family :
         {log_and_text(), locks(), nodes(), conf_text(), conf_files(), single_values(), member_records(), commands()}) {
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
  static const std::vector<Pure_Function> all = {
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
      {"Release_Serv_List_Conf", [] { Release_Serv_List_Conf(nullptr); }},
      {"Tarn_Cluster_Serv_Conf_Preset", [] { Tarn_Cluster_Serv_Conf_Preset(nullptr); }},
      {"Set_Abort", [] { Set_Abort(&g_bAbort); }},
      {"Set_Slave_On_Master", [] { Set_Slave_On_Master(&g_bSlaveOnMaster); }},
  };
  return all;
}

}  // namespace tarn::test

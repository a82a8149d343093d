// Configuration: nodes, texts, whole files, single values.
#include <cerrno>

#include "tests/conf/chains.h"
#include "tests/faults/families.h"

namespace tarn::test {
namespace {

const std::string conf = "# c\n[a]\nk = 1\nlong = some text\n\n[b]\nk = 2\n";
const std::string conf_shown = "[a]k=1;long=some text;[b]k=2;";
const std::string conf_written = "[a]\nk = 1\nlong = some text\n\n[b]\nk = 2\n\n";

// How families of functions answer.
const std::vector<Answer> cache_answers = {{Call::read, Place::file, positive_errno}};
const std::vector<Answer> value_answers = {{Call::write, Place::lock, -ENOLCK},
                                           {Call::write, Place::temporary, -1},
                                           {Call::sync, Place::temporary, -1},
                                           {Call::close, Place::temporary, -1}};

Scenario value_writer(std::string function, std::string situation, std::optional<std::string> before,
                      std::optional<std::string> after, std::function<int(World &)> call) {
  Scenario made = locked_writer(function, situation, before, after, nullptr, call);
  made.answers = value_answers;
  made.on_full_disk = -1;
  return made;
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
void open_for_writing(World &w) {
  w.stream = fopen(w.path(), "we");
}
// What a process leaves that is killed while it replaces the file.
void leave_lock_of_dead_process(World &w) {
  const int owner = dead_pid();
  write_file(owned_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), owner));
  write_file(w.file + ".tmp", "half");
  write_file(w.file + ".tmp." + std::to_string(owner), "half");
}

}  // namespace

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

}  // namespace tarn::test

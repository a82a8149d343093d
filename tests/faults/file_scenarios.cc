// The log, lock files, what becomes of single files, and what is asked about paths.
#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "tests/faults/families.h"

namespace tarn::test {
namespace {

void make_log(World &w) {
  Simp_Log_Create(w.path(), &w.log, 24, 3, 0);
}
void open_log(World &w) {
  make_log(w);
  Simp_Log_Open(w.log, 0);
}
void leave_stale_lock(World &w) {
  write_file(owned_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
}
void leave_stale_foreign_lock(World &w) {
  write_file(foreign_lock(w.base_name), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
}

}  // namespace

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

std::vector<Scenario> path_checks() {
  const std::string text = "text";
  const auto open_folder = [](World &w) { w.given_fd = Descriptor(open("/usr", O_RDONLY | O_DIRECTORY | O_CLOEXEC)); };
  return {
      in_memory(
          "Get_FD_Path", open_folder,
          [](World &w) {
            const int length = Get_FD_Path(w.given_fd.get(), w.buffer, sizeof w.buffer);
            return length > 0 ? w.size = length, 0 : length;
          },
          "/usr/4"),
      with(in_memory(
               "Fullpath", open_folder,
               [](World &w) {
                 w.found = Fullpath(w.given_fd.get());
                 return w.found != nullptr ? 0 : -1;
               },
               "/usr"),
           [](Scenario &s) { s.answer = -1; }),
      reader(
          "Set_File_Time_At", text,
          [](World &w) {
            const timespec times[2] = {{1, 2}, {3, 4}};
            return Set_File_Time_At(AT_FDCWD, w.path(), times, 0);
          },
          0, ""),
      reader(
          "Set_File_Modified_Time_At", text,
          [](World &w) { return Set_File_Modified_Time_At(AT_FDCWD, w.path(), 2, 1, AT_SYMLINK_NOFOLLOW); }, 0, ""),
      with(in_memory(
               "Is_Folder", nullptr, [](World &w) { return Is_Folder(w.folder.c_str()); }, ""),
           [](Scenario &s) { s.success = 1; }),
      in_memory(
          "Check_Folder_At", nullptr,
          [](World &w) {
            unsigned int flag = 0;
            const int status = Check_Folder_At(AT_FDCWD, w.folder.c_str(), &flag);
            return w.number = flag, status;
          },
          "1"),
      in_memory(
          "Check_Folder", nullptr,
          [](World &w) {
            unsigned int flag = 0;
            const int status = Check_Folder(w.folder.c_str(), &flag);
            return w.number = flag, status;
          },
          "1"),
      reader(
          "Check_File_At", text, [](World &w) { return Check_File_At(AT_FDCWD, w.path()); }, 1, ""),
      reader(
          "Check_File", text, [](World &w) { return Check_File(w.path()); }, 1, ""),
      reader(
          "Get_File_Size", text,
          [](World &w) {
            uint64_t size = 0;
            const int status = Get_File_Size(w.path(), &size);
            return w.number = static_cast<int64_t>(size), status;
          },
          0, "4"),
  };
}

}  // namespace tarn::test

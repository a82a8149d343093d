// Moving data between files, copying, surveying and removing trees, and names for unfinished files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "tests/faults/families.h"

namespace tarn::test {
namespace {

constexpr char text[] = "new text";
constexpr int text_length = sizeof text - 1;
unsigned int nobody_aborts = 0;

// Kept for the call, which must not allocate for itself.
const char *source(World &w) {
  w.given_name = w.folder + "/source";
  return w.given_name.c_str();
}

void make_source(World &w) {
  write_file(source(w), text);
}
void make_source_link(World &w) {
  if (symlink("target", source(w)) != 0) throw std::system_error(errno, std::generic_category(), "link");
}
void make_source_folder(World &w) {
  if (mkdir(source(w), 0750) != 0) throw std::system_error(errno, std::generic_category(), "folder");
}
// Two folders, two files and a link.
void make_tree(const std::string &root) {
  const std::string below = root + "/below";
  if (mkdir(root.c_str(), 0750) != 0 || mkdir(below.c_str(), 0750) != 0 ||
      symlink("target", (root + "/link").c_str()) != 0) {
    throw std::system_error(errno, std::generic_category(), root);
  }
  write_file(root + "/file", text);
  write_file(below + "/file", text);
}
void make_source_tree(World &w) {
  make_tree(source(w));
}
void make_tree_at_the_file(World &w) {
  make_tree(w.file);
}

void open_source_and_file(World &w) {
  make_source(w);
  w.source_fd = Descriptor(open(source(w), O_RDONLY | O_CLOEXEC));
  w.given_fd = Descriptor(open(w.path(), O_WRONLY | O_CLOEXEC));
}
void open_source_and_pipe(World &w) {
  make_source(w);
  w.source_fd = Descriptor(open(source(w), O_RDONLY | O_CLOEXEC));
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  w.far_end = Descriptor(ends[0]);
  w.given_fd = Descriptor(ends[1]);
}
void open_folder(World &w) {
  w.given_fd = Descriptor(open(w.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// A file's copy: what was written so far is gone after a failure, and closing is not looked at.
Scenario file_copy(std::string function, std::function<int(World &)> call) {
  return {.function = function,
          .before = "old",
          .after = text,
          .prepare = make_source,
          .call = call,
          .promise = Promise::none,
          .also_made = {"source"}};
}

// A copy of a link, a folder or a tree, of which a failure may leave a part.
Scenario new_copy(std::string function, std::function<void(World &)> prepare, std::function<int(World &)> call) {
  return {.function = function, .prepare = prepare, .call = call, .promise = Promise::varies, .also_made = {"source"}};
}

// What it cannot look at it leaves out, and tells by the positive error; only the root's look is its own.
Scenario tree_survey(std::string function, std::function<int(World &)> call) {
  return {.function = function,
          .prepare = make_tree_at_the_file,
          .call = call,
          .result = "302",
          .answers = {{Call::stat, Place::other, positive_errno},
                      {Call::open, Place::other, positive_errno},
                      {Call::open, Place::file, positive_errno}},
          .promise = Promise::varies};
}

// What it cannot remove it leaves, and the root with it.
Scenario tree_removal(std::string function, std::function<int(World &)> call) {
  return {.function = function,
          .prepare = make_tree_at_the_file,
          .call = call,
          .answers = {{Call::unlink, Place::other, -ENOTEMPTY},
                      {Call::open, Place::other, -ENOTEMPTY},
                      {Call::open, Place::file, -ENOTEMPTY}},
          .promise = Promise::varies};
}

int survey(World &w, const std::function<int(Tree_Stat *)> &call) {
  Tree_Stat found = {};
  const int status = call(&found);
  if (status == 0) w.number = 100 * found.file_count + found.folder_count;
  return status;
}

}  // namespace

std::vector<Scenario> bulk_transfer() {
  const auto copied = [](std::string function, auto copy) {
    return Scenario{.function = function,
                    .before = "old text",
                    .after = text,
                    .prepare = open_source_and_file,
                    .call =
                        [copy](World &w) {
                          return copy(w.source_fd.get(), nullptr, w.given_fd.get(), nullptr, text_length, nullptr,
                                      nullptr);
                        },
                    .promise = Promise::none,  // half of a step is lost with success
                    .also_made = {"source"}};
  };
  const auto spliced = [](std::string function, std::function<int(World &)> call) {
    return Scenario{.function = function, .prepare = open_source_and_pipe, .call = call, .also_made = {"source"}};
  };
  return {
      spliced("Splice_Ext",
              [](World &w) {
                return Splice_Ext(w.source_fd.get(), nullptr, w.given_fd.get(), nullptr, text_length, 0, 10000,
                                  &nobody_aborts);
              }),
      spliced("Splice_File_Data",
              [](World &w) {
                return Splice_File_Data(w.source_fd.get(), nullptr, w.given_fd.get(), nullptr, text_length, 10000,
                                        nullptr, nullptr);
              }),
      copied("Copy_File_Data", Copy_File_Data),
      copied("Copy_File_Data_RTRR", Copy_File_Data_RTRR),
      reader(
          "Simple_Read_File", "text\n",
          [](World &w) {
            w.size = sizeof w.buffer;
            return Simple_Read_File(w.path(), w.buffer, &w.size);
          },
          0, "text/4"),
      reader(
          "Read_File_To_Buffer", "text",
          [](World &w) {
            int64_t size = sizeof w.buffer;
            const int status = Read_File_To_Buffer(w.path(), w.buffer, &size, 1);
            return w.size = static_cast<int>(size), status;
          },
          0, "ext/3"),
      {.function = "Write_File_From_Buffer",
       .before = "old text",
       .after = "onew text",
       .call =
           [](World &w) {
             int64_t size = text_length;
             return Write_File_From_Buffer(w.path(), text, &size, 1);
           },
       .promise = Promise::none},
  };
}

std::vector<Scenario> file_copies() {
  return {
      file_copy("Copy_File_At",
                [](World &w) {
                  return Copy_File_At(AT_FDCWD, w.given_name.c_str(), AT_FDCWD, w.path(), &nobody_aborts, nullptr);
                }),
      file_copy("Copy_File",
                [](World &w) { return Copy_File(w.given_name.c_str(), w.path(), &nobody_aborts, nullptr); }),
      new_copy("Copy_Symlink_At", make_source_link,
               [](World &w) { return Copy_Symlink_At(AT_FDCWD, w.given_name.c_str(), AT_FDCWD, w.path()); }),
      new_copy("Copy_Symlink", make_source_link, [](World &w) { return Copy_Symlink(w.given_name.c_str(), w.path()); }),
      new_copy("Copy_Folder_At", make_source_folder,
               [](World &w) { return Copy_Folder_At(AT_FDCWD, w.given_name.c_str(), AT_FDCWD, w.path()); }),
      new_copy("Copy_Folder", make_source_folder, [](World &w) { return Copy_Folder(w.given_name.c_str(), w.path()); }),
      {.function = "Remove_File_At",
       .before = "text",
       .call = [](World &w) { return Remove_File_At(AT_FDCWD, w.path()); }},
      {.function = "Remove_File", .before = "text", .call = [](World &w) { return Remove_File(w.path()); }},
  };
}

std::vector<Scenario> trees() {
  return {
      new_copy(
          "Copy_Folder_Tree_At", make_source_tree,
          [](World &w) { return Copy_Folder_Tree_At(AT_FDCWD, w.given_name.c_str(), AT_FDCWD, w.path(), nullptr); }),
      new_copy("Copy_Folder_Tree", make_source_tree,
               [](World &w) { return Copy_Folder_Tree(w.given_name.c_str(), w.path(), &nobody_aborts); }),
      tree_survey("State_Folder_Tree_At",
                  [](World &w) {
                    return survey(
                        w, [&](Tree_Stat *found) { return State_Folder_Tree_At(AT_FDCWD, w.path(), found, nullptr); });
                  }),
      tree_survey("State_Folder_Tree",
                  [](World &w) {
                    return survey(w,
                                  [&](Tree_Stat *found) { return State_Folder_Tree(w.path(), found, &nobody_aborts); });
                  }),
      tree_removal("Remove_Folder_Tree_At",
                   [](World &w) { return Remove_Folder_Tree_At(AT_FDCWD, w.path(), nullptr); }),
      tree_removal("Remove_Folder_Tree", [](World &w) { return Remove_Folder_Tree(w.path(), &nobody_aborts); }),
      {.function = "Remove_Folder_Tree",
       .situation = "of a file",
       .before = "text",
       .call = [](World &w) { return Remove_Folder_Tree(w.path(), nullptr); }},
  };
}

// The generator takes every name that it cannot look up for a free one. Check_Temp_Filename makes no system call.
std::vector<Scenario> temporary_files() {
  return {
      in_memory(
          "Generate_Temp_Filename", open_folder,
          [](World &w) {
            w.size = 10;
            return Generate_Temp_Filename(w.given_fd.get(), "x", w.buffer, sizeof w.buffer);
          },
          "$$@#!$$000/10"),
      {.function = "Open_Unique_Temp_File_At",
       .prepare = open_folder,
       .call =
           [](World &w) {
             w.size = 10;
             return Open_Unique_Temp_File_At(w.given_fd.get(), "x", O_RDWR | O_CLOEXEC, 0600, sizeof w.buffer, w.buffer,
                                             &w.socket);
           },
       .result = "socket;$$@#!$$000/10",
       .also_made = {"$$@#!$$000"}},
      {.function = "Open_Unique_Temp_File",
       .call =
           [](World &w) { return Open_Unique_Temp_File(w.path(), O_RDWR | O_CLOEXEC, 0600, 0, nullptr, &w.socket); },
       .result = "socket;",
       .also_made = {"$$@#!$$000000"}},
  };
}

}  // namespace tarn::test

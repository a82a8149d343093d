#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <set>
#include <string>
#include <thread>

#include "include/tarncluster_util.h"
#include "tests/conf/chains.h"
#include "tests/conf/conf_file_fixture.h"
#include "tests/conf/whole_or_nothing.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/pinned_file.h"
#include "tests/support/small_disk.h"

namespace tarn::test {
namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

std::string temporary_name(const std::string &path) {
  return path + ".tmp." + std::to_string(getpid());
}

auto line_like(const std::string &level, const std::string &function, const std::string &pattern) {
  return AllOf(Field(&Log_Line::level, level), Field(&Log_Line::function, function),
               Field(&Log_Line::text, MatchesRegex(pattern)));
}

// A set of file-creation bits while it lives.
class Mask {
 public:
  explicit Mask(mode_t mask) : previous_(umask(mask)) {}
  ~Mask() { umask(previous_); }
  Mask(const Mask &) = delete;
  Mask &operator=(const Mask &) = delete;

 private:
  mode_t previous_;
};

using Conf_File = Conf_File_Test;

Sections one_section(const std::string &name = "n", const std::string &key = "k", const std::string &value = "v") {
  return make_sections({{name, {{key, value}}}});
}

Sections big_section(std::size_t bytes) {
  return make_sections({{"big", {{"k", std::string(bytes, 'v')}}}});
}

struct Read {
  int status;
  Sections sections;
};

Read read(const char *path) {
  auto *sections = reinterpret_cast<Sect_Node *>(8);
  const int status = Read_Conf_File(path, &sections);
  return {status, Sections(sections)};
}

Read get(const char *path, const char *name) {
  auto *section = reinterpret_cast<Sect_Node *>(8);
  const int status = Get_Conf_File_Section(path, name, &section);
  return {status, Sections(section)};
}

// ------------------------------------------------------------------------------------------------------------ reading

using Reading = Conf_File;

TEST_F(Reading, ReturnsTheChainAndTheNumberOfSections) {
  write_file(path_, "z = 0\n# c\n[a]\nx = 1\n[b]\n[a]\ny = 2");
  const Read result = read(file_);
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(shown(result.sections), "[]z=0;[a]x=1;[b][a]y=2;");
}

TEST_F(Reading, AFileWithoutSectionsIsNoFailure) {
  for (const char *text : {"", "\n\n", "# only\n; comments\n"}) {
    write_file(path_, text);
    const Read result = read(file_);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.sections, nullptr);
  }
}

TEST_F(Reading, RefusesAMissingArgument) {
  Sect_Node *sections = nullptr;
  EXPECT_EQ(Read_Conf_File(nullptr, &sections), -EINVAL);
  EXPECT_EQ(Read_Conf_File(file_, nullptr), -EINVAL);
}

TEST_F(Reading, AMissingFileIsSilent) {
  const Read result = read(file_);
  EXPECT_EQ(result.status, -ENOENT);
  EXPECT_EQ(result.sections, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Reading, AnyOtherFailureToLoadIsLogged) {
  const Read result = read(folder_.path().c_str());
  EXPECT_EQ(result.status, -ENOMEDIUM);
  EXPECT_EQ(result.sections, nullptr);
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Cache_Conf_File", "The specified file \"" + folder_.path() +
                                                                          "\" is not a regular file error! (41C0)"),
                                        debug_line("Read_Conf_File", "Can't cache the specified conf file \"" +
                                                                         folder_.path() + "\" error (-123)!")));
}

TEST_F(Reading, AFileWhoseReadFailsIsAFailureAndNoCount) {
  const Read result = read("/sys/class/net/lo/speed");
  EXPECT_EQ(result.status, -EINVAL);
  EXPECT_EQ(result.sections, nullptr);
}

TEST_F(Reading, AShortReadIsAFailure) {
  const Read result = read("/sys/class/net/lo/address");
  EXPECT_EQ(result.status, -EIO);
  EXPECT_EQ(result.sections, nullptr);
}

// ------------------------------------------------------------------------------------------------------------ writing

using Writing = Conf_File;

TEST_F(Writing, MakesAFileWithTheDefaultMode) {
  const Mask mask(027);
  EXPECT_EQ(Write_Conf_File(file_, make_sections({{"", {{"a", "1"}}}, {"b", {{"x", ""}}}}).get()), 0);
  EXPECT_EQ(content(), "a = 1\n\n[b]\nx = \n\n");
  EXPECT_EQ(mode_of(path_), 0640u);
}

TEST_F(Writing, WritesWhereTheFileStands) {
  write_file(path_, "old content that is longer than the new\n");
  ASSERT_EQ(chmod(file_, 0604), 0);
  const ino_t inode = inode_of(path_);
  EXPECT_EQ(Write_Conf_File(file_, one_section().get()), 0);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_EQ(inode_of(path_), inode);
  EXPECT_EQ(mode_of(path_), 0604u);
}

TEST_F(Writing, AnEmptyChainEmptiesTheFile) {
  write_file(path_, "[a]\n");
  EXPECT_EQ(Write_Conf_File(file_, nullptr), 0);
  EXPECT_EQ(content(), "");
}

TEST_F(Writing, RefusesAMissingPath) {
  EXPECT_EQ(Write_Conf_File(nullptr, one_section().get()), -EINVAL);
}

TEST_F(Writing, AFileThatCannotBeOpenedIsLogged) {
  const std::string path = folder_ / "missing/x.conf";
  EXPECT_EQ(Write_Conf_File(path.c_str(), one_section().get()), -ENOENT);
  EXPECT_EQ(Write_Conf_File(folder_.path().c_str(), one_section().get()), -EISDIR);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Write_Conf_File", "Can't open file " + path + " error! (-2)"),
                          error_line("Write_Conf_File", "Can't open file " + folder_.path() + " error! (-21)")));
}

TEST_F(Writing, AFullDiskIsAFailureAndRemovesTheFile) {
  for (const std::size_t bytes : {10, 1 << 20}) {
    SCOPED_TRACE(bytes);
    log_.clear();
    Small_Disk disk;
    const std::string path = disk / "y.conf";
    disk.fill();
    const int descriptors = open_descriptors();
    EXPECT_EQ(Write_Conf_File(path.c_str(), big_section(bytes).get()), -ENOSPC);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_THAT(log_.lines(), ElementsAre(error_line("Write_Conf_File", "Can't write conf nodes into file \"" + path +
                                                                            "\" error! (-28)")));
  }
}

// Texts that would become another line, or another section, when the file is read again.
struct Breaking_Text {
  const char *name;
  Section_Text section;
};

const Breaking_Text breaking_texts[] = {{"NewlineInTheSection", {"a\nb", {{"k", "v"}}}},
                                        {"BracketInTheSection", {"a]b", {{"k", "v"}}}},
                                        {"NewlineInTheKey", {"n", {{"good", "v"}, {"k\n[x]\nl", "v"}}}},
                                        {"NewlineInTheValue", {"n", {{"good", "v"}, {"k", "v\n[x]"}}}},
                                        {"NewlineAtTheEndOfTheValue", {"n", {{"k", "v\n"}}}}};

class Breaking_Texts : public Conf_File, public testing::WithParamInterface<Breaking_Text> {
 protected:
  void SetUp() override {
    write_file(path_, "[n]\nk = 1\n");
    old_ = state_of(path_);
  }
  void expect_refused(const std::string &function, int status, int expected = -EINVAL) {
    EXPECT_EQ(status, expected) << function;
    expect_untouched(old_);
  }
  File_State old_;
};

TEST_P(Breaking_Texts, AreRefusedByTheFunctionsThatWriteChains) {
  const Sections chain = make_sections({{"first", {{"x", "1"}}}, GetParam().section});
  expect_refused("Write_Conf_File", Write_Conf_File(file_, chain.get()));
  expect_refused("Update_Conf_File", Update_Conf_File(file_, chain.get()));
}

TEST_P(Breaking_Texts, AreRefusedByTheFunctionsThatChangeSections) {
  const Sections section = make_sections({GetParam().section});
  expect_refused("Set_Conf_File_Section", Set_Conf_File_Section(file_, section->name, section.get()));
  expect_refused("Set_Conf_File_Section", Set_Conf_File_Section(file_, "n", section.get()));
  EXPECT_EQ(section->next, nullptr);
  EXPECT_EQ(shown(section), shown(make_sections({GetParam().section})));
}

TEST_P(Breaking_Texts, MakeNoFile) {
  const Sections section = make_sections({GetParam().section});
  ASSERT_EQ(unlink(file_), 0);
  old_ = {};
  expect_refused("Write_Conf_File", Write_Conf_File(file_, section.get()));
  expect_refused("Update_Conf_File", Update_Conf_File(file_, section.get()));
  expect_refused("Set_Conf_File_Section", Set_Conf_File_Section(file_, section->name, section.get()));
  log_.clear();
  expect_refused("Set_Conf_File_Pair_Values", Set_Conf_File_Pair_Values(file_, section->name, section->pairs), 0);
  EXPECT_THAT(log_.lines(), Contains(Field(&Log_Line::function, "Set_Conf_File_Pair_Values")));
}

// These functions do not use the given section's own name: the name argument stands in for it.
TEST_P(Breaking_Texts, AreRefusedByTheFunctionsThatMergePairs) {
  const Sections section = make_sections({GetParam().section});
  log_.clear();
  expect_refused("Set_Conf_File_Pair_Values", Set_Conf_File_Pair_Values(file_, section->name, section->pairs), 0);
  EXPECT_THAT(log_.lines(), Contains(Field(&Log_Line::function, "Set_Conf_File_Pair_Values")));
  if (GetParam().section.name == "n") {
    expect_refused("Update_Conf_File_Section", Update_Conf_File_Section(file_, "n", section.get()));
  }
}

INSTANTIATE_TEST_SUITE_P(Texts, Breaking_Texts, testing::ValuesIn(breaking_texts),
                         [](const auto &instance) { return std::string(instance.param.name); });

// ---------------------------------------------------------------------------------------------------------- replacing

using Replacing = Conf_File;

TEST_F(Replacing, RefusesAMissingPath) {
  EXPECT_EQ(Update_Conf_File(nullptr, one_section().get()), -EINVAL);
}

TEST_F(Replacing, PutsANewFileInThePlaceOfTheOld) {
  write_file(path_, "# comment\n[old]\n");
  const ino_t inode = inode_of(path_);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_NE(inode_of(path_), inode);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Replacing, AnEmptyChainMakesAnEmptyFile) {
  write_file(path_, "[old]\n");
  EXPECT_EQ(Update_Conf_File(file_, nullptr), 0);
  EXPECT_EQ(content(), "");
}

TEST_F(Replacing, AMissingFileIsMadeWithTheDefaultMode) {
  const Mask mask(022);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_EQ(mode_of(path_), 0644u);
}

TEST_F(Replacing, KeepsThePermissionBits) {
  const Mask mask(077);
  for (const mode_t mode : {0600u, 0400u, 0644u, 0666u, 0751u, 04755u, 0000u}) {
    write_file(path_, "[old]\n");
    ASSERT_EQ(chmod(file_, mode), 0);
    EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
    EXPECT_EQ(mode_of(path_), mode);
    EXPECT_EQ(content(), "[n]\nk = v\n\n");
  }
}

TEST_F(Replacing, APrivateFileIsPrivateWhileItIsWritten) {
  write_file(path_, "[old]\n");
  ASSERT_EQ(chmod(file_, 0600), 0);
  const Sections sections = big_section(100000);
  expect_killed_while_writing(100, [&] { Update_Conf_File(file_, sections.get()); });
  EXPECT_EQ(content(), "[old]\n");
  const std::vector<std::string> names = names_in(folder_.path());
  ASSERT_THAT(names, ElementsAre("x.conf", MatchesRegex("x.conf.tmp.[0-9]+")));
  EXPECT_EQ(mode_of(folder_ / names[1]) & 077u, 0u);
}

TEST_F(Replacing, ALinkIsReplacedByAPlainFileWithTheModeOfItsTarget) {
  const std::string target = folder_ / "target";
  write_file(target, "[target]\n");
  ASSERT_EQ(chmod(target.c_str(), 0640), 0);
  ASSERT_EQ(symlink("target", file_), 0);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  struct stat status;
  ASSERT_EQ(lstat(file_, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(mode_of(path_), 0640u);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_EQ(read_file(target), "[target]\n");
}

TEST_F(Replacing, ADanglingLinkIsReplacedByAPlainFileWithTheDefaultMode) {
  const Mask mask(022);
  ASSERT_EQ(symlink("nowhere", file_), 0);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  struct stat status;
  ASSERT_EQ(lstat(file_, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(mode_of(path_), 0644u);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
}

TEST_F(Replacing, DoesNotFollowALinkPlantedAtTheTemporaryName) {
  write_file(path_, "[old]\n");
  const std::string victim = folder_ / "victim";
  write_file(victim, "precious\n");
  ASSERT_EQ(symlink(victim.c_str(), temporary_name(path_).c_str()), 0);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  EXPECT_EQ(read_file(victim), "precious\n");
  struct stat status;
  ASSERT_EQ(lstat(file_, &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("victim", "x.conf"));
}

// Somebody is faster than the open that follows the removal of what stood there.
TEST_F(Replacing, DoesNotFollowALinkPlantedAtTheLastMoment) {
  write_file(path_, "[old]\n");
  const std::string victim = folder_ / "victim";
  write_file(victim, "precious\n");
  const Before_Call removal(System_Call::unlink, 1, [&] {
    EXPECT_EQ(symlink(victim.c_str(), temporary_name(path_).c_str()), 0);
    return ENOENT;
  });
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), -EEXIST);
  EXPECT_TRUE(removal.happened());
  EXPECT_EQ(read_file(victim), "precious\n");
  EXPECT_EQ(content(), "[old]\n");
}

TEST_F(Replacing, DoesNotWriteIntoAFileLeftAtTheTemporaryName) {
  write_file(path_, "[old]\n");
  const std::string victim = folder_ / "victim";
  write_file(victim, "precious\n");
  ASSERT_EQ(link(victim.c_str(), temporary_name(path_).c_str()), 0);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), 0);
  EXPECT_EQ(read_file(victim), "precious\n");
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
}

TEST_F(Replacing, AFolderAtTheTemporaryNameIsAFailure) {
  write_file(path_, "[old]\n");
  const File_State old = state_of(path_);
  const std::string temporary = temporary_name(path_);
  ASSERT_EQ(mkdir(temporary.c_str(), 0755), 0);
  const int status = Update_Conf_File(file_, one_section().get());
  EXPECT_THAT(status, AnyOf(-EISDIR, -EEXIST));
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Write_Conf_File",
                                     "Can't open file " + temporary + " error! (" + std::to_string(status) + ")"),
                          error_line("Update_Conf_File", "Can't write conf file \"" + temporary + "\" error! (" +
                                                             std::to_string(status) + ")")));
  ASSERT_EQ(rmdir(temporary.c_str()), 0);
  expect_untouched(old);
}

TEST_F(Replacing, AFullDiskLeavesTheOldFileAndNoOther) {
  for (const std::size_t bytes : {10, 1 << 20}) {
    SCOPED_TRACE(bytes);
    log_.clear();
    Small_Disk disk;
    const std::string path = disk / "y.conf";
    write_file(path, "[old]\n");
    disk.fill();
    const File_State old = state_of(path);
    const int descriptors = open_descriptors();
    EXPECT_EQ(Update_Conf_File(path.c_str(), big_section(bytes).get()), -ENOSPC);
    EXPECT_EQ(state_of(path), old);
    EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", "y.conf"));
    EXPECT_EQ(open_descriptors(), descriptors);
    const std::string temporary = temporary_name(path);
    EXPECT_THAT(
        log_.lines(),
        ElementsAre(
            error_line("Write_Conf_File", "Can't write conf nodes into file \"" + temporary + "\" error! (-28)"),
            error_line("Update_Conf_File", "Can't write conf file \"" + temporary + "\" error! (-28)")));
  }
}

TEST_F(Replacing, AReadOnlyDiskIsAFailure) {
  Small_Disk disk;
  const std::string path = disk / "y.conf";
  write_file(path, "[old]\n");
  make_read_only(disk.path());
  EXPECT_EQ(Update_Conf_File(path.c_str(), one_section().get()), -EROFS);
  EXPECT_EQ(read_file(path), "[old]\n");
  const std::string temporary = temporary_name(path);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Write_Conf_File", "Can't open file " + temporary + " error! (-30)"),
                          error_line("Update_Conf_File", "Can't write conf file \"" + temporary + "\" error! (-30)")));
}

TEST_F(Replacing, AFailedRenameIsTheResultThoughThePermissionBitsAreSetAllTheSame) {
  ASSERT_EQ(mkdir(file_, 0755), 0);
  ASSERT_EQ(chmod(file_, 0711), 0);
  EXPECT_EQ(Update_Conf_File(file_, one_section().get()), -EISDIR);
  EXPECT_EQ(mode_of(path_), 0711u);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_THAT(log_.lines(), ElementsAre(error_line("Update_Conf_File", "Can't rename conf file \"" +
                                                                           temporary_name(path_) + "\" error! (-21)")));
}

TEST_F(Replacing, AFileThatCannotBeRenamedOverStays) {
  write_file(path_, "[old]\n");
  const File_State old = state_of(path_);
  {
    const Pinned_File pinned(path_);
    EXPECT_EQ(Update_Conf_File(file_, one_section().get()), -EBUSY);
  }
  expect_untouched(old);
}

// The permission bits are set after a failed rename as well, and trouble with that is then the result.
TEST_F(Replacing, AFailedChangeOfThePermissionBitsIsTheResult) {
  ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);
  ASSERT_EQ(mkdir(file_, 0755), 0);
  EXPECT_EQ(in_child([&] {
              const As_Nobody nobody;
              EXPECT_EQ(Update_Conf_File(file_, one_section().get()), -EPERM);
            }),
            0);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(line_like("error", "Update_Conf_File",
                                    "Can't rename conf file \"" + path_ + ".tmp.[0-9]+\" error! \\(-21\\)"),
                          error_line("Update_Conf_File", "Can't chmod to " + path_ + "! (-1)")));
}

TEST_F(Replacing, RefusesATemporaryNameThatIsTooLong) {
  std::string deep = folder_.path();
  while (deep.size() < 3880) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
  }
  deep += "/" + std::string(4093 - deep.size() - 1, 'f');
  ASSERT_LE(std::string(deep, deep.rfind('/') + 1).size(), 255u);
  write_file(deep, "[old]\n");
  const File_State old = state_of(deep);
  EXPECT_EQ(Update_Conf_File(deep.c_str(), one_section().get()), -ENAMETOOLONG);
  EXPECT_EQ(state_of(deep), old);

  const std::string base = folder_ / std::string(253, 'f');
  write_file(base, "[old]\n");
  EXPECT_EQ(Update_Conf_File(base.c_str(), one_section().get()), -ENAMETOOLONG);
  EXPECT_EQ(read_file(base), "[old]\n");
}

TEST_F(Replacing, WithoutMemoryLeavesTheOldFile) {
  const Sections sections = one_section();
  const auto make = [&] { return Update_Conf_File(file_, sections.get()); };
  expect_whole_or_nothing_without_memory(path_, {"[old]\n", "[n]\nk = v\n\n", make}, 1);
  expect_whole_or_nothing_without_memory(path_, {std::nullopt, "[n]\nk = v\n\n", make}, 1);
}

TEST_F(Replacing, AProcessKilledOnTheWayLeavesTheOldFile) {
  write_file(path_, "[old]\n");
  const File_State old = state_of(path_);
  const Sections sections = big_section(100000);
  expect_killed_while_writing(50000, [&] { Update_Conf_File(file_, sections.get()); });
  EXPECT_EQ(state_of(path_), old);
}

// ------------------------------------------------------------------------------------------------- reading one section

using Section_Reading = Conf_File;

TEST_F(Section_Reading, HandsOutTheFirstSectionOfTheNameAlone) {
  write_file(path_, "z = 0\n[a]\nx = 1\n[b]\ny = 2\n[a]\nx = 3\n");
  const std::pair<const char *, const char *> expected[] = {{"", "[]z=0;"}, {"a", "[a]x=1;"}, {"b", "[b]y=2;"}};
  for (const auto &[name, chain] : expected) {
    const Read result = get(file_, name);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(shown(result.sections), chain);
  }
}

TEST_F(Section_Reading, AMissingSectionIsAStatus) {
  write_file(path_, "[a]\nx = 1\n");
  for (const char *name : {"A", "", "ab", "a]"}) {
    const Read result = get(file_, name);
    EXPECT_EQ(result.status, -ENOANO);
    EXPECT_EQ(result.sections, nullptr);
  }
  write_file(path_, "# nothing\n");
  EXPECT_EQ(get(file_, "a").status, -ENOANO);
}

TEST_F(Section_Reading, PassesOnTheFailureToRead) {
  const Read missing = get(file_, "a");
  EXPECT_EQ(missing.status, -ENOENT);
  EXPECT_EQ(missing.sections, nullptr);
  EXPECT_THAT(log_.lines(), IsEmpty());
  const Read folder = get(folder_.path().c_str(), "a");
  EXPECT_EQ(folder.status, -ENOMEDIUM);
  EXPECT_EQ(folder.sections, nullptr);
}

TEST_F(Section_Reading, RefusesAMissingArgument) {
  write_file(path_, "[a]\nx = 1\n");
  Sect_Node *section = nullptr;
  EXPECT_EQ(Get_Conf_File_Section(nullptr, "a", &section), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Section(file_, nullptr, &section), -EINVAL);
  EXPECT_EQ(Get_Conf_File_Section(file_, "a", nullptr), -EINVAL);
}

// ------------------------------------------------------------------------------------------------ changing one section

using Section_Setting = Conf_File;

TEST_F(Section_Setting, RefusesAMissingPathOrName) {
  write_file(path_, "[a]\nx = 1\n");
  const File_State old = state_of(path_);
  const Sections section = one_section();
  EXPECT_EQ(Set_Conf_File_Section(nullptr, "n", section.get()), -EINVAL);
  EXPECT_EQ(Set_Conf_File_Section(file_, nullptr, section.get()), -EINVAL);
  expect_untouched(old);
}

TEST_F(Section_Setting, ReplacesASectionAtItsPlace) {
  const std::pair<const char *, const char *> expected[] = {{"a", "[a]\nk = v\n\n[b]\ny = 2\n\n[c]\n\n"},
                                                            {"b", "[a]\nx = 1\n\n[b]\nk = v\n\n[c]\n\n"},
                                                            {"c", "[a]\nx = 1\n\n[b]\ny = 2\n\n[c]\nk = v\n\n"}};
  for (const auto &[name, text] : expected) {
    write_file(path_, "# comment\n[a]\nx=1\n[b]\n  y = 2\n[c]\n");
    const ino_t inode = inode_of(path_);
    const Sections section = one_section(name);
    EXPECT_EQ(Set_Conf_File_Section(file_, name, section.get()), 0);
    EXPECT_EQ(content(), text);
    EXPECT_NE(inode_of(path_), inode);
    EXPECT_EQ(section->next, nullptr);
    EXPECT_EQ(shown(section), std::string("[") + name + "]k=v;");
  }
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Section_Setting, ReplacesTheFirstOfRepeatedSectionsOnly) {
  write_file(path_, "[a]\nx = 1\n[a]\nx = 2\n");
  EXPECT_EQ(Set_Conf_File_Section(file_, "a", one_section("a").get()), 0);
  EXPECT_EQ(content(), "[a]\nk = v\n\n[a]\nx = 2\n\n");
}

TEST_F(Section_Setting, AddsASectionAtTheEnd) {
  write_file(path_, "z = 0\n[a]\nx = 1\n");
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", one_section().get()), 0);
  EXPECT_EQ(content(), "z = 0\n\n[a]\nx = 1\n\n[n]\nk = v\n\n");
}

TEST_F(Section_Setting, MakesAMissingFileWithTheOneSection) {
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", one_section().get()), 0);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
  EXPECT_FALSE(exists(owned_lock("x.conf")));
}

TEST_F(Section_Setting, AddsToAFileOfCommentsOnly) {
  write_file(path_, "# only\n");
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", one_section().get()), 0);
  EXPECT_EQ(content(), "[n]\nk = v\n\n");
}

TEST_F(Section_Setting, RemovesASection) {
  const std::pair<const char *, const char *> expected[] = {{"a", "[b]\ny = 2\n\n[c]\nz = 3\n\n"},
                                                            {"b", "[a]\nx = 1\n\n[c]\nz = 3\n\n"},
                                                            {"c", "[a]\nx = 1\n\n[b]\ny = 2\n\n"}};
  for (const auto &[name, text] : expected) {
    write_file(path_, "[a]\nx = 1\n[b]\ny = 2\n[c]\nz = 3\n");
    EXPECT_EQ(Set_Conf_File_Section(file_, name, nullptr), 0);
    EXPECT_EQ(content(), text);
  }
  write_file(path_, "[a]\nx = 1\n");
  EXPECT_EQ(Set_Conf_File_Section(file_, "a", nullptr), 0);
  EXPECT_EQ(content(), "");
}

TEST_F(Section_Setting, RemovingAMissingSectionWritesNothing) {
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", nullptr), -ENOENT);
  expect_untouched({});
  for (const char *text : {"[a]\nx = 1\n", "# only\n", ""}) {
    write_file(path_, text);
    const File_State old = state_of(path_);
    EXPECT_EQ(Set_Conf_File_Section(file_, "n", nullptr), -ENOANO);
    expect_untouched(old);
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// The caller keeps the two equal.
TEST_F(Section_Setting, WritesTheSectionUnderItsOwnName) {
  write_file(path_, "[a]\nx = 1\n[b]\n");
  EXPECT_EQ(Set_Conf_File_Section(file_, "a", one_section("other").get()), 0);
  EXPECT_EQ(content(), "[other]\nk = v\n\n[b]\n\n");
}

TEST_F(Section_Setting, TakesOnlyTheFirstSectionOfAChain) {
  write_file(path_, "[a]\nx = 1\n[b]\n");
  Sections chain = make_sections({{"a", {{"k", "v"}}}, {"rest", {}}});
  const Sections rest(chain->next);
  EXPECT_EQ(Set_Conf_File_Section(file_, "a", chain.get()), 0);
  EXPECT_EQ(chain->next, nullptr);
  EXPECT_EQ(content(), "[a]\nk = v\n\n[b]\n\n");
  EXPECT_EQ(shown(rest), "[rest]");
}

TEST_F(Section_Setting, KeepsThePermissionBits) {
  write_file(path_, "[a]\nx = 1\n");
  ASSERT_EQ(chmod(file_, 0600), 0);
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", one_section().get()), 0);
  EXPECT_EQ(mode_of(path_), 0600u);
}

TEST_F(Section_Setting, AFailureToReadIsLoggedAndGivesTheLockBack) {
  const Sections section = one_section();
  ASSERT_EQ(mkdir(file_, 0700), 0);
  EXPECT_EQ(Set_Conf_File_Section(file_, "n", section.get()), -ENOMEDIUM);
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(Field(&Log_Line::function, "Cache_Conf_File"), Field(&Log_Line::function, "Read_Conf_File"),
                  debug_line("Set_Conf_File_Section", "Can't parse the conf file " + path_ + " error! (-123)")));
}

TEST_F(Section_Setting, AFailureToWriteIsLoggedAndLeavesTheSectionToTheCaller) {
  Small_Disk disk;
  const std::string path = disk / "y.conf";
  write_file(path, "[a]\nx = 1\n[n]\nold = 1\n[z]\n");
  const File_State old = state_of(path);
  make_read_only(disk.path());
  for (const char *name : {"a", "n", "new"}) {
    log_.clear();
    const Sections section = one_section(name);
    EXPECT_EQ(Set_Conf_File_Section(path.c_str(), name, section.get()), -EROFS);
    EXPECT_EQ(section->next, nullptr);
    EXPECT_EQ(shown(section), std::string("[") + name + "]k=v;");
    EXPECT_FALSE(exists(owned_lock("y.conf")));
    EXPECT_EQ(state_of(path), old);
    EXPECT_THAT(
        log_.lines(),
        ElementsAre(Field(&Log_Line::function, "Write_Conf_File"), Field(&Log_Line::function, "Update_Conf_File"),
                    debug_line("Set_Conf_File_Section", "Can't update the conf file \"" + path + "\" error! (-30)")));
  }
}

TEST_F(Section_Setting, WithoutMemoryLosesNoSection) {
  const Sections section = one_section();
  const auto set = [&] { return Set_Conf_File_Section(file_, "n", section.get()); };
  expect_whole_or_nothing_without_memory(
      path_, {"[a]\nx = 1\n[b]\ny = 2\n[n]\n[c]\n", "[a]\nx = 1\n\n[b]\ny = 2\n\n[n]\nk = v\n\n[c]\n\n", set}, 8);
  EXPECT_EQ(section->next, nullptr);
  expect_whole_or_nothing_without_memory(
      path_, {"[a]\nx = 1\n[b]\ny = 2\n", "[a]\nx = 1\n\n[b]\ny = 2\n\n[n]\nk = v\n\n", set}, 7);
  EXPECT_EQ(section->next, nullptr);
  expect_whole_or_nothing_without_memory(
      path_, {"[a]\nx = 1\n[b]\ny = 2\n", "[b]\ny = 2\n\n", [&] { return Set_Conf_File_Section(file_, "a", nullptr); }},
      7);
  expect_whole_or_nothing_without_memory(path_, {std::nullopt, "[n]\nk = v\n\n", set}, 1);
  EXPECT_EQ(shown(section), "[n]k=v;");
}

// ----------------------------------------------------------------------------------------- merging pairs into a
// section

using Section_Merging = Conf_File;

TEST_F(Section_Merging, RefusesAMissingArgument) {
  write_file(path_, "[a]\nx = 1\n");
  const File_State old = state_of(path_);
  const Sections section = one_section();
  EXPECT_EQ(Update_Conf_File_Section(nullptr, "a", section.get()), -EINVAL);
  EXPECT_EQ(Update_Conf_File_Section(file_, nullptr, section.get()), -EINVAL);
  EXPECT_EQ(Update_Conf_File_Section(file_, "a", nullptr), -EINVAL);
  expect_untouched(old);
}

TEST_F(Section_Merging, OverwritesAppendsAndRemovesKeys) {
  write_file(path_, "z = 0\n[a]\nx = 1\ny = 2\nw = 3\n[b]\nx = 4\n[a]\nx = 5\n");
  const ino_t inode = inode_of(path_);
  const Sections section = make_sections(
      {{"name that is not used", {{"w", "a longer value"}, {"x", std::nullopt}, {"new", ""}, {"y", "-"}}}});
  const std::string before = shown(section);
  EXPECT_EQ(Update_Conf_File_Section(file_, "a", section.get()), 0);
  EXPECT_EQ(content(), "z = 0\n\n[a]\ny = -\nw = a longer value\nnew = \n\n[b]\nx = 4\n\n[a]\nx = 5\n\n");
  EXPECT_EQ(shown(section), before);
  EXPECT_NE(inode_of(path_), inode);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Section_Merging, ReachesTheNamelessSection) {
  write_file(path_, "z = 0\n[a]\n");
  EXPECT_EQ(Update_Conf_File_Section(file_, "", one_section().get()), 0);
  EXPECT_EQ(content(), "z = 0\nk = v\n\n[a]\n\n");
}

TEST_F(Section_Merging, WithoutPairsRewritesTheFile) {
  write_file(path_, "# comment\n[a]\n  x=1\n");
  const ino_t inode = inode_of(path_);
  const Sections section = make_sections({{"a", {}}});
  EXPECT_EQ(Update_Conf_File_Section(file_, "a", section.get()), 0);
  EXPECT_EQ(content(), "[a]\nx = 1\n\n");
  EXPECT_NE(inode_of(path_), inode);
}

TEST_F(Section_Merging, RemovingKeysThatAreMissingIsNoFailure) {
  write_file(path_, "[a]\nx = 1\n");
  const Sections section = make_sections({{"a", {{"missing", std::nullopt}}}});
  EXPECT_EQ(Update_Conf_File_Section(file_, "a", section.get()), 0);
  EXPECT_EQ(content(), "[a]\nx = 1\n\n");
}

TEST_F(Section_Merging, AMissingFileIsLogged) {
  EXPECT_EQ(Update_Conf_File_Section(file_, "a", one_section().get()), -ENOENT);
  expect_untouched({});
  EXPECT_THAT(log_.lines(), ElementsAre(debug_line("Update_Conf_File_Section",
                                                   "Can't parse the conf file " + path_ + " error! (-2)")));
}

TEST_F(Section_Merging, AMissingSectionWritesNothing) {
  for (const char *text : {"[a]\nx = 1\n", "# only\n", ""}) {
    write_file(path_, text);
    const File_State old = state_of(path_);
    EXPECT_EQ(Update_Conf_File_Section(file_, "n", one_section().get()), -ENOANO);
    expect_untouched(old);
  }
}

TEST_F(Section_Merging, AFailureToWriteIsLogged) {
  Small_Disk disk;
  const std::string path = disk / "y.conf";
  write_file(path, "[n]\nx = 1\n");
  const File_State old = state_of(path);
  disk.fill();
  EXPECT_EQ(Update_Conf_File_Section(path.c_str(), "n", one_section().get()), -ENOSPC);
  EXPECT_EQ(state_of(path), old);
  EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", "y.conf"));
  EXPECT_FALSE(exists(owned_lock("y.conf")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(Field(&Log_Line::function, "Write_Conf_File"), Field(&Log_Line::function, "Update_Conf_File"),
                  debug_line("Update_Conf_File_Section", "Can't update the conf file \"" + path + "\" error! (-28)")));
}

TEST_F(Section_Merging, WithoutMemoryLosesNothingAndSaysWhichPair) {
  const Sections section = make_sections({{"", {{"x", "longer"}, {"new", "value"}}}});
  expect_whole_or_nothing_without_memory(path_,
                                         {"[a]\nx = 1\n[b]\ny = 2\n", "[a]\nx = longer\nnew = value\n\n[b]\ny = 2\n\n",
                                          [&] { return Update_Conf_File_Section(file_, "a", section.get()); }},
                                         9);
  EXPECT_EQ(shown(section), "[]x=longer;new=value;");
  EXPECT_THAT(log_.lines(),
              AllOf(Contains(error_line("Update_Conf_File_Section", "Can't set pair string x longer! (-12)")),
                    Contains(error_line("Update_Conf_File_Section", "Can't set pair string new value! (-12)"))));
}

// ------------------------------------------------------------------------------------- setting keys, whatever is there

using Pair_Setting = Conf_File;

TEST_F(Pair_Setting, RefusesAMissingArgument) {
  write_file(path_, "[a]\nx = 1\n");
  const File_State old = state_of(path_);
  const Pairs pairs = make_pairs({{"k", "v"}});
  EXPECT_EQ(Set_Conf_File_Pair_Values(nullptr, "a", pairs.get()), -EINVAL);
  EXPECT_EQ(Set_Conf_File_Pair_Values(file_, nullptr, pairs.get()), -EINVAL);
  EXPECT_EQ(Set_Conf_File_Pair_Values(file_, "a", nullptr), -EINVAL);
  expect_untouched(old);
}

struct Pair_Setting_Case {
  const char *name;
  std::optional<std::string> before;
  std::string section;
  std::vector<Pair_Text> pairs;
  std::string after;
};

std::ostream &operator<<(std::ostream &out, const Pair_Setting_Case &setting) {
  return out << setting.name;
}

class Pair_Settings : public Conf_File, public testing::WithParamInterface<Pair_Setting_Case> {};

TEST_P(Pair_Settings, GiveTheFile) {
  const Pair_Setting_Case &setting = GetParam();
  restore(path_, setting.before);
  const Pairs pairs = make_pairs(setting.pairs);
  const std::string given = shown(pairs);
  EXPECT_EQ(Set_Conf_File_Pair_Values(file_, setting.section.c_str(), pairs.get()), 0);
  EXPECT_EQ(content(), setting.after);
  EXPECT_EQ(shown(pairs), given);
  EXPECT_THAT(names_in(folder_.path()), ElementsAre("x.conf"));
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

const std::vector<Pair_Text> two_pairs = {{"k", "v"}, {"l", "w"}};

INSTANTIATE_TEST_SUITE_P(
    Files, Pair_Settings,
    testing::Values(
        Pair_Setting_Case{"MissingFile", std::nullopt, "s", two_pairs, "[s]\nk = v\nl = w\n\n"},
        Pair_Setting_Case{
            "MissingFileRepeatedKeys", std::nullopt, "s", {{"k", "1"}, {"k", "2"}}, "[s]\nk = 1\nk = 2\n\n"},
        Pair_Setting_Case{"MissingFileNamelessSection", std::nullopt, "", two_pairs, "k = v\nl = w\n\n"},
        Pair_Setting_Case{"EmptyFile", "", "s", two_pairs, "[s]\nk = v\nl = w\n\n"},
        Pair_Setting_Case{"CommentsOnly", "# c\n; d\n", "s", two_pairs, "[s]\nk = v\nl = w\n\n"},
        Pair_Setting_Case{"ExistingKeys", "[s]\nl = 1\nx = 2\nk = 3\n", "s", two_pairs, "[s]\nl = w\nx = 2\nk = v\n\n"},
        Pair_Setting_Case{"NewKeys", "[s]\nx = 2\n[t]\n", "s", two_pairs, "[s]\nx = 2\nk = v\nl = w\n\n[t]\n\n"},
        Pair_Setting_Case{"MissingSection", "[t]\nx = 1\n", "s", two_pairs, "[t]\nx = 1\n\n[s]\nk = v\nl = w\n\n"},
        Pair_Setting_Case{"RepeatedKeysMerge", "[s]\n", "s", {{"k", "1"}, {"k", "2"}}, "[s]\nk = 2\n\n"},
        Pair_Setting_Case{"RemovedKey", "[s]\nk = 1\nx = 2\n", "s", {{"k", std::nullopt}}, "[s]\nx = 2\n\n"},
        Pair_Setting_Case{"RemovedFromMissingSection", "[t]\n", "s", {{"k", std::nullopt}}, "[t]\n\n"},
        Pair_Setting_Case{"RemovedFromMissingNamelessSection", "[t]\n", "", {{"k", std::nullopt}}, "[t]\n\n"},
        Pair_Setting_Case{"SectionBehindOnlyNamelessPairs", "x = 1\n", "s", two_pairs,
                          "x = 1\n\n[s]\nk = v\nl = w\n\n"},
        Pair_Setting_Case{"NamelessSectionThatIsThere", "x = 1\n[t]\n", "", two_pairs,
                          "x = 1\nk = v\nl = w\n\n[t]\n\n"},
        // At the end of the file, the nameless pairs would belong to the last section.
        Pair_Setting_Case{"NamelessSectionIsPutFirst", "[t]\nx = 1\n", "", two_pairs, "k = v\nl = w\n\n[t]\nx = 1\n\n"},
        Pair_Setting_Case{"CommentsAreLost", "# c\n[s]\n; d\n  k=1 \n", "s", {{"k", "2"}}, "[s]\nk = 2\n\n"}),
    [](const auto &instance) { return std::string(instance.param.name); });

TEST_F(Pair_Setting, APairWithoutValueWritesNothingToAFileWithoutSections) {
  const Pairs pairs = make_pairs({{"k", "v"}, {"gone", std::nullopt}});
  for (const bool missing : {true, false}) {
    if (!missing) write_file(path_, "# only\n");
    log_.clear();
    const File_State old = state_of(path_);
    EXPECT_EQ(Set_Conf_File_Pair_Values(file_, "s", pairs.get()), 0);
    expect_untouched(old);
    EXPECT_THAT(log_.lines(), ElementsAre(line_like("debug", "Set_Conf_File_Pair_Values",
                                                    "Can't create a pair node error! \\(-22, gone, .*\\)")));
  }
}

TEST_F(Pair_Setting, KeepsThePermissionBits) {
  write_file(path_, "[a]\nx = 1\n");
  ASSERT_EQ(chmod(file_, 0600), 0);
  EXPECT_EQ(Set_Conf_File_Pair_Values(file_, "s", make_pairs(two_pairs).get()), 0);
  EXPECT_EQ(mode_of(path_), 0600u);
}

TEST_F(Pair_Setting, AnswersZeroThoughTheFileCannotBeRead) {
  ASSERT_EQ(mkdir(file_, 0700), 0);
  EXPECT_EQ(Set_Conf_File_Pair_Values(file_, "s", make_pairs(two_pairs).get()), 0);
  EXPECT_FALSE(exists(owned_lock("x.conf")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(Field(&Log_Line::function, "Cache_Conf_File"), Field(&Log_Line::function, "Read_Conf_File"),
                  debug_line("Set_Conf_File_Pair_Values", "Can't parse the conf file " + path_ + " error! (-123)")));
}

TEST_F(Pair_Setting, AnswersZeroThoughTheFileCannotBeWritten) {
  Small_Disk disk;
  const std::string path = disk / "y.conf";
  write_file(path, "[s]\nx = 1\n");
  const File_State old = state_of(path);
  disk.fill();
  EXPECT_EQ(Set_Conf_File_Pair_Values(path.c_str(), "s", make_pairs(two_pairs).get()), 0);
  EXPECT_EQ(state_of(path), old);
  EXPECT_THAT(names_in(disk.path()), ElementsAre("filler", "y.conf"));
  EXPECT_FALSE(exists(owned_lock("y.conf")));
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(Field(&Log_Line::function, "Write_Conf_File"), Field(&Log_Line::function, "Update_Conf_File"),
                  debug_line("Set_Conf_File_Pair_Values", "Can't update the conf file \"" + path + "\" error! (-28)")));
}

TEST_F(Pair_Setting, WithoutMemoryWritesNothingToAnExistingFile) {
  const Pairs pairs = make_pairs({{"x", "longer"}, {"new", "value"}});
  expect_whole_or_nothing_without_memory(path_,
                                         {"[a]\nx = 1\n[b]\ny = 2\n", "[a]\nx = longer\nnew = value\n\n[b]\ny = 2\n\n",
                                          [&] { return Set_Conf_File_Pair_Values(file_, "a", pairs.get()); }, true},
                                         9);
  EXPECT_THAT(log_.lines(),
              AllOf(Contains(line_like("debug", "Set_Conf_File_Pair_Values",
                                       "Can't set conf string 0x[0-9a-f]+/a/x/longer error! \\(-12\\)")),
                    Contains(line_like("debug", "Set_Conf_File_Pair_Values",
                                       "Can't set conf string 0x[0-9a-f]+/a/new/value error! \\(-12\\)"))));
}

TEST_F(Pair_Setting, WithoutMemoryWritesNoHalfFile) {
  const Pairs pairs = make_pairs(two_pairs);
  expect_whole_or_nothing_without_memory(
      path_,
      {std::nullopt, "[s]\nk = v\nl = w\n\n", [&] { return Set_Conf_File_Pair_Values(file_, "s", pairs.get()); }, true},
      3);
  EXPECT_THAT(log_.lines(),
              AllOf(Contains(debug_line("Set_Conf_File_Pair_Values", "Can'r create a sect node error! (-12, s)")),
                    Contains(debug_line("Set_Conf_File_Pair_Values", "Can't create a pair node error! (-12, k, v)")),
                    Contains(debug_line("Set_Conf_File_Pair_Values", "Can't create a pair node error! (-12, l, w)"))));
}

TEST_F(Pair_Setting, WithoutMemoryTheNamelessSectionIsNotLost) {
  const Pairs pairs = make_pairs(two_pairs);
  expect_whole_or_nothing_without_memory(path_,
                                         {"[t]\nx = 1\n", "k = v\nl = w\n\n[t]\nx = 1\n\n",
                                          [&] { return Set_Conf_File_Pair_Values(file_, "", pairs.get()); }, true},
                                         7);
}

// ------------------------------------------------------------------------------------------------- readers and writers

TEST(Concurrency, AReaderWithoutLockSeesTheOldFileOrTheNewOne) {
  const Temporary_Folder disk;
  const std::string path = disk / "x.conf";
  const Sections small = make_sections({{"s", {{"k", "1"}}}});
  std::vector<Section_Text> texts;
  for (int i = 0; i < 500; ++i) texts.push_back({"section" + std::to_string(i), {{"key", std::string(100, 'v')}}});
  const Sections large = make_sections(texts);
  ASSERT_EQ(Update_Conf_File(path.c_str(), small.get()), 0);
  std::atomic<bool> done = false;
  std::atomic<int> failures = 0;
  std::thread writer([&] {
    for (int i = 0; i < 1000; ++i) {
      if (Update_Conf_File(path.c_str(), i % 2 == 0 ? large.get() : small.get()) != 0) ++failures;
    }
    done = true;
  });
  std::set<std::string> seen;
  std::set<int> counts;
  while (!done) {
    const Read result = read(path.c_str());
    counts.insert(result.status);
    seen.insert(shown(result.sections));
  }
  writer.join();
  EXPECT_EQ(failures, 0);
  EXPECT_THAT(counts, testing::IsSubsetOf({1, 500}));
  for (const std::string &chain : seen) EXPECT_TRUE(chain == shown(small) || chain == shown(large)) << chain;
}

TEST(Concurrency, WritersOfOneFileLoseNothingOfEachOther) {
  const Temporary_Folder disk;
  const std::string path = disk / "shared.conf";
  write_file(path, "[a]\n");
  std::atomic<int> failures = 0;
  const auto write_keys = [&](const std::string &writer, int count) {
    for (int i = 0; i < count; ++i) {
      const std::string key = writer + std::to_string(i);
      const Sections section = one_section("s" + key, "k", "v");
      const Pairs pair = make_pairs({{key, "1"}});
      if (Set_Conf_File_Section(path.c_str(), section->name, section.get()) != 0) ++failures;
      if (Set_Conf_File_Pair_Values(path.c_str(), "pairs", pair.get()) != 0) ++failures;
      if (Update_Conf_File_Section(path.c_str(), "a", make_sections({{"", {{key, "1"}}}}).get()) != 0) ++failures;
      if (Set_Conf_File_String_Value(path.c_str(), "values", key.c_str(), "1") != 0) ++failures;
    }
  };
  std::vector<std::thread> threads;
  for (const char *writer : {"p", "q", "r"}) threads.emplace_back(write_keys, writer, 8);
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  const Read result = read(path.c_str());
  EXPECT_EQ(result.status, 3 + 24);
  for (const std::string writer : {"p", "q", "r"}) {
    for (int i = 0; i < 8; ++i) {
      const std::string key = writer + std::to_string(i);
      const char *value = nullptr;
      EXPECT_EQ(Get_Conf_String_Pointer(result.sections.get(), ("s" + key).c_str(), "k", &value), 0) << key;
      for (const char *section : {"a", "pairs", "values"}) {
        EXPECT_EQ(Get_Conf_String_Pointer(result.sections.get(), section, key.c_str(), &value), 0) << section << key;
      }
    }
  }
  EXPECT_THAT(names_in(disk.path()), ElementsAre("shared.conf"));
  EXPECT_FALSE(exists(owned_lock("shared.conf")));
}

TEST(Concurrency, ProcessesLoseNothingOfEachOther) {
  const Temporary_Folder folder;
  const std::string path = folder / "processes.conf";
  std::vector<pid_t> children;
  for (int child = 0; child < 3; ++child) {
    children.push_back(fork());
    ASSERT_GE(children.back(), 0);
    if (children.back() > 0) continue;
    int failures = 0;
    for (int i = 0; i < 10; ++i) {
      const std::string key = std::to_string(child) + "-" + std::to_string(i);
      if (Set_Conf_File_String_Value(path.c_str(), "a", key.c_str(), "v") != 0) ++failures;
    }
    _exit(failures);
  }
  for (const pid_t child : children) {
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  const Read result = get(path.c_str(), "a");
  ASSERT_EQ(result.status, 0);
  int pairs = 0;
  for (const Pair_Node *pair = result.sections->pairs; pair != nullptr; pair = pair->next) ++pairs;
  EXPECT_EQ(pairs, 30);
}

}  // namespace
}  // namespace tarn::test

// Any bytes as an owned or a foreign lock file, and other things than files at its path: one look at it decides as the
// protocol says and leaves nothing else in the lock folder. The input is the lock file's content, then the options.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "include/tarncluster_util.h"
#include "tests/support/files.h"

namespace tarn::fuzz {
namespace {

const std::string lock_folder = "/var/lock";
constexpr size_t record_size = 16;
constexpr uint64_t stale_age_ms = 599999;
constexpr size_t longest_path = 255;

enum class Thing { file, fifo, folder, link, dangling_link, kMaxValue = dangling_link };

// --------------------------------------------------------------------------------------------------- the protocol,
// again

int64_t stamp_in(const std::string &content) {
  int64_t stamp;
  memcpy(&stamp, content.data(), sizeof stamp);
  return stamp;
}

int pid_in(const std::string &content) {
  int pid;
  memcpy(&pid, content.data() + 8, sizeof pid);
  return pid;
}

bool is_alive(int pid) {
  return pid > 0 && access(("/proc/" + std::to_string(pid)).c_str(), F_OK) == 0;
}

bool is_stale_at(uint64_t now, const std::string &content) {
  return !is_alive(pid_in(content)) || now - static_cast<uint64_t>(stamp_in(content)) > stale_age_ms;
}

enum class Verdict {
  kept,
  removed,
  open  // the clock passed the limit during the call
};

// Anything but a file with a whole record is watched for two seconds before it goes, and nobody waits for that here.
Verdict verdict(Thing thing, const std::string &content, uint64_t before, uint64_t after) {
  if (thing != Thing::file || content.size() < record_size) return Verdict::kept;
  const bool stale = is_stale_at(before, content);
  if (stale != is_stale_at(after, content)) return Verdict::open;
  return stale ? Verdict::removed : Verdict::kept;
}

// ------------------------------------------------------------------------------------------------------ the lock
// folder

void empty_lock_folder() {
  for (const auto &entry : std::filesystem::directory_iterator(lock_folder)) std::filesystem::remove_all(entry);
}

void put(Thing thing, const std::string &path, const std::string &content) {
  switch (thing) {
    case Thing::file:
      test::write_file(path, content);
      break;
    case Thing::fifo:
      REQUIRE_EQUAL(mkfifo(path.c_str(), 0600), 0);
      break;
    case Thing::folder:
      REQUIRE_EQUAL(mkdir(path.c_str(), 0700), 0);
      break;
    case Thing::link:
      REQUIRE_EQUAL(symlink("/dev/zero", path.c_str()), 0);  // would read as a record of zeroes
      break;
    case Thing::dangling_link:
      REQUIRE_EQUAL(symlink("/nowhere", path.c_str()), 0);
      break;
  }
}

void require_only(const std::string &name) {
  for (const std::string &found : test::names_in(lock_folder)) REQUIRE_EQUAL(found, name);
}

struct Case {
  Thing thing;
  std::string content;
  std::string base_name;

  std::string path() const { return "/some/where/" + base_name; }
};

void require_untouched(const Case &c, const std::string &lock_path, ino_t inode) {
  REQUIRE(test::exists(lock_path));
  REQUIRE_EQUAL(test::inode_of(lock_path), inode);
  if (c.thing == Thing::file) REQUIRE_EQUAL(test::read_file(lock_path), c.content);
}

void require_own_lock(const std::string &lock_path, uint64_t before, uint64_t after) {
  const std::string record = test::read_file(lock_path);
  REQUIRE_EQUAL(record.size(), record_size);
  REQUIRE_EQUAL(pid_in(record), getpid());
  REQUIRE_EQUAL(record.substr(12), std::string(4, '\0'));
  const auto stamp = static_cast<uint64_t>(stamp_in(record));
  REQUIRE(before <= stamp && stamp <= after);
}

void check_owned(const Case &c) {
  const std::string lock_name = "_" + c.base_name + ".lck";
  const std::string lock_path = lock_folder + "/" + lock_name;
  put(c.thing, lock_path, c.content);
  const ino_t inode = test::inode_of(lock_path);

  const uint64_t before = Rough_Tick();
  const int taken = Get_File_Lock(c.path().c_str(), 0);
  const uint64_t after = Rough_Tick();
  require_only(lock_name);
  const Verdict expected = verdict(c.thing, c.content, before, after);
  if (expected != Verdict::open) REQUIRE_EQUAL(taken, expected == Verdict::removed ? 1 : 0);
  if (taken == 0) {
    require_untouched(c, lock_path, inode);
    return;
  }
  require_own_lock(lock_path, before, after);
  REQUIRE_EQUAL(Release_File_Lock(c.path().c_str()), 1);
  REQUIRE(test::names_in(lock_folder).empty());
}

void check_foreign(const Case &c) {
  const std::string lock_name = c.base_name + ".lck";
  const std::string lock_path = lock_folder + "/" + lock_name;
  put(c.thing, lock_path, c.content);
  const ino_t inode = test::inode_of(lock_path);

  const uint64_t before = Rough_Tick();
  REQUIRE_EQUAL(Check_File_Lock(c.path().c_str(), 0), 0);
  const Verdict expected = verdict(c.thing, c.content, before, Rough_Tick());
  require_only(lock_name);
  if (expected == Verdict::kept) require_untouched(c, lock_path, inode);
  if (expected == Verdict::removed) REQUIRE(!test::exists(lock_path));
}

void check_long_name(const Case &c) {
  REQUIRE_EQUAL(Get_File_Lock(c.path().c_str(), 0), 0);
  REQUIRE_EQUAL(Check_File_Lock(c.path().c_str(), 0), 0);
  REQUIRE_EQUAL(Release_File_Lock(c.path().c_str()), 1);
  REQUIRE(test::names_in(lock_folder).empty());
}

std::string base_name_of(const std::string &text) {
  const std::string c_text = text.c_str();
  return c_text.substr(c_text.rfind('/') + 1);
}

// A record whose owner may live and whose age may be near the limit, which no chance finds.
std::string likely_record(FuzzedDataProvider *input) {
  const int pid = input->PickValueInArray({getpid(), 1, 0, -1, input->ConsumeIntegral<int>()});
  const int64_t age = input->PickValueInArray<int64_t>({0, 1000, 590000, 599000, 601000, -1000, INT64_MAX, INT64_MIN});
  return test::lock_record(static_cast<int64_t>(Rough_Tick() - static_cast<uint64_t>(age)), pid);
}

}  // namespace
}  // namespace tarn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using namespace tarn::fuzz;
  FuzzedDataProvider input(data, size);
  const bool is_foreign = input.ConsumeBool();
  // Most often a file: the other things are soon seen through.
  const Thing thing = input.ConsumeIntegralInRange(0, 7) != 0 ? Thing::file : input.ConsumeEnum<Thing>();
  const std::string record = input.ConsumeBool() ? likely_record(&input) : "";
  const bool has_any_name = input.ConsumeBool();
  const std::string base_name = has_any_name ? base_name_of(input.ConsumeRandomLengthString(300)) : "x.conf";
  const Case c = {thing, record + input.ConsumeRemainingBytesAsString(), base_name};

  empty_lock_folder();
  if (lock_folder.size() + strlen("/_.lck") + base_name.size() > longest_path) {
    check_long_name(c);
  } else if (is_foreign) {
    check_foreign(c);
  } else {
    check_owned(c);
  }
  return 0;
}

// Listing the shared folders of an appliance that has many, with settings of each.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench/support/sample_files.h"
#include "bench/support/turns.h"
#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"

namespace tarn::bench {
namespace {

constexpr char volume[] = "/share/VOLUME_DATA";
constexpr char settings_folder[] = "/etc/config";
constexpr char settings_name[] = "smb.conf";
constexpr char settings[] = "/etc/config/smb.conf";

std::string share_name(int number) {
  char name[32];
  snprintf(name, sizeof name, "share%05d", number);
  return name;
}

// As a file server writes them; "browsable" is looked for first, so each share takes two looks at the file.
std::string settings_text(int count) {
  std::string text;
  for (int i = 0; i < count; ++i) {
    const std::string name = share_name(i);
    text += "[" + name + "]\npath = " + volume + "/" + name +
            "\ncomment = of the benchmark\nbrowseable = yes\nwritable = yes\nguest ok = no\n\n";
  }
  return text;
}

// Folders on a volume with a link to each.
class Shares {
 public:
  explicit Shares(int count) : count_(count) {
    mkdir(volume, 0755);
    for (int i = 0; i < count_; ++i) {
      const std::string name = share_name(i);
      mkdir((std::string(volume) + "/" + name).c_str(), 0755);
      if (symlink(("VOLUME_DATA/" + name).c_str(), ("/share/" + name).c_str()) != 0) perror(name.c_str());
    }
  }
  ~Shares() {
    for (int i = 0; i < count_; ++i) unlink(("/share/" + share_name(i)).c_str());
    Remove_Folder_Tree(volume, nullptr);
  }
  Shares(const Shares &) = delete;
  Shares &operator=(const Shares &) = delete;

 private:
  const int count_;
};

bool scan(int count) {
  Share_Info *list = nullptr;
  int found = 0;
  const bool good = Scan_Share_List(&list, &found) == 0 && found == count;
  Release_Share_List(&list);
  return good;
}

bool look_up(const char *name) {
  char value[32];
  int size = sizeof value;
  if (Get_Conf_File_String_Value(settings, name, "browsable", value, &size) != -ENODATA) return false;
  size = sizeof value;
  return Get_Conf_File_String_Value(settings, name, "browseable", value, &size) == 0;
}

// The folder and two calls for each link; with the look-ups, or without.
bool call_for_each(int count, bool with_look_ups) {
  const std::unique_ptr<DIR, Give_Back<closedir>> folder(opendir("/share/"));
  int found = 0;
  while (const dirent *entry = readdir(folder.get())) {
    if (entry->d_type != DT_LNK) continue;
    const std::string path = std::string("/share/") + entry->d_name;
    struct stat status;
    struct statfs file_system;
    const bool good = stat(path.c_str(), &status) == 0 && statfs(path.c_str(), &file_system) == 0;
    if (good && (!with_look_ups || look_up(entry->d_name))) ++found;
  }
  return found == count;
}

bool look_up_each(int count) {
  bool good = true;
  for (int i = 0; i < count; ++i) good = look_up(share_name(i).c_str()) && good;
  return good;
}

bool is_safe(benchmark::State &state) {
  if (!test::on_a_throw_away_root()) state.SkipWithError("shares would be made on this machine");
  return test::on_a_throw_away_root();
}

void scan_shares(benchmark::State &state, int count) {
  if (!is_safe(state)) return;
  const Sample_File file(settings_folder, settings_name, settings_text(count));
  const Shares shares(count);
  take_turns(state, {{"ours", [&] { return scan(count); }},
                     {"calls", [&] { return call_for_each(count, true); }},
                     {"look_ups", [&] { return look_up_each(count); }}});
}

// Without settings a look-up ends at once: what is left is the list.
void scan_shares_without_settings(benchmark::State &state, int count) {
  if (!is_safe(state)) return;
  const Shares shares(count);
  take_turns(state, {{"ours", [&] { return scan(count); }}, {"calls", [&] { return call_for_each(count, false); }}});
}

constexpr int few = 5;

BENCHMARK_CAPTURE(scan_shares, 1000, 1000)->Iterations(1)->Repetitions(long_turns)->UseRealTime();
BENCHMARK_CAPTURE(scan_shares, 5000, 5000)->Iterations(1)->Repetitions(few)->UseRealTime();
BENCHMARK_CAPTURE(scan_shares_without_settings, 1000, 1000)->Iterations(turns)->Repetitions(few)->UseRealTime();
BENCHMARK_CAPTURE(scan_shares_without_settings, 10000, 10000)->Iterations(turns)->Repetitions(few)->UseRealTime();

}  // namespace
}  // namespace tarn::bench

#include "tests/faults/scenario.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tests/conf/chains.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

constexpr const char *lock_folder = "/var/lock";

std::string shown_records(const Tarn_Serv_Conf *record) {
  std::string text;
  for (; record != nullptr; record = record->next) {
    text += std::string(record->Name, strnlen(record->Name, sizeof record->Name)) + " ";
    text += std::to_string(record->fields) + " " + std::to_string(record->Status) + " " + record->Address + ";";
  }
  return text;
}

std::string shown_shares(const Tarn_Share_Conf *record) {
  const auto shown_list = [](const char *list) { return list != nullptr ? std::string("|") + list : "|"; };
  std::string text;
  for (; record != nullptr; record = record->next) {
    text += std::string(record->Name) + " " + std::to_string(record->fields) + shown_list(record->read_list);
    text += shown_list(record->write_list) + shown_list(record->invalid_users) + "|" + record->path + ";";
  }
  return text;
}

std::string shown_interfaces(const Net_Interface *record) {
  std::string text;
  for (; record != nullptr; record = record->next) {
    text += std::string(record->name) + " " + record->ipv4 + "/" + std::to_string(record->prefix);
    for (const Net_Ipv6_Addr *entry = record->ipv6; entry != nullptr; entry = entry->next) {
      text += std::string(" ") + entry->address + "/" + std::to_string(entry->prefix);
    }
    text += ";";
  }
  return text;
}

std::string shown_list(const Str_List *list) {
  std::string text = "list:";
  for (char *const *entry = list->pointers; *entry != nullptr; ++entry) text += std::string(*entry) + ";";
  return text;
}

// What has arrived at a socket; it stays there.
std::string arrived_at(const Descriptor &fd) {
  char text[65536];
  const ssize_t length = fd ? recv(fd.get(), text, sizeof text, MSG_PEEK | MSG_DONTWAIT) : 0;
  return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
}

void close_if_open(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

std::optional<std::string> content_of(const std::string &path) {
  if (!exists(path)) return {};
  return read_file(path);
}

// A call that could not remove something leaves it where it is: nothing can be done about that. A lock is taken away
// by the next who waits for it once its owner is gone, a temporary file by the next writer that uses its name, a claim
// by the next who waits for the same lock.
bool is_what_could_not_be_removed(const std::string &path, const Failure &failure) {
  return failure.call && failure.call->call == Call::unlink && fs::path(failure.call->path).filename() == path;
}

}  // namespace

World::World() : base_name("record.conf") {}

World::~World() {
  give_back();
}

std::string World::shown() const {
  std::string all = test::shown(sections) + test::shown(pairs) + shown_records(records) + shown_shares(shares);
  if (socket >= 0) all += "socket;";
  for (const int *fd = listening; *fd >= 0; ++fd) all += "listening;";
  if (context != nullptr) all += "context;";
  if (session.fd >= 0) all += session.ssl != nullptr && session.ctx != nullptr ? "TLS;" : "plain;";
  if (text != nullptr) all += text;
  if (found != nullptr) all += found;
  if (buffer[0] != '\0') all += std::string(buffer) + "/" + std::to_string(size);
  if (number != 0) all += std::to_string(number);
  if (stream != nullptr) all += "stream";
  if (log != nullptr) all += "log";
  if (list != nullptr) all += shown_list(list);
  if (traced != nullptr) all += "traced";
  if (pids != nullptr) all += std::to_string(pid_count) + " pids";
  if (pid >= 0) all += "pid " + std::to_string(pid);
  return all + shown_interfaces(interfaces) + arrived_at(far_end) + (peer != nullptr ? peer->received() : "");
}

void World::give_back() {
  Free_Sect_Node(std::exchange(sections, nullptr));
  Free_Pair_Node(std::exchange(pairs, nullptr));
  Release_Serv_List_Conf(std::exchange(records, nullptr));
  Release_Share_List_Conf(std::exchange(shares, nullptr));
  if (stream != nullptr) fclose(std::exchange(stream, nullptr));
  Simp_Log_Release(std::exchange(log, nullptr));
  free(std::exchange(text, nullptr));
  Free_Sect_Node(std::exchange(given_sections, nullptr));
  // This end of each connection before the other, which waits for its end.
  SSL_Socket_Destroy(&session, 1);
  CTX_Destroy(std::exchange(context, nullptr));
  close_if_open(&socket);
  for (int &fd : listening) close_if_open(&fd);
  given_fd = Descriptor();
  peer.reset();
  far_end = Descriptor();
  source_fd = Descriptor();
  Free_Network_Interface(std::exchange(interfaces, nullptr));
  Str_List_Free(std::exchange(list, nullptr));
  if (traced != nullptr) Trace_Mem_Free(std::exchange(traced, nullptr) + 4, "", 0);
  given_text = nullptr;
  found = nullptr;
  memset(buffer, 0, sizeof buffer);
  size = 0;
  number = 0;
  given_record = {};
  given_share = {};
  free(std::exchange(pids, nullptr));
  pid_count = 0;
  pid = -1;
}

Place place_of(const std::string &path, const World &world) {
  const fs::path folder = fs::path(path).parent_path();
  if (folder == lock_folder || folder == "/run/lock") return Place::lock;
  if (path == world.file) return Place::file;
  return path.starts_with(world.file + ".tmp") ? Place::temporary : Place::other;
}

void PrintTo(const Scenario &scenario, std::ostream *out) {
  *out << scenario.function << " " << scenario.situation;
}

std::string title(const Scenario &scenario) {
  std::string name = scenario.function;
  if (!scenario.situation.empty()) name += "_" + scenario.situation;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

Stage::Stage(const Scenario &scenario) : scenario_(scenario) {
  char name[] = "/tmp/tarn-faults-XXXXXX";
  if (mkdtemp(name) == nullptr) throw std::system_error(errno, std::generic_category(), name);
  world_.folder = name;
  world_.file = world_.folder + "/" + world_.base_name;
  world_.new_path = world_.folder + "/deep/er/x.log";
  world_.socket_path = world_.folder + "/socket";
  descriptors_ = open_descriptors();
  set();
}

Stage::~Stage() {
  world_.give_back();
  std::error_code ignored;
  fs::remove_all(world_.folder, ignored);
  for (const auto &entry : fs::directory_iterator(lock_folder)) fs::remove_all(entry.path(), ignored);
}

void Stage::set() {
  world_.give_back();
  for (const auto &entry : fs::directory_iterator(world_.folder)) fs::remove_all(entry.path());
  for (const auto &entry : fs::directory_iterator(lock_folder)) fs::remove_all(entry.path());
  if (scenario_.before) {
    write_file(world_.file, *scenario_.before);
    chmod(world_.path(), 0640);
  }
  if (scenario_.prepare) scenario_.prepare(world_);
  shown_before_ = world_.shown();
  names_before_ = names_in(world_.folder);
}

void Stage::expect_success(int status) {
  EXPECT_EQ(status, scenario_.success);
  EXPECT_EQ(world_.shown(), scenario_.result);
  expect_nothing_left(status, {});  // a stream that was handed out goes back first, with what it holds
  if (scenario_.promise != Promise::varies) {
    EXPECT_EQ(content_of(world_.file), scenario_.after);
  }
  if (scenario_.before && scenario_.after && scenario_.promise == Promise::whole) {
    EXPECT_EQ(mode_of(world_.file), 0640u);
  }
}

void Stage::expect_old_or_new(int status, const Failure &failure) {
  if (status != scenario_.success) {
    expect_failed(status, failure);
    return;
  }
  EXPECT_FALSE(must_be_told(failure)) << "a failure that nobody learns of";
  const std::string handed_out = world_.shown();
  if (!scenario_.lesser_results.empty()) {
    EXPECT_THAT(handed_out, testing::AnyOf(scenario_.result, testing::AnyOfArray(scenario_.lesser_results)));
    // Who tells that all is there has moved all.
    if (handed_out == scenario_.result) {
      EXPECT_EQ(content_of(world_.file), scenario_.after);
    }
  } else if (!scenario_.may_be_cut || failure.call) {
    EXPECT_EQ(handed_out, scenario_.result);
  } else {
    EXPECT_THAT(scenario_.result, testing::StartsWith(handed_out));
  }
  expect_nothing_left(status, failure);
  if (scenario_.promise == Promise::none || scenario_.promise == Promise::varies) return;
  const auto content = content_of(world_.file);
  if (!scenario_.silent) {
    EXPECT_EQ(content, scenario_.after);
  } else {
    EXPECT_THAT(content, testing::AnyOf(scenario_.before, scenario_.after));
  }
}

// Other failures may be made good on the way: a lock is tried again, a look at the old file's mode is dispensable.
bool Stage::must_be_told(const Failure &failure) const {
  const bool promised = scenario_.promise == Promise::whole || scenario_.promise == Promise::in_place;
  if (!failure.call || failure.error == short_transfer || scenario_.silent || !promised) return false;
  const Call call = failure.call->call;
  const Place place = place_of(failure.call->path, world_);
  if (place == Place::file && (call == Call::open || call == Call::read || call == Call::chmod)) return true;
  const Place written = scenario_.promise == Promise::in_place ? Place::file : Place::temporary;
  return scenario_.writes() && place == written && call != Call::stat && call != Call::unlink;
}

void Stage::expect_failed(int status, const Failure &failure) {
  if (!failure.call) {
    const auto is_it = [status](int expected) { return expected == any_error ? status < 0 : status == expected; };
    EXPECT_TRUE(std::any_of(scenario_.out_of_memory.begin(), scenario_.out_of_memory.end(), is_it)) << status;
  } else {
    // Half a transfer is no error by itself: who cannot go on with it calls it an input/output error.
    int expected = scenario_.answer.value_or(failure.error == short_transfer ? -EIO : -failure.error);
    for (const Answer &answer : scenario_.answers) {
      if (answer.call != failure.call->call || answer.place != place_of(failure.call->path, world_)) continue;
      if (answer.call == Call::read && failure.error == short_transfer) continue;
      expected = answer.status == positive_errno ? failure.error : answer.status;
    }
    if (failure.error == short_transfer && scenario_.half) expected = *scenario_.half;
    if (expected == any_error) {
      EXPECT_LT(status, 0);
    } else {
      EXPECT_EQ(status, expected);
    }
  }
  if (!scenario_.may_be_cut) {
    EXPECT_EQ(world_.shown(), shown_before_);
  }
  expect_nothing_left(status, failure);
  if (scenario_.promise == Promise::none || scenario_.promise == Promise::varies) return;
  const auto content = content_of(world_.file);
  const bool replaced = failure.call && failure.call->call == Call::chmod;  // comes behind the renaming
  if (scenario_.promise == Promise::in_place && !content) return;
  EXPECT_EQ(content, replaced ? scenario_.after : scenario_.before);
}

void Stage::expect_nothing_left(int status, const Failure &failure) {
  world_.give_back();
  if (failure.call && failure.call->call == scenario_.leaves_open) ++descriptors_;
  EXPECT_EQ(open_descriptors(), descriptors_);
  for (const std::string &name : names_in(world_.folder)) {
    if (name == world_.base_name || is_what_could_not_be_removed(name, failure)) continue;
    // Only who holds the lock may clear away what a dead process has left.
    const bool refused = status != scenario_.success && status == scenario_.without_lock;
    if (refused && std::count(names_before_.begin(), names_before_.end(), name) != 0) continue;
    EXPECT_THAT(scenario_.also_made, testing::Contains(name)) << "left in the folder";
  }
  const std::string lock = fs::path(owned_lock(world_.base_name)).filename();
  for (const std::string &name : names_in(lock_folder)) {
    if (is_what_could_not_be_removed(name, failure) || scenario_.stale_lock_may_stay) continue;
    EXPECT_TRUE(name == lock && scenario_.keeps_lock && status == scenario_.success) << "left: " << name;
  }
  if (scenario_.keeps_lock) {
    EXPECT_EQ(exists(owned_lock(world_.base_name)), status == scenario_.success);
  }
}

void expect_no_leak() {
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0);
#endif
}

}  // namespace tarn::test

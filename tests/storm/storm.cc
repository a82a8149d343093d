#include "tests/storm/storm.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "include/tarncluster_util.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace tarn::test {
namespace {

uint64_t seed = 0;

uint64_t number_from_environment(const char *name, uint64_t otherwise) {
  const char *text = getenv(name);
  return text != nullptr && *text != '\0' ? strtoull(text, nullptr, 10) : otherwise;
}

void choose_seed(int count, char **arguments) {
  seed = number_from_environment("TARN_STORM_SEED", std::random_device()());
  for (int i = 1; i + 1 < count; ++i) {
    if (strcmp(arguments[i], "--seed") == 0) seed = strtoull(arguments[i + 1], nullptr, 10);
  }
  printf("storm: seed %llu (again: --seed or TARN_STORM_SEED), scale %d (TARN_STORM_SCALE)\n",
         static_cast<unsigned long long>(seed), scaled(1));
}

pid_t owner_in(const std::string &lock_path) {
  const int fd = open(lock_path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char record[16];
  int owner = 0;
  if (read(fd, record, sizeof record) == sizeof record) memcpy(&owner, record + 8, sizeof owner);
  close(fd);
  return owner;
}

}  // namespace

uint64_t storm_seed() {
  return seed;
}

int scaled(int amount) {
  return amount * static_cast<int>(number_from_environment("TARN_STORM_SCALE", 1));
}

Crew::Crew(int count, Work work, Work on_death)
    : work_(std::move(work)), on_death_(std::move(on_death)), workers_(static_cast<size_t>(count)) {
  for (int i = 0; i < count; ++i) start(i);
}

Crew::~Crew() {
  for (const pid_t worker : workers_) {
    if (worker == 0) continue;
    kill(worker, SIGKILL);
    waitpid(worker, nullptr, 0);
  }
}

void Crew::start(int number) {
  fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t worker = fork();
  if (worker < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (worker == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    work_(number);
    fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  workers_[static_cast<size_t>(number)] = worker;
}

void Crew::note_end(int number, int status) {
  workers_[static_cast<size_t>(number)] = 0;
  if (WIFEXITED(status)) {
    EXPECT_EQ(WEXITSTATUS(status), 0) << "worker " << number << " failed";
    return;
  }
  EXPECT_EQ(WTERMSIG(status), SIGKILL) << "worker " << number;
  ++kills_;
  on_death_(number);
  start(number);
}

bool Crew::is_at_work() {
  bool is_at_work = false;
  for (int i = 0; i < size(); ++i) {
    const pid_t worker = workers_[static_cast<size_t>(i)];
    int status = 0;
    if (worker != 0 && waitpid(worker, &status, WNOHANG) == worker) note_end(i, status);
    is_at_work = is_at_work || workers_[static_cast<size_t>(i)] != 0;
  }
  return is_at_work;
}

void Crew::wait() {
  while (is_at_work()) usleep(5000);
}

// A dead process counts as the lock's living owner until it has been waited for.
void Crew::kill_worker(int number) {
  const pid_t worker = workers_[static_cast<size_t>(number)];
  if (worker == 0) return;
  kill(worker, SIGKILL);
  int status = 0;
  if (waitpid(worker, &status, 0) == worker) note_end(number, status);
}

void Crew::kill_holder_of(const std::string &lock_path) {
  const pid_t owner = owner_in(lock_path);
  for (int i = 0; i < size(); ++i) {
    if (owner != 0 && workers_[static_cast<size_t>(i)] == owner) kill_worker(i);
  }
}

void rage(Crew *crew, Dice *dice, const std::vector<std::string> &lock_paths, int kills,
          const std::function<int64_t()> &progress) {
  constexpr int kLongestPauseUs = 3000;
  int64_t last_progress = -1;
  while (crew->kills() < kills && crew->is_at_work()) {
    usleep(static_cast<useconds_t>(dice->below(kLongestPauseUs)));
    if (progress() == last_progress) continue;
    const int kills_before = crew->kills();
    if (dice->one_in(2)) {
      crew->kill_worker(dice->below(crew->size()));
    } else {
      crew->kill_holder_of(lock_paths[static_cast<size_t>(dice->below(static_cast<int>(lock_paths.size())))]);
    }
    if (crew->kills() > kills_before) last_progress = progress();
  }
}

int remove_abandoned_claims() {
  int count = 0;
  for (const std::string &name : names_in("/var/lock")) {
    // ".", the lock file's name "_BASE.lck", ".stale"
    if (!name.starts_with("._") || !name.ends_with(".lck.stale")) continue;
    ++count;
    const std::string base = name.substr(2, name.size() - 2 - strlen(".lck.stale"));
    write_file(owned_lock(base), lock_record(static_cast<int64_t>(Rough_Tick()), dead_pid()));
    EXPECT_EQ(Get_File_Lock(base.c_str(), 10000), 1) << "behind the abandoned claim " << name;
    Release_File_Lock(base.c_str());
  }
  if (count > 0) printf("storm: %d abandoned claims of stale locks\n", count);
  return count;
}

}  // namespace tarn::test

int main(int count, char **arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (!tarn::test::on_a_throw_away_root()) {
    fprintf(stderr, "to be run by tests/appliance\n");
    return 1;
  }
  tarn::test::choose_seed(count, arguments);
  return RUN_ALL_TESTS();
}

// Every exported function with each of its system calls failing in turn, in every way that matters.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>

#include "tests/faults/scenario.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;

// How a call may fail.
std::vector<int> errors_of(Call call) {
  switch (call) {
    case Call::open:
      return {ENOSPC, EIO, EINTR, ENOMEM, EMFILE, EACCES, EROFS};
    case Call::read:
      return {EIO, EINTR, ENOMEM, short_transfer};
    case Call::write:
      return {ENOSPC, EIO, EINTR, ENOMEM, short_transfer};
    case Call::sync:
    case Call::close:
      return {ENOSPC, EIO, EINTR};
    case Call::rename:
    case Call::mkdir:
    case Call::link:
      return {ENOSPC, EIO, ENOMEM, EACCES, EROFS};
    case Call::unlink:
    case Call::chmod:
      return {EIO, ENOMEM, EACCES, EROFS};
    case Call::stat:
      return {EIO, ENOMEM, EACCES};
    case Call::fcntl:
    case Call::ioctl:
      return {ENOMEM, EPERM};
    case Call::readlink:
      return {EIO, ENOMEM, EACCES};
    case Call::set_time:
      return {EIO, EPERM, EROFS};
    case Call::pipe:
    case Call::socket:
      return {EMFILE, ENFILE, ENOMEM};
    case Call::splice:
      return {ENOSPC, EIO, EPIPE, EINTR, EAGAIN, short_transfer};
    case Call::sendfile:
      return {ENOSPC, EIO, EPIPE, EINTR, short_transfer};
    case Call::poll:
      return {EINTR, ENOMEM};
    case Call::bind:
    case Call::listen:
      return {EADDRINUSE, EACCES};
    case Call::connect:
      return {ECONNREFUSED, ENETUNREACH, EINTR, EINPROGRESS};
    case Call::set_option:
      return {ENOBUFS, EDOM};
    case Call::send:
      return {EPIPE, ECONNRESET, EINTR, ENOBUFS, short_transfer};
    case Call::receive:
      return {ECONNRESET, EINTR, ENOMEM, short_transfer};
  }
  return {};
}

std::string shown(const Failing_Call &failing) {
  const char *error = failing.error == short_transfer ? "half" : strerrorname_np(failing.error);
  return name_of(failing.call) + std::string(" ") + std::to_string(failing.nth) + " " + error;
}

class Each_System_Call : public testing::TestWithParam<Scenario> {
 protected:
  // False when there were not so many calls.
  bool holds_with(const Failing_Call &failing) {
    SCOPED_TRACE(shown(failing));
    stage_.set();
    int status = 0;
    const Watched_Run run = run_watched([&] { status = scenario_.call(stage_.world()); }, failing);
    if (!run.failed) return false;
    SCOPED_TRACE(run.failed->path);
    stage_.expect_old_or_new(status, {run.failed, failing.error});
    return true;
  }

  const Scenario &scenario_ = GetParam();
  const Log_Capture log_;
  Stage stage_{scenario_};
};

INSTANTIATE_TEST_SUITE_P(, Each_System_Call, testing::ValuesIn(scenarios()),
                         [](const auto &test) { return title(test.param); });

TEST_P(Each_System_Call, That_fails_is_told_and_leaves_nothing_behind) {
  int status = 0;
  run_watched([&] { status = scenario_.call(stage_.world()); });
  stage_.expect_success(status);
  for (const Call call : all_calls) {
    for (const int error : errors_of(call)) {
      for (int nth = 1; holds_with({call, nth, error}); ++nth) {
        ASSERT_LT(nth, 300);
        ASSERT_FALSE(HasFailure());
      }
    }
  }
  expect_no_leak();
}

class Each_Replacement : public testing::TestWithParam<Scenario> {};

std::vector<Scenario> replacements() {
  std::vector<Scenario> chosen;
  for (const Scenario &scenario : scenarios()) {
    if (scenario.writes() && scenario.on_full_disk) chosen.push_back(scenario);
  }
  return chosen;
}

INSTANTIATE_TEST_SUITE_P(, Each_Replacement, testing::ValuesIn(replacements()),
                         [](const auto &test) { return title(test.param); });

// Else a power loss could leave the file's name with nothing in it.
TEST_P(Each_Replacement, Is_on_the_disk_before_it_takes_the_files_name) {
  const Scenario &scenario = GetParam();
  Stage stage(scenario);
  const World &world = stage.world();
  int status = 0;
  const Watched_Run run = run_watched([&] { status = scenario.call(stage.world()); });
  stage.expect_success(status);

  int writes = 0, renames = 0;
  bool synchronised = false;
  for (const Seen_Call &seen : run.calls) {
    EXPECT_FALSE(seen.call == Call::write && place_of(seen.path, world) == Place::file) << "written in place";
    if (place_of(seen.path, world) != Place::temporary) continue;
    if (seen.call == Call::write) ++writes, synchronised = false;
    if (seen.call == Call::sync) synchronised = true;
    if (seen.call != Call::rename) continue;
    ++renames;
    EXPECT_TRUE(synchronised);
  }
  EXPECT_GE(writes, 1);
  EXPECT_EQ(renames, 1);
}

TEST(Watched_Calls, Reach_what_the_C_library_calls_itself) {
  const Temporary_Folder folder;
  FILE *stream = fopen((folder / "x").c_str(), "we");
  fputs("text", stream);
  int flushed = 0, error = 0;
  const Watched_Run run = run_watched(
      [&] {
        flushed = fflush(stream);
        error = errno;
      },
      Failing_Call{Call::write, 1, ENOSPC});
  EXPECT_EQ(flushed, EOF);
  EXPECT_EQ(error, ENOSPC);
  ASSERT_TRUE(run.failed);
  EXPECT_EQ(run.failed->path, folder / "x");
  EXPECT_EQ(read_file(folder / "x"), "");
  fclose(stream);
}

TEST(Watched_Calls, Halve_a_transfer) {
  const Temporary_Folder folder;
  FILE *stream = fopen((folder / "x").c_str(), "we");
  ssize_t written = 0;
  run_watched([&] { written = write(fileno(stream), "12345678", 8); }, Failing_Call{Call::write, 1, short_transfer});
  EXPECT_EQ(written, 4);
  EXPECT_EQ(read_file(folder / "x"), "1234");
  fclose(stream);
}

}  // namespace

// The cluster service's event loop.
#include "platform/clusterd/event_loop.h"

#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace tarn::platform {
namespace {

class Event_Loop_Test : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(loop.start(), 0); }

  static Descriptor event() { return Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)); }
  static void raise(const Descriptor &event) { ASSERT_EQ(eventfd_write(event.get(), 1), 0); }
  static Deadline at_once() { return Clock::now(); }

  Event_Loop loop;
};

TEST_F(Event_Loop_Test, calls_the_task_of_what_has_something_to_read_and_no_other) {
  const Descriptor one = event();
  const Descriptor other = event();
  int calls_of_one = 0;
  int calls_of_other = 0;
  ASSERT_EQ(loop.watch(one.get(), [&] { ++calls_of_one; }), 0);
  ASSERT_EQ(loop.watch(other.get(), [&] { ++calls_of_other; }), 0);
  raise(other);
  EXPECT_EQ(loop.wait(Deadline::max()), 1);
  EXPECT_EQ(calls_of_one, 0);
  EXPECT_EQ(calls_of_other, 1);
}

TEST_F(Event_Loop_Test, calls_again_while_there_is_something_to_read) {
  const Descriptor source = event();
  int calls = 0;
  ASSERT_EQ(loop.watch(source.get(), [&] { ++calls; }), 0);
  raise(source);
  loop.wait(at_once());
  loop.wait(at_once());
  EXPECT_EQ(calls, 2);
}

TEST_F(Event_Loop_Test, ends_its_wait_at_the_deadline) {
  EXPECT_EQ(loop.wait(Clock::now() + std::chrono::milliseconds(20)), 0);
  EXPECT_EQ(loop.wait(Clock::now() - std::chrono::seconds(1)), 0);
}

TEST_F(Event_Loop_Test, what_was_forgotten_is_not_called) {
  const Descriptor source = event();
  int calls = 0;
  ASSERT_EQ(loop.watch(source.get(), [&] { ++calls; }), 0);
  loop.forget(source.get());
  raise(source);
  EXPECT_EQ(loop.wait(at_once()), 0);
  EXPECT_EQ(calls, 0);
}

TEST_F(Event_Loop_Test, task_may_forget_itself_while_it_runs) {
  const Descriptor source = event();
  std::string said;
  ASSERT_EQ(loop.watch(source.get(),
                       [&, text = std::string(100, 'x')] {
                         loop.forget(source.get());
                         said = text;  // the task's own
                       }),
            0);
  raise(source);
  loop.wait(at_once());
  EXPECT_EQ(said, std::string(100, 'x'));
  EXPECT_EQ(loop.wait(at_once()), 0);
}

TEST_F(Event_Loop_Test, what_another_task_forgot_in_the_same_round_is_not_called) {
  const Descriptor sources[] = {event(), event()};
  int calls = 0;
  for (const Descriptor &source : sources) {
    ASSERT_EQ(loop.watch(source.get(),
                         [&] {
                           ++calls;
                           for (const Descriptor &any : sources) loop.forget(any.get());
                         }),
              0);
    raise(source);
  }
  loop.wait(at_once());
  EXPECT_EQ(calls, 1);
}

TEST_F(Event_Loop_Test, task_may_watch_something_else) {
  const Descriptor first = event();
  const Descriptor second = event();
  int calls = 0;
  ASSERT_EQ(loop.watch(first.get(),
                       [&] {
                         loop.forget(first.get());
                         EXPECT_EQ(loop.watch(second.get(), [&] { ++calls; }), 0);
                       }),
            0);
  raise(first);
  raise(second);
  loop.wait(at_once());
  loop.wait(at_once());
  EXPECT_EQ(calls, 1);
}

TEST_F(Event_Loop_Test, what_is_no_descriptor_is_refused) {
  EXPECT_EQ(loop.watch(-1, [] {}), -EBADF);
}

}  // namespace
}  // namespace tarn::platform

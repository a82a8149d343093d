#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "include/tarncluster_util.h"
#include "tests/support/call_hooks.h"
#include "tests/support/child_process.h"
#include "tests/support/files.h"

namespace {

using namespace tarn::test;

TEST(Is_Process_Existed, Says_yes_to_a_process_that_runs) {
  EXPECT_EQ(Is_Process_Existed(getpid()), 1);
  EXPECT_EQ(Is_Process_Existed(1), 1);
}

TEST(Is_Process_Existed, Says_yes_to_a_process_that_ended_and_was_not_waited_for) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t ended;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);

  EXPECT_EQ(Is_Process_Existed(child), 1);

  waitpid(child, nullptr, 0);
  EXPECT_EQ(Is_Process_Existed(child), 0);
}

TEST(Is_Process_Existed, Says_no_to_an_id_that_no_process_has) {
  EXPECT_EQ(Is_Process_Existed(dead_pid()), 0);
  EXPECT_EQ(Is_Process_Existed(INT_MAX), 0);
}

TEST(Is_Process_Existed, Says_no_below_1_without_asking_the_system) {
  const Before_Call sending(System_Call::kill, 1, [] { return 0; });

  EXPECT_EQ(Is_Process_Existed(0), 0);
  EXPECT_EQ(Is_Process_Existed(-1), 0);
  EXPECT_EQ(Is_Process_Existed(-getpgrp()), 0);
  EXPECT_EQ(Is_Process_Existed(INT_MIN), 0);

  EXPECT_FALSE(sending.happened());
}

TEST(Is_Process_Existed, Answers_the_error_for_a_process_of_another_user) {
  EXPECT_EQ(in_child([] {
              const As_Nobody nobody;
              EXPECT_EQ(Is_Process_Existed(1), -EPERM);
            }),
            0);
}

TEST(Is_Process_Existed, Answers_any_other_error_of_the_system) {
  const Before_Call sending(System_Call::kill, 1, [] { return ENOSYS; });

  EXPECT_EQ(Is_Process_Existed(getpid()), -ENOSYS);
}

}  // namespace

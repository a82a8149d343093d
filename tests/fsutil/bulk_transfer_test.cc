#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include "foundation/owners.h"
#include "include/tarncluster_util.h"
#include "tests/fsutil/file_calls.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/call_hooks.h"
#include "tests/support/descriptor_count.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/small_disk.h"
#include "tests/support/virtual_clock.h"

namespace {

using namespace tarn::test;
using tarn::Descriptor;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t splice_step = 131072;
constexpr int64_t copy_step = 32768;

// No two steps of it are alike.
std::string data_of_length(int64_t length) {
  std::string data(static_cast<size_t>(length), '\0');
  uint32_t state = 1;
  for (char &byte : data) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return data;
}

struct Test_Pipe {
  explicit Test_Pipe(int flags = 0) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, flags | O_CLOEXEC), 0);
    out = Descriptor(ends[0]);
    in = Descriptor(ends[1]);
  }

  void fill(const std::string &text) const {
    EXPECT_EQ(write(in.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  std::string drain() const {
    std::string text(1 << 20, '\0');
    const ssize_t length = read(out.get(), text.data(), text.size());
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
  }

  Descriptor out;
  Descriptor in;
};

class Transfer : public Descriptor_Count {
 protected:
  // A file that holds this, open for reading and writing at its start.
  Descriptor file_with(const std::string &name, const std::string &text) const {
    write_file(folder_ / name, text);
    return Descriptor(open((folder_ / name).c_str(), O_RDWR | O_CLOEXEC));
  }
  std::string content(const std::string &name) const { return read_file(folder_ / name); }

  const Temporary_Folder folder_;
  const Log_Capture log_;
  unsigned int abort_ = 0;
  uint64_t counter_ = 0;
};

// -------------------------------------------------------------------------------------------------------- Splice_Ext

class Splice : public Transfer {
 protected:
  int splice_ext(int in, int64_t *in_offset, int out, int64_t *out_offset, int64_t length, int timeout_ms) {
    return Splice_Ext(in, in_offset, out, out_offset, length, 0, timeout_ms, &abort_);
  }

  static std::string retry(int64_t length, int64_t left, int64_t elapsed, int timeout) {
    return "Splice can't receive " + std::to_string(length) +
           " bytes at once, it will retry later. (bytes left: " + std::to_string(left) +
           "; time elapsed: " + std::to_string(elapsed) + " ms; timeout: " + std::to_string(timeout) + " ms)";
  }
  static Log_Line debug(const std::string &text) { return debug_line("Splice_Ext", text); }
  static Log_Line error(const std::string &text) { return error_line("Splice_Ext", text); }

  Virtual_Clock clock_{1'000'000};
  const Test_Pipe pipe_{O_NONBLOCK};
};

TEST_F(Splice, Moves_a_length_from_a_pipe_to_a_file_and_back) {
  const Descriptor file = file_with("file", "0123456789");
  pipe_.fill("abcdef");
  int64_t offset = 3;
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), &offset, 4, 1000), 0);
  EXPECT_EQ(content("file"), "012abcd789");
  EXPECT_EQ(offset, 7);
  EXPECT_EQ(pipe_.drain(), "ef");

  offset = 2;
  EXPECT_EQ(splice_ext(file.get(), &offset, pipe_.in.get(), nullptr, 3, 1000), 0);
  EXPECT_EQ(pipe_.drain(), "2ab");
  EXPECT_EQ(offset, 5);
  EXPECT_EQ(splice_ext(file.get(), nullptr, pipe_.in.get(), nullptr, 2, 1000), 0);
  EXPECT_EQ(pipe_.drain(), "01") << "from the descriptor's own position";
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Splice, Of_nothing_succeeds_at_once) {
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, pipe_.in.get(), nullptr, 0, 0), 0);
  abort_ = 3;
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, pipe_.in.get(), nullptr, 0, 0), 0);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Splice, Refuses_a_missing_flag_and_a_negative_length_before_anything_moves) {
  const Descriptor file = file_with("file", "");
  pipe_.fill("abc");
  EXPECT_EQ(Splice_Ext(pipe_.out.get(), nullptr, file.get(), nullptr, 3, 0, 100, nullptr), -EINVAL);
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, -1, 100), -EINVAL);
  EXPECT_EQ(pipe_.drain(), "abc");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Splice, Tells_an_error_with_what_is_left) {
  const Descriptor file = file_with("file", "abc");
  EXPECT_EQ(splice_ext(file.get(), nullptr, file.get(), nullptr, 10, 100), -EINVAL) << "no pipe";
  EXPECT_EQ(splice_ext(9999, nullptr, file.get(), nullptr, 20, 100), -EBADF);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't splice 10 bytes from the socket error! (-22, -1)"),
                                        error("Can't splice 20 bytes from the socket error! (-9, -1)")));
}

TEST_F(Splice, Is_ended_by_a_signal_as_by_any_error) {
  pipe_.fill("abc");
  const Descriptor file = file_with("file", "");
  const Before_Call interrupted(System_Call::splice, 1, [] { return EINTR; });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 3, 100), -EINTR);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't splice 3 bytes from the socket error! (-4, -1)")));
}

TEST_F(Splice, Goes_on_at_once_after_a_part_and_waits_for_the_rest) {
  const Descriptor file = file_with("file", "");
  pipe_.fill("abcdef");
  const Before_Call asleep(System_Call::nanosleep, 1, [this] {
    clock_.advance(50);
    pipe_.fill("ghij");
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 10, 100), 0);
  EXPECT_EQ(content("file"), "abcdefghij");
  EXPECT_THAT(log_.lines(), ElementsAre(debug(retry(10, 4, 0, 100)), debug(retry(10, 4, 0, 100))));
}

TEST_F(Splice, Tells_the_time_that_it_has_waited) {
  const Descriptor file = file_with("file", "");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this, turn = 0]() mutable {
    clock_.advance(40);
    if (++turn == 3) pipe_.fill("ab");
    if (turn == 4) pipe_.fill("c");
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 3, 200), 0);
  EXPECT_THAT(log_.lines(),
              ElementsAre(debug(retry(3, 3, 0, 200)), debug(retry(3, 3, 40, 200)), debug(retry(3, 3, 80, 200)),
                          debug(retry(3, 1, 80, 200)), debug(retry(3, 1, 0, 200))))
      << "the last figure that was worked out stands until the next idle turn";
}

TEST_F(Splice, Lasts_as_long_as_something_moves_within_each_timeout) {
  const Descriptor file = file_with("file", "");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this] {
    clock_.advance(100);
    pipe_.fill("x");
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 30, 100), 0);
  EXPECT_EQ(content("file"), std::string(30, 'x'));
}

TEST_F(Splice, Gives_up_when_nothing_moved_for_longer_than_the_timeout) {
  const Descriptor file = file_with("file", "");
  pipe_.fill("abc");
  int turns = 0;
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [&] {
    clock_.advance(50);
    ++turns;
    return Before_Call::answers_zero;
  });
  int64_t offset = 5;
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), &offset, 10, 100), -ETIME);
  EXPECT_EQ(turns, 3) << "exactly the timeout is not yet too long";
  EXPECT_EQ(log_.lines().back(), error("Can't finish the 'splice' of 7 bytes in 100 milliseconds. (-62, -1, 8)"));
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 10, 60), -ETIME);
  EXPECT_EQ(log_.lines().back(), error("Can't finish the 'splice' of 10 bytes in 60 milliseconds. (-62, -1)"));
}

TEST_F(Splice, Waits_at_the_end_of_a_source_too) {
  Test_Pipe ended;
  ended.in = Descriptor();
  const Descriptor file = file_with("file", "");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this] {
    clock_.advance(1);
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(splice_ext(ended.out.get(), nullptr, file.get(), nullptr, 10, 0), -ETIME);
  EXPECT_THAT(log_.lines(), ElementsAre(debug(retry(10, 10, 0, 0)),
                                        error("Can't finish the 'splice' of 10 bytes in 0 milliseconds. (-62, 0)")));
}

TEST_F(Splice, With_a_negative_timeout_waits_without_limit) {
  const Descriptor file = file_with("file", "");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this, turn = 0]() mutable {
    clock_.advance(INT_MAX);
    if (++turn == 5) pipe_.fill("x");
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 1, -1), 0);
  EXPECT_EQ(content("file"), "x");
  EXPECT_THAT(log_.lines(), Contains(debug(retry(1, 1, 4LL * INT_MAX, -1))));
}

TEST_F(Splice, Is_aborted_while_it_waits) {
  const Descriptor file = file_with("file", "");
  pipe_.fill("abc");
  const Before_Call asleep(System_Call::nanosleep, 2, [this] {
    abort_ = 7;
    return 0;
  });
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 10, 1000), 7);
  EXPECT_EQ(content("file"), "abc");
  EXPECT_EQ(log_.lines().back(), error("Break 'splice' with iRet: 7."));
}

// The abort flag's value is the result whatever it is: callers tell it from an error by the flag.
TEST_F(Splice, Aborted_with_a_value_beyond_31_bits_answers_a_negative_number) {
  const Descriptor file = file_with("file", "");
  abort_ = 0x80000005;
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 10, 0), INT_MIN + 5);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Break 'splice' with iRet: -2147483643.")));
}

TEST_F(Splice, Looks_at_the_flag_only_when_nothing_moves) {
  const Descriptor file = file_with("file", "");
  pipe_.fill("abc");
  abort_ = 7;
  EXPECT_EQ(splice_ext(pipe_.out.get(), nullptr, file.get(), nullptr, 3, 100), 0);
  EXPECT_EQ(content("file"), "abc");
}

TEST_F(Splice, Passes_its_flags_on) {
  const Test_Pipe blocking;
  const Descriptor file = file_with("file", "");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this] {
    clock_.advance(1000);
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(Splice_Ext(blocking.out.get(), nullptr, file.get(), nullptr, 3, SPLICE_F_NONBLOCK, 100, &abort_), -ETIME)
      << "without the flag it would sleep for ever";
}

// -------------------------------------------------------------------------------------------------- Splice_File_Data

class Splice_File : public Splice {
 protected:
  int splice_data(int in, int64_t *in_offset, int out, int64_t *out_offset, int64_t length, int timeout_ms = 0) {
    return Splice_File_Data(in, in_offset, out, out_offset, length, timeout_ms, &abort_, &counter_);
  }
};

TEST_F(Splice_File, Moves_three_and_a_half_steps) {
  const int64_t length = 3 * splice_step + splice_step / 2;
  const std::string data = data_of_length(length + 5);
  const Descriptor source = file_with("source", data);
  ASSERT_GE(fcntl(pipe_.in.get(), F_SETPIPE_SZ, 1 << 20), 1 << 20);
  counter_ = 1000;
  int64_t offset = 5;
  EXPECT_EQ(splice_data(source.get(), &offset, pipe_.in.get(), nullptr, length, 1000), 0);
  EXPECT_EQ(pipe_.drain(), data.substr(5));
  EXPECT_EQ(offset, length + 5);
  EXPECT_EQ(counter_, 1000u + static_cast<uint64_t>(length)) << "added to, not reset";
}

TEST_F(Splice_File, Counts_whole_steps_and_tells_the_step_that_failed) {
  const int64_t length = 3 * splice_step + splice_step / 2;
  const Descriptor source = file_with("source", std::string(static_cast<size_t>(length - 1), 'x'));
  ASSERT_GE(fcntl(pipe_.in.get(), F_SETPIPE_SZ, 1 << 20), 1 << 20);
  abort_ = 0;
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this] {
    clock_.advance(1);
    return Before_Call::answers_zero;
  });
  int64_t offset = 0;
  EXPECT_EQ(splice_data(source.get(), &offset, pipe_.in.get(), nullptr, length), -ETIME);
  EXPECT_EQ(counter_, 3u * splice_step);
  EXPECT_EQ(offset, length - 1) << "bytes of the failed step have moved all the same";
  const auto lines = log_.lines();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], error("Can't finish the 'splice' of 1 bytes in 0 milliseconds. (-62, 0)"));
  // Both look-ups share a buffer: the line shows one of the two paths twice.
  const auto told = [](const std::string &path) {
    return error_line("Splice_File_Data",
                      "Can't splice the file '" + path + "' into '" + path + "' error! (65536, -62)");
  };
  char pipe_path[64] = {};
  ASSERT_GT(Get_FD_Path(pipe_.in.get(), pipe_path, sizeof pipe_path), 0);
  EXPECT_THAT(lines.back(), testing::AnyOf(told(folder_ / "source"), told(pipe_path)));
}

TEST_F(Splice_File, Tells_full_steps_as_131072_and_shows_descriptors_without_a_path) {
  EXPECT_EQ(splice_data(9998, nullptr, 9999, nullptr, splice_step + 1), -EBADF);
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(error("Can't splice 131072 bytes from the socket error! (-9, -1)"),
                  error_line("Splice_File_Data", "Can't splice the file '(null)' into '(null)' error! (131072, -9)")));
  EXPECT_EQ(counter_, 0u);
}

TEST_F(Splice_File, Is_aborted_between_steps) {
  const Descriptor source = file_with("source", std::string(4 * splice_step, 'x'));
  ASSERT_GE(fcntl(pipe_.in.get(), F_SETPIPE_SZ, 1 << 20), 1 << 20);
  const Before_Call second_step(System_Call::splice, 1, [this] {
    abort_ = 9;
    return 0;
  });
  EXPECT_EQ(splice_data(source.get(), nullptr, pipe_.in.get(), nullptr, splice_step, 1000), 9) << "the only step";
  EXPECT_EQ(counter_, static_cast<uint64_t>(splice_step));
  EXPECT_EQ(splice_data(source.get(), nullptr, pipe_.in.get(), nullptr, splice_step, 1000), 9) << "set already";
  EXPECT_EQ(counter_, static_cast<uint64_t>(splice_step));
  EXPECT_EQ(splice_data(source.get(), nullptr, pipe_.in.get(), nullptr, 0, 1000), 9);
  EXPECT_EQ(pipe_.drain().size(), static_cast<size_t>(splice_step));
}

TEST_F(Splice_File, Needs_neither_flag_nor_counter) {
  const Descriptor source = file_with("source", "abc");
  EXPECT_EQ(Splice_File_Data(source.get(), nullptr, pipe_.in.get(), nullptr, 3, 0, nullptr, nullptr), 0);
  EXPECT_EQ(Splice_File_Data(source.get(), nullptr, pipe_.in.get(), nullptr, 0, 0, nullptr, nullptr), 0);
  EXPECT_EQ(pipe_.drain(), "abc");
  const Before_Call asleep(System_Call::nanosleep, Before_Call::every, [this] {
    clock_.advance(1);
    return Before_Call::answers_zero;
  });
  EXPECT_EQ(Splice_File_Data(source.get(), nullptr, pipe_.in.get(), nullptr, 1, 0, nullptr, nullptr), -ETIME);
}

// --------------------------------------------------------------------------------------------------------- arguments

using Transfer_Function = int (*)(int, int64_t *, int, int64_t *, int64_t, unsigned int *, uint64_t *);

int splice_with_timeout(int in, int64_t *in_offset, int out, int64_t *out_offset, int64_t length, unsigned int *abort,
                        uint64_t *counter) {
  return Splice_File_Data(in, in_offset, out, out_offset, length, 1000, abort, counter);
}

class Transfer_Arguments : public Transfer, public testing::WithParamInterface<Transfer_Function> {};

INSTANTIATE_TEST_SUITE_P(Functions, Transfer_Arguments,
                         testing::Values(splice_with_timeout, Copy_File_Data, Copy_File_Data_RTRR));

TEST_P(Transfer_Arguments, Are_refused_when_a_descriptor_an_offset_or_the_length_is_negative) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  int64_t zero = 0, negative = -1;
  abort_ = 5;  // looked at later
  const auto refused = [&](int in, int64_t *in_offset, int out, int64_t *out_offset, int64_t length) {
    EXPECT_EQ(GetParam()(in, in_offset, out, out_offset, length, &abort_, &counter_), -EINVAL);
    EXPECT_EQ(GetParam()(in, in_offset, out, out_offset, length, nullptr, nullptr), -EINVAL);
  };
  refused(-1, nullptr, target.get(), nullptr, 1);
  refused(INT_MIN, nullptr, target.get(), nullptr, 1);
  refused(source.get(), nullptr, -1, nullptr, 1);
  refused(source.get(), &negative, target.get(), nullptr, 1);
  refused(source.get(), &zero, target.get(), &negative, 1);
  refused(source.get(), nullptr, target.get(), nullptr, -1);
  refused(source.get(), nullptr, target.get(), nullptr, INT64_MIN);
  EXPECT_EQ(counter_, 0u);
  EXPECT_EQ(zero, 0);
  EXPECT_EQ(content("target"), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Transfer_Arguments, With_the_flag_set_answer_its_value_without_moving_anything) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  const Test_Pipe pipe;
  const int out = GetParam() == splice_with_timeout ? pipe.in.get() : target.get();
  int64_t offset = 1;
  abort_ = 5;
  EXPECT_EQ(GetParam()(source.get(), &offset, out, nullptr, 2, &abort_, &counter_), 5);
  EXPECT_EQ(GetParam()(source.get(), &offset, out, nullptr, 0, &abort_, &counter_), 5);
  abort_ = 0xffffffff;
  EXPECT_EQ(GetParam()(source.get(), &offset, out, nullptr, 2, &abort_, &counter_), -1);
  EXPECT_EQ(counter_, 0u);
  EXPECT_EQ(offset, 1);
  EXPECT_EQ(content("target"), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------ what both copies have
// alike

class Copies : public Transfer, public testing::WithParamInterface<Transfer_Function> {
 protected:
  int copy(int in, int64_t *in_offset, int out, int64_t *out_offset, int64_t length) {
    return GetParam()(in, in_offset, out, out_offset, length, &abort_, &counter_);
  }
  static const char *function() { return GetParam() == Copy_File_Data ? "Copy_File_Data" : "Copy_File_Data_RTRR"; }
  static Log_Line error(const std::string &text) { return error_line(function(), text); }
};

INSTANTIATE_TEST_SUITE_P(Functions, Copies, testing::Values(Copy_File_Data, Copy_File_Data_RTRR),
                         [](const auto &test) { return test.param == Copy_File_Data ? "Strict" : "Tolerant"; });

TEST_P(Copies, Move_every_byte_from_offset_to_offset) {
  for (const int64_t length : {int64_t{1}, copy_step - 1, copy_step, copy_step + 1, 3 * copy_step + 77}) {
    const std::string data = data_of_length(length + 10);
    const Descriptor source = file_with("source", data);
    const Descriptor target = file_with("target", "0123456789");
    int64_t from = 7, to = 4;
    counter_ = 50;
    EXPECT_EQ(copy(source.get(), &from, target.get(), &to, length), 0);
    EXPECT_EQ(content("target").substr(0, static_cast<size_t>(length) + 4),
              "0123" + data.substr(7, static_cast<size_t>(length)));
    EXPECT_EQ(from, 7 + length);
    EXPECT_EQ(to, 4 + length);
    EXPECT_EQ(counter_, 50u + static_cast<uint64_t>(length));
  }
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_P(Copies, Move_from_the_descriptors_own_positions_without_offsets) {
  const Descriptor source = file_with("source", "0123456789");
  const Descriptor target = file_with("target", "abcdefghij");
  ASSERT_EQ(lseek(source.get(), 2, SEEK_SET), 2);
  ASSERT_EQ(lseek(target.get(), 5, SEEK_SET), 5);
  EXPECT_EQ(copy(source.get(), nullptr, target.get(), nullptr, 3), 0);
  EXPECT_EQ(content("target"), "abcde234ij");
  EXPECT_EQ(lseek(source.get(), 0, SEEK_CUR), 5);
  EXPECT_EQ(lseek(target.get(), 0, SEEK_CUR), 8);
}

TEST_P(Copies, Need_neither_flag_nor_counter_and_move_the_offsets_all_the_same) {
  const Descriptor source = file_with("source", "0123456789");
  const Descriptor target = file_with("target", "");
  int64_t from = 1, to = 0;
  EXPECT_EQ(GetParam()(source.get(), &from, target.get(), &to, 4, nullptr, nullptr), 0);
  EXPECT_EQ(content("target"), "1234");
  EXPECT_EQ(from, 5);
  EXPECT_EQ(to, 4);
}

TEST_P(Copies, Of_nothing_read_nothing) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  int64_t from = 1;
  const On_File_Call unread(File_Call::read, [](const std::string &) {
    ADD_FAILURE() << "read";
    return 0;
  });
  EXPECT_EQ(copy(source.get(), &from, target.get(), nullptr, 0), 0);
  EXPECT_EQ(from, 1);
}

TEST_P(Copies, Tell_when_they_cannot_seek) {
  const Test_Pipe pipe;
  const Descriptor file = file_with("file", "abc");
  int64_t offset = 5, other = 6;
  EXPECT_EQ(copy(pipe.out.get(), &offset, file.get(), &other, 1), -ESPIPE);
  EXPECT_EQ(copy(file.get(), &offset, pipe.in.get(), &other, 1), -ESPIPE);
  EXPECT_EQ(offset, 5);
  EXPECT_EQ(other, 6);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't seek the source file to offset 5 error!"),
                                        error("Can't seek the destination file to offset 6 error!")));
}

TEST_P(Copies, Tell_when_there_is_no_memory_for_the_buffer) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  int64_t offset = 0;
  {
    const Allocation_Failure failure(1);
    EXPECT_EQ(copy(source.get(), &offset, target.get(), nullptr, 3), -ENOMEM);
  }
  EXPECT_EQ(content("target"), "");
  EXPECT_EQ(offset, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(error("Can't allocate 32768 byte buffer for copying data error!")));
}

TEST_P(Copies, Tell_when_they_cannot_write_and_keep_what_was_copied) {
  const int64_t length = 2 * copy_step + 5;
  const std::string data = data_of_length(length);
  const Descriptor source = file_with("source", data);
  const Descriptor target = file_with("target", "");
  int64_t from = 0, to = 0;
  {
    const Before_Call broken(System_Call::write, 3, [] { return EIO; });
    EXPECT_EQ(copy(source.get(), &from, target.get(), &to, length), -EIO);
  }
  EXPECT_EQ(content("target"), data.substr(0, 2 * copy_step));
  EXPECT_EQ(from, 2 * copy_step);
  EXPECT_EQ(to, 2 * copy_step);
  EXPECT_EQ(counter_, 2u * copy_step);
  EXPECT_EQ(log_.lines().back(), error("Can't write 5 byte to the destination file error! (-5, 0)"));
}

TEST_P(Copies, End_when_the_disk_is_full_with_what_the_last_write_still_moved) {
  const Small_Disk disk;
  const Descriptor source = file_with("source", data_of_length(100'000));
  const Descriptor target(open((disk / "target").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  write_file(disk / "filler", std::string(12'288, 'x'));
  EXPECT_EQ(copy(source.get(), nullptr, target.get(), nullptr, 100'000), -ENOSPC);
  EXPECT_EQ(counter_, static_cast<uint64_t>(copy_step)) << "whole steps only";
  EXPECT_EQ(log_.lines().back(), error("Can't write 32768 byte to the destination file error! (-28, 20480)"));
}

TEST_P(Copies, Are_aborted_after_the_step_in_which_the_flag_is_set) {
  const std::string data = data_of_length(4 * copy_step);
  const Descriptor source = file_with("source", data);
  const Descriptor target = file_with("target", "");
  int64_t from = 0;
  const Before_Call second_write(System_Call::write, 2, [this] {
    abort_ = 0x80000001;
    return 0;
  });
  EXPECT_EQ(copy(source.get(), &from, target.get(), nullptr, 4 * copy_step), INT_MIN + 1);
  EXPECT_EQ(counter_, 2u * copy_step);
  EXPECT_EQ(from, 2 * copy_step);
  EXPECT_EQ(content("target"), data.substr(0, 2 * copy_step));
}

// ---------------------------------------------------------------------------------------------------- the strict copy

using Strict_Copy = Transfer;

TEST_F(Strict_Copy, Stops_at_the_end_of_the_source_and_loses_the_last_part_of_a_step) {
  const std::string data = data_of_length(copy_step + 100);
  const Descriptor source = file_with("source", data);
  const Descriptor target = file_with("target", "");
  int64_t from = 0, to = 0;
  errno = EIO;  // of something that failed before
  EXPECT_EQ(Copy_File_Data(source.get(), &from, target.get(), &to, 50'000, &abort_, &counter_), 0);
  EXPECT_EQ(content("target"), data.substr(0, copy_step)) << "callers know whole steps only";
  EXPECT_EQ(from, copy_step);
  EXPECT_EQ(to, copy_step);
  EXPECT_EQ(counter_, static_cast<uint64_t>(copy_step));
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_Data", "Can't read 17232 byte from the source file error! (0, 100)")));
}

TEST_F(Strict_Copy, Behind_the_end_of_the_source_succeeds_with_nothing) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "old");
  int64_t from = 10;
  errno = EIO;
  EXPECT_EQ(Copy_File_Data(source.get(), &from, target.get(), nullptr, 10, nullptr, &counter_), 0);
  EXPECT_EQ(from, 10);
  EXPECT_EQ(content("target"), "old");
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_Data", "Can't read 10 byte from the source file error! (0, 0)")));
}

TEST_F(Strict_Copy, At_the_end_of_the_source_answers_a_flag_that_was_set_meanwhile) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  const On_File_Call reading(File_Call::read, [this](const std::string &) {
    abort_ = 6;
    return 0;
  });
  EXPECT_EQ(Copy_File_Data(source.get(), nullptr, target.get(), nullptr, 10, &abort_, &counter_), 6);
}

TEST_F(Strict_Copy, Tells_an_error_of_the_source) {
  const Descriptor source = file_with("source", std::string(copy_step + 5, 'x'));
  const Descriptor target = file_with("target", "");
  const On_File_Call broken(File_Call::read, [turn = 0](const std::string &) mutable { return ++turn == 2 ? EIO : 0; });
  int64_t from = 0;
  EXPECT_EQ(Copy_File_Data(source.get(), &from, target.get(), nullptr, copy_step + 5, &abort_, &counter_), -EIO);
  EXPECT_EQ(from, copy_step);
  EXPECT_EQ(counter_, static_cast<uint64_t>(copy_step));
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_Data", "Can't read 5 byte from the source file error! (-5, -1)")));
}

TEST_F(Strict_Copy, Takes_less_than_a_step_from_a_pipe_for_its_end) {
  const Test_Pipe pipe;
  pipe.fill("abc");
  const Descriptor target = file_with("target", "");
  EXPECT_EQ(Copy_File_Data(pipe.out.get(), nullptr, target.get(), nullptr, 10, nullptr, &counter_), 0);
  EXPECT_EQ(content("target"), "");
}

// -------------------------------------------------------------------------------------------------- the tolerant copy

using Tolerant_Copy = Transfer;

TEST_F(Tolerant_Copy, Takes_what_there_is) {
  const Test_Pipe pipe;
  pipe.fill("abc");
  const Descriptor target = file_with("target", "");
  int64_t to = 0;
  const On_File_Call more(File_Call::read, [&, turn = 0](const std::string &) mutable {
    if (++turn == 2) pipe.fill("defg");
    return 0;
  });
  EXPECT_EQ(Copy_File_Data_RTRR(pipe.out.get(), nullptr, target.get(), &to, 6, nullptr, &counter_), 0);
  EXPECT_EQ(content("target"), "abcdef") << "and not more than the length";
  EXPECT_EQ(to, 6);
  EXPECT_EQ(counter_, 6u);
  EXPECT_EQ(pipe.drain(), "g");
}

TEST_F(Tolerant_Copy, Follows_a_file_that_grows) {
  const int64_t length = 5 * copy_step + 123;
  const std::string data = data_of_length(length);
  const Descriptor source = file_with("source", "");
  const Descriptor target = file_with("target", "");
  std::thread writer([&] {
    const Descriptor end(open((folder_ / "source").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    for (size_t done = 0; done < data.size(); done += 10'007) {
      const std::string piece = data.substr(done, 10'007);
      EXPECT_EQ(write(end.get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  int64_t from = 0;
  EXPECT_EQ(Copy_File_Data_RTRR(source.get(), &from, target.get(), nullptr, length, &abort_, &counter_), 0);
  writer.join();
  EXPECT_EQ(from, length);
  EXPECT_EQ(counter_, static_cast<uint64_t>(length));
  EXPECT_TRUE(content("target") == data);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Tolerant_Copy, Waiting_at_the_end_is_aborted_from_another_thread) {
  const Descriptor source = file_with("source", "abc");
  const Descriptor target = file_with("target", "");
  std::atomic_ref<unsigned int> flag(abort_);
  std::thread aborter([&] {
    while (content("target") != "abc") std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    flag = 4;
  });
  int64_t from = 0;
  EXPECT_EQ(Copy_File_Data_RTRR(source.get(), &from, target.get(), nullptr, 100, &abort_, &counter_), 4);
  aborter.join();
  EXPECT_EQ(from, 3);
  EXPECT_EQ(content("target"), "abc");
  EXPECT_THAT(log_.lines(), IsEmpty()) << "the end of the file is no error";
}

TEST_F(Tolerant_Copy, Tells_an_error_of_the_source_with_the_blank_at_the_end) {
  const Descriptor source(open(folder_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const Descriptor target = file_with("target", "");
  EXPECT_EQ(Copy_File_Data_RTRR(source.get(), nullptr, target.get(), nullptr, 10, nullptr, nullptr), -EISDIR);
  EXPECT_THAT(log_.lines(),
              ElementsAre(error_line("Copy_File_Data_RTRR", "Can't read -1 byte from the source file error! ")));
}

// ---------------------------------------------------------------------------------------------------- Simple_Read_File

struct Simple_Case {
  std::string text;
  int size;
  int count;
  std::string buffer;  // of 16 bytes before: '#'
};

class Simple_Read : public Transfer, public testing::WithParamInterface<Simple_Case> {};

TEST_P(Simple_Read, Drops_one_newline_and_ends_the_text_where_there_is_room) {
  write_file(folder_ / "file", GetParam().text);
  std::string buffer(16, '#');
  int size = GetParam().size;
  EXPECT_EQ(Simple_Read_File((folder_ / "file").c_str(), buffer.data(), &size), 0);
  EXPECT_EQ(size, GetParam().count);
  std::string expected = GetParam().buffer;
  expected.resize(16, '#');
  EXPECT_EQ(buffer, expected);
}

using namespace std::string_literals;
INSTANTIATE_TEST_SUITE_P(Files, Simple_Read,
                         testing::Values(Simple_Case{"abc\n", 16, 3, "abc\0"s}, Simple_Case{"abc", 16, 3, "abc\0"s},
                                         Simple_Case{"abc\n\n", 16, 4, "abc\n\0"s}, Simple_Case{"", 16, 0, "\0"s},
                                         Simple_Case{"\n", 16, 0, "\0"s}, Simple_Case{"abcd", 4, 4, "abcd"},
                                         Simple_Case{"abc\n", 4, 3, "abc\0"s}, Simple_Case{"abcdefgh\n", 4, 4, "abcd"},
                                         Simple_Case{"abc\ndef", 4, 3, "abc\0"s},
                                         Simple_Case{"abc\r\n", 16, 4, "abc\r\0"s},
                                         Simple_Case{"a\0b\n"s, 16, 3, "a\0b\0"s}, Simple_Case{"abc", 0, 0, ""},
                                         Simple_Case{"\n", 1, 0, "\0"s}));

TEST_F(Transfer, A_simple_read_of_an_empty_file_looks_at_nothing_before_the_buffer) {
  write_file(folder_ / "file", "");
  char buffer[] = "\n####";
  int size = 4;
  EXPECT_EQ(Simple_Read_File((folder_ / "file").c_str(), buffer + 1, &size), 0);
  EXPECT_EQ(size, 0);
  EXPECT_STREQ(buffer, "\n");
}

TEST_F(Transfer, A_simple_read_that_fails_leaves_size_and_buffer) {
  char buffer[4] = "old";
  int size = 4;
  EXPECT_EQ(Simple_Read_File((folder_ / "missing").c_str(), buffer, &size), -ENOENT);
  EXPECT_EQ(Simple_Read_File(folder_.path().c_str(), buffer, &size), -EISDIR);
  EXPECT_EQ(Simple_Read_File(nullptr, buffer, &size), -EINVAL);
  write_file(folder_ / "file", "abc");
  const std::string path = folder_ / "file";
  EXPECT_EQ(Simple_Read_File(path.c_str(), nullptr, &size), -EINVAL);
  EXPECT_EQ(Simple_Read_File(path.c_str(), buffer, nullptr), -EINVAL);
  EXPECT_EQ(size, 4);
  for (int negative : {-1, INT_MIN}) {
    EXPECT_EQ(Simple_Read_File(path.c_str(), buffer, &negative), -EINVAL);
  }
  EXPECT_STREQ(buffer, "old");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ------------------------------------------------------------------------------------------ whole buffers at an offset

class Buffers : public Transfer {
 protected:
  int read_to_buffer(int64_t offset) { return Read_File_To_Buffer(path_.c_str(), buffer_, &size_, offset); }
  int write_from(const std::string &text, int64_t offset) {
    size_ = static_cast<int64_t>(text.size());
    return Write_File_From_Buffer(path_.c_str(), text.data(), &size_, offset);
  }

  const std::string path_ = folder_ / "file";
  char buffer_[64] = {};
  int64_t size_ = 0;
};

TEST_F(Buffers, Are_read_at_an_offset_as_far_as_there_is_something) {
  write_file(path_, "0123456789\n");
  size_ = 4;
  EXPECT_EQ(read_to_buffer(0), 0);
  EXPECT_EQ(size_, 4);
  EXPECT_STREQ(buffer_, "0123");
  size_ = 60;
  EXPECT_EQ(read_to_buffer(7), 0);
  EXPECT_EQ(size_, 4);
  EXPECT_EQ(std::string(buffer_, 5), "789\n\0"s) << "a newline stays";
  size_ = 5;
  EXPECT_EQ(read_to_buffer(100), 0);
  EXPECT_EQ(size_, 0);
}

TEST_F(Buffers, Larger_than_31_bits_are_legal) {
  write_file(path_, "abc");
  size_ = int64_t{1} << 40;
  EXPECT_EQ(read_to_buffer(0), 0);
  EXPECT_EQ(size_, 3);
}

TEST_F(Buffers, That_cannot_be_read_leave_the_size) {
  size_ = 10;
  EXPECT_EQ(read_to_buffer(0), -ENOENT);
  write_file(path_, "abc");
  EXPECT_EQ(read_to_buffer(-1), -EINVAL);
  EXPECT_EQ(Read_File_To_Buffer(folder_.path().c_str(), buffer_, &size_, 0), -EISDIR);
  EXPECT_EQ(Read_File_To_Buffer(nullptr, buffer_, &size_, 0), -EINVAL);
  EXPECT_EQ(Read_File_To_Buffer(path_.c_str(), nullptr, &size_, 0), -EINVAL);
  EXPECT_EQ(Read_File_To_Buffer(path_.c_str(), buffer_, nullptr, 0), -EINVAL);
  EXPECT_EQ(size_, 10);
  for (int64_t bad : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    EXPECT_EQ(Read_File_To_Buffer(path_.c_str(), buffer_, &bad, 0), -EINVAL);
  }
  EXPECT_STREQ(buffer_, "");
}

TEST_F(Buffers, Are_written_at_an_offset_and_what_is_behind_stays) {
  write_file(path_, "0123456789");
  EXPECT_EQ(write_from("ab", 0), 0);
  EXPECT_EQ(write_from("cd", 5), 0);
  EXPECT_EQ(size_, 2);
  EXPECT_EQ(read_file(path_), "ab234cd789");
  EXPECT_EQ(write_from("end", 12), 0);
  EXPECT_EQ(read_file(path_), "ab234cd789\0\0end"s);
}

TEST_F(Buffers, Are_written_to_a_new_file_with_all_rights_less_the_umask) {
  const mode_t before = umask(026);
  EXPECT_EQ(write_from("text", 3), 0);
  umask(before);
  EXPECT_EQ(read_file(path_), "\0\0\0text"s);
  EXPECT_EQ(mode_of(path_), 0751u);
}

TEST_F(Buffers, That_cannot_be_written_are_refused) {
  EXPECT_EQ(Write_File_From_Buffer(nullptr, "x", &(size_ = 1), 0), -EINVAL);
  EXPECT_EQ(Write_File_From_Buffer(path_.c_str(), nullptr, &size_, 0), -EINVAL);
  EXPECT_EQ(Write_File_From_Buffer(path_.c_str(), "x", nullptr, 0), -EINVAL);
  for (int64_t bad : {int64_t{0}, int64_t{-1}, INT64_MIN}) {
    EXPECT_EQ(Write_File_From_Buffer(path_.c_str(), "x", &bad, 0), -EINVAL);
  }
  EXPECT_FALSE(exists(path_)) << "arguments are looked at first";
  EXPECT_EQ(write_from("x", -1), -EINVAL);
  EXPECT_EQ(Write_File_From_Buffer((folder_ / "missing/file").c_str(), "x", &(size_ = 1), 0), -ENOENT);
  EXPECT_EQ(Write_File_From_Buffer(folder_.path().c_str(), "x", &(size_ = 1), 0), -EISDIR);
}

TEST_F(Buffers, Written_in_part_tell_how_much) {
  const Small_Disk disk;
  int64_t size = 100'000;
  const std::string data = data_of_length(size);
  EXPECT_EQ(Write_File_From_Buffer((disk / "file").c_str(), data.data(), &size, 0), -ENOSPC);
  EXPECT_EQ(size, 65536);
  EXPECT_EQ(read_file(disk / "file"), data.substr(0, 65536));
}

}  // namespace

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "include/tarncluster_util.h"
#include "tests/support/allocation_failure.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarn::test;
using Lines = std::vector<Log_Line>;

TEST(Clone_String, Copies_the_text_and_tells_its_length) {
  const std::string text = "a text";
  char *copy = nullptr;
  int length = -1;

  ASSERT_EQ(Clone_String(text.c_str(), &copy, &length), 0);

  EXPECT_STREQ(copy, "a text");
  EXPECT_NE(copy, text.c_str());
  EXPECT_EQ(length, 6);
  free(copy);
}

TEST(Clone_String, Copies_an_empty_text) {
  char *copy = nullptr;
  int length = -1;

  ASSERT_EQ(Clone_String("", &copy, &length), 0);

  EXPECT_STREQ(copy, "");
  EXPECT_EQ(length, 0);
  free(copy);
}

TEST(Clone_String, Works_without_a_place_for_the_length) {
  char *copy = nullptr;

  ASSERT_EQ(Clone_String("text", &copy, nullptr), 0);

  EXPECT_STREQ(copy, "text");
  free(copy);
}

TEST(Clone_String, Refuses_missing_arguments) {
  char untouched = 0;
  char *copy = &untouched;
  int length = 7;

  EXPECT_EQ(Clone_String(nullptr, &copy, &length), -EINVAL);
  EXPECT_EQ(Clone_String("text", nullptr, &length), -EINVAL);

  EXPECT_EQ(copy, &untouched);
  EXPECT_EQ(length, 7);
}

TEST(Clone_String, Stores_nothing_but_null_when_memory_ends_and_says_so_at_debug_level) {
  const Log_Capture log;
  char untouched = 0;
  char *copy = &untouched;
  int length = 7;

  const int allocations = with_each_allocation_failing(
      [&] { return Clone_String("text", &copy, &length); },
      [&](int result, int) {
        EXPECT_EQ(result, -ENOMEM);
        EXPECT_EQ(copy, nullptr);
        EXPECT_EQ(length, 7);
        EXPECT_EQ(log.lines(), Lines({debug_line("Clone_String", "Can't allocate memory error!")}));
      });

  EXPECT_EQ(allocations, 1);
  free(copy);
}

TEST(Clone_String, Says_nothing_below_debug_level_when_memory_ends) {
  const Log_Capture log(2);
  char *copy = nullptr;
  int result;

  {
    const Allocation_Failure failure(1);
    result = Clone_String("text", &copy, nullptr);
  }

  EXPECT_EQ(result, -ENOMEM);
  EXPECT_EQ(log.text(), "");
}

struct Truth {
  const char *text;
  int length;
  int value;
};

class Str_To_Bool_Of : public testing::TestWithParam<Truth> {};

TEST_P(Str_To_Bool_Of, Compares_the_first_characters_of_TRUE) {
  EXPECT_EQ(Str_To_Bool(GetParam().text, GetParam().length), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(Texts, Str_To_Bool_Of,
                         testing::Values(Truth{"TRUE", 4, 1}, Truth{"true", 4, 1}, Truth{"tRuE", 4, 1},
                                         Truth{"false", 4, 0}, Truth{"truth", 4, 0}, Truth{"truth", 3, 1},
                                         Truth{"truest", 4, 1}, Truth{"tru", 4, 0}, Truth{"anything", 0, 1},
                                         Truth{"", 0, 1}, Truth{"tomato", 1, 1}, Truth{"Tomato", 1, 1},
                                         Truth{"yes", 1, 0}, Truth{"", 1, 0}, Truth{"1", 1, 0},
                                         // Behind the four letters the terminator counts too.
                                         Truth{"true", 5, 1}, Truth{"true", 100, 1}, Truth{"truest", 5, 0},
                                         // Callers test for truth, and a status below 0 would be true.
                                         Truth{"true", -1, 0}, Truth{nullptr, 4, 0}, Truth{nullptr, 0, 0},
                                         Truth{nullptr, -1, 0}));

}  // namespace

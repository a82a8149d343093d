#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "include/tarncluster_util.h"

namespace {

struct Path_Case {
  const char *path;
  const char *name;
};

class Get_Filename_Of : public testing::TestWithParam<Path_Case> {};

TEST_P(Get_Filename_Of, Points_behind_the_last_slash_of_the_given_text) {
  const std::string path = GetParam().path;
  const char *name = nullptr;

  ASSERT_EQ(Get_Filename(path.c_str(), &name), 0);

  EXPECT_STREQ(name, GetParam().name);
  EXPECT_EQ(name, path.c_str() + path.size() - std::string(GetParam().name).size()) << "not a copy";
}

INSTANTIATE_TEST_SUITE_P(Paths, Get_Filename_Of,
                         testing::Values(Path_Case{"/etc/config/smb.conf", "smb.conf"},
                                         Path_Case{"smb.conf", "smb.conf"}, Path_Case{"/etc/config/", ""},
                                         Path_Case{"/", ""}, Path_Case{"", ""}, Path_Case{"a//b", "b"},
                                         Path_Case{"../..", ".."}));

TEST(Get_Filename, Refuses_missing_arguments) {
  static const char untouched[] = "untouched";
  const char *name = untouched;

  EXPECT_EQ(Get_Filename(nullptr, &name), -EINVAL);
  EXPECT_EQ(Get_Filename("/a/b", nullptr), -EINVAL);

  EXPECT_EQ(name, untouched);
}

}  // namespace

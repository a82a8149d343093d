// One configuration file in a folder of its own, and what is reported meanwhile.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/conf/whole_or_nothing.h"
#include "tests/support/log_capture.h"

namespace tarn::test {

class Conf_File_Test : public testing::Test {
 protected:
  // The file as it is, nothing else in its folder, and no lock.
  void expect_untouched(const File_State &old) {
    EXPECT_EQ(state_of(path_), old);
    EXPECT_EQ(names_in(folder_.path()), old.content ? std::vector<std::string>{"x.conf"} : std::vector<std::string>{});
    EXPECT_FALSE(exists(owned_lock("x.conf")));
  }

  std::string content() { return read_file(path_); }

  Temporary_Folder folder_;
  const std::string path_ = folder_ / "x.conf";
  const char *file_ = path_.c_str();
  Log_Capture log_;
};

}  // namespace tarn::test

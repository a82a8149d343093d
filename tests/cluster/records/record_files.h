// A file of records in a folder of its own.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/files.h"
#include "tests/support/log_capture.h"

namespace tarn::test {

// Every test ends with no lock, no descriptor and no temporary file left.
class Record_Files : public testing::Test {
 protected:
  explicit Record_Files(const std::string &file_name)
      : file_name_(file_name), path_(folder_ / file_name), descriptors_(open_descriptors()) {}

  ~Record_Files() override {
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_FALSE(exists(owned_lock(file_name_)));
    for (const std::string &name : names_in(folder_.path()))
      EXPECT_THAT(name, testing::Not(testing::HasSubstr(".tmp")));
  }

  std::string text() const { return read_file(path_); }

  Temporary_Folder folder_;
  std::string file_name_;
  std::string path_;
  Log_Capture log_;
  int descriptors_;
};

}  // namespace tarn::test

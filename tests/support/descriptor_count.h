// A test of code that opens descriptors.
#pragma once

#include <gtest/gtest.h>

#include "tests/support/files.h"

namespace tarn::test {

// Fails a test that ends with more or fewer open descriptors than it began with.
class Descriptor_Count : public testing::Test {
 protected:
  ~Descriptor_Count() override { EXPECT_EQ(open_descriptors(), before_) << "descriptors leak"; }

 private:
  const int before_ = open_descriptors();
};

}  // namespace tarn::test

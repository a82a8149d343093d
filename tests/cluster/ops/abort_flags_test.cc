#include <gtest/gtest.h>

#include "include/tarncluster_util.h"

namespace tarn::test {
namespace {

// These two run first: they see the globals as a program finds them.
TEST(Abort_Flags_At_Start, The_Abort_Flag_In_Use_Is_The_Librarys_Own_And_Zero) {
  EXPECT_EQ(g_bAbort, 0);
  EXPECT_EQ(g_pbAbort, &g_bAbort);
}

TEST(Abort_Flags_At_Start, The_Slave_On_Master_Flag_In_Use_Is_The_Librarys_Own_And_Zero) {
  EXPECT_EQ(g_bSlaveOnMaster, 0);
  EXPECT_EQ(g_pbSlaveOnMaster, &g_bSlaveOnMaster);
}

class Abort_Flags : public testing::Test {
 protected:
  void TearDown() override {
    Set_Abort(&g_bAbort);
    Set_Slave_On_Master(&g_bSlaveOnMaster);
  }
};

TEST_F(Abort_Flags, Set_Abort_Points_At_The_Callers_Flag_And_Changes_Nothing_Else) {
  int flag = 5;
  Set_Abort(&flag);
  EXPECT_EQ(g_pbAbort, &flag);
  EXPECT_EQ(flag, 5);
  EXPECT_EQ(g_bAbort, 0);
  EXPECT_EQ(g_pbSlaveOnMaster, &g_bSlaveOnMaster);
}

TEST_F(Abort_Flags, Set_Slave_On_Master_Points_At_The_Callers_Flag_And_Changes_Nothing_Else) {
  int flag = 5;
  Set_Slave_On_Master(&flag);
  EXPECT_EQ(g_pbSlaveOnMaster, &flag);
  EXPECT_EQ(flag, 5);
  EXPECT_EQ(g_bSlaveOnMaster, 0);
  EXPECT_EQ(g_pbAbort, &g_bAbort);
}

TEST_F(Abort_Flags, The_Flags_Can_Be_Pointed_Elsewhere_Again) {
  int first = 0, second = 0;
  Set_Abort(&first);
  Set_Abort(&second);
  Set_Slave_On_Master(&second);
  Set_Slave_On_Master(&first);
  EXPECT_EQ(g_pbAbort, &second);
  EXPECT_EQ(g_pbSlaveOnMaster, &first);
}

TEST_F(Abort_Flags, The_Setters_Do_Not_Check_Their_Argument) {
  Set_Abort(nullptr);
  Set_Slave_On_Master(nullptr);
  EXPECT_EQ(g_pbAbort, nullptr);
  EXPECT_EQ(g_pbSlaveOnMaster, nullptr);
}

}  // namespace
}  // namespace tarn::test

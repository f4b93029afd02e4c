#include <gtest/gtest.h>

#include <cstring>

#include "framework/Framework.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::FrameworkDouble;

TEST(Framework, AuditRecordsOnlyWhereOffered) {
  FrameworkDouble framework;
  framework.setAuditAvailable(false);
  EXPECT_FALSE(fwAuditAvailable());
  EXPECT_EQ(fwAuditRecord(FwAuditRecord{}), -1);
  EXPECT_TRUE(framework.auditRecords().empty());
}

TEST(Framework, WithoutAHostNothingBreaks) {
  ASSERT_EQ(fwGetHost(), nullptr);
  fwSetAffinity("x");
  fwShutdown(1);
  char msn[32];
  EXPECT_FALSE(fwGetOriginNode(msn, sizeof msn));
  EXPECT_EQ(frameworkMain(0, nullptr), 1);
  FwSubnodeRegistration registration{};
  EXPECT_EQ(fwSubnodeRegister(registration), FW_SUBNODE_FAILED);
  EXPECT_EQ(fwSubnodeDeregister("x"), FW_SUBNODE_FAILED);
  EXPECT_EQ(fwAuditRecord(FwAuditRecord{}), -1);
  EXPECT_NE(fwGetProductName(), nullptr);
}

TEST(Framework, LocalHostInformation) {
  FwHostInfo info;
  ASSERT_TRUE(fwGetLocalHostInfo(&info));
  EXPECT_EQ(strncmp(info.hostInfo, "Linux~", 6), 0) << info.hostInfo;
  EXPECT_GT(strlen(info.hostLoc), 0u);
  EXPECT_GT(strlen(info.hostAddr), 6u);
  EXPECT_FALSE(fwGetLocalHostInfo(nullptr));
}

TEST(Framework, SystemClockSleeps) {
  int64_t before = fwMonotonicMillis();
  fwSleepMillis(20);
  EXPECT_GE(fwMonotonicMillis() - before, 20);
  EXPECT_GT(fwTime(), 1700000000);
}

}  // namespace

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "framework/Framework.h"
#include "support/FrameworkDouble.h"

namespace {

using XRV::testing::FrameworkDouble;

int loaderCalls = 0;
int countingLoader() {
  ++loaderCalls;
  return 0;
}

const char* lastCommandText = nullptr;
int recordingCommand(const FwCommand& command) {
  lastCommandText = command.text;
  return 42;
}

TEST(Framework, LoaderAndActionCallbacksReachTheHost) {
  FrameworkDouble framework;
  loaderCalls = 0;
  fwRegisterAgentLoader(countingLoader);
  EXPECT_EQ(frameworkMain(0, nullptr), 0);
  EXPECT_EQ(loaderCalls, 1);

  fwRegisterCommandCallback("*", recordingCommand);
  EXPECT_EQ(framework.invokeCommand("Restart", "Restart web"), 42);
  EXPECT_STREQ(lastCommandText, "Restart web");
}

TEST(Framework, OriginNodeAndSubnodes) {
  FrameworkDouble framework;
  char msn[64];
  framework.setOriginNode("Primary:box:XR");
  ASSERT_TRUE(fwGetOriginNode(msn, sizeof msn));
  EXPECT_STREQ(msn, "Primary:box:XR");
  EXPECT_FALSE(fwGetOriginNode(msn, 4)) << "buffer too small";
  framework.setOriginNode(nullptr);
  EXPECT_FALSE(fwGetOriginNode(msn, sizeof msn));

  const char* features[] = {"AFF_FEAT_DM_PARITY"};
  FwSubnodeRegistration registration{"RV:web01:LNX", "%XRV.XRV", "LNX", "06.30", features, 1,
                                     "Linux~6",      "10.0.0.1", "web"};
  EXPECT_EQ(fwSubnodeRegister(registration), FW_SUBNODE_OK);
  framework.setRegistrationResult(FW_SUBNODE_SEND_FAILED);
  EXPECT_EQ(fwSubnodeRegister(registration), FW_SUBNODE_SEND_FAILED);
  EXPECT_EQ(fwSubnodeDeregister("RV:web01:LNX"), FW_SUBNODE_OK);
  ASSERT_EQ(framework.registrations().size(), 2u);
  EXPECT_EQ(framework.registrations()[0].msn, "RV:web01:LNX");
  EXPECT_EQ(framework.registrations()[0].affinityFeatures,
            std::vector<std::string>{"AFF_FEAT_DM_PARITY"});
  EXPECT_EQ(framework.deregistrations(), std::vector<std::string>{"RV:web01:LNX"});
}

TEST(Framework, AuditRecordsOnlyWhereOffered) {
  FrameworkDouble framework;
  FwAuditRecord record{"QBXAgent", "The agent is shutting down.",
                       "Shutdown", "Stop",
                       "XRV9001I", fwGetProductName(),
                       36,         6000,
                       "XRV"};
  EXPECT_TRUE(fwAuditAvailable());
  EXPECT_EQ(fwAuditRecord(record), 0);
  framework.setAuditAvailable(false);
  EXPECT_FALSE(fwAuditAvailable());
  EXPECT_EQ(fwAuditRecord(record), -1);
  ASSERT_EQ(framework.auditRecords().size(), 1u);
  EXPECT_EQ(framework.auditRecords()[0].messageId, "XRV9001I");
  EXPECT_EQ(framework.auditRecords()[0].recordCode, 6000);
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

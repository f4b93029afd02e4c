#include "subnode/SubnodeConfiguration.h"

#include <gtest/gtest.h>

#include "foundation/HashMap.h"
#include "support/TestConfiguration.h"

namespace {

TEST(SubnodeConfiguration, CopiesOneSection) {
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(
      file.load("[agent]\nAGENT_ONLY = a\n"
                "[subnode LNX web01]\nHOST = web01\nPORT = 8080\n"
                "[subnode LNX web02]\nHOST = web02\n"));

  HashMap* web01 = getSubnodeConfiguration("LNX", "web01");
  ASSERT_NE(web01, nullptr);
  EXPECT_EQ(web01->getCount(), 2);
  EXPECT_STREQ(static_cast<const char*>(web01->get("HOST")), "web01");
  EXPECT_STREQ(static_cast<const char*>(web01->get("PORT")), "8080");
  EXPECT_FALSE(web01->contains("AGENT_ONLY")) << "only the section itself, no fallbacks";
  freeSubnodeConfiguration(web01);

  EXPECT_EQ(getSubnodeConfiguration("LNX", "web03"), nullptr);
  EXPECT_EQ(getSubnodeConfiguration(nullptr, "web01"), nullptr);
  freeSubnodeConfiguration(nullptr);
}

}  // namespace

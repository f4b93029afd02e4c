// Configuration discovery: subnodes that the configuration file defines, from the
// definition element to registered subnodes whose providers read their own section.

#include "subnode/ConfigDiscovery.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "ProviderTestSupport.h"
#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/DefinitionCheck.h"
#include "provider/UAClientClassList.h"
#include "subnode/SubnodeManager.h"
#include "support/FrameworkDouble.h"
#include "support/TestConfiguration.h"
#include "support/Wait.h"

namespace {

using XRV::testing::ConfigurationFile;
using XRV::testing::DecodingRequest;
using XRV::testing::FrameworkDouble;
using Rows = std::vector<std::vector<std::string>>;
using Strings = std::vector<std::string>;

constexpr char kAppl[] =
    R"(<appl name="XRV" nodeType="XR" affinity="%XRV.AGENT" version="01.00.00"/>)";
constexpr char kDiscoveryGroup[] =
    R"(<ag name="Configured" table="XRVCONF" discovery_attribute_group="true">)"
    R"(<attr name="Subnode_Key" type="2" size="32"/><attr name="Subnode_Type" type="2" size="4"/>)"
    R"(<attr name="Subnode_Affinity" type="2" size="32"/>)"
    R"(<attr name="Subnode_Version" type="2" size="12"/>)"
    R"(<attr name="Subnode_Status" type="2" size="8"/>)"
    R"(<attr name="HOST_NAME" type="2" size="64"/><attr name="PORT" type="0" size="4"/></ag>)";
// A script group of type LNX whose rows show the LABEL of its subnode's section.
constexpr char kServerGroup[] =
    R"(<ag name="Server" table="XRVSRV" subnode_type="LNX"><attr name="Host" type="2" size="64"/></ag>)";
constexpr char kServerScript[] =
    R"(<script app="XRV" ag="Server" command="echo host-$LABEL">)"
    R"(<metric name="Host" type="STRING_DATA" visible="true" key="true"/></script>)";

constexpr char kConfiguration[] =
    "[agent]\n"
    "SITE = eu\n"
    "[subnode LNX web01]\n"
    "AFFINITY = %WEB\n"
    "VERSION = 02.00\n"
    "HOST_NAME = ${BASE}.example.com\n"
    "BASE = ${SITE}-web01\n"
    "PORT = 8080\n"
    "LABEL = first\n"
    "[subnode LNX web02]\n"
    "HOST_NAME = web02.example.com\n"
    "LABEL = second\n"
    "[subnode DB db01]\n"
    "HOST_NAME = ${A}\n"
    "A = ${B}\n"
    "B = ${C}\n"
    "C = three levels down\n";

class ConfigDiscoveryTest : public ::testing::Test {
 protected:
  void TearDown() override {
    manager_.reset();
    queryClassList().deleteAll();
    resetDefinitionState();
    resetDiscoveryAttributeGroupUpdatesForTesting();
  }

  // Reads the definition and binds its providers to their groups, as start-up does
  // (without starting them).
  void define(const std::string& elements, const std::string& groups = kDiscoveryGroup) {
    DefinitionCheck check;
    ASSERT_TRUE(check.check(std::string("<agent>") + kAppl + "<metadata>" + groups + "</metadata>" +
                            elements + "</agent>"))
        << (check.error() ? check.error()->message : "");
    for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
         provider = static_cast<UAClientClass*>(provider->getNextElement())) {
      AttributeGroupMeta* meta = findAttributeGroupMeta(provider->getAttributeGroup());
      ASSERT_NE(meta, nullptr);
      meta->setQuery(provider);
      provider->setAttributeGroupMeta(meta);
    }
  }

  void startAll() {
    for (UAClientClass* provider = queryClassList().getFirst(); provider != nullptr;
         provider = static_cast<UAClientClass*>(provider->getNextElement())) {
      provider->start();
    }
  }

  SubnodeManager& manager() {
    if (manager_ == nullptr) {
      manager_ = std::make_unique<SubnodeManager>(SubnodeManagerSettings{});
    }
    return *manager_;
  }

  static Rows rowsOf(UAClientClass* provider, const char* origin = "here") {
    DecodingRequest request(provider->getAttributeGroupMeta());
    provider->sendDataToAFW(&request, origin);
    return request.rows;
  }

  static Strings msns(const std::vector<FrameworkDouble::Registration>& registrations) {
    Strings names;
    for (const auto& registration : registrations) {
      names.push_back(registration.msn + " " + registration.affinity + " " + registration.version);
    }
    return names;
  }

  FrameworkDouble framework_{"detail:ConfigDiscovery.cpp"};
  ConfigurationFile configuration_;
  std::unique_ptr<SubnodeManager> manager_;
};

TEST_F(ConfigDiscoveryTest, EverySectionBecomesARow) {
  ASSERT_TRUE(configuration_.load(kConfiguration));
  struct Case {
    const char* name;
    std::string element;
    Rows expected;
  };
  const Rows all = {
      {"here", "web01", "LNX", "%WEB", "02.00", "ONLINE", "eu-web01.example.com", "8080"},
      {"here", "web02", "LNX", "%XRV.AGENT", "01.00.00", "ONLINE", "web02.example.com", "0"},
      // Expanded twice: a third level of references stays as it is.
      {"here", "db01", "DB", "%XRV.AGENT", "01.00.00", "ONLINE", "${C}", "0"},
  };
  const Case cases[] = {
      {"columns from the group", R"(<config_discovery app="XRV" ag="Configured"/>)", all},
      {"one subnode type", R"(<config_discovery ag="Configured" type="DB"/>)", {all[2]}},
      {"metrics of its own",
       R"(<config_discovery ag="Configured">)"
       R"(<metric name="Subnode_Key" type="STRING_DATA" key="true" visible="true"/>)"
       R"(<metric name="Subnode_Type" type="STRING_DATA" visible="true"/>)"
       R"(<metric name="Subnode_Affinity" type="STRING_DATA" visible="true"/>)"
       R"(<metric name="Subnode_Version" type="STRING_DATA" visible="true"/>)"
       R"(<metric name="Subnode_Status" type="STRING_DATA" visible="true"/>)"
       R"(<metric name="HOST_NAME" type="STRING_DATA" visible="true"/>)"
       R"(<metric name="PORT" type="NUMERIC_DATA" visible="true"/>)"
       R"(</config_discovery>)",
       all},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    define(c.element);
    auto* provider = static_cast<ConfigDiscoveryQueryClass*>(queryClassList().getFirst());
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(provider->getObjectType(), UA_CONFIG_DISCOVERY);
    EXPECT_EQ(provider->getMetricCount(), 7);
    provider->start();
    provider->collectData(nullptr);
    EXPECT_EQ(rowsOf(provider), c.expected);
    EXPECT_EQ(provider->getPerfErrorCode(), OBJECT_ACTIVE);
    queryClassList().deleteAll();
    resetDefinitionState();
  }
}

TEST_F(ConfigDiscoveryTest, NoSectionsNoRows) {
  ASSERT_TRUE(configuration_.load("[agent]\nX = 1\n"));
  // The metadata comes after the element here: the provider takes its columns when
  // it starts.
  DefinitionCheck check;
  ASSERT_TRUE(check.check(std::string("<agent>") + kAppl +
                          R"(<config_discovery ag="Configured"/><metadata>)" + kDiscoveryGroup +
                          "</metadata></agent>"));
  auto* provider = static_cast<ConfigDiscoveryQueryClass*>(queryClassList().getFirst());
  EXPECT_EQ(provider->getMetricCount(), 0);
  provider->setAttributeGroupMeta(findAttributeGroupMeta("Configured"));
  provider->start();
  EXPECT_EQ(provider->getMetricCount(), 7);
  provider->collectData(nullptr);
  EXPECT_TRUE(rowsOf(provider).empty());
  EXPECT_EQ(provider->getPerfErrorCode(), NO_INSTANCES_RETURNED);
}

TEST_F(ConfigDiscoveryTest, ConfiguredSubnodesAreRegisteredAndServedFromTheirOwnSection) {
  ASSERT_TRUE(configuration_.load(kConfiguration));
  define(std::string(R"(<config_discovery ag="Configured" type="LNX"/>)") + kServerScript,
         std::string(kDiscoveryGroup) + kServerGroup);
  startAll();

  EXPECT_EQ(updateDiscoveryAttributeGroups(queryClassList(), manager()), 1);
  EXPECT_EQ(msns(framework_.registrations()),
            (Strings{"RV:web01:LNX %WEB 02.00", "RV:web02:LNX %XRV.AGENT 01.00.00"}));
  const AttributeGroupMeta* server = findAttributeGroupMeta("Server");
  for (const char* key : {"web01", "web02"}) {
    SCOPED_TRACE(key);
    const std::string msn = std::string("RV:") + key + ":LNX";
    UAClientClass* copy = manager().getSubnodeQueryClass(msn.c_str(), server);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy->getSubnodeKey(), key);
    copy->collectData(nullptr);
    const std::string label = key == std::string("web01") ? "first" : "second";
    EXPECT_EQ(rowsOf(copy, msn.c_str()), (Rows{{msn, "host-" + label}}));
  }

  // A second pass changes nothing; a section taken out of the file removes its
  // subnode, and one put back comes back with new copies.
  EXPECT_EQ(updateDiscoveryAttributeGroups(queryClassList(), manager()), 1);
  EXPECT_EQ(framework_.registrations().size(), 2u);
  ASSERT_TRUE(configuration_.load("[subnode LNX web01]\nLABEL = first\n"));
  updateDiscoveryAttributeGroups(queryClassList(), manager());
  EXPECT_EQ(framework_.deregistrations(), (Strings{"RV:web02:LNX"}));
  EXPECT_FALSE(manager().isManagingSubnode("RV:web02:LNX"));
  ASSERT_TRUE(configuration_.load(kConfiguration));
  updateDiscoveryAttributeGroups(queryClassList(), manager());
  UAClientClass* again = manager().getSubnodeQueryClass("RV:web02:LNX", server);
  ASSERT_NE(again, nullptr);
  again->collectData(nullptr);
  EXPECT_EQ(rowsOf(again, "x"), (Rows{{"x", "host-second"}}));
}

TEST_F(ConfigDiscoveryTest, TheUpdateThreadRunsAtOnceAndStopsPromptly) {
  ASSERT_TRUE(configuration_.load(kConfiguration));
  define(R"(<config_discovery ag="Configured" type="LNX"/>)");
  startAll();
  setSubnodeManagerForTesting(&manager());

  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, periodicallyUpdateDiscoveryAttributeGroups, nullptr),
            0);
  XRV::testing::waitUntil([this] { return framework_.registrations().size() >= 2; }, 5);
  EXPECT_EQ(framework_.registrations().size(), 2u);

  // The next pass is a minute away: stopping does not wait for it.
  auto started = std::chrono::steady_clock::now();
  stopDiscoveryAttributeGroupUpdates();
  pthread_join(thread, nullptr);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(1));

  // A thread started after the stop ends at once.
  ASSERT_EQ(pthread_create(&thread, nullptr, periodicallyUpdateDiscoveryAttributeGroups, nullptr),
            0);
  pthread_join(thread, nullptr);
  setSubnodeManagerForTesting(nullptr);
}

}  // namespace

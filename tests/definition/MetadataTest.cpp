#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "definition/AgentSettings.h"
#include "definition/AttributeGroupMeta.h"
#include "definition/AttributeMeta.h"
#include "definition/DefinitionCheck.h"
#include "foundation/HashMap.h"
#include "support/Attributes.h"

namespace {

using XRV::testing::attrs;

// Reads `metadata` (the inside of a <metadata> element) and returns the check's
// verdict; the groups are in metaMap afterwards.
class MetadataTest : public ::testing::Test {
 protected:
  void TearDown() override {
    setPerfObjectStatusHook(nullptr);
    resetDefinitionState();
  }
  bool read(const std::string& metadata) {
    resetDefinitionState();
    bool ok =
        check_.check("<agent><appl name=\"XRV\"/><metadata>" + metadata + "</metadata></agent>");
    EXPECT_FALSE(check_.error().has_value()) << check_.error()->message;
    return ok;
  }
  std::vector<std::string> warnings() const {
    std::vector<std::string> texts;
    for (const DefinitionProblem& warning : check_.warnings()) {
      texts.push_back(warning.message);
    }
    return texts;
  }

  DefinitionCheck check_;
};

TEST_F(MetadataTest, RowLayoutAndAlignment) {
  struct Case {
    const char* description;
    std::string attributes;
    std::vector<int> offsets;
    int rowSize;
  };
  // clang-format off
  const Case cases[] = {
      {"text then number", attrs("t:1:64 n:0:4"), {32, 96}, 100},
      {"2-byte number after an odd offset goes to the next even one",
       attrs("t:2:3 s:0:2 l:9:8"), {32, 36, 40}, 48},
      {"8-byte values are aligned to 4 only", attrs("t:1:2 l:7:8"), {32, 36}, 44},
      {"4-byte number after one text byte", attrs("t:1:1 n:3:4"), {32, 36}, 40},
      {"hidden attributes take no place", attrs("-h:1:64 n:0:4 -x:0:4"), {-1, 32, -1}, 36},
      {"unsupported numeric size: no alignment", attrs("t:1:1 odd:0:3 n:0:2"), {32, 33, 36}, 38},
      {"unknown type code: no alignment", attrs("t:1:1 u:42:4"), {32, 33}, 37},
      {"no attributes: only the origin node", "", {}, 32},
      {"impossible sizes take no space", attrs("neg:1:-5 huge:1:2147483647 n:0:4"), {32, 32, 32}, 36},
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.description);
    ASSERT_TRUE(read(std::string(R"(<ag name="G" table="XRVG">)") + c.attributes + "</ag>"));
    AttributeGroupMeta* group = findAttributeGroupMeta("G");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(group->rowSize(), c.rowSize);
    ASSERT_EQ(group->noOfAttributes(), static_cast<int>(c.offsets.size()) + 1);
    AttributeMeta* origin = group->getAttribute(0);
    EXPECT_STREQ(origin->getName(), "ORIGINNODE");
    EXPECT_EQ(origin->getType(), 1);
    EXPECT_EQ(origin->getSize(), 32);
    EXPECT_EQ(origin->getOffset(), 0);
    std::vector<int> offsets;
    int visible = 1;
    for (int i = 1; i < group->noOfAttributes(); ++i) {
      offsets.push_back(group->getAttribute(i)->getOffset());
      visible += group->getAttribute(i)->isHidden() ? 0 : 1;
    }
    EXPECT_EQ(offsets, c.offsets);
    EXPECT_EQ(group->noOfColumns(), visible);
  }
}

TEST_F(MetadataTest, ColumnsSkipHiddenAttributes) {
  ASSERT_TRUE(read(R"(<ag name="Disk" table="XRVDISK">)"
                   R"(<attr name="Mount" hint="mount point" type="2" size="256"/>)"
                   R"(<attr name="-Device" type="1" size="64"/>)"
                   R"(<attr name="Used_Pct" type="4" size="4"/></ag>)"));
  AttributeGroupMeta* group = findAttributeGroupMeta("Disk");
  ASSERT_NE(group, nullptr);
  EXPECT_STREQ(group->tableName(), "XRVDISK");
  EXPECT_STREQ(group->applName(), "XRV");
  ASSERT_EQ(group->noOfColumns(), 3);
  EXPECT_STREQ(group->attrInfo(1)->name, "Mount");
  EXPECT_STREQ(group->attrInfo(2)->name, "Used_Pct");
  EXPECT_EQ(group->attrInfo(3), nullptr);
  EXPECT_EQ(group->findColumn("Used_Pct"), 2);
  EXPECT_EQ(group->findColumn("Device"), -1) << "hidden: an attribute, not a column";
  ASSERT_NE(group->findAttribute("Device", true), nullptr);
  EXPECT_STREQ(group->findAttribute("Mount", false)->getHint(), "mount point");
  EXPECT_EQ(group->findAttribute("-Device", false), nullptr) << "the '-' is not kept";
  int type = 0, size = 0, offset = 0;
  ASSERT_TRUE(group->columnInfo("Used_Pct", &type, &size, &offset));
  EXPECT_EQ(type, 4);
  EXPECT_EQ(size, 4);
  EXPECT_EQ(offset, 288);
  EXPECT_FALSE(group->columnInfo("Nope", &type, &size, &offset));
}

TEST_F(MetadataTest, GroupFlagsAndTexts) {
  ASSERT_TRUE(read(
      R"(<ag name="Events" table="XRVEVT" pure="true" discovery_attribute_group="yes")"
      R"( subnode_type="LNX" filter_expression="sev &gt; 3")"
      R"( event_flood_threshold="send_first" event_summary_interval="60">)"
      R"(<receive_req name="XRV_REQ"/></ag>)"
      R"(<ag name="Plain" table="XRVPLN" pure="TRUE" filter_expression_grammar="expression"/>)"));
  AttributeGroupMeta* events = findAttributeGroupMeta("Events");
  ASSERT_NE(events, nullptr);
  EXPECT_TRUE(events->pureEventBased());
  EXPECT_FALSE(events->isDiscoveryAttributeGroup()) << "only the exact text true";
  EXPECT_STREQ(events->subnodeType(), "LNX");
  EXPECT_STREQ(events->getFilterExpression(), "sev > 3");
  EXPECT_STREQ(events->getFilterGrammar(), "filter");
  EXPECT_STREQ(events->evtFloodThreshold(), "send_first");
  EXPECT_STREQ(events->evtSummaryInterval(), "60");
  ASSERT_NE(events->getRequestInfoMap(), nullptr);
  EXPECT_TRUE(events->getRequestInfoMap()->contains("XRV_REQ"));

  AttributeGroupMeta* plain = findAttributeGroupMeta("Plain");
  ASSERT_NE(plain, nullptr);
  EXPECT_FALSE(plain->pureEventBased()) << "TRUE is not true";
  EXPECT_EQ(plain->subnodeType(), nullptr);
  EXPECT_EQ(plain->evtFloodThreshold(), nullptr);
  EXPECT_STREQ(plain->getFilterGrammar(), "expression");
  EXPECT_EQ(plain->getRequestInfoMap(), nullptr);
}

TEST_F(MetadataTest, ALaterGroupOfTheSameNameReplacesTheEarlierOne) {
  ASSERT_TRUE(read(R"(<ag name="G" table="FIRST"><attr name="a" type="0" size="4"/></ag>)"
                   R"(<ag name="Other" table="OTHER"/>)"
                   R"(<ag name="G" table="SECOND"/>)"));
  ASSERT_NE(findAttributeGroupMeta("G"), nullptr);
  EXPECT_STREQ(findAttributeGroupMeta("G")->tableName(), "SECOND");
  EXPECT_EQ(metaMap().getCount(), 2);
  std::vector<AttributeGroupMeta*> order = attributeGroupsInDefinitionOrder();
  ASSERT_EQ(order.size(), 2u);
  EXPECT_STREQ(order[0]->tableName(), "OTHER");
  EXPECT_STREQ(order[1]->tableName(), "SECOND");
}

TEST_F(MetadataTest, WarningsForWhatTheAgentCanLiveWith) {
  ASSERT_TRUE(read(R"(<attr name="stray" type="1" size="4"/>)"
                   R"(<ag name="G" table="T"><attr name="odd" type="0" size="3"/>)"
                   R"(<attr name="u" type="17" size="4"/><attr name="nosize" type="1"/></ag>)"));
  EXPECT_EQ(warnings(),
            (std::vector<std::string>{"Attribute stray outside an attribute group is ignored",
                                      "WARNING: Attribute odd has an unsupported length: 3",
                                      "WARNING: Attribute u is an unknown type 17",
                                      "Attribute nosize of group G lacks its size"}));
}

TEST_F(MetadataTest, AGroupLeftOpenByABrokenDefinitionIsForgotten) {
  // The first definition breaks inside a group; its half-read state must not reach
  // the next definition (which closes that group's pointer after the groups of the
  // first were destroyed).
  EXPECT_FALSE(
      check_.check("<agent><metadata><ag name=\"A\" table=\"T\">"
                   "<attr name=\"x\" type=\"1\" size=\"4\"/><broken ='>"));
  resetDefinitionState();
  ASSERT_TRUE(read(R"(<ag name="B" table="U"/><ag name="C" table="V"/>)"));
  EXPECT_EQ(findAttributeGroupMeta("A"), nullptr);
  ASSERT_NE(findAttributeGroupMeta("B"), nullptr);
  EXPECT_EQ(findAttributeGroupMeta("B")->noOfAttributes(), 1) << "only its own ORIGINNODE";
}

TEST_F(MetadataTest, AGroupOpenWhenANestedMetadataEndsIsFinishedThere) {
  // The nested metadata's end tag ends the dispatch: the group's own end tag never
  // reaches the metadata reader.
  ASSERT_TRUE(read(R"(<ag name="G" table="T"><metadata><attr name="a" type="1" size="4"/>)"
                   R"(</metadata></ag>)"));
  AttributeGroupMeta* group = findAttributeGroupMeta("G");
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->rowSize(), 36);
  EXPECT_EQ(group->noOfColumns(), 2);
}

std::vector<std::string> hookCalls;
void recordingHook(AttributeGroupMeta* group, const char* name) {
  hookCalls.push_back(std::string(name) + "/" + group->tableName() + "/" +
                      std::to_string(group->rowSize()));
}

TEST_F(MetadataTest, StatusGroupsCallTheHookOnceComplete) {
  hookCalls.clear();
  setPerfObjectStatusHook(recordingHook);
  ASSERT_TRUE(read(R"(<ag name="XRV_Performance_Object_Status" table="XRVPOS">)"
                   R"(<attr name="Query_Name" type="2" size="64"/></ag>)"
                   R"(<ag name="Performance_Object_Status" table="POS"/>)"
                   R"(<ag name="Disk" table="DSK"/>)"));
  EXPECT_EQ(hookCalls, std::vector<std::string>{"XRV_Performance_Object_Status/XRVPOS/96"});
}

}  // namespace

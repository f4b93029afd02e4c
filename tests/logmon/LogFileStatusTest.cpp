// The log engine's status groups: Log_File_Status and Log_File_RegEx_Statistics over
// a running log monitor group.

#include <gtest/gtest.h>

#include <string>

#include "LogMonitorTestSupport.h"
#include "runtime/LogFileStatus.h"

namespace {

using XRV::testing::logMonitorDefinition;
using XRV::testing::LogMonitorTest;
using XRV::testing::Rows;
using XRV::testing::waitUntil;

const char kStatusGroups[] =
    R"(<ag name="Log_File_Status" table="TLFS">)"
    R"(<attr name="Table_Name" type="2" size="32"/><attr name="Attribute_Group" type="2" size="32"/>)"
    R"(<attr name="File_Name" type="2" size="128"/><attr name="RegEx_Pattern" type="2" size="64"/>)"
    R"(<attr name="File_Status" type="2" size="16"/><attr name="File_Status_Code" type="0" size="4"/>)"
    R"(<attr name="File_Size" type="7" size="8"/><attr name="Current_Position" type="7" size="8"/>)"
    R"(<attr name="Lines_Read" type="7" size="8"/><attr name="Records_Sent" type="7" size="8"/>)"
    R"(<attr name="Last_Modification_Time" type="2" size="16"/></ag>)"
    R"(<ag name="Log_File_RegEx_Statistics" table="TLFR">)"
    R"(<attr name="Table_Name" type="2" size="32"/><attr name="Attribute_Name" type="2" size="32"/>)"
    R"(<attr name="RegEx_Pattern" type="2" size="64"/><attr name="Matches" type="7" size="8"/>)"
    R"(<attr name="Misses" type="7" size="8"/><attr name="Limit_Hits" type="7" size="8"/>)"
    R"(<attr name="CPU_Time" type="7" size="8"/></ag>)";

TEST_F(LogMonitorTest, StatusGroupsReportTheEnginesFilesAndPatterns) {
  setConfigurationProperty("LOG_DIR", directory_.path().c_str());
  directory_.append("app.log", "");
  std::string document = logMonitorDefinition(
      "Errors", R"(pure="true")", R"(<attr name="Message" type="2" size="64"/>)",
      R"(app="XRV" ag="Errors")", R"(<metric name="Message" type="STRING_DATA" visible="true"/>)",
      "//APPL XRV\n//NAME Errors E\n//SOURCE FILE '${LOG_DIR}/app.log'\n"
      "//SOURCE FILE REGEX='${LOG_DIR}/^none.*$'\n//ATTRIBUTES NEWLINE\n"
      "Message Z 64 +FILTER={ScanRegEx(0,ERROR)}\n");
  document.insert(document.find("</metadata>"), kStatusGroups);
  LogMonitorQueryClass* provider = load(document);
  ASSERT_NE(provider, nullptr);
  provider->start();
  directory_.append("app.log", "ERROR one\nfine\nERROR two\n");
  ASSERT_TRUE(waitUntil([&] { return events("Errors").size() == 2; }));

  LogFileStatus files("ZQM", "Log_File_Status", findAttributeGroupMeta("Log_File_Status"));
  LogFileRegExStats patterns("ZQM", "Log_File_RegEx_Statistics",
                             findAttributeGroupMeta("Log_File_RegEx_Statistics"));
  // The engine brings its figures up to date every 200 ms.
  const std::string file = directory_.file("app.log");
  Rows fileRows;
  ASSERT_TRUE(waitUntil([&] {
    fileRows = collect(files);
    for (const auto& row : fileRows) {
      if (row[2] == file && row[9] == "2") {
        return true;
      }
    }
    return false;
  }));
  ASSERT_EQ(fileRows.size(), 2u);
  const bool followedFirst = fileRows[0][2] == file;
  const std::vector<std::string>& followed = fileRows[followedFirst ? 0 : 1];
  const std::vector<std::string>& waiting = fileRows[followedFirst ? 1 : 0];
  EXPECT_EQ(followed[0], "Errors");
  EXPECT_EQ(followed[1], "Errors");
  EXPECT_EQ(followed[3], "");
  EXPECT_EQ(followed[4], "FOLLOWING");
  EXPECT_EQ(followed[5], "0");  // the code of the state: a numeric attribute of another name
  EXPECT_EQ(followed[6], "25");
  EXPECT_EQ(followed[7], "25");
  EXPECT_EQ(followed[8], "3");
  EXPECT_EQ(followed[10].size(), 16u) << "CYYMMDDHHMMSSmmm";
  // The pattern that matches no file yet: waiting, with nothing known about it.
  EXPECT_EQ(waiting[2], waiting[3]);
  EXPECT_EQ(waiting[3], directory_.path() + "/^none.*$");
  EXPECT_EQ(waiting[4], "WAITING");
  EXPECT_EQ(waiting[6], "-1");

  Rows patternRows;
  ASSERT_TRUE(waitUntil([&] {
    patternRows = collect(patterns);
    return patternRows.size() == 1 && patternRows[0][3] == "2";
  }));
  EXPECT_EQ(patternRows[0][0], "Errors");
  EXPECT_EQ(patternRows[0][1], "Message");
  EXPECT_EQ(patternRows[0][2], "ERROR");
  EXPECT_EQ(patternRows[0][4], "1");
  EXPECT_EQ(patternRows[0][5], "0");
}

}  // namespace

// xrvctl as an operator runs it: the real binary, its exit status and its output.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

namespace {

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// A file of its own for every call: ctest runs these tests side by side.
std::string uniqueTemp(const char* stem) {
  std::string path = testing::TempDir() + stem + "-XXXXXX";
  int fd = mkstemp(path.data());
  if (fd >= 0) {
    close(fd);
  }
  return path;
}

Outcome xrvctl(const std::string& arguments) {
  std::string out = uniqueTemp("xrvctl.out");
  std::string err = uniqueTemp("xrvctl.err");
  std::string command = std::string(XRVCTL) + " " + arguments + " >" + out + " 2>" + err;
  int status = std::system(command.c_str());
  Outcome outcome{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
  unlink(out.c_str());
  unlink(err.c_str());
  return outcome;
}

std::string writeTemp(const char* stem, const std::string& text) {
  std::string path = uniqueTemp(stem);
  std::ofstream(path) << text;
  return path;
}

const std::string kExample = XRV_EXAMPLES_DIR "/definitions/linux-basics.xml";

TEST(Xrvctl, ValidateListsGroupsAsTables) {
  Outcome run = xrvctl("validate " + kExample);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("Disk_Usage  table XRVDISK, row 380 bytes"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("  Raw_Line         1   512  hidden"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("7 attribute groups"), std::string::npos);
}

TEST(Xrvctl, ValidateAsJson) {
  Outcome run = xrvctl("validate --json " + kExample);
  ASSERT_EQ(run.status, 0) << run.err;
  nlohmann::json report = nlohmann::json::parse(run.out);
  ASSERT_EQ(report["groups"].size(), 7u);
  const nlohmann::json& disk = report["groups"][0];
  EXPECT_EQ(disk["group"], "Disk_Usage");
  EXPECT_EQ(disk["table"], "XRVDISK");
  EXPECT_EQ(disk["row_size"], 380);
  EXPECT_EQ(disk["pure_event"], false);
  EXPECT_EQ(disk["discovery"], false);
  EXPECT_TRUE(disk["subnode_type"].is_null());
  const nlohmann::json& attributes = disk["attributes"];
  EXPECT_EQ(attributes[0]["name"], "ORIGINNODE");
  EXPECT_EQ(attributes[0]["offset"], 0);
  EXPECT_EQ(attributes[1]["hint"], "where the file system is mounted");
  EXPECT_TRUE(attributes[2]["hint"].is_null());
  EXPECT_EQ(attributes.back()["name"], "Raw_Line");
  EXPECT_EQ(attributes.back()["offset"], -1);
  ASSERT_TRUE(report["warnings"].is_array());
  for (const nlohmann::json& warning : report["warnings"]) {
    EXPECT_GT(warning["line"].get<int>(), 0);
  }
}

TEST(Xrvctl, ValidateReportsTheFirstErrorWithItsPosition) {
  std::string broken = writeTemp("broken.xml",
                                 "<agent>\n"
                                 "  <metadata>\n"
                                 "    <ag name='Disk' table=\"XRVDISK\"/>\n"
                                 "  </metadata>\n"
                                 "</agent>\n");
  Outcome run = xrvctl("validate " + broken);
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, broken + ":3:5: error: Attribute value does not start with quote\n");
  EXPECT_EQ(run.out, "");

  Outcome json = xrvctl("validate --json " + broken);
  EXPECT_EQ(json.status, 1);
  nlohmann::json report = nlohmann::json::parse(json.out);
  EXPECT_EQ(report["error"]["line"], 3);
  EXPECT_EQ(report["error"]["column"], 5);
  EXPECT_EQ(report["error"]["message"], "Attribute value does not start with quote");
}

TEST(Xrvctl, ValidateWarnsAboutWhatItCannotUse) {
  std::string odd = writeTemp("odd.xml",
                              "<agent>\n"
                              "  <cimom name=\"x\"/>\n"
                              "  <metadata><ag name=\"G\" table=\"T\">\n"
                              "    <attr name=\"weird\" type=\"0\" size=\"3\"/>\n"
                              "  </ag></metadata>\n"
                              "</agent>\n");
  Outcome run = xrvctl("validate " + odd);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err,
            odd + ":2: warning: Element cimom is not handled by this build and is ignored\n" + odd +
                ":4: warning: WARNING: Attribute weird has an unsupported length: 3\n" + odd +
                ": warning: Attribute group G has no data source: its table stays empty\n");
}

TEST(Xrvctl, ValidateComparesDataSourcesWithTheirGroups) {
  std::string mixed = writeTemp(
      "mixed.xml",
      "<agent>\n"
      "  <metadata>\n"
      "    <ag name=\"Disk\" table=\"T1\">\n"
      "      <attr name=\"Mount\" type=\"1\" size=\"8\"/><attr name=\"Used\" type=\"0\" size=\"4\"/>\n"
      "      <attr name=\"Free\" type=\"0\" size=\"4\"/><attr name=\"-Raw\" type=\"1\" size=\"8\"/>\n"
      "    </ag>\n"
      "    <ag name=\"Thread_Pool_Status\" table=\"T2\"><attr name=\"Thread_Pool_Size\" type=\"0\" size=\"4\"/></ag>\n"
      "  </metadata>\n"
      "  <script ag=\"Disk\" command=\"true\">\n"
      "    <metric name=\"Mount\" visible=\"true\" type=\"STRING_DATA\"/>\n"
      "    <metric name=\"Free\" visible=\"true\" type=\"NUMERIC_DATA\"/><metric name=\"Raw\" type=\"STRING_DATA\"/>\n"
      "  </script>\n"
      "  <script ag=\"Disk\" command=\"false\"/>\n"
      "  <script ag=\"Undeclared\" command=\"true\"/>\n"
      "</agent>\n");
  Outcome run = xrvctl("validate " + mixed);
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err,
            mixed + ": warning: Attribute group Disk: column 2 is Used but the data source puts "
                    "attribute Free there\n" +
                mixed + ": warning: Attribute group Disk has 3 columns but its data source "
                        "fills only 2\n" +
                mixed + ": warning: Attribute group Disk has more than one data source: only "
                        "the first one is used\n" +
                mixed + ": warning: Attribute group Undeclared has a data source but is not "
                        "declared in the metadata: it has no table\n");
  EXPECT_NE(run.out.find("2 attribute groups, 4 warnings"), std::string::npos) << run.out;

  nlohmann::json report = nlohmann::json::parse(xrvctl("validate --json " + mixed).out);
  ASSERT_EQ(report["warnings"].size(), 4u);
  EXPECT_TRUE(report["warnings"][0]["line"].is_null());
}

TEST(Xrvctl, UsageAndUnreadableFiles) {
  EXPECT_NE(xrvctl("").status, 0);
  EXPECT_NE(xrvctl("validate").status, 0);
  Outcome missing = xrvctl("validate /nonexistent/definition.xml");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("cannot read /nonexistent/definition.xml"), std::string::npos);
}

}  // namespace

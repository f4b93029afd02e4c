#include "framework/ConfigFile.h"

#include <gtest/gtest.h>

namespace {

using XRV::ConfigFile;

TEST(ConfigFile, SectionsValuesAndStripping) {
  ConfigFile file;
  std::string error;
  ASSERT_TRUE(
      file.parse("# agent settings\n"
                 "[agent]\n"
                 "  CDP_DP_THREAD_POOL_SIZE =  4  \n"
                 "QUOTED = \"  keeps inner blanks  \"\n"
                 "ONE_QUOTE = \"open\n"
                 "INNER = a \"b\" c\n"
                 "EMPTY =\n"
                 "EQUALS = a=b\n"
                 "\r\n"
                 "\t# indented comment\n"
                 "[subnode LNX web01]\r\n"
                 "HOST = web01\r\n"
                 "[ Subnode   LNX   db01 ]\n"
                 "HOST = db01\n"
                 "[AGENT]\n"
                 "LATER = yes\n"
                 "CDP_DP_THREAD_POOL_SIZE = 8\n"
                 "[subnode LNX web01]\n"
                 "PORT = 80\n",
                 "agent.ini", &error))
      << error;
  const XRV::ConfigSection& agent = file.agent();
  struct Expectation {
    const char* name;
    const char* value;
  };
  const Expectation expectations[] = {
      {"CDP_DP_THREAD_POOL_SIZE", "8"},  // a repeated name replaces the earlier value
      {"QUOTED", "  keeps inner blanks  "},
      {"ONE_QUOTE", "\"open"},
      {"INNER", "a \"b\" c"},
      {"EMPTY", ""},
      {"EQUALS", "a=b"},
      {"LATER", "yes"},  // a repeated section continues
  };
  for (const Expectation& e : expectations) {
    SCOPED_TRACE(e.name);
    const std::string* value = agent.find(e.name);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, e.value);
  }
  EXPECT_EQ(agent.find("HOST"), nullptr);
  ASSERT_EQ(file.subnodes().size(), 2u);
  EXPECT_EQ(file.subnodes()[0].key, "web01");
  EXPECT_EQ(file.subnodes()[1].key, "db01");
  const XRV::ConfigSection* web = file.findSubnode("LNX", "web01");
  ASSERT_NE(web, nullptr);
  EXPECT_EQ(*web->find("HOST"), "web01");
  EXPECT_EQ(*web->find("PORT"), "80");
  EXPECT_EQ(file.findSubnode("lnx", "web01"), nullptr) << "type and key keep their case";
}

TEST(ConfigFile, MalformedFilesNameTheFileAndLine) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"NAME = value\n", "agent.ini:1: setting outside a section"},
      {"# comment\n\n[agent]\nA = 1\n[global]\n", "agent.ini:5: unknown section header [global]"},
      {"[agent\n", "agent.ini:1: section header without closing ']'"},
      {"[subnode LNX]\n", "agent.ini:1: unknown section header [subnode LNX]"},
      {"[subnode LNX a b]\n", "agent.ini:1: unknown section header"},
      {"[agent]\nno equals sign here\n", "agent.ini:2: expected NAME = value"},
      {"[agent]\n = value\n", "agent.ini:2: setting without a name"},
      {"[]\n", "agent.ini:1: unknown section header"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ConfigFile file;
    std::string error;
    EXPECT_FALSE(file.parse(c.text, "agent.ini", &error));
    EXPECT_EQ(error.rfind(c.error, 0), 0u) << error;
    EXPECT_TRUE(file.agent().values.empty()) << "nothing is kept from a broken file";
    EXPECT_TRUE(file.subnodes().empty());
  }
}

TEST(ConfigFile, EmptyAndCommentOnlyFilesAreFine) {
  for (const char* text : {"", "\n\n", "# nothing\n   # here\n", "[agent]\n"}) {
    ConfigFile file;
    std::string error;
    EXPECT_TRUE(file.parse(text, "x", &error)) << error;
  }
}

}  // namespace

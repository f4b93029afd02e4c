// Device-list files: what a line holds, and which files a pattern names.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "sources/ping/PingDeviceList.h"
#include "support/TempDirectory.h"

namespace {

using Hosts = std::vector<std::string>;

TEST(PingDeviceListTest, TheFirstWordOfEachLineIsAHost) {
  struct Case {
    const char* text;
    Hosts hosts;
  };
  const Case cases[] = {
      {"a\nb\n", {"a", "b"}},
      {"a", {"a"}},  // no line feed at the end
      {"  a  \t\r\n\tb\r\n", {"a", "b"}},
      {"# comment\n\n   \n#a\n", {}},
      {"a # the router\nb#c\n", {"a", "b"}},
      {"gw.example.com core switch\n::1 loopback\n", {"gw.example.com", "::1"}},
      {"", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(XRV::ping::parseDeviceList(c.text), c.hosts) << c.text;
  }
}

TEST(PingDeviceListTest, PatternsAreThoseWithWildcards) {
  EXPECT_TRUE(XRV::ping::isFilePattern("/etc/ping/*.lst"));
  EXPECT_TRUE(XRV::ping::isFilePattern("/etc/ping/site?.lst"));
  EXPECT_TRUE(XRV::ping::isFilePattern("/etc/ping/[ab].lst"));
  EXPECT_FALSE(XRV::ping::isFilePattern("/etc/ping/lan.lst"));
}

TEST(PingDeviceListTest, AFileIsReadAgainOnlyWhenItChanged) {
  XRV::testing::TempDirectory directory;
  const std::string path = directory.file("l.lst");
  std::ofstream(path) << "a\n";
  XRV::ping::PingDeviceLists lists;
  ASSERT_NE(lists.hosts(path), nullptr);
  EXPECT_EQ(*lists.hosts(path), Hosts{"a"});
  EXPECT_EQ(lists.readCount(), 1);
  std::ofstream(path, std::ios::trunc) << "b\n";  // same size, later change time
  EXPECT_EQ(*lists.hosts(path), Hosts{"b"});
  EXPECT_EQ(lists.readCount(), 2);
  std::filesystem::remove(path);
  EXPECT_EQ(lists.hosts(path), nullptr);
  EXPECT_EQ(lists.hosts(directory.path()), nullptr);  // a directory is no list
}

}  // namespace

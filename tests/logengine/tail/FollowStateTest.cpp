#include "tail/FollowState.h"

#include "TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>
#include <filesystem>
#include <fstream>

namespace xrvlog {
namespace {

namespace fs = std::filesystem;

class FollowStateTest : public ::testing::Test {
 protected:
  void writeFile(const std::string& name, const std::string& text) {
    std::ofstream(dir_ / name, std::ios::binary) << text;
  }
  test::TempDir temp_{"xrvlog-state"};
  fs::path dir_ = temp_.path();
};

TEST_F(FollowStateTest, RoundTripsReplacesAndLeavesNoTemporaryFile) {
  const FollowState state{
      "/var/log/with space.log", 2049, 123456789012ULL, 987654321ULL, {256, 0xfedcba9876543210ULL}};
  const std::string path = dir_ / "state";
  ASSERT_TRUE(writeFollowState(path, state));
  EXPECT_EQ(readFollowState(path), state);
  EXPECT_FALSE(fs::exists(path + ".tmp"));
  FollowState moved = state;
  moved.position = 5;
  ASSERT_TRUE(writeFollowState(path, moved));
  EXPECT_EQ(readFollowState(path), moved);
  EXPECT_FALSE(writeFollowState(dir_ / "no" / "state", moved));
}

TEST_F(FollowStateTest, RejectsWhatItDidNotWrite) {
  const char* const bad[] = {
      "",
      "xrvlog-tail 2\n/a\n1 2 3 4 5\n",
      "xrvlog-tail 1\n/a\n",
      "xrvlog-tail 1\n/a\n1 2 3 4\n",
      "xrvlog-tail 1\n/a\n1 2 3 4 5 6\n",
      "xrvlog-tail 1\n/a\n1 2 -3 4 5\n",
      "xrvlog-tail 1\n/a\n1 2 3 99999999 5\n",
      "xrvlog-tail 1\n/a\n1 2 3 4 x\n",
  };
  for (const char* text : bad) {
    writeFile("state", text);
    EXPECT_FALSE(readFollowState(dir_ / "state").has_value()) << text;
  }
  EXPECT_FALSE(readFollowState(dir_ / "missing").has_value());
}

TEST_F(FollowStateTest, SignatureFollowsTheFirstBytes) {
  writeFile("log", "first line\nsecond line\n");
  const int fd = ::open((dir_ / "log").c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  const auto whole = readSignature(fd, 256);
  const auto head = readSignature(fd, 5);
  ASSERT_TRUE(whole && head);
  EXPECT_EQ(whole->length, 23U);
  EXPECT_EQ(head->length, 5U);
  EXPECT_TRUE(signatureMatches(fd, *whole));
  // Rewritten in place with other first bytes, then shorter than the signature.
  writeFile("log", "FIRST line\nsecond line\n");
  EXPECT_FALSE(signatureMatches(fd, *head));
  writeFile("log", "first");
  EXPECT_TRUE(signatureMatches(fd, *head));
  EXPECT_FALSE(signatureMatches(fd, *whole));
  EXPECT_TRUE(signatureMatches(fd, Signature{}));
  ::close(fd);
}

}  // namespace
}  // namespace xrvlog

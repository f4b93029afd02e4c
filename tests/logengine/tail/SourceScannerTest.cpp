#include "tail/SourceScanner.h"

#include "TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

namespace xrvlog {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Paths = std::vector<std::string>;

class SourceScannerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* file :
         {"app.log", "app.log.1", "app1.log", "other.txt", ".hidden.log", "app12/x.log",
          "app12/y.txt", "app3/x.log", "apple/x.log", "deep/a/b/c/d.log", "app.d.log/inner.log"}) {
      make(file, 1);
    }
    fs::create_symlink(dir_ / "app.log", dir_ / "link.log");
    fs::create_symlink(dir_ / "missing", dir_ / "dangling.log");
  }
  void make(const std::string& name, std::size_t size) {
    fs::create_directories((dir_ / name).parent_path());
    std::ofstream(dir_ / name, std::ios::binary) << std::string(size, 'x');
  }
  void setModified(const std::string& name, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (dir_ / name).c_str(), times, 0), 0);
  }
  // The paths found, relative to the tree.
  Paths scan(SourceNaming naming, const std::string& pattern,
             CompareMode compare = CompareMode::AllMatches, ScanLimits limits = {}) {
    SourceScanner scanner(naming, root_ + pattern, compare, limits);
    Paths found;
    for (const std::string& path : scanner.scan()) {
      EXPECT_EQ(path.rfind(root_, 0), 0U) << path;
      found.push_back(path.substr(root_.size()));
    }
    limited_ = scanner.limited();
    return found;
  }

  test::TempDir temp_{"xrvlog-scan"};
  fs::path dir_ = temp_.path();
  std::string root_ = dir_.string() + "/";
  bool limited_ = false;
};

TEST_F(SourceScannerTest, RegexMatchesEachComponentOnItsOwn) {
  const struct {
    const char* pattern;
    Paths expected;
  } cases[] = {
      // Anchored: regular files only (not the directory app.d.log), links followed.
      {"^app.*\\.log$", {"app.log", "app1.log"}},
      {"^.*\\.log$", {".hidden.log", "app.log", "app1.log", "link.log"}},
      // Not anchored: searched in the name.
      {"app\\.log", {"app.log", "app.log.1"}},
      // No expression character: a literal name, dots included.
      {"app.log", {"app.log"}},
      {"app.lo", {}},
      {"app", {}},
      // Directories matched by one component, files by the next.
      {"^app[0-9]+$/^.*\\.log$", {"app12/x.log", "app3/x.log"}},
      {"^app[0-9]+$/x.log", {"app12/x.log", "app3/x.log"}},
      {"^app.*$/^[xy]\\.", {"app12/x.log", "app12/y.txt", "app3/x.log", "apple/x.log"}},
      {"deep/^a$/b/^c$/^d\\.log$", {"deep/a/b/c/d.log"}},
      {"^de/^.*\\.log$", {}},
      // A '/' inside a class does not cut the pattern.
      {"^app[^/]\\.log$", {"app1.log"}},
      {"^nothing$", {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(scan(SourceNaming::Regex, c.pattern), c.expected) << c.pattern;
    EXPECT_FALSE(limited_) << c.pattern;
  }
}

TEST_F(SourceScannerTest, RegexStrictMatchesTheWholePath) {
  const struct {
    const char* pattern;
    Paths expected;
  } cases[] = {
      {"app[0-9]*\\.log", {"app.log", "app1.log"}},  // not app.log.1: the whole path must match
      {".*/x\\.log", {"app12/x.log", "app3/x.log", "apple/x.log"}},
      {"deep/.*\\.log", {"deep/a/b/c/d.log"}},
      {"(app1|app)\\.log", {"app.log", "app1.log"}},
      {"app\\.d\\.log", {}},  // a directory
      {"[^/]*\\.txt", {"other.txt"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(scan(SourceNaming::RegexStrict, c.pattern), c.expected) << c.pattern;
  }
  // A top-level alternative starts the walk at '/', where only the paths that can
  // begin a match are entered.
  const std::string either = root_ + "app1\\.log|" + root_ + "other\\.txt";
  SourceScanner scanner(SourceNaming::RegexStrict, either, CompareMode::AllMatches);
  EXPECT_EQ(scanner.startDirectory(), "/");
  EXPECT_EQ(scanner.scan(), (Paths{root_ + "app1.log", root_ + "other.txt"}));
}

TEST(SourceScannerStartTest, RegexStrictStartsBelowTheLiteralBeginning) {
  const struct {
    const char* pattern;
    const char* start;
  } cases[] = {
      {"/var/log/app.*\\.log", "/var/log/"},
      {"^/var/log/app", "/var/log/"},
      {"/var/log\\.d/x", "/var/log.d/"},
      {"/var/logs?/x", "/var/"},
      {"/var/lo{2}g/x", "/var/"},
      {"/var/log/\\d+/x", "/var/log/"},
      {"/var/log/(a|b)/x", "/var/log/"},
      {"(?i)/var/log/x", "/"},
      {"/a/x|/b/y", "/"},
      {"logs/app.*", "logs/"},
      {"app.*", ""},
  };
  for (const auto& c : cases) {
    SourceScanner scanner(SourceNaming::RegexStrict, c.pattern, CompareMode::AllMatches);
    EXPECT_EQ(scanner.startDirectory(), c.start) << c.pattern;
  }
}

TEST_F(SourceScannerTest, CompareModesChooseOneAndBreakTiesByName) {
  make("cmp/a.log", 100);
  make("cmp/b.log", 300);
  make("cmp/c.log", 300);
  setModified("cmp/a.log", 1000);
  setModified("cmp/b.log", 2000);
  setModified("cmp/c.log", 3000);
  const struct {
    CompareMode mode;
    Paths expected;
  } cases[] = {
      {CompareMode::AllMatches, {"cmp/a.log", "cmp/b.log", "cmp/c.log"}},
      {CompareMode::LastUpdate, {"cmp/c.log"}},
      {CompareMode::Size, {"cmp/b.log"}},  // b and c are equal: the smaller name
  };
  for (const auto& c : cases) {
    EXPECT_EQ(scan(SourceNaming::Regex, "cmp/^.*\\.log$", c.mode), c.expected);
    EXPECT_EQ(scan(SourceNaming::RegexStrict, "cmp/.*\\.log", c.mode), c.expected);
  }
  setModified("cmp/b.log", 3000);
  EXPECT_EQ(scan(SourceNaming::Regex, "cmp/^.*\\.log$", CompareMode::LastUpdate),
            Paths{"cmp/b.log"});
  EXPECT_EQ(scan(SourceNaming::Regex, "cmp/^none$", CompareMode::Size), Paths{});
}

TEST_F(SourceScannerTest, CreationTimeUsesTheBirthTimeWhereTheFileSystemHasOne) {
  make("born/old.log", 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  make("born/new.log", 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  // Moves old.log's modification and change times past new.log's.
  make("born/old.log", 2);
  struct statx sx {};
  ASSERT_EQ(::statx(AT_FDCWD, (dir_ / "born/old.log").c_str(), 0, STATX_BTIME, &sx), 0);
  const Paths expected{(sx.stx_mask & STATX_BTIME) != 0 ? "born/new.log" : "born/old.log"};
  EXPECT_EQ(scan(SourceNaming::Regex, "born/^.*$", CompareMode::CreationTime), expected);
  EXPECT_EQ(scan(SourceNaming::Regex, "born/^.*$", CompareMode::LastUpdate), Paths{"born/old.log"});
}

TEST_F(SourceScannerTest, BoundsCutTheScanAndSaySo) {
  for (const char* name : {"many/a.log", "many/b.log", "many/c.log", "many/d.log", "many/e.log"}) {
    make(name, 1);
  }
  ScanLimits fewEntries;
  fewEntries.entriesPerDirectory = 3;
  EXPECT_EQ(scan(SourceNaming::Regex, "many/^.*$", CompareMode::AllMatches, fewEntries).size(), 3U);
  EXPECT_TRUE(limited_);
  EXPECT_EQ(scan(SourceNaming::Regex, "many/^.*$").size(), 5U);
  EXPECT_FALSE(limited_);

  ScanLimits fewMatches;
  fewMatches.matches = 2;
  EXPECT_EQ(scan(SourceNaming::Regex, "many/^.*$", CompareMode::AllMatches, fewMatches),
            (Paths{"many/a.log", "many/b.log"}));
  EXPECT_TRUE(limited_);
  EXPECT_EQ(scan(SourceNaming::RegexStrict, "many/.*", CompareMode::AllMatches, fewMatches).size(),
            2U);
  EXPECT_TRUE(limited_);
  // Directories carried to the next component count against the same bound: of
  // app.d.log, app12, app3 and apple only the first two are looked into.
  EXPECT_EQ(scan(SourceNaming::Regex, "^app.*$/^x", CompareMode::AllMatches, fewMatches),
            Paths{"app12/x.log"});
  EXPECT_TRUE(limited_);

  ScanLimits shallow;
  shallow.strictDepth = 2;
  EXPECT_EQ(scan(SourceNaming::RegexStrict, "deep/.*\\.log", CompareMode::AllMatches, shallow),
            Paths{});
  shallow.strictDepth = 3;
  EXPECT_EQ(scan(SourceNaming::RegexStrict, "deep/.*\\.log", CompareMode::AllMatches, shallow),
            Paths{"deep/a/b/c/d.log"});
}

TEST(SourceScannerErrorTest, APatternThatDoesNotCompileSaysWhere) {
  const struct {
    SourceNaming naming;
    const char* pattern;
    std::size_t offset;
    const char* says;
  } cases[] = {
      {SourceNaming::Regex, "/x/^a)b$/c", 5, "REGEX pattern '/x/^a)b$/c' does not compile"},
      {SourceNaming::Regex, "/var/log/^app[0-9", 17, "in '^app[0-9'"},
      {SourceNaming::RegexStrict, "/var/log/(x", 11, "REGEXSTRICT pattern '/var/log/(x'"},
      {SourceNaming::Regex, "", 0, "empty"},
  };
  for (const auto& c : cases) {
    try {
      SourceScanner scanner(c.naming, c.pattern, CompareMode::AllMatches);
      ADD_FAILURE() << c.pattern << " compiled";
    } catch (const SourcePatternError& error) {
      EXPECT_EQ(error.offset(), c.offset) << c.pattern;
      EXPECT_THAT(error.what(), HasSubstr(c.says));
    }
  }
  // A plain path is not a pattern: it is followed even before it exists.
  SourceScanner path(SourceNaming::Path, "/no/such/(dir/app.log", CompareMode::LastUpdate);
  EXPECT_EQ(path.scan(), Paths{"/no/such/(dir/app.log"});
}

}  // namespace
}  // namespace xrvlog

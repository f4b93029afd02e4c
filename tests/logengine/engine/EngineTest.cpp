#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TempDir.h"
#include "engine/xpwp.h"

namespace {

using namespace std::chrono_literals;
using xrvlog::test::TempDir;

struct Record {
  std::string table, source, description;
  std::vector<std::pair<std::string, std::string>> pairs;
};

// What the callbacks saw; one per test, reached through a global because the
// callbacks' context is the engine's handle.
struct Seen {
  std::mutex lock;
  std::condition_variable changed;
  std::vector<Record> records;
  std::vector<std::tuple<std::string, std::string, int>> statuses;

  template <typename Pred>
  bool waitFor(Pred pred, std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> hold(lock);
    return changed.wait_for(hold, limit, [&] { return pred(); });
  }
  std::size_t dataRecords() {  // records with attributes, not sample ends
    std::size_t n = 0;
    for (const auto& r : records) n += r.pairs.empty() ? 0 : 1;
    return n;
  }
  bool sawStatus(const std::string& source, int status) {
    for (const auto& [t, s, v] : statuses)
      if (s == source && v == status) return true;
    return false;
  }
};
Seen* seen = nullptr;
XPWP_Handle inCallbackHandle = nullptr;

void onData(void* context, const char* table, const char* source, const char* description,
            const XPWP_NameValue* pairs, int count) {
  Record r{table, source, description, {}};
  for (int i = 0; i < count; ++i) r.pairs.emplace_back(pairs[i].name, pairs[i].value);
  if (inCallbackHandle != nullptr) {
    // Status queries are allowed from inside a callback.
    int n = 0;
    XPWP_MonitoredFileInfo_t* info = nullptr;
    EXPECT_EQ(XPWP_GetMonitoredFileStatus(static_cast<XPWP_Handle>(context), &n, &info), CDP_Success);
    XPWP_FreeMonitoredFileInfo(info, n);
  }
  std::lock_guard<std::mutex> hold(seen->lock);
  seen->records.push_back(std::move(r));
  seen->changed.notify_all();
}

void onStatus(void*, const char* table, const char* source, int status) {
  std::lock_guard<std::mutex> hold(seen->lock);
  seen->statuses.emplace_back(table, source != nullptr ? source : "", status);
  seen->changed.notify_all();
}

void append(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::app) << text;
}

class EngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    seen = &seen_;
    ::unsetenv("XRVLOG_STATE_DIR");
  }
  void TearDown() override {
    stop();
    inCallbackHandle = nullptr;
    seen = nullptr;
  }
  void start() {
    ASSERT_EQ(XPWP_StartCommonProvider(&handle_, XPWP_START_THREADED), CDP_Success);
    ASSERT_EQ(XPWP_RegisterStatusCallback(handle_, onStatus), CDP_Success);
    ASSERT_EQ(XPWP_RegisterDataCallback(handle_, onData), CDP_Success);
  }
  void stop() {
    if (handle_ != nullptr) {
      EXPECT_EQ(XPWP_StopCommonProvider(handle_), CDP_Success);
      handle_ = nullptr;
    }
  }
  int load(const std::string& mdl) { return XPWP_LoadMetafile(handle_, mdl.c_str(), mdl.size() + 1); }
  void waitReady(const char* table) {
    for (int i = 0; i < 500 && XPWP_AreAllFileThreadsStartedTable(handle_, table) != CDP_All_File_Threads_Started; ++i)
      std::this_thread::sleep_for(10ms);
    ASSERT_EQ(XPWP_AreAllFileThreadsStartedTable(handle_, table), CDP_All_File_Threads_Started);
  }
  std::string path(const std::string& name) const { return (dir_.path() / name).string(); }

  Seen seen_;
  TempDir dir_{"xrvlog-engine"};
  XPWP_Handle handle_ = nullptr;
};

std::string mdlFor(const std::string& table, const std::string& kind, const std::string& source) {
  return "//APPL test\n//NAME " + table + " " + kind + "\n//SOURCE FILE " + source +
         "\n//ATTRIBUTES ';'\nlevel Z 16 -FILTER={MatchRegEx(1,DEBUG)}\ntext Z 256\nhost H 64\n";
}

TEST_F(EngineTest, EveryEntryPointRefusesAForeignHandle) {
  auto* bogus = reinterpret_cast<XPWP_Handle>(&seen_);
  int n = 0;
  XPWP_MonitoredFileInfo_t* files = nullptr;
  XPWP_LogFileRegExStatistics_t* stats = nullptr;
  for (int rc : {XPWP_StopCommonProvider(bogus), XPWP_RegisterStatusCallback(bogus, onStatus),
                 XPWP_RegisterDataCallback(bogus, onData), XPWP_LoadMetafile(bogus, "x", 2),
                 XPWP_GetMonitoredFileStatus(bogus, &n, &files),
                 XPWP_GetLogFileRegExStatistics(bogus, &n, &stats), XPWP_FlushCommonProvider(bogus),
                 XPWP_FlushCommonProviderTable(bogus, "T"), XPWP_AreAllFileThreadsStarted(bogus),
                 XPWP_AreAllFileThreadsStartedTable(bogus, "T"), XPWP_WakeUpAllFileThreads(bogus),
                 XPWP_WakeUpAllFileThreadsTable(bogus, "T")}) {
    EXPECT_EQ(rc, CDP_Invalid_Handle);
  }
  XPWP_Handle h = nullptr;
  EXPECT_EQ(XPWP_StartCommonProvider(&h, 1), CDP_Invalid_Argument);
  start();
  EXPECT_EQ(XPWP_StartCommonProvider(&h, XPWP_START_THREADED), CDP_Already_Started);
  EXPECT_EQ(h, handle_);
  EXPECT_EQ(load("//APPL x\n//NAME T E\n"), CDP_Metafile_Error);
  EXPECT_EQ(load(mdlFor("T", "E", "'" + path("a") + "'").substr(0, 40) + "\nbroken"), CDP_Metafile_Error);
  EXPECT_EQ(XPWP_FlushCommonProviderTable(handle_, "NOPE"), CDP_Table_Not_Found);
  EXPECT_EQ(XPWP_AreAllFileThreadsStartedTable(handle_, "NOPE"), CDP_Table_Not_Found);
  // Nothing loaded: nothing to wait for.
  EXPECT_EQ(XPWP_AreAllFileThreadsStarted(handle_), CDP_All_File_Threads_Started);
}

TEST_F(EngineTest, DeliversRecordsThenGoesFullyOfflineOnFlush) {
  const std::string log = path("app.log");
  append(log, "INFO;started\nDEBUG;noise\nERROR;disk full\n");
  const std::string unmatched = path("unmatched.log");
  start();
  inCallbackHandle = handle_;
  ASSERT_EQ(load(mdlFor("APP", "E", "'" + log + "' UNMATCHLOG='" + unmatched + "' DESCRIPTION='the app'")),
            CDP_Success);
  waitReady("APP");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 2; }));
  EXPECT_TRUE(seen_.waitFor([&] { return seen_.sawStatus(log, XPWP_SOURCE_FOUND) && seen_.sawStatus("", XPWP_TABLE_ACTIVE); }));
  {
    std::lock_guard<std::mutex> hold(seen_.lock);
    const Record& r = seen_.records[1];
    EXPECT_EQ(r.table, "APP");
    EXPECT_EQ(r.source, log);
    EXPECT_EQ(r.description, "the app");
    const std::vector<std::pair<std::string, std::string>> want{{"level", "ERROR"}, {"text", "disk full"}, {"host", ""}};
    EXPECT_EQ(r.pairs, want);
  }
  append(log, "WARN;late\n");
  ASSERT_EQ(XPWP_WakeUpAllFileThreadsTable(handle_, "APP"), CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 3; }));

  ASSERT_EQ(XPWP_FlushCommonProviderTable(handle_, "APP"), CDP_Success);
  const std::size_t afterFlush = seen_.records.size();
  EXPECT_TRUE(seen_.waitFor([&] { return seen_.sawStatus("", XPWP_TABLE_FULLY_OFFLINE); }));
  append(log, "ERROR;after flush\n");
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(seen_.records.size(), afterFlush) << "no record after the flush returned";
  EXPECT_EQ(XPWP_AreAllFileThreadsStartedTable(handle_, "APP"), CDP_Table_Not_Found);
  std::ifstream in(unmatched);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_EQ(text, "DEBUG;noise\n");
}

TEST_F(EngineTest, ReportsFilesAndPatternFigures) {
  const std::string log = path("stats.log");
  append(log, "ERROR;a\nDEBUG;b\nDEBUG;c\n");
  start();
  ASSERT_EQ(load(mdlFor("ST", "E", "'" + log + "'")), CDP_Success);
  waitReady("ST");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 1; }));
  ASSERT_EQ(XPWP_WakeUpAllFileThreads(handle_), CDP_Success);
  int n = 0;
  XPWP_LogFileRegExStatistics_t* stats = nullptr;
  for (int round = 0; round < 100; ++round) {  // figures are published a moment after the pass
    ASSERT_EQ(XPWP_GetLogFileRegExStatistics(handle_, &n, &stats), CDP_Success);
    if (n == 1 && stats[0].matches == 2) break;
    XPWP_FreeLogFileRegexStatistics(stats, n);
    stats = nullptr;
    std::this_thread::sleep_for(20ms);
  }
  ASSERT_EQ(n, 1);
  EXPECT_STREQ(stats[0].table, "ST");
  EXPECT_STREQ(stats[0].attribute, "level");
  EXPECT_EQ(stats[0].matches, 2u);  // the drop filter matched the two DEBUG lines
  EXPECT_EQ(stats[0].misses, 1u);
  XPWP_FreeLogFileRegexStatistics(stats, n);

  XPWP_MonitoredFileInfo_t* files = nullptr;
  ASSERT_EQ(XPWP_GetMonitoredFileStatus(handle_, &n, &files), CDP_Success);
  ASSERT_EQ(n, 1);
  EXPECT_STREQ(files[0].file, log.c_str());
  EXPECT_EQ(files[0].state, XPWP_FILE_FOLLOWING);
  EXPECT_EQ(files[0].size, 24);
  EXPECT_EQ(files[0].position, 24);
  EXPECT_EQ(files[0].lines, 3u);
  EXPECT_EQ(files[0].records, 1u);
  EXPECT_GT(files[0].lastModified, 0);
  XPWP_FreeMonitoredFileInfo(files, n);
}

TEST_F(EngineTest, SampledTableClosesEachPassWithAnEmptyRecord) {
  const std::string log = path("sample.log");
  append(log, "INFO;one\nINFO;two\n");
  start();
  ASSERT_EQ(load(mdlFor("SAMP", "S", "'" + log + "'")), CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.records.size() == 3; }));
  std::lock_guard<std::mutex> hold(seen_.lock);
  EXPECT_FALSE(seen_.records[1].pairs.empty());
  EXPECT_TRUE(seen_.records[2].pairs.empty());
}

TEST_F(EngineTest, MissingFileIsOfflineUntilItAppears) {
  const std::string log = path("later.log");
  start();
  ASSERT_EQ(load(mdlFor("LATE", "E", "'" + log + "' FileExistTimeToWait=1")), CDP_Success);
  waitReady("LATE");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.sawStatus(log, XPWP_SOURCE_OFFLINE); }));
  EXPECT_FALSE(seen_.sawStatus("", XPWP_TABLE_ACTIVE)) << "no file of the table is read";
  // Said again at the next look for it.
  EXPECT_TRUE(seen_.waitFor([&] {
    return std::count(seen_.statuses.begin(), seen_.statuses.end(),
                      std::make_tuple(std::string("LATE"), log, int(XPWP_SOURCE_OFFLINE))) >= 2;
  }, 5s));
  append(log, "INFO;first\n");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 1 && seen_.sawStatus(log, XPWP_SOURCE_FOUND); }));
}

// TAIL after a restart resumes where the last run stopped, and a rename during the
// downtime is still read to its end before the new file.
TEST_F(EngineTest, TailResumesAcrossARestartAndARotationWhileDown) {
  TempDir state("xrvlog-state");
  ::setenv("XRVLOG_STATE_DIR", state.path().c_str(), 1);
  const std::string log = path("svc.log");
  append(log, "INFO;before start\n");
  const std::string mdl = mdlFor("SVC", "E", "'" + log + "' TAIL");
  start();
  ASSERT_EQ(load(mdl), CDP_Success);
  waitReady("SVC");
  append(log, "INFO;one\n");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 1; }));
  stop();
  append(log, "INFO;two\n");
  std::filesystem::rename(log, log + ".1");
  append(log, "INFO;three\n");
  start();
  ASSERT_EQ(load(mdl), CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 3; }));
  std::this_thread::sleep_for(100ms);
  std::lock_guard<std::mutex> hold(seen_.lock);
  std::vector<std::string> texts;
  for (const auto& r : seen_.records) texts.push_back(r.pairs.at(1).second);
  EXPECT_EQ(texts, (std::vector<std::string>{"one", "two", "three"}));
}

TEST_F(EngineTest, PatternSourceFollowsTheFileChosenByLastUpdate) {
  const std::string older = path("job-1.log");
  const std::string newer = path("job-2.log");
  append(older, "INFO;old\n");
  append(newer, "INFO;new\n");
  std::filesystem::last_write_time(older, std::filesystem::file_time_type::clock::now() - 1h);
  start();
  ASSERT_EQ(load(mdlFor("JOB", "E", "REGEX='" + dir_.path().string() + "/^job-[0-9]+\\.log$' CompareByLastUpdate")),
            CDP_Success);
  waitReady("JOB");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 1; }));
  EXPECT_EQ(seen_.records[0].source, newer);
  // A newer file takes over: the next look finds it and reads it from its top.
  const std::string newest = path("job-3.log");
  append(newest, "INFO;newest\n");
  ASSERT_EQ(XPWP_WakeUpAllFileThreads(handle_), CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 2 && seen_.sawStatus(newer, XPWP_SOURCE_OFFLINE); }));
  EXPECT_EQ(seen_.records.back().source, newest);
}

// Lines are converted from the file's code page before records are joined; the last
// record of a multi-line file is handed out once the file has been quiet a moment.
TEST_F(EngineTest, ConvertsAndJoinsLinesBeforeMatching) {
  const std::string log = path("latin1.log");
  append(log, "2026 caf\xe9 start\n  detail\n2026 second\n  more\n");
  start();
  ASSERT_EQ(load("//APPL t\n//NAME ML E\n//SOURCE FILE '" + log +
                 "' codepage=ISO-8859-1\n//RECORDSET START(0,regex,^2026 )\n"
                 "//ATTRIBUTES NEWLINE\nmsg Z 128\n"),
            CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 2; }));
  std::lock_guard<std::mutex> hold(seen_.lock);
  EXPECT_EQ(seen_.records[0].pairs.at(0).second, "2026 caf\xc3\xa9 start\n  detail");
  EXPECT_EQ(seen_.records[1].pairs.at(0).second, "2026 second\n  more");
}

TEST_F(EngineTest, ReloadingATableReplacesIt) {
  const std::string log = path("re.log");
  append(log, "INFO;x\n");
  start();
  ASSERT_EQ(load(mdlFor("RE", "E", "'" + log + "'")), CDP_Success);
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 1; }));
  std::string other = mdlFor("RE", "E", "'" + log + "'");
  other.replace(other.find("text Z 256"), 10, "message Z 256");
  ASSERT_EQ(load(other), CDP_Success);
  // The new table resumes where the old one stopped: the first line is not read again.
  append(log, "INFO;y\n");
  ASSERT_TRUE(seen_.waitFor([&] { return seen_.dataRecords() == 2; }));
  std::lock_guard<std::mutex> hold(seen_.lock);
  EXPECT_EQ(seen_.records.back().pairs.at(1).first, "message");
  EXPECT_EQ(seen_.records.back().pairs.at(1).second, "y");
}

}  // namespace

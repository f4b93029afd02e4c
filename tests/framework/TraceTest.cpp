#include "framework/Trace.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/Files.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::TraceCapture;

namespace probe {

// Functions traced the way every function of the agent is.
int traced(int value) {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("Calculating derived attribute %s", "a1");
  if (value < 0) {
    XRV_TRACE_ERROR("value %d is negative", value);
  }
  return value * 2;
}

void tracedText(const char* text) {
  XRV_TRACE_SITE();
  XRV_TRACE_DETAIL("%s", text);
}

}  // namespace probe

TEST(Trace, LineFormat) {
  TraceCapture capture("detail");
  probe::traced(1);
  std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 1u);
  static const std::regex kFormat(
      R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[\d+\] TraceTest\.cpp:\d+ )"
      R"((\{anonymous\}|\(anonymous namespace\))::probe::traced: )"
      R"(Calculating derived attribute a1$)");
  EXPECT_TRUE(std::regex_match(lines[0], kFormat)) << lines[0];
  EXPECT_EQ(lines[0].find(std::to_string(gettid())), lines[0].find('[') + 1);
}

TEST(Trace, LevelsDecideWhatIsWritten) {
  struct Case {
    const char* rules;
    std::vector<std::string> texts;
  };
  const Case cases[] = {
      {"error", {"value -1 is negative"}},
      {"off", {}},
      {"detail", {"Calculating derived attribute a1", "value -1 is negative"}},
      {"flow", {"Entry", "value -1 is negative", "Exit"}},
      {"all", {"Entry", "Calculating derived attribute a1", "value -1 is negative", "Exit"}},
      {"all off:*probe::traced", {}},
      {"all:TraceTest.cpp",
       {"Entry", "Calculating derived attribute a1", "value -1 is negative", "Exit"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.rules);
    TraceCapture capture(c.rules);
    EXPECT_EQ(probe::traced(-1), -2);
    EXPECT_EQ(capture.texts(), c.texts);
  }
}

TEST(Trace, ChangedRulesReachSitesThatAlreadyRan) {
  TraceCapture capture("error");
  probe::traced(1);
  EXPECT_TRUE(capture.lines().empty());
  XRV::trace::configure("detail:*traced");
  probe::traced(1);
  EXPECT_TRUE(capture.hasText("Calculating derived attribute a1"));
  capture.clear();
  XRV::trace::configure("off");
  probe::traced(-1);
  EXPECT_TRUE(capture.lines().empty());
}

TEST(Trace, OneLineFeedPerLineAndLongTextsWhole) {
  TraceCapture capture("detail");
  probe::tracedText("Unable to reallocate mdl x\n");
  std::string longText(10000, 'x');
  longText += "END";
  probe::tracedText(longText.c_str());
  std::vector<std::string> texts = capture.texts();
  ASSERT_EQ(texts.size(), 2u);
  EXPECT_EQ(texts[0], "Unable to reallocate mdl x") << "a text's own line feed ends the line";
  EXPECT_EQ(texts[1], longText);
}

TEST(Trace, AppendsToTheTraceFile) {
  const std::string file = XRV::testing::temporaryFile("xrv-trace");
  const char* path = file.c_str();
  std::ofstream(path) << "earlier\n";
  std::string error;
  ASSERT_TRUE(XRV::trace::setOutputFile(path, &error)) << error;
  XRV::trace::configure("detail:*tracedText");
  probe::tracedText("first");
  probe::tracedText("second");
  XRV::trace::configure("error");
  ASSERT_TRUE(XRV::trace::setOutputFile(nullptr, &error));
  probe::tracedText("not in the file");

  const std::string text = XRV::testing::readFile(path);
  EXPECT_EQ(text.rfind("earlier\n", 0), 0u);
  EXPECT_NE(text.find("tracedText: first\n"), std::string::npos);
  EXPECT_NE(text.find("tracedText: second\n"), std::string::npos);
  EXPECT_EQ(text.find("not in the file"), std::string::npos);
  unlink(path);

  EXPECT_FALSE(XRV::trace::setOutputFile("/nonexistent-dir/trace.log", &error));
  EXPECT_NE(error.find("/nonexistent-dir/trace.log"), std::string::npos);
}

TEST(Trace, RulesFromTheEnvironment) {
  TraceCapture capture("error");
  setenv("XRV_TRACE", "bogus detail:*traced", 1);
  XRV::trace::loadFromEnvironment();  // reports the bogus rule on standard error
  unsetenv("XRV_TRACE");
  probe::traced(1);
  EXPECT_TRUE(capture.hasText("Calculating derived attribute a1"));
}

TEST(Trace, ConcurrentWritersKeepLinesWhole) {
  TraceCapture capture("detail:*tracedText");
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      std::string text = "thread " + std::to_string(t);
      for (int i = 0; i < 500; ++i) {
        probe::tracedText(text.c_str());
      }
    });
  }
  // Rules change under the writers' feet.
  for (int i = 0; i < 50; ++i) {
    XRV::trace::configure(i % 2 == 0 ? "detail:*tracedText" : "detail:*tracedText off:Nothing");
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> texts = capture.texts();
  EXPECT_EQ(texts.size(), 2000u);
  for (const std::string& text : texts) {
    ASSERT_EQ(text.rfind("thread ", 0), 0u) << text;
  }
}

}  // namespace

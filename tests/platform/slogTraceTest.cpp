// System log lines on standard error and trace lines in a trace file.
#include <gtest/gtest.h>

#include <limits.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "platform/slog.h"
#include "platform/trace.h"
#include "support/testSupport.h"

namespace {

CQVTraceScopeDef testScope("ecallService_ecallMain", "all");

// A trace line split into its parts: "<sec>.<usec> <scope> <kind> <function>: <text>".
struct TraceLine {
  std::string scope, kind, function, text;
};

std::vector<TraceLine> traceFile(const std::string& file) {
  const std::regex head(R"(\d+\.\d{6} (\S+) (\S+) (\S+))");
  std::vector<TraceLine> lines;
  for (const std::string& line : testSupport::splitLines(testSupport::readFile(file))) {
    const size_t colon = line.find(": ");
    std::smatch m;
    const std::string before = line.substr(0, colon);
    const bool wellFormed = colon != std::string::npos && std::regex_match(before, m, head);
    EXPECT_TRUE(wellFormed) << line.substr(0, 100);
    lines.push_back(wellFormed ? TraceLine{m[1], m[2], m[3], line.substr(colon + 2)} : TraceLine{});
  }
  return lines;
}

}  // namespace

TEST(Slog, OneAtomicLinePerEntryWithTheJournalPriority) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(0, slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: %s", "cannot open\nORC channel\n"));
  slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "ecallService: %s", "resp is NULL");
  // An overlong text is cut to one line that one write can carry whole.
  slogf(ECALL_SLOG_OPCODE, _SLOG_INFO, "ecallService: %s", std::string(20000, 'x').c_str());
  const auto lines = testSupport::splitLines(testing::internal::GetCapturedStderr());
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("<4>ecallService: cannot open ORC channel", lines[0]);
  EXPECT_EQ("<3>ecallService: resp is NULL", lines[1]);
  EXPECT_EQ(0u, lines[2].find("<6>ecallService: xxx"));
  EXPECT_LT(lines[2].size(), static_cast<size_t>(PIPE_BUF));

  const int expected[] = {0, 2, 3, 4, 5, 6, 7, 7};
  for (int severity = 0; severity < 8; ++severity) EXPECT_EQ(expected[severity], platform::slogPriority(severity));
}

TEST(Trace, LinesCarryTimeScopeKindFunctionAndFoldedTextFromAnyThread) {
  testSupport::TempRoot root;
  const std::string file = root.path("/trace.txt");
  CQVTraceScope scope(testScope, "onECallRequest");
  scope.sendFormattedMessage("before start");  // tracing is off until started
  EXPECT_FALSE(platform::traceEnabled());

  ASSERT_TRUE(platform::startTrace(file));
  scope.sendFormattedMessage("method %s", "IsECallInProgess");
  scope.sendFormattedWarning("two\nlines\n");
  scope.sendFormattedError("rc %d", -5);
  const std::string longText(10000, 'y');
  scope.sendFormattedMessage("%s", longText.c_str());
  platform::stopTrace();
  scope.sendFormattedMessage("after stop");

  const auto lines = traceFile(file);
  ASSERT_EQ(4u, lines.size());
  const char* kinds[] = {"MSG", "WRN", "ERR", "MSG"};
  const std::string texts[] = {"method IsECallInProgess", "two lines", "rc -5", longText};
  for (size_t i = 0; i < lines.size(); ++i) {
    EXPECT_EQ("ecallService_ecallMain", lines[i].scope);
    EXPECT_EQ(kinds[i], lines[i].kind);
    EXPECT_EQ("onECallRequest", lines[i].function);
    EXPECT_EQ(texts[i], lines[i].text);
  }

  // Traces of many threads at once stay whole lines, and reach the sink too.
  testSupport::LogCapture capture;
  ASSERT_TRUE(platform::startTrace(root.path("/threads.txt")));
  constexpr int kThreads = 4, kEach = 300;
  const auto filler = [](int t) { return std::string(200 + t * 100, static_cast<char>('a' + t)); };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t, &filler] {
      CQVTraceScope worker(testScope, "worker");
      for (int i = 0; i < kEach; ++i) worker.sendFormattedMessage("%d %s", t, filler(t).c_str());
    });
  for (auto& th : threads) th.join();
  platform::stopTrace();

  const auto all = traceFile(root.path("/threads.txt"));
  ASSERT_EQ(static_cast<size_t>(kThreads * kEach), all.size());
  for (const auto& line : all) {
    const int t = line.text.empty() ? -1 : line.text[0] - '0';
    ASSERT_TRUE(t >= 0 && t < kThreads) << line.text.substr(0, 80);
    EXPECT_EQ(std::to_string(t) + " " + filler(t), line.text);
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), capture.countTrace(" "));
}

// System log lines on standard error and trace lines in a trace file.
#include <gtest/gtest.h>

#include <limits.h>
#include <unistd.h>

#include <cstdlib>
#include <algorithm>
#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include "platform/slog.h"
#include "platform/trace.h"
#include "support/testSupport.h"

namespace {

// Standard error sent to a file for the life of the object.
class StderrCapture {
 public:
  StderrCapture() {
    char name[] = "/tmp/ecall-stderr-XXXXXX";
    const int fd = mkstemp(name);
    mPath = name;
    mSaved = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~StderrCapture() {
    restore();
    unlink(mPath.c_str());
  }
  std::string text() {
    restore();
    return testSupport::readFile(mPath);
  }

 private:
  void restore() {
    if (mSaved < 0) return;
    dup2(mSaved, STDERR_FILENO);
    close(mSaved);
    mSaved = -1;
  }
  std::string mPath;
  int mSaved = -1;
};

CQVTraceScopeDef testScope("ecallService_ecallMain", "all");

// A trace line split into its parts: "<sec>.<usec> <scope> <kind> <function>: <text>".
struct TraceLine {
  bool wellFormed = false;
  std::string scope, kind, function, text;
};

TraceLine parseTraceLine(const std::string& line) {
  TraceLine out;
  const size_t dot = line.find('.');
  const size_t s1 = line.find(' ');
  const size_t s2 = line.find(' ', s1 + 1);
  const size_t s3 = line.find(' ', s2 + 1);
  const size_t colon = line.find(": ", s3 + 1);
  if (dot == std::string::npos || s1 != dot + 7 || colon == std::string::npos) return out;
  const auto digits = [&](size_t from, size_t to) {
    return to > from && std::all_of(line.begin() + from, line.begin() + to, [](char c) { return std::isdigit(c); });
  };
  if (!digits(0, dot) || !digits(dot + 1, s1)) return out;
  out.scope = line.substr(s1 + 1, s2 - s1 - 1);
  out.kind = line.substr(s2 + 1, s3 - s2 - 1);
  out.function = line.substr(s3 + 1, colon - s3 - 1);
  out.text = line.substr(colon + 2);
  out.wellFormed = true;
  return out;
}

}  // namespace

TEST(Slog, OneLinePerEntryWithTheJournalPriority) {
  testSupport::LogCapture capture;
  StderrCapture err;
  EXPECT_EQ(0, slogf(ECALL_SLOG_OPCODE, _SLOG_WARNING, "ecallService: %s", "cannot open\nORC channel\n"));
  slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "ecallService: %s", "resp is NULL");
  slogf(ECALL_SLOG_OPCODE, _SLOG_INFO, "ecallService: %s", "ecall signal");
  EXPECT_EQ("<4>ecallService: cannot open ORC channel\n<3>ecallService: resp is NULL\n<6>ecallService: ecall signal\n",
            err.text());

  const auto entries = capture.slogEntries();
  ASSERT_EQ(3u, entries.size());
  EXPECT_EQ("3", entries[0].kind);
  EXPECT_EQ("ecallService: cannot open ORC channel", entries[0].text);

  const int expected[] = {0, 2, 3, 4, 5, 6, 7, 7};
  for (int severity = 0; severity < 8; ++severity) EXPECT_EQ(expected[severity], platform::slogPriority(severity));
}

TEST(Slog, OverlongTextIsCutToOneAtomicLine) {
  StderrCapture err;
  const std::string huge(20000, 'x');
  slogf(ECALL_SLOG_OPCODE, _SLOG_INFO, "ecallService: %s", huge.c_str());
  const std::string text = err.text();
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(0u, text.find("<6>ecallService: xxx"));
  EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n'));
  EXPECT_EQ('\n', text.back());
  EXPECT_LE(text.size(), static_cast<size_t>(PIPE_BUF));
}

TEST(Trace, LinesCarryTimeScopeKindFunctionAndFoldedText) {
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

  const auto lines = testSupport::splitLines(testSupport::readFile(file));
  ASSERT_EQ(4u, lines.size());
  const char* kinds[] = {"MSG", "WRN", "ERR", "MSG"};
  const std::string texts[] = {"method IsECallInProgess", "two lines", "rc -5", longText};
  for (size_t i = 0; i < lines.size(); ++i) {
    const TraceLine trace = parseTraceLine(lines[i]);
    ASSERT_TRUE(trace.wellFormed) << lines[i].substr(0, 100);
    EXPECT_EQ("ecallService_ecallMain", trace.scope);
    EXPECT_EQ(kinds[i], trace.kind);
    EXPECT_EQ("onECallRequest", trace.function);
    EXPECT_EQ(texts[i], trace.text);
  }
}

TEST(Trace, ConcurrentTracesStayWholeLinesAndReachTheSink) {
  testSupport::TempRoot root;
  const std::string file = root.path("/trace.txt");
  testSupport::LogCapture capture;
  ASSERT_TRUE(platform::startTrace(file));
  constexpr int kThreads = 4, kEach = 300;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([t] {
      CQVTraceScope scope(testScope, "worker");
      const std::string filler(200 + t * 100, static_cast<char>('a' + t));
      for (int i = 0; i < kEach; ++i) scope.sendFormattedMessage("%d %s", t, filler.c_str());
    });
  for (auto& th : threads) th.join();
  platform::stopTrace();

  const auto lines = testSupport::splitLines(testSupport::readFile(file));
  ASSERT_EQ(static_cast<size_t>(kThreads * kEach), lines.size());
  for (const auto& line : lines) {
    const TraceLine trace = parseTraceLine(line);
    ASSERT_TRUE(trace.wellFormed) << line.substr(0, 80);
    EXPECT_EQ("worker", trace.function);
    const int t = trace.text[0] - '0';
    ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
    EXPECT_EQ(std::to_string(t) + " " + std::string(200 + t * 100, static_cast<char>('a' + t)), trace.text);
  }
  EXPECT_EQ(static_cast<size_t>(kThreads * kEach), capture.countTrace(" "));
}

// The README's demo as CI runs it: the crash scene, its timeline and log; nothing left but the page.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "support/e2eHarness.h"

namespace {

using Strings = std::vector<std::string>;

bool processMentions(const std::string& text) {
  std::error_code ec;
  for (const auto& process : std::filesystem::directory_iterator("/proc", ec))
    if (isdigit(static_cast<unsigned char>(process.path().filename().string()[0])) &&
        testSupport::readFile(process.path() / "cmdline").find(text) != std::string::npos)
      return true;
  return false;
}

Strings printedLogMessages(const std::string& output) {
  const size_t from = output.find("\ndemo: the emergency log (");
  if (from == std::string::npos) return {};
  return testSupport::logEntryMessages(output.substr(from, output.find("\ndemo: ", from + 1) - from));
}

// The car time of the first timeline line that holds text, or -1.
double timelineSeconds(const std::string& output, const std::string& text) {
  static const std::regex stamped(R"(^ *(-?[0-9]+\.[0-9]) s  (.*)$)");
  std::smatch match;
  for (const auto& line : testSupport::splitLines(output))
    if (std::regex_match(line, match, stamped) && match[2].str().find(text) != std::string::npos)
      return std::stod(match[1].str());
  return -1;
}

}  // namespace

TEST(Demo, CrashSceneRunsToItsEndPrintsTheWholeCallAndCleansUp) {
  const testSupport::Outcome demo = testSupport::run(
      {"/bin/bash", "-c",
       std::string(ECALL_SOURCE_DIR) + "/scripts/demo --no-build --build " + ECALL_BUILD_DIR + " --time-scale 0.05 2>&1"},
      {}, std::chrono::seconds(240));
  const std::string& out = demo.out;
  EXPECT_EQ(demo.exitCode, 0) << out;
  EXPECT_EQ(out.find("gave up waiting"), std::string::npos) << out;

  EXPECT_NE(out.find("ecallService is on the bus"), std::string::npos) << out;
  std::smatch statusLine;
  ASSERT_TRUE(std::regex_search(out, statusLine, std::regex("ok .*phone=on antenna=normal number=911.*"))) << out;
  for (const char* part : {"variant=YES", "channel=connected"}) EXPECT_NE(statusLine.str().find(part), std::string::npos);

  Strings log = printedLogMessages(out);
  EXPECT_TRUE(testSupport::containsInOrder(
      log, {"ACR triggered on CAN - More severe front event", "Calling 911",
            "Call Active.  Delay 6000 ms for PSAP TTS", "Call ended", "End emergency mode"}))
      << testing::PrintToString(log);

  double on = timelineSeconds(out, "ECALL on  type=acn event=CAN_IMPACT_C modeActive=yes number=911");
  double ended = timelineSeconds(out, "ECALL off type=none event=NONE modeActive=yes");
  double idle = timelineSeconds(out, "ECALL off type=none event=NONE modeActive=no");
  // The phone's report is stamped before it is sent, the signals on receipt.
  double hungUp = timelineSeconds(out, "phone: call 911 TERMINATED");
  EXPECT_GE(on, 0.0) << out;
  EXPECT_GT(ended, on) << out;
  EXPECT_GT(hungUp, on) << out;
  EXPECT_GE(idle - hungUp, 0.8 * 30) << "the call-back period, in car seconds\n" << out;
  EXPECT_GE(timelineSeconds(out, "say (ECALL): A crash has occurred in a Corvane vehicle:"), 0.0) << out;

  std::smatch page;
  ASSERT_TRUE(std::regex_search(out, page, std::regex("timeline, to open in a browser: (\\S+)"))) << out;
  EXPECT_NE(testSupport::readFile(page[1].str()).find("\"method\":\"ecallDial\""), std::string::npos);

  std::smatch folder;
  ASSERT_TRUE(std::regex_search(out, folder, std::regex("removed (/tmp/ecall-demo-[A-Za-z0-9]+)"))) << out;
  EXPECT_FALSE(testSupport::fileExists(folder[1].str())) << "the session folder stays behind";
  EXPECT_FALSE(processMentions(folder[1].str())) << "a process of the session is still running";
}

// The README's main job, run as CI runs it: standard input not a terminal.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>
#include <string>

#include "support/testSupport.h"

namespace {

// True when a process on the machine has text in its command line.
bool processMentions(const std::string& text) {
  bool found = false;
  if (DIR* proc = opendir("/proc")) {
    while (dirent* entry = readdir(proc)) {
      if (!isdigit(static_cast<unsigned char>(entry->d_name[0]))) continue;
      std::string cmdline = testSupport::readFile(std::string("/proc/") + entry->d_name + "/cmdline");
      if (cmdline.find(text) != std::string::npos) found = true;
    }
    closedir(proc);
  }
  return found;
}

}  // namespace

TEST(Demo, ShortSessionShowsTheServiceAndTheHealthyCarThenCleansUp) {
  std::string command = std::string("bash ") + ECALL_SOURCE_DIR + "/scripts/demo --no-build --build " +
                        ECALL_BUILD_DIR + " --time-scale 0.01 </dev/null 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  int status = pclose(pipe);
  ASSERT_TRUE(WIFEXITED(status)) << output;
  EXPECT_EQ(WEXITSTATUS(status), 0) << output;

  EXPECT_NE(output.find("ecallService is on the bus"), std::string::npos) << output;
  EXPECT_NE(output.find("IsECallInProgess -> {\"ecallInProgress\":false}"), std::string::npos) << output;
  // The status line of a healthy car.
  std::smatch status_line;
  ASSERT_TRUE(std::regex_search(output, status_line, std::regex("ok .*phone=on antenna=normal number=911.*")))
      << output;
  EXPECT_NE(status_line.str().find("variant=YES"), std::string::npos);
  EXPECT_NE(status_line.str().find("channel=connected"), std::string::npos);

  std::smatch folder;
  ASSERT_TRUE(std::regex_search(output, folder, std::regex("removed (/tmp/ecall-demo-[A-Za-z0-9]+)"))) << output;
  EXPECT_FALSE(testSupport::fileExists(folder[1].str())) << "the session folder stays behind";
  EXPECT_FALSE(processMentions(folder[1].str())) << "a process of the session is still running";
}

// Emergencies one after another on one service, and what it holds; shared with bench/soak.cpp.
#pragma once

#include <dirent.h>

#include <string>

#include "carScene.h"

namespace soak {

// The pace of a soak: the 30 s callback period in 0.15 s.
inline constexpr double kSoakScale = 0.005;

struct Held {
  int descriptors = 0, threads = 0;
  long rssKiB = 0;
};

inline Held heldBy(pid_t pid) {
  Held held;
  const std::string proc = "/proc/" + std::to_string(pid);
  if (DIR* fds = opendir((proc + "/fd").c_str())) {
    while (dirent* entry = readdir(fds)) held.descriptors += entry->d_name[0] != '.';
    closedir(fds);
  }
  for (const std::string& line : testSupport::splitLines(testSupport::readFile(proc + "/status"))) {
    if (line.rfind("Threads:", 0) == 0) held.threads = std::stoi(line.substr(8));
    if (line.rfind("VmRSS:", 0) == 0) held.rssKiB = std::stol(line.substr(6));
  }
  return held;
}

// No trace (it would only grow); ASan reuses freed memory at once, so that resident memory tells of leaks.
inline carScene::E2eOptions soakCar() {
  carScene::E2eOptions options = carScene::carOptions(kSoakScale);
  options.trace = false;
#ifdef __SANITIZE_ADDRESS__
  const char* asan = getenv("ASAN_OPTIONS");
  options.serviceEnv = {std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":quarantine_size_mb=0"};
#endif
  return options;
}

// The n-th emergency (a request, a crash or the button by turns) to idle; false when a step did not come.
inline bool oneEmergency(carScene::Scene& s, int n) {
  s.mark = s.car.recordMark();
  switch (n % 3) {
    case 0:
      EXPECT_EQ(s.car.call("startEcall"), carScene::kOk);
      break;
    case 1:
      s.sim("crash B can");
      break;
    default:
      s.sim("button ecall press");
      if (!s.waitForEmergency()) return false;
      s.sim("button ecall release");
  }
  if (!s.waitForRequest("EmbeddedPhone", "ecallDial") || s.waitForRecord(carScene::isMicrophoneOpened).isNull()) {
    ADD_FAILURE() << "emergency " << n << " did not reach the emergency centre";
    return false;
  }
  s.sim("psap hangup");
  const bool ended = !s.waitForSignal(carScene::Scene::idle).isNull() && testSupport::waitUntil([&] {
    return s.car.emergencyLog().ends_with(":End emergency mode\n");
  }, carScene::kLong);
  if (!ended) ADD_FAILURE() << "emergency " << n << " did not end in idle";
  return ended;
}

}  // namespace soak

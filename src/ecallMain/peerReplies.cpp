// The bound on a peer's reply, as every module passes it to the bus library.
#include <algorithm>
#include <cmath>

#include "ecallMain/ecallMain.h"
#include "platform/runtime.h"

namespace {
// The least real time a scaled bound may come to.
constexpr double kLeastRealBoundMs = 250.0;
}  // namespace

int peerReplyLimitMs() {
  const double scale = platform::timeScale();
  return static_cast<int>(std::max<double>(PEER_REPLY_BOUND_MS, std::ceil(kLeastRealBoundMs / scale)));
}

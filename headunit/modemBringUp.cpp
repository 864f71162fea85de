// Bringing oFono's modem up: powered, then online. A module still starting
// refuses its power-up ("Operation failed": its port is not there yet), and
// one that has just started may take long to answer; neither must leave the
// car without a phone. A refusal is tried again after a pause that grows
// from a quarter of a second to four seconds, for as long as the modem is
// there; the calls wait for oFono on the dispatcher's loop, so the bridge
// answers the service meanwhile. Each new reason of a refusal is logged
// once, and so is the modem coming up.
#include <algorithm>
#include <cstring>

#include "embeddedPhone.h"

namespace headunit {

namespace {

const auto kFirstPause = std::chrono::milliseconds(250);
const auto kLongestPause = std::chrono::milliseconds(4000);

}  // namespace

// Runs with the bus held: when a modem is taken, when oFono reports its
// Powered or Online, after a reply and after a pause.
void EmbeddedPhone::bringUp(sd_bus* bus) {
  if (mModem.empty() || mWasUp || mBringUpCall) return;
  if (mPowered && mOnline) {
    mWasUp = true;
    if (mRetryDue) mBus.setTimer({}, nullptr);
    mRetryDue = false;
    char after[64] = "";
    if (mRefusals > 0)
      snprintf(after, sizeof after, " after %d refusals in %.1f s", mRefusals,
               std::chrono::duration<double>(std::chrono::steady_clock::now() - mTakenAt).count());
    logLine("EmbeddedPhone: modem " + mModem + " is up" + after);
    return;
  }
  if (mRetryDue) return;
  mAskedOnline = mPowered;
  const char* property = mAskedOnline ? "Online" : "Powered";
  int rc = sd_bus_call_method_async(bus, &mBringUpCall, "org.ofono", mModem.c_str(), "org.ofono.Modem", "SetProperty",
                                    &EmbeddedPhone::onBringUpReply, this, "sv", property, "b", 1);
  if (rc < 0) bringUpRefused(std::string("cannot ask oFono: ") + strerror(-rc));
}

int EmbeddedPhone::onBringUpReply(sd_bus_message* reply, void* self, sd_bus_error*) {
  auto* phone = static_cast<EmbeddedPhone*>(self);
  phone->mBringUpCall = sd_bus_slot_unref(phone->mBringUpCall);
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  const char* step = phone->mAskedOnline ? "bring the modem online" : "power the modem";
  if (error) {
    phone->bringUpRefused(std::string("cannot ") + step + ": " + (error->message ? error->message : error->name));
    return 0;
  }
  // oFono answers before it reports the change.
  (phone->mAskedOnline ? phone->mOnline : phone->mPowered) = true;
  phone->bringUp(sd_bus_message_get_bus(reply));
  phone->reportStatus();
  return 0;
}

void EmbeddedPhone::bringUpRefused(const std::string& why) {
  ++mRefusals;
  if (why != mRefusal) logLine("EmbeddedPhone: " + why + "; trying again until it is up");
  mRefusal = why;
  mRetryDue = true;
  mBus.setTimer(std::max(mPause, kFirstPause), [this](sd_bus* bus) {
    mRetryDue = false;
    bringUp(bus);
  });
  mPause = std::min(mPause * 2, kLongestPause);
}

void EmbeddedPhone::stopBringUp() {
  mBringUpCall = sd_bus_slot_unref(mBringUpCall);
  if (mRetryDue) mBus.setTimer({}, nullptr);
  mRetryDue = mWasUp = false;
  mPause = kFirstPause;
  mRefusals = 0;
  mRefusal.clear();
  mTakenAt = std::chrono::steady_clock::now();
}

}  // namespace headunit

#include "callTimings/callTimings.h"

#include <json/json.h>

#include <algorithm>

namespace callTimings {

void stageClock::begin(int64_t nowMs) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (mOpen) return;
  mOpen = true;
  mCurrent = callRecord{};
  mCurrent.triggerMs = nowMs;
}

void stageClock::mark(stage s, int64_t nowMs) {
  std::lock_guard<std::mutex> lock(mMutex);
  markLocked(s, nowMs);
}

void stageClock::markLocked(stage s, int64_t nowMs) {
  if (!mOpen || s < 0 || s >= STAGE_COUNT || mCurrent.afterTriggerMs[s] != ABSENT) return;
  // A mark timed on another thread just before the trigger was taken counts
  // as at the trigger.
  mCurrent.afterTriggerMs[s] = std::max<int64_t>(0, nowMs - mCurrent.triggerMs);
}

void stageClock::dialSent(int64_t nowMs) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mOpen) return;
  // What the phone reported of an earlier attempt is not this attempt's.
  for (stage s : {DIAL_SENT, DIALLING, ALERTING}) mCurrent.afterTriggerMs[s] = ABSENT;
  ++mCurrent.dials;
  markLocked(DIAL_SENT, nowMs);
}

bool stageClock::finish(int64_t nowMs, callRecord& closed) {
  std::lock_guard<std::mutex> lock(mMutex);
  if (!mOpen) return false;
  markLocked(END, nowMs);
  mOpen = false;
  mLast = mCurrent;
  closed = mCurrent;
  return true;
}

callRecord stageClock::last() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mLast;
}

std::string logLine(const callRecord& call, size_t room) {
  static const std::string cut = " ...\n";
  std::string line = "Call timings (ms after trigger):";
  const char* separator = " ";
  auto fits = [&](const std::string& item) { return line.size() + item.size() + cut.size() <= room; };
  for (int s = 0; s < STAGE_COUNT; ++s) {
    if (call.afterTriggerMs[s] == ABSENT) continue;
    const std::string item =
        separator + std::string(stageNames[s].logWord) + " " + std::to_string(call.afterTriggerMs[s]);
    if (!fits(item)) return line + cut;
    line += item;
    separator = ", ";
  }
  const std::string dials = "; dials " + std::to_string(call.dials);
  return (fits(dials) ? line + dials : line + cut.substr(0, 4)) + "\n";
}

Json::Value toJson(const callRecord& call) {
  Json::Value value(Json::objectValue);
  if (!call.hasCall()) return value;
  value["trigger"] = Json::Int64(call.triggerMs);
  value["dials"] = call.dials;
  Json::Value& stages = value["stages"] = Json::Value(Json::objectValue);
  for (int s = 0; s < STAGE_COUNT; ++s)
    if (call.afterTriggerMs[s] != ABSENT) stages[stageNames[s].member] = Json::Int64(call.afterTriggerMs[s]);
  return value;
}

}  // namespace callTimings

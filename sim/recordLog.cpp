#include "recordLog.h"

namespace sim {

void RecordLog::add(const std::string& line) {
  std::lock_guard<std::mutex> lock(mMutex);
  mLines.push_back(line);
  if (mLines.size() > kKept) {
    mLines.pop_front();
    ++mFirst;
  }
  mCond.notify_all();
}

size_t RecordLog::waitFrom(size_t from, std::vector<std::string>& lines, const std::function<bool()>& stop) {
  std::unique_lock<std::mutex> lock(mMutex);
  mCond.wait(lock, [&] { return stop() || mFirst + mLines.size() > from; });
  if (from < mFirst) from = mFirst;
  lines.assign(mLines.begin() + static_cast<std::ptrdiff_t>(from - mFirst), mLines.end());
  return mFirst + mLines.size();
}

std::vector<std::string> RecordLog::all() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return {mLines.begin(), mLines.end()};
}

void RecordLog::wake() {
  std::lock_guard<std::mutex> lock(mMutex);
  mCond.notify_all();
}

}  // namespace sim

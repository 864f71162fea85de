// The car's record kept in memory, for the panel's live timeline and the
// timeline file: every entry the recorder writes, in order, numbered from 0.
// Readers wait for entries they have not seen yet.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace sim {

class RecordLog {
 public:
  // The oldest entries are dropped beyond this many: a car left running for
  // days must not eat the machine.
  static constexpr size_t kKept = 100000;

  void add(const std::string& line);
  // Waits until there are entries from number from on, or stop() holds (it is
  // checked whenever wake() is called); gives them and returns the number to
  // ask for next.
  size_t waitFrom(size_t from, std::vector<std::string>& lines, const std::function<bool()>& stop);
  // Every entry kept.
  std::vector<std::string> all() const;
  // Has the waiters look at their stop condition again.
  void wake();

 private:
  mutable std::mutex mMutex;
  std::condition_variable mCond;
  std::deque<std::string> mLines;
  size_t mFirst = 0;  // number of the oldest entry kept
};

}  // namespace sim

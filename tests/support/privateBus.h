// A private dbus-daemon for tests (work in progress).
#pragma once

#include <string>

namespace testSupport {

class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  const std::string& address() const { return mAddress; }

 private:
  std::string mAddress;
};

}  // namespace testSupport

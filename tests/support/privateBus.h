// A private dbus-daemon in a fresh temporary folder, with a session-like
// policy unless given one. It dies with the object and with the thread that
// created it: create it on the test's own thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace testSupport {

class Child;

class PrivateBus {
 public:
  // Starts the daemon and waits for its address. A policy (the XML after
  // <auth> in <busconfig>) replaces the session-like one and opens the folder
  // to other accounts. beforeExec runs before its program (system calls only).
  explicit PrivateBus(const std::string& policy = "",
                      std::chrono::milliseconds startDeadline = std::chrono::seconds(10),
                      const std::function<void()>& beforeExec = {});
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // The D-Bus address of the bus ("unix:path=...,guid=...").
  const std::string& address() const { return mAddress; }

 private:
  void stop();

  std::string mDir, mAddress;
  std::unique_ptr<Child> mDaemon;
};

}  // namespace testSupport

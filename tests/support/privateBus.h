// A private dbus-daemon for tests, listening in a fresh temporary folder,
// with a session-like policy unless given one. The destructor kills and
// reaps the daemon and removes the folder; the daemon also dies with the
// thread that created the object (PR_SET_PDEATHSIG): create it on the test's
// own thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace testSupport {

class Child;

class PrivateBus {
 public:
  // Starts the daemon and waits (at most startDeadline) for its address.
  // A policy of its own replaces the session-like one: the XML that follows
  // <listen> and <auth> inside <busconfig> (policy blocks, includes). Its
  // folder is then open to every user, so that processes running under other
  // accounts can connect. beforeExec runs in the daemon's process before
  // its program starts (system calls only).
  explicit PrivateBus(const std::string& policy = "",
                      std::chrono::milliseconds startDeadline = std::chrono::seconds(10),
                      const std::function<void()>& beforeExec = {});
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // The D-Bus address of the bus ("unix:path=...,guid=...").
  const std::string& address() const { return mAddress; }

 private:
  void start(std::chrono::milliseconds startDeadline, const std::function<void()>& beforeExec);
  void stop();

  std::string mDir;
  std::string mAddress;
  std::string mPolicy;  // empty: the session-like policy
  std::unique_ptr<Child> mDaemon;
};

}  // namespace testSupport

// A private dbus-daemon for tests: a bus of its own, listening in a fresh
// temporary folder, with a session-like policy (anyone may own any name and
// send anything to anyone).
//
//   testSupport::PrivateBus bus;  // started, or throws std::runtime_error
//   SVCIPC_getConnectionByAddress(bus.address().c_str(), &conn);
//   // or run a program with "--bus " + bus.address()
//
// The destructor kills and reaps the daemon and removes the folder. The
// daemon is also killed when the thread that created the object ends
// (PR_SET_PDEATHSIG), so that a test process that crashes or is killed leaves
// no daemon behind: create the object on the test's own thread, not on a
// short-lived helper thread.
#pragma once

#include <chrono>
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
  // accounts can connect.
  explicit PrivateBus(const std::string& policy = "",
                      std::chrono::milliseconds startDeadline = std::chrono::seconds(10));
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // The D-Bus address of the bus ("unix:path=...,guid=...").
  const std::string& address() const { return mAddress; }

 private:
  void start(std::chrono::milliseconds startDeadline);
  void stop();

  std::string mDir;
  std::string mAddress;
  std::string mPolicy;  // empty: the session-like policy
  std::unique_ptr<Child> mDaemon;
};

}  // namespace testSupport

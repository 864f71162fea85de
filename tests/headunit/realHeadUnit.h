// The real stack around ecallService on one private bus: the car's micro
// (vehicle-sim --vehicle-only), ecall-headunit, ofonod on the modem emulator
// (modem.py), gpsd fed by gpsfake with the project's drive. A modem state
// "off" starts the service without waiting for the phone.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "support/e2eHarness.h"

class RealHeadUnit {
 public:
  using ms = std::chrono::milliseconds;
  struct Setup {
    std::string modemState = "ready";
    bool europe = false;
    bool service = true;  // false: the test calls the bridge itself
  };
  explicit RealHeadUnit(const Setup& setup);
  RealHeadUnit(const char* modemState = "ready") : RealHeadUnit(Setup{modemState}) {}
  ~RealHeadUnit();

  // The modem emulator printed part since mark (an offset into its output).
  bool waitForModem(const std::string& part, size_t mark = 0, ms deadline = ms(20000));
  size_t modemMark() const { return modem->out().size(); }
  // A command of the modem emulator ("answer", "state pin", ...).
  void network(const std::string& command);
  // ecall-headunit has logged a line holding part.
  bool waitForBridge(const std::string& part, ms deadline = ms(20000));
  const std::string& bridgeLog() const { return bridge->out(); }
  // ofonod, on the modem (again after the test ended the last one).
  void startOfono();
  std::string speechFolder() const { return dir + "/speech"; }

  testSupport::E2eHarness harness;
  std::string dir;
  std::unique_ptr<testSupport::Child> modem, ofono, gps, bridge;
};

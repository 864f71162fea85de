// The real stack around ecallService: the car's micro from vehicle-sim
// (--vehicle-only), ecall-headunit for the head unit's services, the real
// ofonod with the modem emulator (modem.py) on its phonesim port, and the
// real gpsd fed by gpsfake from the drive the project ships. Everything on
// one private bus, which is the system bus of oFono and of the bridge, as on
// a head unit. Ports are chosen free at run time.
//
//   RealHeadUnit car;              // all up, the phone ON, the service started
//   car.harness.sim("crash B can");
//   ASSERT_TRUE(car.waitForModem("at ATD911;"));
//   car.network("answer");
// RealHeadUnit car("pin"): the modem starts in another state (modem.py);
// with "off" the service starts without waiting for the phone.
// RealHeadUnit car({.europe = true}): a car of the EU market whose bridge
// places the call on the emulator's eCall port.
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

  // The modem emulator has printed a line holding part since mark (an
  // offset into its output; 0: since it started).
  bool waitForModem(const std::string& part, size_t mark = 0, ms deadline = ms(20000));
  size_t modemMark() const { return modem->out().size(); }
  // The network's move: "answer", "hangup", "ring NUMBER", "drop", or the
  // modem's: "state STATE".
  void network(const std::string& command);
  // ecall-headunit has logged a line holding part.
  bool waitForBridge(const std::string& part, ms deadline = ms(20000));
  const std::string& bridgeLog() const { return bridge->out(); }
  // ofonod, on the modem (again after the test ended the last one).
  void startOfono();
  std::string speechFolder() const { return dir + "/speech"; }

  std::unique_ptr<testSupport::E2eHarness> harnessPtr;
  testSupport::E2eHarness& harness;
  std::string dir;
  std::unique_ptr<testSupport::Child> modem, ofono, gps, bridge;
};

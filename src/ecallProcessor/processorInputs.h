// What the inputs (restraint controller, mirror buttons, LED) and the
// external services see of the processor: raise an emergency, set a failure
// source, the Assist button, the emergency log, and the few states they read
// or set. The processor implements it; the wiring of the process objects hands
// it to them.
#pragma once

#include <cstdint>
#include <string>

#include "common/ecallTypes.h"

class processorInputs {
 public:
  virtual void emergencyHappened(ecallMain::eEmergencyType newType) = 0;
  virtual void setEcallSystemFailureState(ecallSystemFailure::eSource source, bool failed) = 0;
  virtual void assistButtonPressed() = 0;
  // Sends the Assist status to the vehicle micro.
  virtual void sendAssistStatus() = 0;

  virtual void addEntryToEmergencyLog(const char* text) = 0;
  // Formats into a 256-byte entry (cut safely) and appends it.
  virtual void addFormattedEntryToEmergencyLog(const char* format, ...) __attribute__((format(printf, 2, 3))) = 0;
  // Creates (or removes) a marker file.
  virtual void createFlagInTmp(bool create, std::string path) = 0;

  virtual bool getEcallModeActive() const = 0;
  virtual bool isBtCallActive() const = 0;
  // The system failure word (a bit per source; 0 when all is well).
  virtual uint32_t getSystemError() const = 0;
  // Both inputs are being read (the Assist side needs them).
  virtual void setOrcMonitoringStarted(bool started) = 0;
  // Bluetooth is being switched off for the emergency, not by the user.
  virtual void setWillDisconnectBluetooth(bool willDisconnect) = 0;

 protected:
  ~processorInputs() = default;
};

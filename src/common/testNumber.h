// The number a test call dials: a phone number of the vehicle's
// configuration that is never an emergency number. Shared by the service,
// which checks it before every test call, and the head unit's bridge, which
// checks its configuration file.
#pragma once

#include <string>

namespace testNumber {

// Digits with an optional leading "+", at most 20 characters: nothing a
// phone could take for a service code or a pause.
inline bool isDialable(const std::string& number) {
  if (number.empty() || number.size() > 20) return false;
  for (size_t i = 0; i < number.size(); ++i) {
    const char c = number[i];
    if (!((c >= '0' && c <= '9') || (c == '+' && i == 0 && number.size() > 1))) return false;
  }
  return true;
}

// The numbers every mobile phone dials as an emergency call, whatever its
// SIM and network say: 112 and 911 always, the others when no SIM is in.
inline bool isAlwaysEmergency(const std::string& number) {
  for (const char* emergency : {"112", "911", "000", "08", "110", "118", "119", "999"})
    if (number == emergency) return true;
  return false;
}

}  // namespace testNumber

// The head unit's settings, from /etc/ecall-headunit.conf: one "key = value"
// a line, "#" starts a comment, unknown keys are refused (a typo must not
// silently leave a default in a car).
//
//   brand = 1                  vehicle brand number (1 to 12)
//   language = en_US           the occupants' language
//   embeddedPhone = yes        the car has the embedded phone (no: it has not)
//   softwareVersion = HU-1.0   the head unit's software version
//   emergencyNumber = 911      the market's emergency number, offered first
//   callbackMinutes = 60       an incoming call this long after an emergency
//                              call is the emergency centre calling back
//   gpsd = localhost:2947      where gpsd listens
//   testNumber = 5550100       the number a test call dials (none: no test
//                              calls); never an emergency number
#pragma once

#include <string>

namespace headunit {

struct Config {
  int brand = 1;
  std::string language = "en_US";
  bool embeddedPhone = true;
  std::string softwareVersion = "unknown";
  std::string emergencyNumber = "911";
  int callbackMinutes = 60;
  std::string gpsdHost = "localhost";
  std::string gpsdPort = "2947";
  std::string testNumber;  // empty: not configured

  // Reads the file; false with a reason (file and line) when it is unusable.
  bool load(const std::string& path, std::string& why);
};

}  // namespace headunit

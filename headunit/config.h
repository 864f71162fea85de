// The head unit's settings, from /etc/ecall-headunit.conf: one "key = value"
// a line, "#" starts a comment, unknown keys are refused (a typo must not
// silently leave a default in a car).
//
//   brand = 1                  vehicle brand number (1 to 12)
//   language = en_US           the occupants' language
//   embeddedPhone = yes        the car has the embedded phone (no: it has not)
//   softwareVersion = HU-1.0   the head unit's software version
//   emergencyNumber = 911      the market's emergency number, offered first
//                              (112 when the market is EU)
//   callbackMinutes = 60       an incoming call this long after an emergency
//                              call is the emergency centre calling back
//   gpsd = localhost:2947      where gpsd listens
//   testNumber = 5550100       the number a test call dials (none: no test
//                              calls); never an emergency number
//
// The car's identity for the European call's data (answered by the vehicle
// configuration and status; each is left out of the answers when not set):
//   market = NA                NA or EU
//   vin = ...                  the 17 characters of the VIN
//   vehicleCategory = M1       M1, M2, M3, N1, N2, N3, L1e .. L7e
//   propulsion = gasoline      among gasoline, diesel, cng, lpg, electric,
//                              hydrogen, other, comma-separated
//   seatBelts = 1              fastened seat belts (absent: unknown)
//
// The European call on the modem's second AT channel:
//   ecallChannel = /dev/ttyUSB3      a device path, or host:port
//   msdLoadCommand = AT+X="%s"       loads the MSD; %s is its hex
//   ecallCommand = AT+CECALL=%d      places the call; %d is 3 automatic,
//                                    2 manual, 0 test
//   msdRequestCode = +X              the channel's unsolicited result code
//                                    for the centre asking for a fresh MSD
#pragma once

#include <optional>
#include <string>
#include <vector>

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

  std::optional<std::string> market, vin, vehicleCategory;
  std::optional<std::vector<std::string>> propulsion;
  std::optional<int> seatBelts;

  std::string ecallChannel;  // empty: the modem has none
  std::string msdLoadCommand;
  std::string ecallCommand = "AT+CECALL=%d";
  std::string msdRequestCode;  // empty: none is heard

  // Reads the file; false with a reason (file and line) when it is unusable.
  bool load(const std::string& path, std::string& why);
};

}  // namespace headunit

#include "config.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "common/testNumber.h"

namespace headunit {

namespace {
std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r"), last = text.find_last_not_of(" \t\r");
  return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

bool number(const std::string& text, int& into) {
  try {
    size_t used = 0;
    into = std::stoi(text, &used);
    return used == text.size();
  } catch (const std::exception&) {
    return false;
  }
}

bool yesNo(const std::string& text, bool& into) {
  if (text != "yes" && text != "no") return false;
  into = text == "yes";
  return true;
}

bool oneOf(const std::string& text, std::initializer_list<const char*> allowed) {
  return std::any_of(allowed.begin(), allowed.end(), [&](const char* word) { return text == word; });
}

// 17 characters of the VIN's alphabet: digits and capitals without I, O, Q.
bool vinText(const std::string& text) {
  return text.size() == 17 && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z' && c != 'I' && c != 'O' && c != 'Q');
         });
}

bool propulsionList(const std::string& text, std::vector<std::string>& into) {
  std::stringstream in(text);
  into.clear();
  for (std::string word; std::getline(in, word, ',');) {
    word = trimmed(word);
    if (!oneOf(word, {"gasoline", "diesel", "cng", "lpg", "electric", "hydrogen", "other"})) return false;
    into.push_back(word);
  }
  return !into.empty();
}

// A command with exactly one place for its argument: the text is sent to
// the modem, so no other conversion may be in it.
bool commandWith(const std::string& text, const char* place) {
  return std::count(text.begin(), text.end(), '%') == 1 && text.find(place) != std::string::npos;
}
}  // namespace

bool Config::load(const std::string& path, std::string& why) {
  std::ifstream in(path);
  if (!in) {
    why = "cannot read " + path;
    return false;
  }
  std::string line, testNumberLine;
  int channelLine = 0;
  bool numberSet = false;
  for (int lineNo = 1; std::getline(in, line); ++lineNo) {
    line = trimmed(line.substr(0, line.find('#')));
    if (line.empty()) continue;
    const auto eq = line.find('=');
    const std::string key = trimmed(line.substr(0, eq)), value = eq == std::string::npos ? "" : trimmed(line.substr(eq + 1));
    bool good = eq != std::string::npos && !value.empty();
    if (!good) {
    } else if (key == "brand") {
      good = number(value, brand);
    } else if (key == "language") {
      language = value;
    } else if (key == "embeddedPhone") {
      good = yesNo(value, embeddedPhone);
    } else if (key == "softwareVersion") {
      softwareVersion = value;
    } else if (key == "emergencyNumber") {
      emergencyNumber = value;
      numberSet = true;
    } else if (key == "callbackMinutes") {
      good = number(value, callbackMinutes) && callbackMinutes >= 0;
    } else if (key == "testNumber") {
      // A number to dial that no phone takes for an emergency number.
      testNumber = value;
      testNumberLine = path + ":" + std::to_string(lineNo) + ": cannot use \"" + line + "\"";
      good = testNumber::isDialable(value) && !testNumber::isAlwaysEmergency(value);
    } else if (key == "gpsd") {
      const auto colon = value.rfind(':');
      gpsdHost = value.substr(0, colon);
      if (colon != std::string::npos) gpsdPort = value.substr(colon + 1);
      good = !gpsdHost.empty() && !gpsdPort.empty();
    } else if (key == "market") {
      good = oneOf(value, {"NA", "EU"});
      market = value;
    } else if (key == "vin") {
      good = vinText(value);
      vin = value;
    } else if (key == "vehicleCategory") {
      good = oneOf(value, {"M1", "M2", "M3", "N1", "N2", "N3", "L1e", "L2e", "L3e", "L4e", "L5e", "L6e", "L7e"});
      vehicleCategory = value;
    } else if (key == "propulsion") {
      good = propulsionList(value, propulsion.emplace());
    } else if (key == "seatBelts") {
      good = number(value, seatBelts.emplace()) && *seatBelts >= 0;
    } else if (key == "ecallChannel") {
      const auto colon = value.rfind(':');
      good = value[0] == '/' || (colon != std::string::npos && colon > 0 && colon + 1 < value.size());
      ecallChannel = value;
      channelLine = lineNo;
    } else if (key == "msdLoadCommand") {
      good = commandWith(value, "%s");
      msdLoadCommand = value;
    } else if (key == "ecallCommand") {
      good = commandWith(value, "%d");
      ecallCommand = value;
    } else if (key == "msdRequestCode") {
      msdRequestCode = value;
    } else {
      good = false;
    }
    if (!good) {
      why = path + ":" + std::to_string(lineNo) + ": cannot use \"" + line + "\"";
      return false;
    }
  }
  // The modem takes the call only with the MSD it was given.
  if (channelLine && msdLoadCommand.empty()) {
    why = path + ":" + std::to_string(channelLine) + ": ecallChannel needs msdLoadCommand";
    return false;
  }
  if (!numberSet && market == "EU") emergencyNumber = "112";
  if (!testNumber.empty() && testNumber == emergencyNumber) {
    why = testNumberLine + ": the test number is the emergency number";
    return false;
  }
  return true;
}

}  // namespace headunit

#include "config.h"

#include <fstream>

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
}  // namespace

bool Config::load(const std::string& path, std::string& why) {
  std::ifstream in(path);
  if (!in) {
    why = "cannot read " + path;
    return false;
  }
  std::string line, testNumberLine;
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
    } else {
      good = false;
    }
    if (!good) {
      why = path + ":" + std::to_string(lineNo) + ": cannot use \"" + line + "\"";
      return false;
    }
  }
  if (!testNumber.empty() && testNumber == emergencyNumber) {
    why = testNumberLine + ": the test number is the emergency number";
    return false;
  }
  return true;
}

}  // namespace headunit

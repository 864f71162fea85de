// A decoded MSD as text for a person (the simulated centre, ecallctl), and
// octets as hex.
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "msd/msd.h"

namespace msd {
namespace {

const char* const kVehicleTypes[] = {
    "passenger vehicle (M1)",        "bus or coach (M2)",          "bus or coach (M3)",
    "light commercial vehicle (N1)", "heavy-duty vehicle (N2)",    "heavy-duty vehicle (N3)",
    "motorcycle (L1e)",              "motorcycle (L2e)",           "motorcycle (L3e)",
    "motorcycle (L4e)",              "motorcycle (L5e)",           "motorcycle (L6e)",
    "motorcycle (L7e)"};

std::string printed(const char* pattern, auto... values) {
  char text[160];
  snprintf(text, sizeof text, pattern, values...);
  return text;
}

std::string coordinate(const std::optional<int32_t>& mas, char positive, char negative) {
  if (!mas) return "unknown";
  return printed("%.7f %c (%" PRId32 " mas)", std::fabs(*mas / 3600000.0), *mas < 0 ? negative : positive, *mas);
}

std::string propulsion(const Propulsion& p) {
  std::string names;
  const std::pair<bool, const char*> flags[] = {{p.gasoline, "gasoline"},
                                                {p.diesel, "diesel"},
                                                {p.compressedNaturalGas, "compressed natural gas"},
                                                {p.liquidPropaneGas, "liquid propane gas"},
                                                {p.electric, "electric"},
                                                {p.hydrogen, "hydrogen"},
                                                {p.other, "other"}};
  for (const auto& [present, name] : flags)
    if (present) names += (names.empty() ? "" : ", ") + std::string(name);
  return names.empty() ? "unknown" : names;
}

std::string recent(const std::optional<Delta>& delta) {
  if (!delta) return "not given";
  return printed("%+d, %+d (x 100 mas: %+.5f, %+.5f degrees)", delta->latitude, delta->longitude,
                delta->latitude / 36000.0, delta->longitude / 36000.0);
}

std::string timestamp(uint32_t seconds) {
  if (seconds == 0) return "unknown";
  const time_t t = seconds;
  struct tm utc {};
  gmtime_r(&t, &utc);
  char text[40];
  strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
  return std::string(text) + " (" + std::to_string(seconds) + ")";
}

std::string additional(const std::optional<AdditionalData>& data) {
  if (!data) return "none";
  std::string oid;
  for (uint32_t arc : data->oid) oid += (oid.empty() ? "" : ".") + std::to_string(arc);
  return "oid " + oid + ", " + std::to_string(data->data.size()) + " octets " + toHex(data->data);
}

}  // namespace

std::string render(const Content& c) {
  const auto type = static_cast<unsigned>(c.vehicleType);
  std::string direction = "unknown";
  if (c.direction && *c.direction < 180)
    direction = std::to_string(*c.direction * 2) + " degrees (" + std::to_string(*c.direction) + ")";
  else if (c.direction)
    direction = "not a direction (" + std::to_string(*c.direction) + ")";
  std::string passengers = "not given";
  if (c.passengers) passengers = *c.passengers == 255 ? "unknown" : std::to_string(*c.passengers);

  std::string out;
  const auto line = [&out](const char* name, const std::string& value) { out += std::string(name) + ": " + value + "\n"; };
  line("format version", std::to_string(c.formatVersion));
  line("message identifier", std::to_string(c.messageIdentifier));
  line("activation", c.automaticActivation ? "automatic" : "manual");
  line("call", c.testCall ? "test" : "emergency");
  line("position can be trusted", c.positionCanBeTrusted ? "yes" : "no");
  line("vehicle type", type >= 1 && type <= 13 ? kVehicleTypes[type - 1] : "unknown, of a later format");
  line("VIN", c.vin);
  line("propulsion", propulsion(c.propulsion));
  line("time", timestamp(c.timestamp));
  line("latitude", coordinate(c.latitude, 'N', 'S'));
  line("longitude", coordinate(c.longitude, 'E', 'W'));
  line("direction", direction);
  line("recent position N1", recent(c.n1));
  line("recent position N2", recent(c.n2));
  line("passengers", passengers);
  line("additional data", additional(c.additionalData));
  return out;
}

std::string toHex(const std::vector<uint8_t>& octets) {
  static const char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(octets.size() * 2);
  for (uint8_t octet : octets) {
    text += digits[octet >> 4];
    text += digits[octet & 0xf];
  }
  return text;
}

std::optional<std::vector<uint8_t>> fromHex(const std::string& text) {
  std::vector<uint8_t> octets;
  int high = -1;
  for (char c : text) {
    if (c == ' ' || c == '\n' || c == '\t') {
      if (high >= 0) return std::nullopt;
      continue;
    }
    int value = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (value < 0) return std::nullopt;
    if (high < 0) {
      high = value;
    } else {
      octets.push_back(static_cast<uint8_t>(high << 4 | value));
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return octets;
}

}  // namespace msd

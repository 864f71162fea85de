// The rules that turn the car's raw inputs into the content of an MSD. Each
// input that cannot be sent as it is is left out or marked unknown, never a
// reason not to send the message, and each such case leaves a warning.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>

#include "msd/msd.h"

namespace msd {
namespace {

constexpr double kMasPerDegree = 3600000.0;
constexpr int64_t kMasFullTurn = 1296000000;  // 360 degrees
constexpr int kDeltaMin = -512, kDeltaMax = 511;
constexpr char kVinAlphabet[] = "0123456789ABCDEFGHJKLMNPRSTUVWXYZ";
constexpr size_t kVinLength = 17;
// What stands in for a VIN character that cannot be sent.
constexpr char kVinFiller = '0';

bool isVinCharacter(char c) { return c != '\0' && std::char_traits<char>::find(kVinAlphabet, 33, c) != nullptr; }

bool validPoint(const GeoPoint& p) {
  return std::isfinite(p.latitude) && std::isfinite(p.longitude) && std::fabs(p.latitude) <= 90 &&
         std::fabs(p.longitude) <= 180;
}

int32_t toMas(double degrees) { return static_cast<int32_t>(std::llround(degrees * kMasPerDegree)); }

std::string describe(const GeoPoint& p) { return std::to_string(p.latitude) + ", " + std::to_string(p.longitude); }

// The VIN keeps every character it can send in its place: the
// manufacturer and descriptor sections are what the centre looks up the
// vehicle's rescue data by, so one bad character must not cost the rest.
// Lower-case letters are sent as capitals; any other character outside the
// alphabet, and each place of a short VIN, as '0'; a long VIN is cut.
std::string vinToSend(const std::string& given, std::vector<std::string>& warnings) {
  size_t first = given.find_first_not_of(" \t\r\n");
  size_t last = given.find_last_not_of(" \t\r\n");
  std::string vin = first == std::string::npos ? "" : given.substr(first, last - first + 1);
  std::string replaced;
  bool lowerCase = false;
  for (char& c : vin) {
    if (std::islower(static_cast<unsigned char>(c))) {
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      lowerCase = true;
    }
    if (!isVinCharacter(c)) {
      replaced += replaced.empty() ? "" : ", ";
      replaced += std::to_string(&c - vin.data() + 1);
      c = kVinFiller;
    }
  }
  const std::string quoted = "VIN \"" + given + "\"";
  if (lowerCase) warnings.push_back(quoted + ": lower-case letters sent as capitals");
  if (!replaced.empty()) warnings.push_back(quoted + ": characters " + replaced + " outside the VIN alphabet sent as 0");
  if (vin.size() != kVinLength) {
    warnings.push_back(quoted + ": " + std::to_string(vin.size()) + " characters instead of 17, " +
                       (vin.size() < kVinLength ? "the missing ones sent as 0" : "cut after the 17th"));
    vin.resize(kVinLength, kVinFiller);
  }
  return vin;
}

// Index of the 2-degree step nearest to the heading (a half step rounds up;
// 359 degrees and more is north again).
uint8_t directionIndex(double heading) {
  double degrees = std::fmod(heading, 360.0);
  if (degrees < 0) degrees += 360.0;
  return static_cast<uint8_t>(std::lround(degrees / 2) % 180);
}

// The earlier point as an offset from reference in 100 mas steps, the
// shorter way round in longitude; none when it does not fit.
std::optional<Delta> deltaFrom(int32_t refLatitude, int32_t refLongitude, const GeoPoint& earlier) {
  int64_t dLat = static_cast<int64_t>(toMas(earlier.latitude)) - refLatitude;
  int64_t dLon = static_cast<int64_t>(toMas(earlier.longitude)) - refLongitude;
  if (dLon > kMasFullTurn / 2) dLon -= kMasFullTurn;
  if (dLon < -kMasFullTurn / 2) dLon += kMasFullTurn;
  const int64_t lat = std::llround(dLat / 100.0), lon = std::llround(dLon / 100.0);
  if (lat < kDeltaMin || lat > kDeltaMax || lon < kDeltaMin || lon > kDeltaMax) return std::nullopt;
  return Delta{static_cast<int>(lat), static_cast<int>(lon)};
}

// N1 from the current position, N2 from the position N1 stands for (not
// from the true earlier point), so that rounding does not add up on the
// centre's side. N2 is sent only behind N1.
void addRecentPositions(Content& content, const Position& position, std::vector<std::string>& warnings) {
  if (!position.earlier1) return;
  if (!validPoint(*position.earlier1)) {
    warnings.push_back("earlier position " + describe(*position.earlier1) + " is not a position, left out");
    return;
  }
  content.n1 = deltaFrom(*content.latitude, *content.longitude, *position.earlier1);
  if (!content.n1) {
    warnings.push_back("earlier position " + describe(*position.earlier1) +
                       " is too far for a recent position, both recent positions left out");
    return;
  }
  if (!position.earlier2) return;
  if (!validPoint(*position.earlier2)) {
    warnings.push_back("earlier position " + describe(*position.earlier2) + " is not a position, left out");
    return;
  }
  const int32_t n1Latitude = *content.latitude + content.n1->latitude * 100;
  const int32_t n1Longitude = *content.longitude + content.n1->longitude * 100;
  content.n2 = deltaFrom(n1Latitude, n1Longitude, *position.earlier2);
  if (!content.n2)
    warnings.push_back("earlier position " + describe(*position.earlier2) +
                       " is too far for a recent position, left out");
}

}  // namespace

Built build(unsigned sequence, const Trigger& trigger, const Vehicle& vehicle, const Position& position,
            std::optional<int> fastenedSeatBelts) {
  Built built;
  Content& content = built.content;
  auto& warnings = built.warnings;

  // Nothing defines a number past 255: the centre keeps seeing fresh data
  // under the highest one rather than a number that looks like a new call.
  content.messageIdentifier = static_cast<uint8_t>(std::clamp(sequence, 1u, 255u));
  if (sequence > 255) warnings.push_back("MSD number " + std::to_string(sequence) + " sent as message identifier 255");
  if (sequence == 0) warnings.push_back("MSD number 0 sent as message identifier 1");
  content.automaticActivation = trigger.automatic;
  content.testCall = trigger.testCall;

  const auto type = static_cast<unsigned>(vehicle.type);
  content.vehicleType = vehicle.type;
  if (type < 1 || type > 13) {
    warnings.push_back("vehicle type " + std::to_string(type) + " unknown, sent as a passenger vehicle (M1)");
    content.vehicleType = VehicleType::passengerM1;
  }
  content.vin = vinToSend(vehicle.vin, warnings);
  content.propulsion = vehicle.propulsion;

  if (trigger.time > 0 && trigger.time <= std::numeric_limits<uint32_t>::max()) {
    content.timestamp = static_cast<uint32_t>(trigger.time);
  } else {
    warnings.push_back("trigger time " + std::to_string(trigger.time) + " unknown, sent as 0");
  }

  if (position.current && validPoint(*position.current)) {
    content.latitude = toMas(position.current->latitude);
    content.longitude = toMas(position.current->longitude);
    content.positionCanBeTrusted = position.trusted;
    addRecentPositions(content, position, warnings);
  } else if (position.current) {
    warnings.push_back("position " + describe(*position.current) + " is not a position, sent as unknown");
  }
  if (position.heading && std::isfinite(*position.heading)) {
    content.direction = directionIndex(*position.heading);
  } else if (position.heading) {
    warnings.push_back("heading is not a number, sent as unknown");
  }

  if (fastenedSeatBelts && *fastenedSeatBelts < 0) {
    warnings.push_back("fastened seat belts " + std::to_string(*fastenedSeatBelts) + " left out");
  } else if (fastenedSeatBelts) {
    // 255 would mean unknown: a larger count is sent as the largest known one.
    content.passengers = static_cast<uint8_t>(std::min(*fastenedSeatBelts, 254));
    if (*fastenedSeatBelts > 254)
      warnings.push_back("fastened seat belts " + std::to_string(*fastenedSeatBelts) + " sent as 254");
  }
  return built;
}

Built Session::next(const Position& position, std::optional<int> fastenedSeatBelts) {
  return build(++mSent, mTrigger, mVehicle, position, fastenedSeatBelts);
}

}  // namespace msd

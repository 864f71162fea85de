// The minimum set of data (MSD) an emergency call sends to the emergency
// centre ahead of the voice: its content in the system's units, the rules
// that build it from the car's raw inputs, and its codec (format version 2
// in unaligned PER, at most 140 octets; version 1 is read too).
//
// The module knows nothing of its callers: the service builds and encodes
// the MSD when a call starts, the simulator's centre and ecallctl decode and
// print it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace msd {

// The whole message is carried in one block of this size.
inline constexpr size_t kMaxOctets = 140;
// The format version the encoder writes.
inline constexpr uint8_t kFormatVersion = 2;

enum class VehicleType : uint8_t {
  laterFormat = 0,  // a type a later format added: read, never sent
  passengerM1 = 1,
  busM2,
  busM3,
  lightCommercialN1,
  heavyDutyN2,
  heavyDutyN3,
  motorcycleL1e,
  motorcycleL2e,
  motorcycleL3e,
  motorcycleL4e,
  motorcycleL5e,
  motorcycleL6e,
  motorcycleL7e,
};

// The energy stores on board; none set means unknown.
struct Propulsion {
  bool gasoline = false;
  bool diesel = false;
  bool compressedNaturalGas = false;
  bool liquidPropaneGas = false;
  bool electric = false;
  bool hydrogen = false;
  bool other = false;
  bool operator==(const Propulsion&) const = default;
};

// An earlier position as an offset in steps of 100 milliarcseconds
// (about 3 m), -512..511; north and east positive.
struct Delta {
  int latitude = 0;
  int longitude = 0;
  bool operator==(const Delta&) const = default;
};

// Data in a registered format named by a relative object identifier.
struct AdditionalData {
  std::vector<uint32_t> oid;  // the arcs, e.g. {1, 4, 1}
  std::vector<uint8_t> data;
  bool operator==(const AdditionalData&) const = default;
};

// The content of one MSD, as it goes on the wire.
struct Content {
  uint8_t formatVersion = kFormatVersion;  // what decode() read; encode() always writes 2
  uint8_t messageIdentifier = 1;  // 1 for the first MSD of an emergency, +1 for each one sent again
  bool automaticActivation = false;  // a crash started the call; false: the button or a bus request
  bool testCall = false;
  bool positionCanBeTrusted = false;
  VehicleType vehicleType = VehicleType::passengerM1;
  std::string vin;  // 17 characters of 0-9 and A-Z without I, O, Q
  Propulsion propulsion;
  uint32_t timestamp = 0;  // UTC seconds of the trigger; 0: unknown
  std::optional<int32_t> latitude;  // WGS84 milliarcseconds, -324000000..324000000; none: unknown
  std::optional<int32_t> longitude;  // -648000000..648000000; none: unknown
  std::optional<uint8_t> direction;  // 2-degree steps clockwise from north, 0..179; none: unknown
  std::optional<Delta> n1;  // the earlier position N1, from the current one
  std::optional<Delta> n2;  // a still earlier one, from N1
  std::optional<uint8_t> passengers;  // the least number of occupants known; 255: unknown
  std::optional<AdditionalData> additionalData;
  bool operator==(const Content&) const = default;
};

// ---- Building the content from the car's raw inputs -------------------

struct GeoPoint {
  double latitude = 0;   // degrees, north positive
  double longitude = 0;  // degrees, east positive
};

// What is fixed for the whole emergency: the trigger and the vehicle.
struct Trigger {
  bool automatic = false;  // a crash; false: the button or a bus request
  bool testCall = false;
  int64_t time = 0;  // UTC seconds of the trigger; 0 or less: unknown
};
struct Vehicle {
  VehicleType type = VehicleType::passengerM1;
  std::string vin;
  Propulsion propulsion;
};
// What changes from one MSD to the next: the position service's report
// and the vehicle status.
struct Position {
  std::optional<GeoPoint> current;  // none: no fix
  bool trusted = false;  // the fix meets the 95 % / 150 m confidence
  std::optional<double> heading;  // degrees clockwise from north
  std::optional<GeoPoint> earlier1;  // the last earlier position
  std::optional<GeoPoint> earlier2;  // the one before it
};

struct Built {
  Content content;
  std::vector<std::string> warnings;  // one text per input left out or replaced, for the log
};

// Every rule of the MSD applied to one set of inputs; never fails: what
// cannot be encoded is left out or marked unknown with a warning.
// sequence is 1 for the first MSD of the emergency.
Built build(unsigned sequence, const Trigger& trigger, const Vehicle& vehicle, const Position& position,
            std::optional<int> fastenedSeatBelts);

// The MSDs of one emergency: the first is message 1, each one the centre
// asks for again the next, with a fresh position and the time of the
// trigger kept.
class Session {
 public:
  Session(const Trigger& trigger, const Vehicle& vehicle) : mTrigger(trigger), mVehicle(vehicle) {}
  Built next(const Position& position, std::optional<int> fastenedSeatBelts);

 private:
  Trigger mTrigger;
  Vehicle mVehicle;
  unsigned mSent = 0;
};

// ---- The codec ----------------------------------------------------------

struct Encoded {
  std::vector<uint8_t> octets;  // at most kMaxOctets
  std::string error;  // empty on success
};
// The version-2 message; refuses content outside its types or longer than
// 140 octets with an error, nothing is cut.
Encoded encode(const Content& content);

struct Decoded {
  Content content;
  std::string error;  // empty on success
};
// Versions 1 and 2; whatever follows the message (zero fill) is ignored.
Decoded decode(const uint8_t* data, size_t size);
inline Decoded decode(const std::vector<uint8_t>& octets) { return decode(octets.data(), octets.size()); }

// ---- Text -----------------------------------------------------------------

// A decoded MSD field by field, one "name: value" line each.
std::string render(const Content& content);
// Lower-case hex without separators, and back (none on a bad digit or an odd count;
// blanks between the octets are skipped).
std::string toHex(const std::vector<uint8_t>& octets);
std::optional<std::vector<uint8_t>> fromHex(const std::string& text);

}  // namespace msd

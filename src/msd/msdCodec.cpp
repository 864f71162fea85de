// The MSD on the wire, in unaligned PER as msd.asn1 lays it out: a writer
// and a reader for exactly this module. The code asn1c generates from the
// module is not used here: its run-time has undefined behaviour on ordinary
// messages (the README says more); it checks this codec in the fuzz target.
//
// Canonical form: a propulsion flag equal to its default (FALSE) is not
// sent, and every extension bit is 0. The reader also takes the flags sent
// with their values, and skips the extension additions of a later format.
#include <algorithm>
#include <cstring>

#include "msd/msd.h"

namespace msd {
namespace {

constexpr uint64_t kUnknownPosition = 2147483647;
constexpr uint8_t kUnknownDirection = 255;
constexpr int32_t kMaxLatitude = 324000000, kMaxLongitude = 648000000;  // 90 and 180 degrees in mas
constexpr int64_t kCoordinateOffset = int64_t{1} << 31;  // the lower bound of the coordinates' type
constexpr int kDeltaOffset = 512;
constexpr char kVinAlphabet[] = "0123456789ABCDEFGHJKLMNPRSTUVWXYZ";
constexpr size_t kVinLength = 17;
// Room for any MSDMessage whose additional data could fit the 140 octets.
constexpr size_t kInnerCapacity = 256;

class BitWriter {
 public:
  // Writes the count low bits of value, the highest first; past the
  // capacity it only counts them.
  void put(uint64_t value, unsigned count) {
    while (count > 0) {
      const unsigned room = 8 - mBits % 8, take = std::min(room, count);
      const unsigned chunk = static_cast<unsigned>(value >> (count - take)) & ((1u << take) - 1);
      if (mBits / 8 < kInnerCapacity) mBuffer[mBits / 8] |= static_cast<uint8_t>(chunk << (room - take));
      mBits += take;
      count -= take;
    }
  }
  // An unconstrained length determinant and the octets.
  void octets(const std::vector<uint8_t>& octets) {
    if (octets.size() < 128) {
      put(octets.size(), 8);
    } else {
      put(0x8000 | octets.size(), 16);
    }
    for (uint8_t octet : octets) put(octet, 8);
  }
  size_t size() const { return (mBits + 7) / 8; }
  const uint8_t* data() const { return mBuffer; }

 private:
  uint8_t mBuffer[kInnerCapacity] = {};
  size_t mBits = 0;
};

class BitReader {
 public:
  BitReader(const uint8_t* data, size_t size, size_t startBit) : mData(data), mBit(startBit), mEnd(size * 8) {}

  // The next count bits, the highest first; past the end zeros, and the
  // reader counts as truncated.
  uint64_t get(unsigned count) {
    uint64_t value = 0;
    while (count > 0) {
      if (mBit >= mEnd) {
        mTruncated = true;
        return value << count;
      }
      const unsigned room = 8 - mBit % 8, take = std::min(room, count);
      value = (value << take) | ((mData[mBit / 8] >> (room - take)) & ((1u << take) - 1));
      mBit += take;
      count -= take;
    }
    return value;
  }
  bool flag() { return get(1) != 0; }
  // An unconstrained length determinant. A fragmented length (16384 and
  // more) never fits a message: it reads as truncated.
  size_t length() {
    if (!flag()) return get(7);
    if (!flag()) return get(14);
    mTruncated = true;
    return 0;
  }
  // A length and its octets; no more are taken than the input still has.
  std::vector<uint8_t> octets() {
    const size_t count = length();
    std::vector<uint8_t> out(std::min(count, remaining() / 8 + 1));
    for (uint8_t& octet : out) octet = static_cast<uint8_t>(get(8));
    return out;
  }
  void skip(size_t bits) {
    mTruncated = mTruncated || bits > remaining();
    mBit += std::min(bits, remaining());
  }
  size_t remaining() const { return mEnd - mBit; }
  bool truncated() const { return mTruncated; }

 private:
  const uint8_t* mData;
  size_t mBit, mEnd;
  bool mTruncated = false;
};

// ---- content checks ----

std::string checkDelta(const char* name, const std::optional<Delta>& delta) {
  if (!delta) return "";
  for (int value : {delta->latitude, delta->longitude})
    if (value < -512 || value > 511)
      return std::string("recent position ") + name + " offset " + std::to_string(value) + " outside -512..511";
  return "";
}

// The first reason the content is outside its types, or empty.
std::string checkContent(const Content& c) {
  const auto type = static_cast<unsigned>(c.vehicleType);
  if (type < 1 || type > 13) return "vehicle type " + std::to_string(type) + " outside 1..13";
  if (c.vin.size() != kVinLength)
    return "VIN \"" + c.vin + "\" has " + std::to_string(c.vin.size()) + " characters, not 17";
  for (size_t i = 0; i < c.vin.size(); ++i)
    if (c.vin[i] == '\0' || !std::strchr(kVinAlphabet, c.vin[i]))
      return "VIN \"" + c.vin + "\": character " + std::to_string(i + 1) + " outside the VIN alphabet";
  if (c.latitude && (*c.latitude < -kMaxLatitude || *c.latitude > kMaxLatitude))
    return "latitude " + std::to_string(*c.latitude) + " mas beyond 90 degrees";
  if (c.longitude && (*c.longitude < -kMaxLongitude || *c.longitude > kMaxLongitude))
    return "longitude " + std::to_string(*c.longitude) + " mas beyond 180 degrees";
  if (c.direction && *c.direction > 179) return "direction " + std::to_string(*c.direction) + " outside 0..179";
  if (auto problem = checkDelta("N1", c.n1); !problem.empty()) return problem;
  if (auto problem = checkDelta("N2", c.n2); !problem.empty()) return problem;
  if (c.additionalData) {
    if (c.additionalData->oid.empty()) return "additional data without an object identifier";
    if (c.additionalData->data.size() + c.additionalData->oid.size() > kMaxOctets)
      return "additional data of " + std::to_string(c.additionalData->data.size()) + " octets cannot fit";
  }
  return "";
}

// A relative object identifier's contents: each arc in base 128, the top
// bit set on all but an arc's last octet.
std::vector<uint8_t> oidOctets(const std::vector<uint32_t>& arcs) {
  std::vector<uint8_t> out;
  for (uint32_t arc : arcs) {
    uint8_t group[5];
    size_t n = 0;
    do {
      group[n++] = static_cast<uint8_t>(arc & 0x7f);
      arc >>= 7;
    } while (arc);
    while (n > 1) out.push_back(group[--n] | 0x80);
    out.push_back(group[0]);
  }
  return out;
}

std::optional<std::vector<uint32_t>> oidArcs(const std::vector<uint8_t>& octets) {
  std::vector<uint32_t> arcs;
  uint64_t arc = 0;
  for (uint8_t octet : octets) {
    arc = (arc << 7) | (octet & 0x7f);
    if (arc > UINT32_MAX) return std::nullopt;
    if (!(octet & 0x80)) {
      arcs.push_back(static_cast<uint32_t>(arc));
      arc = 0;
    }
  }
  if (octets.empty() || (octets.back() & 0x80)) return std::nullopt;
  return arcs;
}

// ---- writing ----

void writeDelta(BitWriter& w, const std::optional<Delta>& delta) {
  if (!delta) return;
  w.put(delta->latitude + kDeltaOffset, 10);
  w.put(delta->longitude + kDeltaOffset, 10);
}

void writeCoordinate(BitWriter& w, const std::optional<int32_t>& mas) {
  w.put(mas ? static_cast<uint64_t>(*mas + kCoordinateOffset) : kUnknownPosition + kCoordinateOffset, 32);
}

// MSDMessage: its extension bit, the presence of the additional data,
// then MSDStructure and the additional data.
void writeMessage(BitWriter& w, const Content& c) {
  w.put(0, 1);
  w.put(c.additionalData.has_value(), 1);
  w.put(0, 1);
  w.put(c.n1.has_value(), 1);
  w.put(c.n2.has_value(), 1);
  w.put(c.passengers.has_value(), 1);
  w.put(c.messageIdentifier, 8);
  w.put(c.automaticActivation, 1);
  w.put(c.testCall, 1);
  w.put(c.positionCanBeTrusted, 1);
  w.put(0, 1);
  w.put(static_cast<unsigned>(c.vehicleType) - 1, 4);
  for (char ch : c.vin) w.put(std::strchr(kVinAlphabet, ch) - kVinAlphabet, 6);
  const Propulsion& p = c.propulsion;
  const bool flags[] = {p.gasoline, p.diesel, p.compressedNaturalGas, p.liquidPropaneGas,
                        p.electric, p.hydrogen, p.other};
  w.put(0, 1);
  for (bool present : flags) w.put(present, 1);
  for (bool present : flags)
    if (present) w.put(1, 1);
  w.put(c.timestamp, 32);
  writeCoordinate(w, c.latitude);
  writeCoordinate(w, c.longitude);
  w.put(c.direction.value_or(kUnknownDirection), 8);
  writeDelta(w, c.n1);
  writeDelta(w, c.n2);
  if (c.passengers) w.put(*c.passengers, 8);
  if (c.additionalData) {
    w.octets(oidOctets(c.additionalData->oid));
    w.octets(c.additionalData->data);
  }
}

// ---- reading ----

// The extension additions of a SEQUENCE from a later format: a bitmap of
// their presence, then each present one as an open type (length, octets).
void skipAdditions(BitReader& r) {
  const size_t count = r.flag() ? r.length() : r.get(6) + 1;
  BitReader bitmap = r;
  r.skip(count);
  for (size_t i = 0; i < count && !r.truncated(); ++i)
    if (bitmap.flag()) r.skip(r.length() * 8);
}

std::optional<Delta> readDelta(BitReader& r, bool present) {
  if (!present) return std::nullopt;
  const int latitude = static_cast<int>(r.get(10)) - kDeltaOffset;
  return Delta{latitude, static_cast<int>(r.get(10)) - kDeltaOffset};
}

std::optional<int32_t> readCoordinate(BitReader& r) {
  const uint64_t value = r.get(32);
  if (value == kUnknownPosition + kCoordinateOffset) return std::nullopt;
  return static_cast<int32_t>(static_cast<int64_t>(value) - kCoordinateOffset);
}

// MSDMessage as format version 2 lays it out, or version 1 (six
// propulsion flags); an error names the first value outside its type.
std::string readMessage(BitReader& r, Content& c, unsigned propulsionFlags) {
  const bool messageExtended = r.flag(), hasAdditionalData = r.flag();
  const bool structureExtended = r.flag(), hasN1 = r.flag(), hasN2 = r.flag(), hasPassengers = r.flag();
  c.messageIdentifier = static_cast<uint8_t>(r.get(8));
  c.automaticActivation = r.flag();
  c.testCall = r.flag();
  c.positionCanBeTrusted = r.flag();
  if (r.flag()) {
    // A vehicle type added by a later format: a normally small number.
    r.skip(r.flag() ? r.length() * 8 : 6);
    c.vehicleType = VehicleType::laterFormat;
  } else {
    const unsigned index = static_cast<unsigned>(r.get(4));
    if (index > 12) return "vehicle type index " + std::to_string(index) + " is not a vehicle type";
    c.vehicleType = static_cast<VehicleType>(index + 1);
  }
  c.vin.resize(kVinLength);
  for (size_t i = 0; i < kVinLength; ++i) {
    const unsigned index = static_cast<unsigned>(r.get(6));
    if (index > 32)
      return "VIN character " + std::to_string(i + 1) + " has index " + std::to_string(index) + ", outside the alphabet";
    c.vin[i] = kVinAlphabet[index];
  }
  const bool propulsionExtended = r.flag();
  bool sent[7] = {};
  for (unsigned i = 0; i < propulsionFlags; ++i) sent[i] = r.flag();
  bool* const flags[] = {&c.propulsion.gasoline, &c.propulsion.diesel, &c.propulsion.compressedNaturalGas,
                         &c.propulsion.liquidPropaneGas, &c.propulsion.electric, &c.propulsion.hydrogen,
                         &c.propulsion.other};
  for (unsigned i = 0; i < propulsionFlags; ++i) *flags[i] = sent[i] && r.flag();
  if (propulsionExtended) skipAdditions(r);
  c.timestamp = static_cast<uint32_t>(r.get(32));
  c.latitude = readCoordinate(r);
  c.longitude = readCoordinate(r);
  const auto direction = static_cast<uint8_t>(r.get(8));
  c.direction = direction == kUnknownDirection ? std::nullopt : std::optional<uint8_t>(direction);
  c.n1 = readDelta(r, hasN1);
  c.n2 = readDelta(r, hasN2);
  if (hasPassengers) c.passengers = static_cast<uint8_t>(r.get(8));
  if (structureExtended) skipAdditions(r);
  if (hasAdditionalData) {
    std::vector<uint8_t> oid = r.octets();
    std::vector<uint8_t> data = r.octets();
    auto arcs = oidArcs(oid);
    if (!arcs && !r.truncated()) return "the additional data's object identifier cannot be read";
    if (arcs) c.additionalData = AdditionalData{std::move(*arcs), std::move(data)};
  }
  if (messageExtended) skipAdditions(r);
  return "";
}

Decoded decodeVersion1(const uint8_t* data, size_t size) {
  Decoded out;
  out.content.formatVersion = 1;
  BitReader r(data, size, 8);
  out.error = readMessage(r, out.content, 6);
  if (r.truncated()) out.error = "truncated: the message ends before its fields do";
  if (!out.error.empty() && out.error.find("truncated") != 0) out.error = "malformed MSD: " + out.error;
  return out;
}

Decoded decodeVersion2(const uint8_t* data, size_t size) {
  Decoded out;
  // The version octet, the length of the MSDMessage's octets, the octets.
  BitReader header(data, size, 8);
  const size_t length = header.length();
  const size_t start = (size * 8 - header.remaining()) / 8;
  if (header.truncated() || length > size - start) {
    out.error = "truncated: the message is shorter than its length says";
    return out;
  }
  BitReader r(data + start, length, 0);
  out.error = readMessage(r, out.content, 7);
  if (r.truncated()) out.error = "truncated: the MSD ends before its fields do";
  if (!out.error.empty() && out.error.find("truncated") != 0) out.error = "malformed MSD: " + out.error;
  return out;
}

}  // namespace

Encoded encode(const Content& content) {
  Encoded out;
  out.error = checkContent(content);
  if (!out.error.empty()) return out;

  BitWriter inner;
  writeMessage(inner, content);
  const size_t length = inner.size();
  const size_t total = 1 + (length < 128 ? 1 : 2) + length;
  if (total > kMaxOctets) {
    out.error = "the MSD takes " + std::to_string(total) + " octets, more than 140";
    return out;
  }
  out.octets.reserve(total);
  out.octets.push_back(kFormatVersion);
  if (length >= 128) out.octets.push_back(static_cast<uint8_t>(0x80 | (length >> 8)));
  out.octets.push_back(static_cast<uint8_t>(length & 0xff));
  out.octets.insert(out.octets.end(), inner.data(), inner.data() + length);
  return out;
}

Decoded decode(const uint8_t* data, size_t size) {
  if (size == 0) return Decoded{{}, "empty message"};
  switch (data[0]) {
    case 1:
      return decodeVersion1(data, size);
    case 2:
      return decodeVersion2(data, size);
    case 3:
      return Decoded{{}, "format version 3 is not supported"};
    default:
      return Decoded{{}, "unknown format version " + std::to_string(data[0])};
  }
}

}  // namespace msd

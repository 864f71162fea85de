// The MSD on the wire: the content checked against its types, then
// encoded and decoded by the code asn1c generates from msd.asn1. The
// generated code treats the container of format version 2 (an OCTET STRING
// holding the encoded MSDMessage) as plain octets, so the message is
// encoded first and then wrapped, and read the other way round. A flag
// equal to its default (FALSE) is not sent: the generated encoder sends
// every flag it is given, so only the TRUE ones are given to it.
#include <cstring>

#include "ECallMessage.h"
#include "ECallMessageV1.h"
#include "MSDMessage.h"
#include "msd/msd.h"

namespace msd {
namespace {

constexpr int32_t kUnknownPosition = 2147483647;
constexpr uint8_t kUnknownDirection = 255;
constexpr int32_t kMaxLatitude = 324000000, kMaxLongitude = 648000000;  // 90 and 180 degrees in mas
constexpr char kVinAlphabet[] = "0123456789ABCDEFGHJKLMNPRSTUVWXYZ";
// The fields' places in the encoded MSDMessage, which no optional field
// moves: the vehicle type's extension bit and index, then the VIN.
constexpr size_t kVehicleTypeBit = 17, kVinBit = 22;
// Inner encodings longer than this cannot fit the 140 octets anyway.
constexpr size_t kInnerBufferSize = 256;

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
  if (c.vin.size() != 17) return "VIN \"" + c.vin + "\" has " + std::to_string(c.vin.size()) + " characters, not 17";
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
    if (c.additionalData->data.size() > kMaxOctets)
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

std::optional<std::vector<uint32_t>> oidArcs(const uint8_t* octets, size_t size) {
  std::vector<uint32_t> arcs;
  uint64_t arc = 0;
  for (size_t i = 0; i < size; ++i) {
    arc = (arc << 7) | (octets[i] & 0x7f);
    if (arc > UINT32_MAX) return std::nullopt;
    if (!(octets[i] & 0x80)) {
      arcs.push_back(static_cast<uint32_t>(arc));
      arc = 0;
    }
  }
  if (size == 0 || (octets[size - 1] & 0x80)) return std::nullopt;
  return arcs;
}

// The generated structures point into the content and into this storage:
// encoding allocates nothing.
struct Storage {
  BOOLEAN_t isTrue = 1;
  VehicleLocationDelta_t n1{}, n2{};
  long passengers = 0;
  AdditionalData_t additional{};
  std::vector<uint8_t> oid;
};

void setText(OCTET_STRING_t& field, const std::string& text, size_t from, size_t count) {
  field.buf = reinterpret_cast<uint8_t*>(const_cast<char*>(text.data() + from));
  field.size = static_cast<int>(count);
}

VehicleLocationDelta_t* setDelta(VehicleLocationDelta_t& field, const std::optional<Delta>& delta) {
  if (!delta) return nullptr;
  field.latitudeDelta = delta->latitude;
  field.longitudeDelta = delta->longitude;
  return &field;
}

void fill(MSDMessage_t& message, const Content& c, Storage& storage) {
  MSDStructure_t& s = message.msdStructure;
  s.messageIdentifier = c.messageIdentifier;
  s.control.automaticActivation = c.automaticActivation;
  s.control.testCall = c.testCall;
  s.control.positionCanBeTrusted = c.positionCanBeTrusted;
  s.control.vehicleType = static_cast<long>(c.vehicleType);
  setText(s.vehicleIdentificationNumber.isowmi, c.vin, 0, 3);
  setText(s.vehicleIdentificationNumber.isovds, c.vin, 3, 6);
  setText(s.vehicleIdentificationNumber.isovisModelyear, c.vin, 9, 1);
  setText(s.vehicleIdentificationNumber.isovisSeqPlant, c.vin, 10, 7);
  VehiclePropulsionStorageType_t& p = s.vehiclePropulsionStorageType;
  BOOLEAN_t* isTrue = &storage.isTrue;
  p.gasolineTankPresent = c.propulsion.gasoline ? isTrue : nullptr;
  p.dieselTankPresent = c.propulsion.diesel ? isTrue : nullptr;
  p.compressedNaturalGas = c.propulsion.compressedNaturalGas ? isTrue : nullptr;
  p.liquidPropaneGas = c.propulsion.liquidPropaneGas ? isTrue : nullptr;
  p.electricEnergyStorage = c.propulsion.electric ? isTrue : nullptr;
  p.hydrogenStorage = c.propulsion.hydrogen ? isTrue : nullptr;
  p.otherStorage = c.propulsion.other ? isTrue : nullptr;
  s.timestamp = c.timestamp;
  s.vehicleLocation.positionLatitude = c.latitude.value_or(kUnknownPosition);
  s.vehicleLocation.positionLongitude = c.longitude.value_or(kUnknownPosition);
  s.vehicleDirection = c.direction.value_or(kUnknownDirection);
  s.recentVehicleLocationN1 = setDelta(storage.n1, c.n1);
  s.recentVehicleLocationN2 = setDelta(storage.n2, c.n2);
  if (c.passengers) {
    storage.passengers = *c.passengers;
    s.numberOfPassengers = &storage.passengers;
  }
  if (c.additionalData) {
    storage.oid = oidOctets(c.additionalData->oid);
    storage.additional.oid.buf = storage.oid.data();
    storage.additional.oid.size = static_cast<int>(storage.oid.size());
    storage.additional.data.buf = const_cast<uint8_t*>(c.additionalData->data.data());
    storage.additional.data.size = static_cast<int>(c.additionalData->data.size());
    message.optionalAdditionalData = &storage.additional;
  }
}

// ---- decoding ----

// Unsigned value of count bits at bit offset from in data.
unsigned bitsAt(const uint8_t* data, size_t offset, size_t count) {
  unsigned value = 0;
  for (size_t i = offset; i < offset + count; ++i) value = (value << 1) | ((data[i / 8] >> (7 - i % 8)) & 1);
  return value;
}

// Why the generated decoder refused an MSDMessage starting at bit start:
// the values it refuses sit at fixed places, so the reason can be named.
std::string refusal(const uint8_t* data, size_t size, size_t start) {
  if (size * 8 >= start + kVinBit) {
    if (bitsAt(data, start + kVehicleTypeBit, 1)) return "malformed MSD: a vehicle type this decoder does not know";
    const unsigned type = bitsAt(data, start + kVehicleTypeBit + 1, 4);
    if (type > 12) return "malformed MSD: vehicle type index " + std::to_string(type) + " is not a vehicle type";
  }
  for (size_t i = 0; i < 17 && size * 8 >= start + kVinBit + 6 * (i + 1); ++i) {
    const unsigned index = bitsAt(data, start + kVinBit + 6 * i, 6);
    if (index > 32)
      return "malformed MSD: VIN character " + std::to_string(i + 1) + " has index " + std::to_string(index) +
             ", outside the alphabet";
  }
  return "malformed MSD";
}

std::string text(const OCTET_STRING_t& field) { return std::string(reinterpret_cast<const char*>(field.buf), field.size); }

std::optional<Delta> delta(const VehicleLocationDelta_t* field) {
  if (!field) return std::nullopt;
  return Delta{static_cast<int>(field->latitudeDelta), static_cast<int>(field->longitudeDelta)};
}

bool flag(const BOOLEAN_t* field) { return field && *field; }

// Versions 1 and 2 differ inside only in the last propulsion flag.
template <typename Message>
std::string read(const Message& message, Content& c) {
  const auto& s = message.msdStructure;
  c.messageIdentifier = static_cast<uint8_t>(s.messageIdentifier);
  c.automaticActivation = s.control.automaticActivation;
  c.testCall = s.control.testCall;
  c.positionCanBeTrusted = s.control.positionCanBeTrusted;
  c.vehicleType = static_cast<VehicleType>(s.control.vehicleType);
  const auto& vin = s.vehicleIdentificationNumber;
  c.vin = text(vin.isowmi) + text(vin.isovds) + text(vin.isovisModelyear) + text(vin.isovisSeqPlant);
  const auto& p = s.vehiclePropulsionStorageType;
  c.propulsion.gasoline = flag(p.gasolineTankPresent);
  c.propulsion.diesel = flag(p.dieselTankPresent);
  c.propulsion.compressedNaturalGas = flag(p.compressedNaturalGas);
  c.propulsion.liquidPropaneGas = flag(p.liquidPropaneGas);
  c.propulsion.electric = flag(p.electricEnergyStorage);
  c.propulsion.hydrogen = flag(p.hydrogenStorage);
  if constexpr (requires { p.otherStorage; }) c.propulsion.other = flag(p.otherStorage);
  c.timestamp = static_cast<uint32_t>(s.timestamp);
  const auto position = [](long value) {
    return value == kUnknownPosition ? std::nullopt : std::optional<int32_t>(static_cast<int32_t>(value));
  };
  c.latitude = position(s.vehicleLocation.positionLatitude);
  c.longitude = position(s.vehicleLocation.positionLongitude);
  if (s.vehicleDirection != kUnknownDirection) c.direction = static_cast<uint8_t>(s.vehicleDirection);
  c.n1 = delta(s.recentVehicleLocationN1);
  c.n2 = delta(s.recentVehicleLocationN2);
  if (s.numberOfPassengers) c.passengers = static_cast<uint8_t>(*s.numberOfPassengers);
  if (const AdditionalData_t* additional = message.optionalAdditionalData) {
    auto arcs = oidArcs(additional->oid.buf, additional->oid.size);
    if (!arcs) return "malformed MSD: the additional data's object identifier cannot be read";
    c.additionalData = AdditionalData{*arcs, std::vector<uint8_t>(additional->data.buf,
                                                                   additional->data.buf + additional->data.size)};
  }
  return "";
}

// One generated decoder run; the structure is freed in every case.
template <typename Message>
struct Decoding {
  Message* message = nullptr;
  asn_TYPE_descriptor_t* type;
  asn_dec_rval_t result;
  Decoding(asn_TYPE_descriptor_t* t, const uint8_t* data, size_t size, int skipBits) : type(t) {
    result = uper_decode(nullptr, type, reinterpret_cast<void**>(&message), data, size, skipBits, 0);
  }
  ~Decoding() { ASN_STRUCT_FREE(*type, message); }
  Decoding(const Decoding&) = delete;
  Decoding& operator=(const Decoding&) = delete;
};

// The error of a decoder run: truncated, or refused at one of the fields
// whose places are fixed behind bit start of data.
std::string failure(const asn_dec_rval_t& result, const uint8_t* data, size_t size, size_t start, const char* what) {
  if (result.code == RC_OK) return "";
  if (result.code == RC_WMORE) return std::string("truncated: ") + what;
  return refusal(data, size, start);
}

Decoded decodeVersion1(const uint8_t* data, size_t size) {
  Decoded out;
  Decoding<ECallMessageV1_t> decoding(&asn_DEF_ECallMessageV1, data, size, 0);
  out.error = failure(decoding.result, data, size, 8, "the message ends before its fields do");
  if (out.error.empty()) out.error = read(decoding.message->msd, out.content);
  out.content.formatVersion = 1;
  return out;
}

Decoded decodeVersion2(const uint8_t* data, size_t size) {
  Decoded out;
  Decoding<ECallMessage_t> outer(&asn_DEF_ECallMessage, data, size, 0);
  if (outer.result.code != RC_OK) {
    out.error = outer.result.code == RC_WMORE ? "truncated: the message is shorter than its length says"
                                              : "malformed message";
    return out;
  }
  const uint8_t* inner = outer.message->msd.buf;
  const size_t innerSize = outer.message->msd.size;
  Decoding<MSDMessage_t> decoding(&asn_DEF_MSDMessage, inner, innerSize, 0);
  out.error = failure(decoding.result, inner, innerSize, 0, "the MSD ends before its fields do");
  if (out.error.empty()) out.error = read(*decoding.message, out.content);
  out.content.formatVersion = 2;
  return out;
}

}  // namespace

Encoded encode(const Content& content) {
  Encoded out;
  out.error = checkContent(content);
  if (!out.error.empty()) return out;

  MSDMessage_t message{};
  Storage storage;
  fill(message, content, storage);
  uint8_t inner[kInnerBufferSize];
  const asn_enc_rval_t innerResult = uper_encode_to_buffer(&asn_DEF_MSDMessage, &message, inner, sizeof inner);
  if (innerResult.encoded < 0) {
    out.error = std::string("the encoder refused ") + (innerResult.failed_type ? innerResult.failed_type->name : "the MSD");
    return out;
  }

  ECallMessage_t wrapper{};
  wrapper.msdVersion = kFormatVersion;
  wrapper.msd.buf = inner;
  wrapper.msd.size = static_cast<int>((innerResult.encoded + 7) / 8);
  uint8_t whole[kInnerBufferSize + 4];
  const asn_enc_rval_t result = uper_encode_to_buffer(&asn_DEF_ECallMessage, &wrapper, whole, sizeof whole);
  const size_t octets = result.encoded < 0 ? 0 : static_cast<size_t>(result.encoded + 7) / 8;
  if (octets == 0) {
    out.error = "the encoder refused the message";
  } else if (octets > kMaxOctets) {
    out.error = "the MSD takes " + std::to_string(octets) + " octets, more than 140";
  } else {
    out.octets.assign(whole, whole + octets);
  }
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

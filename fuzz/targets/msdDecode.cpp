// An MSD as the emergency centre receives it: any octets. The decoder
// reads or refuses them without reading past them, and a second decoder,
// which asn1c generates from the same msd.asn1, must read a message without
// extensions the same way. Where the content is one the encoder can send,
// both decoders read the encoded message back as it was.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "ECallMessage.h"
#include "ECallMessageV1.h"
#include "MSDMessage.h"
#include "msd/msd.h"

namespace {

// Stops the fuzzer on a broken expectation with a readable message.
void expect(bool condition, const char* what) {
  if (condition) return;
  fprintf(stderr, "msdDecode: %s\n", what);
  abort();
}

using msd::Content;

std::optional<std::vector<uint32_t>> arcs(const RELATIVE_OID_t& oid) {
  std::vector<uint32_t> out;
  uint64_t arc = 0;
  for (int i = 0; i < oid.size; ++i) {
    arc = (arc << 7) | (oid.buf[i] & 0x7f);
    if (arc > UINT32_MAX) return std::nullopt;
    if (!(oid.buf[i] & 0x80)) out.push_back(static_cast<uint32_t>(arc)), arc = 0;
  }
  if (oid.size == 0 || (oid.buf[oid.size - 1] & 0x80)) return std::nullopt;
  return out;
}

std::string text(const OCTET_STRING_t& field) { return std::string(reinterpret_cast<const char*>(field.buf), field.size); }
bool flag(const BOOLEAN_t* field) { return field && *field; }
std::optional<msd::Delta> delta(const VehicleLocationDelta_t* d) {
  if (!d) return std::nullopt;
  return msd::Delta{static_cast<int>(d->latitudeDelta), static_cast<int>(d->longitudeDelta)};
}

// The generated structure as content; false where the object identifier cannot be read.
template <typename Message>
bool read(const Message& m, Content& c) {
  const auto& s = m.msdStructure;
  c.messageIdentifier = static_cast<uint8_t>(s.messageIdentifier);
  c.automaticActivation = s.control.automaticActivation;
  c.testCall = s.control.testCall;
  c.positionCanBeTrusted = s.control.positionCanBeTrusted;
  c.vehicleType = static_cast<msd::VehicleType>(s.control.vehicleType);
  const auto& vin = s.vehicleIdentificationNumber;
  c.vin = text(vin.isowmi) + text(vin.isovds) + text(vin.isovisModelyear) + text(vin.isovisSeqPlant);
  const auto& p = s.vehiclePropulsionStorageType;
  c.propulsion = {flag(p.gasolineTankPresent), flag(p.dieselTankPresent), flag(p.compressedNaturalGas),
                  flag(p.liquidPropaneGas), flag(p.electricEnergyStorage), flag(p.hydrogenStorage), false};
  if constexpr (requires { p.otherStorage; }) c.propulsion.other = flag(p.otherStorage);
  c.timestamp = static_cast<uint32_t>(s.timestamp);
  const auto coordinate = [](long v) { return v == 2147483647 ? std::nullopt : std::optional<int32_t>(v); };
  c.latitude = coordinate(s.vehicleLocation.positionLatitude);
  c.longitude = coordinate(s.vehicleLocation.positionLongitude);
  if (s.vehicleDirection != 255) c.direction = static_cast<uint8_t>(s.vehicleDirection);
  c.n1 = delta(s.recentVehicleLocationN1);
  c.n2 = delta(s.recentVehicleLocationN2);
  if (s.numberOfPassengers) c.passengers = static_cast<uint8_t>(*s.numberOfPassengers);
  if (const AdditionalData_t* a = m.optionalAdditionalData) {
    const auto oid = arcs(a->oid);
    if (!oid) return false;
    c.additionalData = msd::AdditionalData{*oid, std::vector<uint8_t>(a->data.buf, a->data.buf + a->data.size)};
  }
  return true;
}

template <typename T>
struct Generated {
  T* value = nullptr;
  asn_TYPE_descriptor_t* type;
  asn_dec_rval_t result{};
  Generated(asn_TYPE_descriptor_t* t, const uint8_t* data, size_t size) : type(t) {
    result = uper_decode(nullptr, type, reinterpret_cast<void**>(&value), data, size, 0, 0);
  }
  ~Generated() { ASN_STRUCT_FREE(*type, value); }
};

// The generated decoder's reading: the content, or none when it refuses.
std::optional<Content> generatedDecode(const uint8_t* data, size_t size) {
  Content c;
  if (data[0] == 1) {
    Generated<ECallMessageV1_t> message(&asn_DEF_ECallMessageV1, data, size);
    if (message.result.code != RC_OK || !read(message.value->msd, c)) return std::nullopt;
    c.formatVersion = 1;
    return c;
  }
  Generated<ECallMessage_t> outer(&asn_DEF_ECallMessage, data, size);
  if (outer.result.code != RC_OK) return std::nullopt;
  Generated<MSDMessage_t> message(&asn_DEF_MSDMessage, outer.value->msd.buf, outer.value->msd.size);
  if (message.result.code != RC_OK || !read(*message.value, c)) return std::nullopt;
  return c;
}

// Whether any extension bit of the MSDMessage is set (message, structure,
// vehicle type, propulsion: fixed places). The generated decoder skips only
// the first extension addition of a SEQUENCE and knows no vehicle type of a
// later format, so the two are compared on the messages of versions 1 and 2.
bool extended(const uint8_t* data, size_t size) {
  size_t start = 8;
  if (data[0] == 2 && size > 1) start = data[1] & 0x80 ? 24 : 16;
  for (size_t bit : {0, 2, 17, 124})
    if ((start + bit) / 8 < size && (data[(start + bit) / 8] >> (7 - (start + bit) % 8) & 1)) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An MSD takes at most 140 octets; what follows is fill, which twice that
  // tries as well as any length.
  if (size > 2 * msd::kMaxOctets) return 0;
  const msd::Decoded decoded = msd::decode(data, size);
  if (size > 0 && (data[0] == 1 || data[0] == 2) && !extended(data, size)) {
    const std::optional<Content> generated = generatedDecode(data, size);
    expect(decoded.error.empty() == generated.has_value(), "the two decoders disagree on refusing");
    expect(!generated || *generated == decoded.content, "the two decoders read different content");
  }
  if (!decoded.error.empty()) return 0;
  expect(!msd::render(decoded.content).empty(), "a decoded MSD without text");

  const msd::Encoded encoded = msd::encode(decoded.content);
  if (!encoded.error.empty()) return 0;
  expect(encoded.octets.size() <= msd::kMaxOctets, "an MSD over 140 octets");
  Content expected = decoded.content;
  expected.formatVersion = msd::kFormatVersion;
  const msd::Decoded again = msd::decode(encoded.octets);
  expect(again.error.empty() && again.content == expected, "an MSD that reads back otherwise");
  expect(generatedDecode(encoded.octets.data(), encoded.octets.size()) == expected,
                      "an MSD the generated decoder reads otherwise");
  return 0;
}

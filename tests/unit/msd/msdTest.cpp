// The MSD codec against messages computed by hand from the bit map; the content built from raw inputs.
#include <gtest/gtest.h>

#include <cmath>

#include "msd/msd.h"

namespace {

using namespace msd;
using Bytes = std::vector<uint8_t>;

const std::string kVin = "ZAHJNPR09KS123456";  // both ends of the alphabet and its gaps

// The smallest message: no optional field, no propulsion flag (236 bits).
Content smallest() {
  return Content{.automaticActivation = true, .positionCanBeTrusted = true, .vin = kVin, .timestamp = 1700000000,
                 .latitude = 189072029, .longitude = 48257834, .direction = 45};
}
const std::string kSmallest = "021e00068202914965d80094d90420c4146006553f1008b45029d82e05b2a2d0";

// Version 1, gasoline, every flag sent with its value.
const std::string kVersion1 = "0100068202914965d80094d90420c41467f032a9f88045a2814ec1702d951680";

Bytes octets(const std::string& hex) { return fromHex(hex).value(); }

TEST(Msd, EncodesHandComputedMessagesAndDecodesThemBack) {
  const Propulsion all{true, true, true, true, true, true, true};
  const std::tuple<const char*, Content, std::string> cases[] = {  // what, content, its message
      {"smallest", smallest(), kSmallest},
      {"every optional field and every upper bound",
       Content{.messageIdentifier = 255, .automaticActivation = true, .testCall = true,
               .vehicleType = VehicleType::motorcycleL7e, .vin = kVin, .propulsion = all, .timestamp = 4294967295u,
               .latitude = 324000000, .longitude = 648000000, .direction = 179, .n1 = Delta{-512, 511},
               .n2 = Delta{511, -512}, .passengers = 0, .additionalData = AdditionalData{{1, 4, 200}, {1, 2, 3}}},
       "022e5fff3202914965d80094d90420c41467fffffffffff269fb2014d3f640166007ffff800000802090290060204060"},
      {"south and west, N1 without N2",
       Content{.messageIdentifier = 2, .positionCanBeTrusted = true, .vehicleType = VehicleType::lightCommercialN1,
               .vin = kVin, .propulsion = {.gasoline = true, .electric = true}, .timestamp = 1700000000,
               .latitude = -121927680, .longitude = -167879909, .direction = 0, .n1 = Delta{10, -3}},
       "022110088e02914965d80094d90420c414644d954fc401e2ee2001d7f96c6c020a7f40"},
      {"manual test call, position, direction and time unknown",
       Content{.testCall = true, .vin = kVin, .propulsion = {.diesel = true}},
       "021e00050202914965d80094d90420c414620800000007fffffffffffffffff8"},
      {"140 octets, two-octet length",
       [] {
         Content c = smallest();
         c.additionalData = AdditionalData{{1, 4, 1}, Bytes(102, 0x55)};
         return c;
       }(),
       "02808940068202914965d80094d90420c4146006553f1008b45029d82e05b2a2d0301040166" + std::string(204, '5') + "0"},
  };
  for (const auto& [what, content, hex] : cases) {
    const Encoded encoded = encode(content);
    EXPECT_EQ("", encoded.error) << what;
    EXPECT_EQ(hex, toHex(encoded.octets)) << what;
    const Decoded decoded = decode(encoded.octets);
    EXPECT_EQ("", decoded.error) << what;
    EXPECT_TRUE(decoded.content == content) << what << "\n" << render(decoded.content);
  }
}

TEST(Msd, EncoderRefusesWhatItsTypesCannotHoldAndAnythingOver140Octets) {
  const std::pair<const char*, void (*)(Content&)> cases[] = {  // the error, the change
      {"character 12 outside the VIN alphabet", [](Content& c) { c.vin[11] = 'I'; }},
      {"character 1 outside the VIN alphabet", [](Content& c) { c.vin[0] = 'z'; }},
      {"16 characters, not 17", [](Content& c) { c.vin.pop_back(); }},
      {"offset 512 outside", [](Content& c) { c.n1 = Delta{512, 0}; }},
      {"offset -513 outside", [](Content& c) { c.n2 = Delta{0, -513}; }},
      {"direction 180 outside", [](Content& c) { c.direction = 180; }},
      {"latitude -324000001", [](Content& c) { c.latitude = -324000001; }},
      {"longitude 2147483647", [](Content& c) { c.longitude = 2147483647; }},
      {"vehicle type 14", [](Content& c) { c.vehicleType = static_cast<VehicleType>(14); }},
      {"141 octets, more than 140", [](Content& c) { c.additionalData = AdditionalData{{1, 4, 1}, Bytes(103, 0)}; }},
      {"cannot fit", [](Content& c) { c.additionalData = AdditionalData{{1}, Bytes(100000, 0)}; }},
  };
  for (const auto& [error, change] : cases) {
    Content content = smallest();
    change(content);
    const Encoded encoded = encode(content);
    EXPECT_NE(std::string::npos, encoded.error.find(error)) << error << ": " << encoded.error;
    EXPECT_TRUE(encoded.octets.empty()) << error;
  }
}

TEST(Msd, DecoderReadsOtherSendersFormsAndNamesWhatIsBroken) {
  // Zero fill to 140 octets and a later format's extension are skipped, its vehicle type
  // read; flags sent with their values (FALSE ones too) read in versions 2 and 1.
  Bytes padded = octets(kSmallest);
  padded.resize(140, 0);
  Content laterType = smallest(), withData = smallest(), gasoline = smallest();
  laterType.vehicleType = VehicleType::laterFormat;
  withData.additionalData = AdditionalData{{1, 4, 1}, {0xab}};
  gasoline.propulsion.gasoline = true;
  Content gasolineVersion1 = gasoline;
  gasolineVersion1.formatVersion = 1;
  for (const auto& [message, content] :
       {std::pair{padded, smallest()},
        {octets("022760068202914965d80094d90420c4146006553f1008b45029d82e05b2a2d0101000301040101ab0"), withData},
        {octets("021e0006c04052292cbb00129b208418828c00caa7e201168a053b05c0b6545a"), laterType},
        {octets("021f00068202914965d80094d90420c41467f80caa7e201168a053b05c0b6545a0"), gasoline},
        {octets(kVersion1), gasolineVersion1}}) {
    const Decoded decoded = decode(message);
    EXPECT_EQ("", decoded.error);
    EXPECT_TRUE(decoded.content == content) << render(decoded.content);
  }
  // Sent again, the FALSE flags are left out.
  EXPECT_EQ("021e00068202914965d80094d90420c414640b2a9f88045a2814ec1702d95168", toHex(encode(gasoline).octets));

  // A message cut anywhere is refused, never read past its end.
  const Bytes whole = encode(Content{.vin = kVin, .n1 = Delta{1, 1}, .n2 = Delta{2, 2}, .passengers = 3,
                                     .additionalData = AdditionalData{{1, 4, 200}, {1, 2, 3}}})
                          .octets;
  for (const Bytes& message : {whole, octets(kVersion1)}) {
    for (size_t size = 1; size < message.size(); ++size) {
      const std::string error = decode(Bytes(message.begin(), message.begin() + size)).error;
      EXPECT_EQ(0u, error.find("truncated")) << size << ": " << error;
    }
  }

  Bytes badVin = octets(kSmallest), badType = octets(kSmallest);
  badVin[5] |= 0x10;    // the first character's index 32 becomes 33
  badType[4] = 0xb6;    // vehicle type index 13
  const std::pair<Bytes, std::string> broken[] = {
      {badVin, "VIN character 1 has index 33"},
      {badType, "vehicle type index 13 is not a vehicle type"},
      {{0x02, 0x01, 0x00}, "truncated: the MSD ends before its fields do"},
      {{0x03, 0x14}, "format version 3 is not supported"},
      {{0x00}, "unknown format version 0"},
      {{}, "empty message"},
  };
  for (const auto& [message, error] : broken) {
    const std::string got = decode(message).error;
    EXPECT_NE(std::string::npos, got.find(error)) << got;
  }
}

GeoPoint near(double latitudeMas, double longitudeMas) {
  return GeoPoint{10 + latitudeMas / 3600000, 20 + longitudeMas / 3600000};
}

TEST(Msd, BuilderTurnsRawInputsIntoContent) {
  const Trigger crash{.automatic = true, .testCall = false, .time = 1700000000};
  const Vehicle car{VehicleType::heavyDutyN2, kVin, {.diesel = true}};

  Built b = build(1, crash, car, {.current = GeoPoint{52.520008, -46.633308}, .trusted = true, .heading = 90.0}, 2);
  EXPECT_TRUE(b.warnings.empty());
  EXPECT_TRUE(b.content == (Content{.automaticActivation = true, .positionCanBeTrusted = true,
                                    .vehicleType = VehicleType::heavyDutyN2, .vin = kVin,
                                    .propulsion = {.diesel = true}, .timestamp = 1700000000,
                                    .latitude = 189072029, .longitude = -167879909, .direction = 45,
                                    .passengers = 2}))
      << render(b.content);

  // The nearest 2-degree step, a half step up, 359 degrees north again.
  for (auto [heading, index] : {std::pair{0.0, 0}, {0.9, 0}, {1.0, 1}, {3.0, 2}, {358.9, 179}, {359.0, 0}, {-90.0, 135}, {724.0, 2}})
    EXPECT_EQ(index, build(1, crash, car, {.heading = heading}, {}).content.direction.value_or(255)) << heading;

  // N2 counts from where N1 puts the car, not the true point: -1, where the true N1 gives -2.
  b = build(1, crash, car, {.current = near(0, 0), .earlier1 = near(-150, 50), .earlier2 = near(-300, 100)}, {});
  EXPECT_EQ((Delta{-2, 1}), b.content.n1);
  EXPECT_EQ((Delta{-1, 0}), b.content.n2);
  // The edge of the range; the shorter way across 180 degrees.
  for (const auto& [current, earlier, n1] : {std::tuple{near(0, 0), near(51100, -51200), Delta{511, -512}},
                                             {GeoPoint{0, 179.99999}, GeoPoint{0, -179.99999}, Delta{0, 1}},
                                             {GeoPoint{0, -179.99999}, GeoPoint{0, 179.99999}, Delta{0, -1}}})
    EXPECT_EQ(n1, build(1, crash, car, {.current = current, .earlier1 = earlier}, {}).content.n1) << earlier.longitude;

  // No fix: position unknown and not trusted, no recent positions.
  b = build(1, crash, car, {.trusted = true, .earlier1 = near(0, 0)}, {});
  EXPECT_FALSE(b.content.latitude || b.content.longitude || b.content.n1 || b.content.positionCanBeTrusted);
  EXPECT_TRUE(b.warnings.empty());

  // Asked again: the next identifier, the trigger's time, the fresh position; 255 at most.
  Session session(crash, car);
  const Built first = session.next({.current = near(0, 0)}, {});
  const Built again = session.next({.current = near(900, 0)}, {});
  EXPECT_EQ(1, first.content.messageIdentifier);
  EXPECT_EQ(2, again.content.messageIdentifier);
  EXPECT_EQ(1700000000u, again.content.timestamp);
  EXPECT_EQ(*first.content.latitude + 900, *again.content.latitude);
  for (int i = 3; i <= 300; ++i) b = session.next({}, {});
  EXPECT_EQ(255, b.content.messageIdentifier);
  EXPECT_EQ(1u, b.warnings.size());
}

TEST(Msd, BuilderSendsTheMessageWhateverItsInputsAndWarnsForEachReplacement) {
  const auto expectSent = [](const std::string& what, const Built& b, bool sent, size_t warnings = 1) {
    EXPECT_TRUE(sent) << what << "\n" << render(b.content);
    EXPECT_EQ(warnings, b.warnings.size()) << what;
    EXPECT_EQ("", encode(b.content).error) << what;
  };
  const auto with = [](Position p, std::optional<int> belts = {}, int64_t time = 1, unsigned sequence = 1,
                       const Vehicle& v = {VehicleType::passengerM1, kVin, {}}) {
    return build(sequence, {.time = time}, v, p, belts);
  };
  for (const auto& [given, sent, warnings] :
       {std::tuple{" zahjnpr09ks12345\n", "ZAHJNPR09KS123450", 2}, {"ZAHJNPRO9KSI23456", "ZAHJNPR09KS023456", 1},
        {"", "00000000000000000", 1}, {"ZAHJNPR09KS12345699", "ZAHJNPR09KS123456", 1}}) {
    const Built b = with({}, {}, 1, 1, {VehicleType::passengerM1, given, {}});
    expectSent(given, b, b.content.vin == sent, warnings);
  }
  const std::tuple<const char*, Built, bool (*)(const Content&)> replaced[] = {
      {"time unknown", with({}, {}, 0), [](const Content& c) { return c.timestamp == 0; }},
      {"time past 2106", with({}, {}, 4294967296), [](const Content& c) { return c.timestamp == 0; }},
      {"latitude 91", with({.current = GeoPoint{91, 0}, .trusted = true}),
       [](const Content& c) { return !c.latitude && !c.longitude && !c.positionCanBeTrusted; }},
      {"heading not a number", with({.heading = NAN}), [](const Content& c) { return !c.direction; }},
      {"N1 too far", with({.current = near(0, 0), .earlier1 = near(-51250, 0), .earlier2 = near(-51300, 0)}),
       [](const Content& c) { return !c.n1 && !c.n2; }},
      {"N2 too far", with({.current = near(0, 0), .earlier1 = near(0, 100), .earlier2 = near(0, 51300)}),
       [](const Content& c) { return c.n1 == Delta{0, 1} && !c.n2; }},
      {"earlier position not a position", with({.current = near(0, 0), .earlier1 = GeoPoint{NAN, 0}}),
       [](const Content& c) { return !c.n1; }},
      {"negative belts", with({}, -1), [](const Content& c) { return !c.passengers; }},
      {"300 belts", with({}, 300), [](const Content& c) { return c.passengers == 254; }},
      {"sequence 0", with({}, {}, 1, 0), [](const Content& c) { return c.messageIdentifier == 1; }},
      {"vehicle type 0", with({}, {}, 1, 1, {static_cast<VehicleType>(0), kVin, {}}),
       [](const Content& c) { return c.vehicleType == VehicleType::passengerM1; }},
  };
  for (const auto& [what, b, sent] : replaced) expectSent(what, b, sent(b.content));
}

TEST(Msd, RendersEachFieldForAPersonAndHexBothWays) {
  const Content c{.testCall = true, .vin = kVin, .longitude = -167879909, .direction = 200, .n1 = Delta{-36, 1},
                  .passengers = 255, .additionalData = AdditionalData{{1, 4, 200}, {0xab}}};
  EXPECT_EQ(
      "format version: 2\nmessage identifier: 1\nactivation: manual\ncall: test\nposition can be trusted: no\n"
      "vehicle type: passenger vehicle (M1)\nVIN: ZAHJNPR09KS123456\npropulsion: unknown\ntime: unknown\n"
      "latitude: unknown\nlongitude: 46.6333081 W (-167879909 mas)\ndirection: not a direction (200)\n"
      "recent position N1: -36, +1 (x 100 mas: -0.00100, +0.00003 degrees)\nrecent position N2: not given\n"
      "passengers: unknown\nadditional data: oid 1.4.200, 1 octets ab\n",
      render(c));
  EXPECT_NE(std::string::npos, render(smallest()).find("\ntime: 2023-11-14 22:13:20 UTC (1700000000)\n"));
  EXPECT_EQ((Bytes{0x02, 0xab, 0x0f}), fromHex("02 AB 0f"));
  EXPECT_FALSE(fromHex("0x12") || fromHex("123") || fromHex("1 2"));
}

}  // namespace

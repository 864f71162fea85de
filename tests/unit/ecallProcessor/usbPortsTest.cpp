// The module's USB ports as one text line for the emergency log.
#include "phoneFixture.h"

using namespace phoneTest;

namespace {

TEST(SwiUsbPortsText, EveryReplyForm) {
  EXPECT_EQ("usb0, usb1", ecallProcessor::parseSWIUSBPortsStr(R"({"code":0,"ports":["usb0","usb1"]})"));
  EXPECT_EQ("a, , b", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":["a",null,"b"]})"));
  EXPECT_EQ("Read Failure", ecallProcessor::parseSWIUSBPortsStr(R"({"code":2,"ports":["usb0"]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":[]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr("{}"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":"usb0"})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"(["usb0"])"));
}

class UsbPortsTest : public ProcessorFixture {};

TEST_F(UsbPortsTest, EveryFailureReadsAsReadFailure) {
  answer("getUsbPorts", "", kFailed);
  EXPECT_EQ("Read Failure", ecallHandler.getSWIUSBPorts());
  EXPECT_EQ("", fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getUsbPorts").at(0).params);

  fakeBus::Reply lost;
  lost.callbackErr = kFailed;
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, "getUsbPorts", lost);
  ecallHandler.asyncRequestSWIUSBPorts();
  fakeBus::drain();
  EXPECT_EQ(1u, emergencyLogCount("SWIUSB ports: Read Failure\n"));
}

}  // namespace

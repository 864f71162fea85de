// The module's USB ports as one text line for the emergency log.
#include "phoneFixture.h"

using namespace phoneTest;

namespace {

TEST(SwiUsbPortsText, EveryReplyForm) {
  EXPECT_EQ("usb0, usb1", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":["usb0","usb1"]})"));
  EXPECT_EQ("usb0", ecallProcessor::parseSWIUSBPortsStr(R"({"code":0,"ports":["usb0"]})"));
  // A port that is not a name keeps its separator.
  EXPECT_EQ("a, , b", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":["a",null,"b"]})"));
  EXPECT_EQ("Read Failure", ecallProcessor::parseSWIUSBPortsStr(R"({"code":2,"ports":["usb0"]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":[]})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr("{}"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"({"ports":"usb0"})"));
  EXPECT_EQ("", ecallProcessor::parseSWIUSBPortsStr(R"(["usb0"])"));
}

class UsbPortsTest : public ProcessorFixture {};

TEST_F(UsbPortsTest, SynchronousRequestAndItsFailure) {
  answer("getUsbPorts", R"({"ports":["usb2"]})");
  EXPECT_EQ("usb2", ecallHandler.getSWIUSBPorts());
  auto requests = fakeBus::requests(EMBEDDED_PHONE_SERVICE, "getUsbPorts");
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ("", requests[0].params);
  EXPECT_EQ(EMBEDDED_PHONE_PATH, requests[0].objPath);

  failRequests("getUsbPorts");
  EXPECT_EQ("Read Failure", ecallHandler.getSWIUSBPorts());
  EXPECT_TRUE(log.hasSlog("Failed to get swiusb ports "));
}

TEST_F(UsbPortsTest, AsynchronousRequestLogsTheAnswer) {
  answer("getUsbPorts", R"({"ports":["usb0","usb3"]})");
  ecallHandler.asyncRequestSWIUSBPorts();
  fakeBus::drain();
  EXPECT_EQ(1u, emergencyLogCount("SWIUSB ports: usb0, usb3\n"));

  fakeBus::Reply lost;
  lost.callbackErr = SVCIPC_MAKE_ERROR(SVCIPC_DOMAIN_DBUS, SVCIPC_DBUS_ERR_NO_REPLY);
  fakeBus::setReply(EMBEDDED_PHONE_SERVICE, "getUsbPorts", lost);
  ecallHandler.asyncRequestSWIUSBPorts();
  fakeBus::drain();
  EXPECT_EQ(1u, emergencyLogCount("SWIUSB ports: Read Failure\n"));
}

}  // namespace

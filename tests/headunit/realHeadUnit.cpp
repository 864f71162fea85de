#include "realHeadUnit.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>


namespace {

testSupport::E2eOptions vehicleOnly() {
  testSupport::E2eOptions options;
  // Slow enough for the real modem's pace (oFono polls the calls every 0.5 s).
  options.timeScale = 0.1;
  options.startService = false;
  options.simArgs = {"--vehicle-only"};
  return options;
}

// A TCP port nobody listens on now, for gpsd.
std::string freePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  socklen_t length = sizeof address;
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return std::to_string(ntohs(address.sin_port));
}

}  // namespace

RealHeadUnit::RealHeadUnit(const Setup& setup)
    : harness(vehicleOnly()) {
  char folder[] = "/tmp/ecall-headunit-XXXXXX";
  dir = mkdtemp(folder);
  const std::string systemBus = "DBUS_SYSTEM_BUS_ADDRESS=" + harness.busAddress();

  modem = std::make_unique<testSupport::Child>(
      std::vector<std::string>{PYTHON3, MODEM_EMULATOR, setup.modemState, ECALLCTL_BIN}, std::vector<std::string>{}, true);
  const std::string& said = modem->out();
  if (!waitForModem("ecall port ", 0, ms(10000)))
    throw std::runtime_error("the modem emulator did not start: " + modem->err());
  testSupport::writeFile(dir + "/phonesim.conf",
                         "[phonesim]\nAddress=127.0.0.1\nPort=" + said.substr(5, said.find('\n') - 5) + "\n");
  startOfono();

  // gpsfake in a PID namespace of its own: whatever ends it ends its gpsd too,
  // which drops its privileges and with them any parent-death signal.
  const std::string gpsPort = freePort();
  gps = std::make_unique<testSupport::Child>(std::vector<std::string>{
      UNSHARE, "--pid", "--fork", "--kill-child", GPSFAKE, "-q", "-c", "0.1", "-P", gpsPort, DRIVE_NMEA},
      // gpsd's control socket is named after gpsfake's process number, 1 here.
      std::vector<std::string>{"TMPDIR=" + dir});
  std::string config = "brand = 9\nlanguage = en_US\ntestNumber = 5550100\ngpsd = 127.0.0.1:" + gpsPort + "\n";
  if (setup.europe) {
    const size_t port = said.find("ecall port ") + 11;
    config += "market = EU\nvin = NRD1ECALL0T000042\nvehicleCategory = M1\npropulsion = gasoline, electric\n"
              "seatBelts = 2\nmsdRequestCode = +MSDREQ\nmsdLoadCommand = AT+MSDLOAD=\"%s\"\n"
              "ecallChannel = 127.0.0.1:" + said.substr(port, said.find('\n', port) - port) + "\n";
  } else {
    config += "emergencyNumber = 911\n";
  }
  testSupport::writeFile(dir + "/ecall-headunit.conf", config);

  // The bridge takes oFono's modem whether oFono comes before it or after.
  bridge = std::make_unique<testSupport::Child>(
      std::vector<std::string>{HEADUNIT_BIN, "--config", dir + "/ecall-headunit.conf", "--bus", harness.busAddress(),
                               "--speech-out", speechFolder()},
      std::vector<std::string>{systemBus});
  if (!waitForBridge(setup.modemState == "off" ? "ecall-headunit: ready" : "\"embeddedPhoneStatus\":{\"status\":true}") ||
      !waitForBridge("NDR: position fixed"))
    throw std::runtime_error("the head unit did not come up; it said:\n" + bridge->out() + bridge->err());
  if (!setup.service) return;
  harness.startService();
  if (!harness.waitForChannelConnected()) throw std::runtime_error("ecallService did not start");
}

RealHeadUnit::~RealHeadUnit() {
  harness.stopService();  // first, so that it sees no peer go away
  for (auto* child : {&bridge, &gps, &ofono, &modem}) {
    if (!*child) continue;
    // unshare ignores SIGTERM while its child runs; killed, it kills gpsfake,
    // and with it the namespace and gpsd.
    (*child)->signal(child == &gps ? SIGKILL : SIGTERM);
    (*child)->wait(ms(5000));
  }
  std::error_code ec;
  if (!testing::Test::HasFailure()) std::filesystem::remove_all(dir, ec);
}

bool RealHeadUnit::waitForModem(const std::string& part, size_t mark, ms deadline) {
  return modem->waitForOutput([&] { return modem->out().find(part, mark) != std::string::npos; }, deadline);
}

void RealHeadUnit::startOfono() {
  ofono = std::make_unique<testSupport::Child>(
      std::vector<std::string>{OFONOD, "-n", "-P", "udev,udevng"},
      std::vector<std::string>{"DBUS_SYSTEM_BUS_ADDRESS=" + harness.busAddress(),
                               "OFONO_PHONESIM_CONFIG=" + dir + "/phonesim.conf"});
}

void RealHeadUnit::network(const std::string& command) {
  const size_t mark = modemMark();
  modem->send(command + "\n");
  waitForModem("ok " + command.substr(0, command.find(' ')), mark, ms(5000));
}

bool RealHeadUnit::waitForBridge(const std::string& part, ms deadline) {
  return bridge->waitForOutput([&] { return bridge->out().find(part) != std::string::npos; }, deadline);
}

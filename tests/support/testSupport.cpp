#include "support/testSupport.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <thread>

#include "platform/pulses.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace testSupport {

TempRoot::TempRoot() {
  char tmpl[] = "/tmp/ecall-test-XXXXXX";
  char* dir = mkdtemp(tmpl);
  mDir = dir ? dir : "/tmp";
  platform::setRoot(mDir);
}

TempRoot::~TempRoot() {
  std::error_code ec;
  std::filesystem::remove_all(mDir, ec);
  platform::setRoot("/");
}

LogCapture::LogCapture() {
  platform::setTraceSink([this](const char* scope, platform::TraceKind kind, const std::string& text) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEntries.push_back({scope ? scope : "", platform::traceKindName(kind), text});
  });
  platform::setSlogSink([this](int severity, const std::string& text) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEntries.push_back({"slog", std::to_string(severity), text});
  });
}

LogCapture::~LogCapture() {
  platform::setTraceSink(nullptr);
  platform::setSlogSink(nullptr);
}

std::vector<LogCapture::Entry> LogCapture::slogEntries() const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<Entry> out;
  std::copy_if(mEntries.begin(), mEntries.end(), std::back_inserter(out), [](const Entry& e) { return e.scope == "slog"; });
  return out;
}

size_t LogCapture::count(const std::string& part, bool slog) const {
  std::lock_guard<std::mutex> lock(mMutex);
  return std::count_if(mEntries.begin(), mEntries.end(), [&](const Entry& e) {
    return (e.scope == "slog") == slog && e.text.find(part) != std::string::npos;
  });
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mMutex);
  mEntries.clear();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

void makeDirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
}

void writeFile(const std::string& path, const std::string& content) {
  makeDirs(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> out;
  std::stringstream ss(text);
  std::string line;
  while (std::getline(ss, line)) out.push_back(line);
  return out;
}

bool waitUntil(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
  auto until = std::chrono::steady_clock::now() + deadline;
  while (std::chrono::steady_clock::now() < until) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

constexpr int kWakeCode = 98, kSentinelCode = 99;

PulseChannel::PulseChannel() : chid(qnx::ChannelCreate(0)), coid(qnx::ConnectAttach(0, 0, chid, qnx::_NTO_SIDE_CHANNEL, 0)) {}

int PulseChannel::next(std::chrono::milliseconds deadline, int* value) {
  auto received = std::async(std::launch::async, [this] {
    qnx::_pulse pulse{};
    return qnx::MsgReceive(chid, &pulse, sizeof pulse, nullptr) == 0 ? pulse : qnx::_pulse{0, 0, -1, {}, 0, 0};
  });
  if (received.wait_for(deadline) == std::future_status::timeout) qnx::MsgSendPulse(coid, qnx::getprio(0), kWakeCode, 0);
  const qnx::_pulse pulse = received.get();
  if (value) *value = pulse.value;
  return pulse.code == kWakeCode ? -1 : pulse.code;
}

bool PulseChannel::nothingQueued() {
  qnx::MsgSendPulse(coid, qnx::getprio(0), kSentinelCode, 0);
  return next() == kSentinelCode;
}

}  // namespace testSupport

#include "support/testSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

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

std::vector<LogCapture::Entry> LogCapture::entries() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mEntries;
}

std::vector<std::string> LogCapture::traces() const {
  std::vector<std::string> out;
  for (auto& e : entries())
    if (e.scope != "slog") out.push_back(e.text);
  return out;
}

std::vector<LogCapture::Entry> LogCapture::slogEntries() const {
  std::vector<Entry> out;
  for (auto& e : entries())
    if (e.scope == "slog") out.push_back(e);
  return out;
}

bool LogCapture::hasTrace(const std::string& part) const { return countTrace(part) > 0; }

bool LogCapture::hasSlog(const std::string& part) const {
  for (auto& e : slogEntries())
    if (e.text.find(part) != std::string::npos) return true;
  return false;
}

size_t LogCapture::countTrace(const std::string& part) const {
  size_t n = 0;
  for (auto& t : traces())
    if (t.find(part) != std::string::npos) ++n;
  return n;
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
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
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

}  // namespace testSupport

// A text written by one thread and read by others (the call state, the
// emergency number, the readout type, the last mode text). The service hands
// such texts between threads without a protocol of its own; this keeps each
// read and write whole.
#pragma once

#include <mutex>
#include <string>

class sharedText {
 public:
  sharedText() = default;
  explicit sharedText(std::string initial) : mText(std::move(initial)) {}
  sharedText(const sharedText&) = delete;
  sharedText& operator=(const sharedText&) = delete;

  std::string get() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mText;
  }
  void set(const std::string& text) {
    std::lock_guard<std::mutex> lock(mMutex);
    mText = text;
  }
  bool contains(const char* part) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mText.find(part) != std::string::npos;
  }
  bool equals(const char* text) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mText == text;
  }
  bool empty() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mText.empty();
  }

 private:
  mutable std::mutex mMutex;
  std::string mText;
};

#include "atChannel.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace headunit {

namespace {

bool finalResult(const std::string& line) {
  for (const char* code : {"OK", "ERROR", "NO CARRIER", "BUSY", "NO ANSWER", "NO DIALTONE"})
    if (line == code) return true;
  return line.rfind("+CME ERROR", 0) == 0 || line.rfind("+CMS ERROR", 0) == 0;
}

int msLeft(std::chrono::steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// A serial line as the modem's driver makes it: raw bytes, no echo, no
// control characters taken by the line discipline.
int openDevice(const std::string& path, std::string& why) {
  const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    why = std::string("cannot open ") + path + ": " + strerror(errno);
    return -1;
  }
  struct termios tio;
  if (isatty(fd) && tcgetattr(fd, &tio) == 0) {
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tcsetattr(fd, TCSANOW, &tio);
    tcflush(fd, TCIOFLUSH);
  }
  return fd;
}

int connectTo(const std::string& where, std::chrono::steady_clock::time_point deadline, std::string& why) {
  const auto colon = where.rfind(':');
  struct addrinfo hints {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  struct addrinfo* found = nullptr;
  if (int rc = getaddrinfo(where.substr(0, colon).c_str(), where.substr(colon + 1).c_str(), &hints, &found)) {
    why = "cannot find " + where + ": " + gai_strerror(rc);
    return -1;
  }
  int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int error = fd < 0 ? errno : 0;
  if (fd >= 0 && connect(fd, found->ai_addr, found->ai_addrlen) < 0) {
    error = errno;
    struct pollfd out = {fd, POLLOUT, 0};
    socklen_t size = sizeof error;
    if (error == EINPROGRESS)
      error = poll(&out, 1, msLeft(deadline)) == 1 ? (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size), error)
                                                   : ETIMEDOUT;
  }
  freeaddrinfo(found);
  if (error) {
    why = "cannot connect to " + where + ": " + strerror(error);
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

bool AtChannel::start(std::string& why) {
  mWakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  mThread = std::thread([this] { run(); });
  std::unique_lock<std::mutex> lock(mMutex);
  return openLocked(lock, std::chrono::steady_clock::now() + std::chrono::seconds(2), why);
}

void AtChannel::stop() {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopping = true;
    wake();
  }
  mChanged.notify_all();
  if (mThread.joinable()) mThread.join();
  if (mFd >= 0) close(mFd);
  if (mWakeFd >= 0) close(mWakeFd);
  mFd = mWakeFd = -1;
}

void AtChannel::wake() {
  uint64_t one = 1;
  if (mWakeFd >= 0) (void)!write(mWakeFd, &one, sizeof one);
}

bool AtChannel::openLocked(std::unique_lock<std::mutex>& lock, Deadline deadline, std::string& why) {
  // A channel being dropped is closed by the reader first.
  if (!mChanged.wait_until(lock, deadline, [&] { return !mDrop; })) {
    why = "the channel does not close";
    return false;
  }
  if (mFd >= 0) return true;
  mFd = mWhere[0] == '/' ? openDevice(mWhere, why) : connectTo(mWhere, deadline, why);
  if (mFd < 0) return false;
  mChanged.notify_all();  // the reader takes it up
  return true;
}

bool AtChannel::writeLocked(const std::string& text, Deadline deadline, std::string& why) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(mFd, text.data() + done, text.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
      continue;
    }
    struct pollfd out = {mFd, POLLOUT, 0};
    if (n < 0 && (errno == EAGAIN || errno == EINTR) && poll(&out, 1, msLeft(deadline)) == 1) continue;
    why = n < 0 && errno != EAGAIN ? std::string("cannot write: ") + strerror(errno) : "the modem takes no more";
    return false;
  }
  return true;
}

void AtChannel::dropLocked() {
  if (mFd < 0) return;
  mDrop = true;
  wake();
  mChanged.notify_all();
}

bool AtChannel::command(const std::string& line, std::chrono::milliseconds bound, std::string& why) {
  const Deadline deadline = std::chrono::steady_clock::now() + bound;
  std::unique_lock<std::mutex> lock(mMutex);
  if (!mChanged.wait_until(lock, deadline, [&] { return !mBusy; })) {
    why = "another command holds the channel";
    return false;
  }
  struct Turn {
    AtChannel& channel;
    ~Turn() {
      channel.mBusy = false;
      channel.mChanged.notify_all();
    }
  } turn{*this};
  mBusy = true;
  if (!openLocked(lock, deadline, why)) return false;
  mResult.reset();
  mWaiting = true;
  const int fd = mFd;
  bool answered = writeLocked(line + "\r", deadline, why);
  if (answered) {
    const auto closed = [&] { return mDrop || mFd != fd; };
    answered = mChanged.wait_until(lock, deadline, [&] { return mResult || closed(); }) && mResult.has_value();
    if (!answered) why = closed() ? "the channel closed" : "no answer in " + std::to_string(bound.count()) + " ms";
  }
  mWaiting = false;
  // A late answer must not pass for the next command's.
  if (!answered) dropLocked();
  if (answered && *mResult != "OK") {
    why = *mResult;
    return false;
  }
  return answered;
}

void AtChannel::take(const std::string& line) {
  {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mWaiting && !mResult && finalResult(line)) {
      mResult = line;
      mChanged.notify_all();
      return;
    }
  }
  if (!mWatched.empty() && line.rfind(mWatched, 0) == 0) mOnUnsolicited(line);
}

void AtChannel::run() {
  std::string buffer;
  for (;;) {
    int fd;
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mChanged.wait(lock, [&] { return mStopping || mFd >= 0; });
      if (mStopping) return;
      if (mDrop) {
        close(mFd);
        mFd = -1;
        mDrop = false;
        buffer.clear();
        mChanged.notify_all();
        continue;
      }
      fd = mFd;
    }
    struct pollfd fds[2] = {{fd, POLLIN, 0}, {mWakeFd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[1].revents) {
      uint64_t count;
      (void)!read(mWakeFd, &count, sizeof count);
    }
    if (!fds[0].revents) continue;
    char chunk[512];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
      std::lock_guard<std::mutex> lock(mMutex);
      dropLocked();  // closed at the top of the loop
      continue;
    }
    if (n < 0) continue;
    buffer.append(chunk, static_cast<size_t>(n));
    for (size_t end; (end = buffer.find_first_of("\r\n")) != std::string::npos;) {
      const std::string line = buffer.substr(0, end);
      buffer.erase(0, end + 1);
      if (!line.empty()) take(line);
    }
    if (buffer.size() > 4096) buffer.clear();  // no modem says that much in one line
  }
}

}  // namespace headunit

// The restraint controller channel to the vehicle micro ("/dev/ipc/ch12").
// One read returns one message, one write sends one message. If the path
// (under the root) is a Unix socket, it is connected as SOCK_SEQPACKET;
// otherwise it is opened as a device with O_RDWR.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>

namespace platform {

// Returns a descriptor or -1 with errno set. flags are the service's open
// flags; the platform flag 0x2000 of the target has no meaning here and is
// dropped.
int ipcOpen(const char* path, int flags);

// The channel kept for the life of the process. One thread reads it and
// alone opens it again when the vehicle micro's end goes away (the micro
// restarts); any thread writes on the connection of the moment. A descriptor
// is closed only while no write uses it, so a write never reaches a closed
// descriptor or one whose number was reused. Writes never block: a micro that
// does not read what it is sent loses the message, and the reader, which
// takes the same lock for a moment, keeps reading.
class IpcChannel {
 public:
  IpcChannel(const char* path, int flags) : mPath(path), mFlags(flags) {}
  ~IpcChannel() { close(); }
  IpcChannel(const IpcChannel&) = delete;
  IpcChannel& operator=(const IpcChannel&) = delete;

  // One attempt to open the channel; true when it is open (now or already).
  bool open();
  // Opens the channel again every retryMs (scaled) until it opens: the
  // micro is expected back. Blocks the reading thread only.
  void reopenEvery(int64_t retryMs);
  bool isOpen() const;
  // One message, blocking. >0: its size. 0 or -1: the other end closed or
  // the read failed; the descriptor is then closed (call reopenEvery).
  // An interrupted read is retried here.
  ssize_t read(void* buffer, size_t size);
  // Waits at most retryMs (scaled) for a message or the end of the
  // connection, without taking it; false when neither came.
  bool readableWithin(int64_t retryMs);
  // One message on the connection of the moment; -1 with errno (EBADF while
  // the channel is closed, EAGAIN while the micro's end is full). A vehicle
  // micro that has gone never ends the process (no SIGPIPE).
  ssize_t write(const void* bytes, size_t size);
  void close();

 private:
  const std::string mPath;
  const int mFlags;
  mutable std::mutex mMutex;  // guards mFd against its swap while a write uses it
  int mFd = -1;
};

}  // namespace platform

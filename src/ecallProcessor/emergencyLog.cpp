// The emergency log: a text file in flash, one line per event, each stamped
// with the UTC time and the odometer, that survives a crash and can be moved
// to a USB stick. Also the marker files under /tmp.
//
// Nothing is kept in memory: every entry opens, appends with one write and
// closes, so the file is always complete, and an entry is kept when the
// service ends right after it. Once the processor has started its log
// syncer, the write goes to the kernel without waiting for the flash, and
// the syncer makes it durable on its own thread a moment later: the threads
// that write entries (the state machine before a dial among them) never wait
// behind other disk work. Before that, and where no syncer runs, each entry
// is a synchronous write.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "ecallMain/ecallMain.h"
#include "ecallProcessor/ecallProcessor.h"
#include "platform/files.h"
#include "platform/pps.h"
#include "platform/runtime.h"
#include "platform/slog.h"

namespace {

constexpr int LOG_OPEN_FLAGS = O_RDWR | O_APPEND;
constexpr mode_t LOG_FILE_MODE = 0666;
// The log folder is made with mode 0666; Linux also needs the search bits
// on a folder before anyone but root may create the log inside it.
constexpr mode_t LOG_DIR_MODE = 0666 | S_IXUSR | S_IXGRP | S_IXOTH;
constexpr mode_t USB_FILE_MODE = 0644;
constexpr mode_t FLAG_FILE_MODE = 0644;

constexpr size_t PPS_READ_SIZE = 4096;
constexpr size_t ODOMETER_FIELD_SIZE = 12;
constexpr size_t USB_COPY_CHUNK = 1024;
constexpr size_t USB_NAME_SIZE = 256;
constexpr int FLAG_REMOVE_ATTEMPTS = 100;
constexpr int FLAG_REMOVE_PAUSE_MS = 10;

const char* const timeStampFormat = "%T %B %d, %Y GMT:";
const char* const odometerNotAvailable = "ODO N/A:";

// The header documents the codes the entries use: the impact bits of the
// restraint controller, the prompt codes and the LED codes.
const std::string logRule(113, '-');
const std::string logHeader =
    "Ecall Log File\n"
    "Notes on Rx ORC serial impact types:\n"
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M\n"
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G\n"
    "Notes on Rx ORC CAN impact types:\n"
    "Bit 0:  H    Bit 1:  I    Bit 2:  K    Bit 3:  L    Bit 4:  M    Bit 5:  N    Bit 6:  O    Bit 7:  X\n"
    "Bit 8:  A    Bit 9:  B    Bit 10: C    Bit 11: D    Bit 12: E    Bit 13: F    Bit 14: G    Bit 15: Tgl\n"
    "Notes on TTS request codes:\n"
    "1:  Initiate     2:  Incoming,    3:  Ended,       4:  Error,       5:  Retry,       6:  Retry with Cancel\n"
    "7:  Dialing      8:  ecall PSAP1  9:  ecall PSAP2  10: acn PSAP1    11: acn PSAP2    12: GPS coordinates\n"
    "Notes on LED status codes:\n"
    "0:\tOff\t\t1:\tSolid Green\t\t2:\tBlinking Green\t\t3:\tRed\n" +
    logRule + "\n" +
    "-- START LOG \n"
    "-- Time Date : Odometer : Log msg \n" +
    logRule + "\n";

const char* const logResetLines[] = {
    "%T %B %d, %Y GMT: ERROR -- Log file has been cleared due to too many crash and emergency events.\n",
    "%T %B %d, %Y GMT:          If performing crash testing, advise to dump the log to USB between crashes\n",
};

// Holds the log's mutex for one append or export, when initialisation has
// made it. The flag is read once: an append that began before the mutex
// existed must not release it at its end.
class logWriteLock {
 public:
  logWriteLock(const std::atomic<bool>& made, pthread_mutex_t& mutex)
      : mMutex(mutex), mLocked(made.load() && pthread_mutex_lock(&mutex) == 0) {}
  ~logWriteLock() {
    if (mLocked) pthread_mutex_unlock(&mMutex);
  }
  logWriteLock(const logWriteLock&) = delete;
  logWriteLock& operator=(const logWriteLock&) = delete;

 private:
  pthread_mutex_t& mMutex;
  const bool mLocked;
};

// The current UTC time formatted with a strftime format; empty if it does
// not fit.
std::string formatUtcNow(const char* format) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const time_t now = time(nullptr);
  struct tm utc {};
  gmtime_r(&now, &utc);
  char text[EMERGENCY_LOG_ENTRY_SIZE];
  if (strftime(text, sizeof text, format, &utc) == 0) return std::string();
  return text;
}

bool writeWhole(int fd, const std::string& text) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  return platform::fileWrite(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Makes the folders above a path that a fresh root lacks (not the last
// part of the path itself).
void makeParentFolders(const std::string& folder) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  for (size_t slash = folder.find('/', 1); slash != std::string::npos; slash = folder.find('/', slash + 1))
    platform::makeFolder(folder.substr(0, slash).c_str(), 0777);
}

// Deletes a log that has grown too big. False (and the entry is dropped)
// when it cannot be removed.
bool resetLogFile(int fd, const std::string& path) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  scope.sendFormattedError(
      "Too many errors for real vehicle operation have occurred, resetting the log and flagging the error\n");
  platform::fileClose(fd);
  if (platform::fileUnlink(path.c_str()) != 0) {
    const int err = errno;
    scope.sendFormattedError("Failed to remove internal log file, errno %d (%s)\n", err, strerror(err));
    return false;
  }
  return true;
}

// Opens the log for an append, with synchronous writes unless a syncer
// takes care of them. A log at its size limit is deleted and made anew, with
// the two reset lines after the header. Returns -1 when the entry cannot be
// written.
int openLogForAppend(bool synchronous) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const std::string path = platform::rootPath(emergencyLogPath);
  const int flags = LOG_OPEN_FLAGS | (synchronous ? O_DSYNC : 0);
  int fd = platform::fileOpen(path.c_str(), flags);
  bool wasReset = false;
  if (fd >= 0) {
    const off_t size = platform::fileSize(fd);
    if (size < 0) {
      scope.sendFormattedError(
          "Failed to get the size of the internal log file.  Not updating log to prevent the file from becoming too big\n");
      platform::fileClose(fd);
      return -1;
    }
    scope.sendFormattedMessage("Current size of log file: %d\n", static_cast<int>(size));
    if (size + EMERGENCY_LOG_ENTRY_SIZE < EMERGENCY_LOG_SIZE_LIMIT) return fd;
    if (!resetLogFile(fd, path)) return -1;
    wasReset = true;
  }

  const std::string folder = platform::rootPath(emergencyLogDir);
  makeParentFolders(folder);
  if (platform::makeFolder(folder.c_str(), LOG_DIR_MODE) != 0 && errno != EEXIST) {
    const int err = errno;
    scope.sendFormattedError("Failed to create the directory for the internal log file, errno %d (%s)\n", err,
                             strerror(err));
    return -1;
  }
  fd = platform::fileOpen(path.c_str(), flags | O_CREAT, LOG_FILE_MODE);
  if (fd < 0) {
    const int err = errno;
    scope.sendFormattedError("Failed to open internal logfile, errno %d (%s)\n", err, strerror(err));
    return -1;
  }
  std::string start = logHeader;
  if (wasReset)
    for (const char* line : logResetLines) start += formatUtcNow(line);
  writeWhole(fd, start);
  return fd;
}

// The odometer field of an entry: the reading of the vehicle status object
// in units of ten, or "ODO N/A:" when there is none.
std::string readOdometerField() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  int fd = -1;
  do {
    fd = platform::ppsOpen(vehicleStatusPPSPath.c_str(), O_RDONLY);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    const int err = errno;
    scope.sendFormattedError("failed to open pps %s, err: %d - %s\n", vehicleStatusPPSPath.c_str(), err,
                             strerror(err));
    slogf(ECALL_SLOG_OPCODE, _SLOG_ERROR, "failed to open pps %s, err: %d - %s\n", vehicleStatusPPSPath.c_str(), err,
          strerror(err));
    return odometerNotAvailable;
  }
  char text[PPS_READ_SIZE + 1];
  const ssize_t n = platform::ppsRead(fd, text, PPS_READ_SIZE);
  while (platform::ppsClose(fd) < 0 && errno == EINTR) {
  }
  if (n < 0) {
    scope.sendFormattedError(
        "Failed to read from the PPS file, %s, that contains the odometer, likely do to the file being much bigger than it used to be\n",
        vehicleStatusPPSPath.c_str());
    return odometerNotAvailable;
  }
  text[n] = '\0';
  const char* odometer = strstr(text, "ODO");
  if (odometer == nullptr) {
    scope.sendFormattedError("Odometer does not exist in the target PPS file, %s\n", vehicleStatusPPSPath.c_str());
    return odometerNotAvailable;
  }
  int value = 0;
  if (sscanf(odometer, "ODO::%d\n", &value) != 1) return odometerNotAvailable;
  char field[ODOMETER_FIELD_SIZE];
  snprintf(field, sizeof field, "%07d:", value / 10);
  return field;
}

// What differs between the two files moved to the USB stick.
struct usbExport {
  const std::string& localPath;
  const char* usbPrefix;
  const char* openLocalFailed;
  const char* openUsbFailed;
  const char* transferring;
  const char* writeFailed;
  const char* removeFailed;
};

const usbExport usbExports[] = {
    {emergencyLogPath, "/fs/usb0/ecall_log", "Failed open internal logfile, errno %d (%s)\n",
     "Failed open USB logfile to write, errno %d (%s)\n", "Transfering log info to USB\n",
     "Error writing to output file: %s\n", "Failed to remove internal log file, errno %d (%s)\n"},
    {gpsResetLogPath, "/fs/usb0/GPSReset.log", "Failed open gpsreset logfile, errno %d (%s)\n",
     "Failed open USB gpsreset to write, errno %d (%s)\n", "Transfering gpsreset log info to USB\n",
     "Error writing to gpsreset output file: %s\n", "Failed to remove gpsreset log file, errno %d (%s)\n"},
};

// Copies the whole local file to the USB file. False when the copy stopped
// short.
bool copyToUsb(const usbExport& file, int localFd, int usbFd, const char* usbName) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  char chunk[USB_COPY_CHUNK];
  for (;;) {
    const ssize_t got = platform::fileRead(localFd, chunk, sizeof chunk);
    if (got == 0) return true;
    if (got < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      scope.sendFormattedError("Error reading %s, errno %d (%s)\n", file.localPath.c_str(), err, strerror(err));
      return false;
    }
    if (platform::fileWrite(usbFd, chunk, static_cast<size_t>(got)) < got) {
      scope.sendFormattedError(file.writeFailed, usbName);
      return false;
    }
  }
}

// Moves one local file to the stick under a name made unique by the time;
// the local file goes only after a complete copy.
void exportToUsb(const usbExport& file) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const std::string localPath = platform::rootPath(file.localPath);
  const int localFd = platform::fileOpen(localPath.c_str(), O_RDONLY);
  if (localFd < 0) {
    const int err = errno;
    scope.sendFormattedError(file.openLocalFailed, err, strerror(err));
    return;
  }
  char usbName[USB_NAME_SIZE];
  snprintf(usbName, sizeof usbName, "%s%llu.txt", file.usbPrefix, static_cast<unsigned long long>(time(nullptr)));
  scope.sendFormattedMessage("USB log file name %s", usbName);
  const int usbFd = platform::fileOpen(platform::rootPath(usbName).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_DSYNC,
                                       USB_FILE_MODE);
  if (usbFd < 0) {
    const int err = errno;
    scope.sendFormattedError(file.openUsbFailed, err, strerror(err));
    platform::fileClose(localFd);
    return;
  }
  scope.sendFormattedMessage("%s", file.transferring);
  const bool complete = copyToUsb(file, localFd, usbFd, usbName);
  platform::fileClose(localFd);
  platform::fileClose(usbFd);
  if (complete && platform::fileUnlink(localPath.c_str()) != 0) {
    const int err = errno;
    scope.sendFormattedError(file.removeFailed, err, strerror(err));
  }
}

// A full file system or a file size limit may take only part of an entry:
// the part is taken back, so that later entries start on a line of their own.
void takeBackPartialEntry(int fd, ssize_t written) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const off_t end = platform::fileSize(fd);
  if (end < written || platform::fileTruncate(fd, end - written) != 0)
    scope.sendFormattedError("Failed to take back a partly written entry, errno %d (%s)\n", errno, strerror(errno));
}

// Creates a marker file that must not exist yet.
int openNewFlagFile(const std::string& file) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  int fd;
  do {
    fd = platform::fileOpen(file.c_str(), O_RDWR | O_CREAT | O_EXCL | O_DSYNC, FLAG_FILE_MODE);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

void ecallProcessor::addEntryToEmergencyLog(const char* text) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (text == nullptr) text = "";
  logWriteLock lock(uselogWriteMutex, logWriteMutex);
  scope.sendFormattedMessage("Start add entry to internal log file: %s\n", text);
  const bool synced = logSyncer.running();
  const int fd = openLogForAppend(!synced);
  if (fd < 0) return;

  char line[EMERGENCY_LOG_ENTRY_SIZE];
  const std::string stamp = formatUtcNow(timeStampFormat);
  const std::string odometer = readOdometerField();
  // One write of the whole line, cut to the entry size, so that entries of
  // concurrent writers never mix.
  const int length = snprintf(line, sizeof line, "%s%s%s", stamp.c_str(), odometer.c_str(), text);
  const size_t size = length < 0 ? 0 : std::min(static_cast<size_t>(length), sizeof line - 1);
  // An entry cut to the buffer still ends its line, so that the next event
  // never shares it. A caller's own text without a line end is kept as given.
  if (length >= static_cast<int>(sizeof line)) line[size - 1] = '\n';
  const ssize_t written = platform::fileWrite(fd, line, size);
  if (written != static_cast<ssize_t>(size)) {
    const int err = written < 0 ? errno : ENOSPC;
    if (written > 0) takeBackPartialEntry(fd, written);
    scope.sendFormattedError("Failed to write, %s, to internal logfile, errno %d (%s)\n", line, err, strerror(err));
  } else {
    scope.sendFormattedMessage("Internal log file write success.\n");
  }
  platform::fileClose(fd);
  if (synced) logSyncer.requestSync();
}

void ecallProcessor::startLogSyncer() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  if (!logSyncer.start(platform::rootPath(emergencyLogPath)))
    scope.sendFormattedWarning("Log syncer not started, every log entry waits for its synchronous write\n");
}

void ecallProcessor::addFormattedEntryToEmergencyLog(const char* format, ...) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  char text[EMERGENCY_LOG_ENTRY_SIZE];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n < 0) text[0] = '\0';
  if (n >= static_cast<int>(sizeof text)) text[sizeof text - 2] = '\n';
  addEntryToEmergencyLog(text);
}

void ecallProcessor::saveEmergencyLogToUSBAndRemoveLocalLog() {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  logWriteLock lock(uselogWriteMutex, logWriteMutex);
  for (const usbExport& file : usbExports) {
    scope.sendFormattedMessage("Start move log file to USB\n");
    exportToUsb(file);
  }
  scope.sendFormattedMessage("End of function for moving log file\n");
}

void ecallProcessor::createFlagInTmp(bool create, std::string path) {
  CQVTraceScope scope(ecallProcessorTraceScope, __func__);
  const std::string file = platform::rootPath(path);
  if (create) {
    int fd = openNewFlagFile(file);
    if (fd < 0 && errno == ENOENT) {
      // A fresh root may lack the folder of the marker.
      makeParentFolders(file);
      fd = openNewFlagFile(file);
    }
    if (fd >= 0) {
      scope.sendFormattedMessage("successfully created flag file in %s", path.c_str());
      platform::fileClose(fd);
    } else if (errno != EEXIST) {
      scope.sendFormattedMessage("failed to created flag file %s, errno %s", path.c_str(), strerror(errno));
    }
    return;
  }
  // A busy file is tried again, with a short pause, for at most a second.
  int rc = platform::fileUnlink(file.c_str());
  for (int attempt = 1; rc != 0 && errno == EBUSY && attempt < FLAG_REMOVE_ATTEMPTS; ++attempt) {
    platform::sleepMs(FLAG_REMOVE_PAUSE_MS);
    rc = platform::fileUnlink(file.c_str());
  }
  if (rc == 0) {
    scope.sendFormattedMessage("Successfully removed flag file %s ", path.c_str());
  } else if (errno != ENOENT) {
    scope.sendFormattedMessage("Failed to removed flag file %s, err %s ", path.c_str(), strerror(errno));
  }
}

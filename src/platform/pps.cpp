// PPS objects on an ordinary folder.
//
// A plain open is an open of the object's file (platform/files.h). An open
// with options ("?wait,delta,f=A+B") returns an inotify descriptor watching
// the object's folder; reads on it block in read(2) of that descriptor until
// the object's file is closed after writing, renamed into place, created or
// removed, and then report the named attributes whose values changed since
// the last read.
//
// Choices made where the target's behaviour has no Linux counterpart:
// - The object's folder must exist when it is opened (ENOENT otherwise); the
//   object itself need not, the first read then gives only "@name".
// - A folder removed or renamed ends the blocked read with ENOENT; the next
//   read watches the folder at the object's path again, once there is one.
// - An object that is removed, or is empty (a writer that has created but not
//   yet filled it), is not a change: the reader keeps waiting, and when the
//   object reappears it gets the values that differ from those last reported.
// - A read shorter than the delta gets the lines that fit and the rest on the
//   following reads (each headed by "@name" when there is room); a single line
//   longer than the whole buffer is cut to fit and keeps its line end.
//
// Every change reaches a delta reader in order, also one undone before the
// reader gets to read (a button pressed and released between two reads): a
// writer that writes through ppsWrite also appends each new object whole to
// the object's change journal ".<name>.changes" beside it, one record
// "<length>\n<text>" per write, after renaming the object into place. A delta
// reader takes its place in the journal when it opens the object, and each
// read reports the records that came since, in order, then the object as it
// is now (for writers that keep no journal). A journal that reaches
// kJournalLimit is replaced by a new one; a reader finishes the old one first.
#include "platform/pps.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/files.h"
#include "platform/runtime.h"

namespace platform {

namespace {

using Attributes = std::map<std::string, std::string>;  // name -> "encoding:value"

// A journal this long is replaced by a new one at the next write: about a
// thousand writes of the vehicle status object.
constexpr off_t kJournalLimit = 64 * 1024;

std::string journalName(const std::string& fileName) { return "." + fileName + ".changes"; }

constexpr uint32_t kWatchedEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVE_SELF | IN_DELETE_SELF;

struct DeltaObject {
  std::string objectName;  // "vehstat"
  std::string folder;      // resolved folder of the object
  std::string fileName;    // the object's name within the folder
  std::vector<std::string> filter;  // named attributes; empty: all
  bool deltaOnly = true;   // later reads give changes only, not the whole set

  std::mutex readMutex;    // one read at a time; held while blocked
  std::atomic<int> watch{-1};
  std::atomic<bool> closing{false};
  int fd = -1;
  bool firstReadDone = false;
  Attributes reported;     // the values last reported to the reader
  std::string pendingLines;  // attribute lines not read yet
  int journalFd = -1;      // the change journal followed, -1 while there is none
  off_t journalOffset = 0; // where its next record starts
};

std::mutex gTableMutex;
std::map<int, std::shared_ptr<DeltaObject>> gDeltaObjects;

std::shared_ptr<DeltaObject> findDelta(int fd) {
  std::lock_guard<std::mutex> lock(gTableMutex);
  auto it = gDeltaObjects.find(fd);
  return it == gDeltaObjects.end() ? nullptr : it->second;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end - start));
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return parts;
}

// Options of the open: "wait" (reads always wait here), "delta" and
// "f=A+B". Unknown options are ignored.
void applyOptions(DeltaObject& object, const std::string& options) {
  object.deltaOnly = false;
  for (const std::string& option : split(options, ',')) {
    if (option == "delta") {
      object.deltaOnly = true;
    } else if (option.rfind("f=", 0) == 0) {
      for (const std::string& name : split(option.substr(2), '+'))
        if (!name.empty()) object.filter.push_back(name);
    }
  }
}

bool wanted(const DeltaObject& object, const std::string& name) {
  if (object.filter.empty()) return true;
  for (const std::string& n : object.filter)
    if (n == name) return true;
  return false;
}

// The whole file, or false when it cannot be read (absent). The object's
// text is one of the service's files (platform/files.h); its change journal
// and the watch stay on the kernel's.
bool readWholeFile(const std::string& path, std::string& text) {
  const int fd = fileOpen(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  text.clear();
  char chunk[65536];
  for (;;) {
    const ssize_t n = fileRead(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }
  fileClose(fd);
  return true;
}

// The named attributes of one text of the object; false when it is empty.
bool attributesOf(const DeltaObject& object, std::string text, Attributes& attributes) {
  if (text.empty()) return false;
  attributes.clear();
  char* cursor = text.data();
  pps_attrib_t info{};
  for (;;) {
    const pps_status_t kind = ppsparse(&cursor, nullptr, nullptr, &info, 0);
    if (kind == PPS_END) break;
    if (kind == PPS_ATTRIBUTE && wanted(object, info.attr_name))
      attributes[info.attr_name] = std::string(info.encoding) + ":" + info.value;
  }
  return true;
}

// The named attributes of the object as it is now; false when the object is
// absent or empty.
bool currentAttributes(const DeltaObject& object, Attributes& attributes) {
  std::string text;
  return readWholeFile(object.folder + "/" + object.fileName, text) && attributesOf(object, text, attributes);
}

// Lines of the attributes that differ from what was reported, and the
// attributes that are gone ("-A"); the report becomes the new state.
std::string changedLines(DeltaObject& object, const Attributes& now) {
  std::string lines;
  for (const auto& [name, tail] : now) {
    auto was = object.reported.find(name);
    if (!object.deltaOnly || was == object.reported.end() || was->second != tail) lines += name + ":" + tail + "\n";
  }
  for (const auto& [name, tail] : object.reported)
    if (now.find(name) == now.end()) lines += "-" + name + "\n";
  object.reported = now;
  return lines;
}

// Identity and length of a file, to tell a journal replaced or grown.
struct FileMark {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  bool operator==(const FileMark& other) const {
    return exists == other.exists && dev == other.dev && ino == other.ino && size == other.size;
  }
};

FileMark markFrom(bool found, const struct stat& st) {
  if (!found) return FileMark{};
  return FileMark{true, st.st_dev, st.st_ino, st.st_size};
}

FileMark markOf(const std::string& path) {
  struct stat st {};
  return markFrom(::stat(path.c_str(), &st) == 0, st);
}

FileMark markOf(int fd) {
  struct stat st {};
  return markFrom(::fstat(fd, &st) == 0, st);
}

bool sameFile(const FileMark& a, const FileMark& b) { return a.exists && b.exists && a.dev == b.dev && a.ino == b.ino; }

std::string journalPath(const DeltaObject& object) { return object.folder + "/" + journalName(object.fileName); }

// The whole records of the followed journal from its offset on; each one is
// compared with what was reported (report) or only passed (at the open).
void consumeRecords(DeltaObject& object, bool report) {
  std::string text;
  char chunk[8192];
  for (off_t at = object.journalOffset;;) {
    const ssize_t n = ::pread(object.journalFd, chunk, sizeof chunk, at);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
    at += n;
  }
  size_t used = 0;
  for (;;) {
    const size_t lineEnd = text.find('\n', used);
    if (lineEnd == std::string::npos) break;  // a record still being written
    char* end = nullptr;
    const unsigned long long length = std::strtoull(text.c_str() + used, &end, 10);
    if (end != text.c_str() + lineEnd || lineEnd == used) {
      used = text.size();  // not a journal of ours: passed over
      break;
    }
    if (text.size() - (lineEnd + 1) < length) break;
    Attributes written;
    if (report && attributesOf(object, text.substr(lineEnd + 1, length), written))
      object.pendingLines += changedLines(object, written);
    used = lineEnd + 1 + length;
  }
  object.journalOffset += static_cast<off_t>(used);
}

// Follows the journal to its end, also into the journal that replaced it;
// returns the mark of the journal followed at its end.
FileMark followJournal(DeltaObject& object, bool report) {
  const std::string path = journalPath(object);
  if (object.journalFd < 0) {
    object.journalFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (object.journalFd < 0) return FileMark{};
    object.journalOffset = 0;  // a journal begun since the open holds only news
  }
  for (;;) {
    consumeRecords(object, report);
    const FileMark now = markOf(path);
    if (!now.exists) {
      // Removed (with its folder, perhaps): it is let go, so that nothing
      // holds the folder, and a new one is taken from its start.
      ::close(object.journalFd);
      object.journalFd = -1;
      return now;
    }
    if (sameFile(now, markOf(object.journalFd))) return now;
    // Replaced: the old one is no longer written; its last records first.
    consumeRecords(object, report);
    const int next = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (next < 0) return FileMark{};
    ::close(object.journalFd);
    object.journalFd = next;
    object.journalOffset = 0;
  }
}

// What changed since the last look: the journal's records in order, then the
// object as it is now, read while the journal stood still (a writer renames
// the object before it journals it, so the object is then never older than
// the journal's last record).
void collectChanges(DeltaObject& object, bool report) {
  for (;;) {
    const FileMark journal = followJournal(object, report);
    Attributes now;
    const bool present = currentAttributes(object, now);
    if (!(markOf(journalPath(object)) == journal)) continue;
    if (present) {
      if (report) {
        object.pendingLines += changedLines(object, now);
      } else {
        object.reported = now;
      }
    }
    return;
  }
}

// Moves as many whole pending lines as fit into buf, headed by "@name".
ssize_t deliver(DeltaObject& object, char* buf, size_t count) {
  const std::string header = "@" + object.objectName + "\n";
  std::string& pending = object.pendingLines;
  std::string out;
  if (pending.empty() || header.size() + 2 <= count) out = header;
  bool firstLine = true;
  size_t taken = 0;
  while (taken < pending.size()) {
    const size_t end = pending.find('\n', taken) + 1;
    const size_t length = end - taken;
    const size_t room = count > out.size() ? count - out.size() : 0;
    if (length <= room) {
      out.append(pending, taken, length);
    } else if (firstLine && length <= count) {
      out.assign(pending, taken, length);  // fits only without the object line
    } else if (firstLine && room >= 2) {
      // A line longer than the whole buffer: cut, keeping its line end.
      out.append(pending, taken, room - 1);
      out += '\n';
    } else {
      break;
    }
    firstLine = false;
    taken = end;
  }
  pending.erase(0, taken);
  if (out.size() > count) {  // a buffer shorter than the object line itself
    out.resize(count > 0 ? count - 1 : 0);
    if (count > 0) out += '\n';
  }
  if (out.empty() && count > 0) {
    errno = EINVAL;
    return -1;
  }
  std::memcpy(buf, out.data(), out.size());
  return static_cast<ssize_t>(out.size());
}

bool addWatch(DeltaObject& object) {
  const int wd = inotify_add_watch(object.fd, object.folder.c_str(), kWatchedEvents);
  if (wd < 0) return false;
  object.watch.store(wd);
  return true;
}

enum class WakeReason { ObjectTouched, WatchGone, Closing, Error };

// Blocks until the object's file is touched (or the watch ends).
WakeReason waitForObject(DeltaObject& object) {
  alignas(struct inotify_event) char events[4096];
  for (;;) {
    if (object.closing.load()) return WakeReason::Closing;
    const ssize_t n = ::read(object.fd, events, sizeof events);
    if (n < 0) {
      if (errno == EINTR) continue;
      return WakeReason::Error;
    }
    if (object.closing.load()) return WakeReason::Closing;
    bool touched = false;
    bool gone = false;
    const int wd = object.watch.load();
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const struct inotify_event*>(events + at);
      at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) touched = true;  // events were lost: look anyway
      if (event->wd != wd) continue;  // the end of a watch already given up
      if (event->mask & IN_IGNORED) gone = true;
      if (event->mask & (IN_MOVE_SELF | IN_DELETE_SELF)) {
        // The folder was renamed: the object lives at its path, not in the
        // renamed folder, so the watch is given up like that of a removed one.
        // A removed folder may still be held (by a journal being read), so
        // its removal, not only the end of the watch, ends it.
        inotify_rm_watch(object.fd, wd);
        gone = true;
      }
      if (event->len > 0 && (object.fileName == event->name || journalName(object.fileName) == event->name))
        touched = true;
    }
    if (gone) return WakeReason::WatchGone;
    if (touched) return WakeReason::ObjectTouched;
  }
}

ssize_t readDelta(DeltaObject& object, char* buf, size_t count) {
  std::lock_guard<std::mutex> lock(object.readMutex);
  if (object.closing.load()) {
    errno = EBADF;
    return -1;
  }
  if (!object.firstReadDone) {
    // The values at the open, and every change since.
    object.firstReadDone = true;
    collectChanges(object, true);
    return deliver(object, buf, count);
  }
  while (object.pendingLines.empty()) {
    if (object.watch.load() < 0) {
      // The folder went away earlier: watch it again if it is back, and look
      // at the object at once, since its changes were not seen meanwhile.
      if (!addWatch(object)) return -1;
      if (object.closing.load()) {
        errno = EBADF;
        return -1;
      }
    } else {
      switch (waitForObject(object)) {
        case WakeReason::ObjectTouched:
          break;
        case WakeReason::WatchGone:
          object.watch.store(-1);
          errno = ENOENT;
          return -1;
        case WakeReason::Closing:
          errno = EBADF;
          return -1;
        case WakeReason::Error:
          return -1;
      }
    }
    collectChanges(object, true);
  }
  return deliver(object, buf, count);
}

int openDelta(const std::string& objectPath, const std::string& options) {
  auto object = std::make_shared<DeltaObject>();
  const std::string resolved = rootPath(objectPath);
  const size_t slash = resolved.rfind('/');
  object->folder = slash == 0 ? "/" : resolved.substr(0, slash);
  object->fileName = resolved.substr(slash + 1);
  object->objectName = object->fileName;
  if (object->fileName.empty()) {
    errno = EINVAL;
    return -1;
  }
  applyOptions(*object, options);
  object->fd = inotify_init1(IN_CLOEXEC);
  if (object->fd < 0) return -1;
  if (!addWatch(*object)) {
    const int err = errno;
    ::close(object->fd);
    errno = err;
    return -1;
  }
  // The reader's place in the journal, and the values it starts from, which
  // its first read reports.
  collectChanges(*object, false);
  const Attributes atOpen = object->reported;
  object->reported.clear();
  object->pendingLines = changedLines(*object, atOpen);
  std::lock_guard<std::mutex> lock(gTableMutex);
  gDeltaObjects[object->fd] = object;
  return object->fd;
}

}  // namespace

int ppsOpen(const char* path, int flags) {
  if (path == nullptr || *path == '\0') {
    errno = ENOENT;
    return -1;
  }
  const std::string full(path);
  const size_t question = full.find('?');
  if (question == std::string::npos) return fileOpen(rootPath(full).c_str(), flags | O_CLOEXEC);
  return openDelta(full.substr(0, question), full.substr(question + 1));
}

ssize_t ppsRead(int fd, void* buf, size_t count) {
  std::shared_ptr<DeltaObject> object = findDelta(fd);
  if (!object) return fileRead(fd, buf, count);
  if (buf == nullptr) {
    errno = EFAULT;
    return -1;
  }
  return readDelta(*object, static_cast<char*>(buf), count);
}

int ppsClose(int fd) {
  std::shared_ptr<DeltaObject> object;
  {
    std::lock_guard<std::mutex> lock(gTableMutex);
    auto it = gDeltaObjects.find(fd);
    if (it != gDeltaObjects.end()) {
      object = it->second;
      gDeltaObjects.erase(it);
    }
  }
  if (!object) return fileClose(fd);
  // Removing the watch queues an event that wakes a reader blocked on the
  // descriptor; the descriptor is closed once that reader has left.
  object->closing.store(true);
  const int wd = object->watch.load();
  if (wd >= 0) inotify_rm_watch(object->fd, wd);
  std::lock_guard<std::mutex> lock(object->readMutex);
  if (object->journalFd >= 0) ::close(object->journalFd);
  return ::close(object->fd);
}

namespace {

// One whole write of bytes to fd; 0, or the error number.
int writeAll(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    done += static_cast<size_t>(n);
  }
  return 0;
}

// The object's new text as one journal record, appended with one write; a
// full journal is replaced by one that starts with this record.
int appendToJournal(const std::string& object, const char* text, size_t length) {
  const size_t slash = object.rfind('/');
  const std::string journal = object.substr(0, slash + 1) + journalName(object.substr(slash + 1));
  const std::string record = std::to_string(length) + "\n" + std::string(text, length);
  struct stat st;
  const bool replace = ::stat(journal.c_str(), &st) == 0 && st.st_size >= kJournalLimit;
  const std::string target = replace ? journal + ".new" : journal;
  const int fd = ::open(target.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (replace ? O_TRUNC : O_APPEND), 0644);
  if (fd < 0) return -1;
  int err = writeAll(fd, record);
  if (::close(fd) != 0 && err == 0) err = errno;
  if (err == 0 && replace && ::rename(target.c_str(), journal.c_str()) != 0) err = errno;
  if (err != 0) {
    errno = err;
    return -1;
  }
  return 0;
}

}  // namespace

int ppsWrite(const char* path, const char* text, size_t length) {
  if (path == nullptr || *path == '\0' || std::strchr(path, '?') != nullptr) {
    errno = EINVAL;
    return -1;
  }
  const std::string object = rootPath(path);
  const std::string temporary = object + ".new";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  int err = writeAll(fd, std::string(text, length));
  if (::close(fd) != 0 && err == 0) err = errno;
  // Readers never see half an object: it is written aside and renamed over.
  if (err == 0 && ::rename(temporary.c_str(), object.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temporary.c_str());
    errno = err;
    return -1;
  }
  return appendToJournal(object, text, length);
}

}  // namespace platform

namespace {

bool isLineEnd(char c) { return c == '\n' || c == '\r'; }

// Object lines: "@name", or "-@name" / "#@name" / "*@name" for an object
// deleted, created or truncated.
pps_status_t objectLine(char* line, pps_attrib_t* info) {
  pps_status_t kind = PPS_OBJECT;
  if (*line != '@') {
    kind = *line == '-' ? PPS_OBJECT_DELETED : *line == '#' ? PPS_OBJECT_CREATED : PPS_OBJECT_TRUNCATED;
    ++line;
  }
  if (line[1] == '\0') return PPS_ERROR;
  info->obj_name = line + 1;
  return kind;
}

// "name:encoding:value"; the value may hold further colons.
pps_status_t attributeLine(char* line, pps_attrib_t* info) {
  char* firstColon = std::strchr(line, ':');
  if (firstColon == nullptr || firstColon == line) return PPS_ERROR;
  char* secondColon = std::strchr(firstColon + 1, ':');
  if (secondColon == nullptr) return PPS_ERROR;
  *firstColon = '\0';
  *secondColon = '\0';
  info->attr_name = line;
  info->encoding = firstColon + 1;
  info->value = secondColon + 1;
  return PPS_ATTRIBUTE;
}

}  // namespace

pps_status_t ppsparse(char** ppsdata, const char* const* objnames, const char* const* attrnames, pps_attrib_t* info,
                      int parse_flags) {
  if (ppsdata == nullptr || *ppsdata == nullptr || info == nullptr) return PPS_END;
  char* line = *ppsdata;
  while (isLineEnd(*line)) ++line;  // empty lines
  if (*line == '\0') {
    *ppsdata = line;
    return PPS_END;
  }
  char* end = line;
  while (*end != '\0' && *end != '\n') ++end;
  char* next = *end == '\n' ? end + 1 : end;
  *end = '\0';
  if (end[-1] == '\r') *--end = '\0';  // a line ended by "\r\n"
  *ppsdata = next;

  info->attr_name = nullptr;
  info->encoding = nullptr;
  info->value = nullptr;
  info->line_len = static_cast<int>(end - line);
  if (line[0] == '@' || ((line[0] == '-' || line[0] == '#' || line[0] == '*') && line[1] == '@'))
    return objectLine(line, info);
  if (line[0] == '-') {
    if (line[1] == '\0') return PPS_ERROR;
    info->attr_name = line + 1;
    return PPS_ATTRIBUTE_DELETED;
  }
  return attributeLine(line, info);
}

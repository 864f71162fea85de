// PPS objects on an ordinary folder.
//
// A plain open is an open(2) of the object's file. An open with options
// ("?wait,delta,f=A+B") returns an inotify descriptor watching the object's
// folder; reads on it block in read(2) of that descriptor until the object's
// file is closed after writing, renamed into place, created or removed, and
// then report the named attributes whose values changed since the last read.
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
#include "platform/pps.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/runtime.h"

namespace platform {

namespace {

using Attributes = std::map<std::string, std::string>;  // name -> "encoding:value"

constexpr uint32_t kWatchedEvents =
    IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVE_SELF;

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
  std::string pendingLines;  // attribute lines that did not fit the last read
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

// The whole file, or false when it cannot be read (absent).
bool readWholeFile(const std::string& path, std::string& text) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  text.clear();
  char chunk[65536];
  for (;;) {
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return true;
}

// The named attributes of the object as it is now; false when the object is
// absent or empty.
bool currentAttributes(const DeltaObject& object, Attributes& attributes) {
  std::string text;
  if (!readWholeFile(object.folder + "/" + object.fileName, text) || text.empty()) return false;
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
      if (event->mask & IN_MOVE_SELF) {
        // The folder was renamed: the object lives at its path, not in the
        // renamed folder, so the watch is given up like that of a removed one.
        inotify_rm_watch(object.fd, wd);
        gone = true;
      }
      if (event->len > 0 && object.fileName == event->name) touched = true;
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
    object.firstReadDone = true;
    // Nothing is reported yet, so every named value present is news.
    Attributes now;
    currentAttributes(object, now);
    object.pendingLines = changedLines(object, now);
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
    Attributes now;
    if (currentAttributes(object, now)) object.pendingLines = changedLines(object, now);
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
  if (question == std::string::npos) return ::open(rootPath(full).c_str(), flags | O_CLOEXEC);
  return openDelta(full.substr(0, question), full.substr(question + 1));
}

ssize_t ppsRead(int fd, void* buf, size_t count) {
  std::shared_ptr<DeltaObject> object = findDelta(fd);
  if (!object) return ::read(fd, buf, count);
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
  if (!object) return ::close(fd);
  // Removing the watch queues an event that wakes a reader blocked on the
  // descriptor; the descriptor is closed once that reader has left.
  object->closing.store(true);
  const int wd = object->watch.load();
  if (wd >= 0) inotify_rm_watch(object->fd, wd);
  std::lock_guard<std::mutex> lock(object->readMutex);
  return ::close(object->fd);
}

int ppsWrite(const char* path, const char* text, size_t length) {
  if (path == nullptr || *path == '\0' || std::strchr(path, '?') != nullptr) {
    errno = EINVAL;
    return -1;
  }
  const std::string object = rootPath(path);
  const std::string temporary = object + ".new";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  size_t done = 0;
  while (done < length) {
    const ssize_t n = ::write(fd, text + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  int err = done == length ? 0 : errno;
  if (::close(fd) != 0 && err == 0) err = errno;
  // Readers never see half an object: it is written aside and renamed over.
  if (err == 0 && ::rename(temporary.c_str(), object.c_str()) != 0) err = errno;
  if (err != 0) {
    ::unlink(temporary.c_str());
    errno = err;
    return -1;
  }
  return 0;
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

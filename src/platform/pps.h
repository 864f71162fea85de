// PPS objects: text files of the form
//   @vehstat
//   E_CALL_BtnStat::0
//   ODO::1234567
// A plain open (no "?") and read returns the whole file. An open whose path
// carries options, "?wait,delta,f=A+B", returns a descriptor whose first read
// gives "@name\n" and the current values of the named attributes, and whose
// every later read blocks until the file changes and then gives only the
// named attributes whose values changed (attributes that disappeared are
// reported as "-A"). Writers replace the file atomically (rename).
//
// Paths are given as the service writes them ("/pps/can/vehstat...") and are
// resolved under the root folder.
#pragma once

#include <sys/types.h>

namespace platform {

// open(2)-like: returns a descriptor or -1 with errno set.
int ppsOpen(const char* path, int flags);
// read(2)-like; blocks for a delta descriptor. A read that returns data
// returns whole lines only; the text is not zero-terminated.
ssize_t ppsRead(int fd, void* buf, size_t count);
int ppsClose(int fd);
// Replaces the object at path (as ppsOpen takes it) whole with the length
// bytes of text ("@name" and its attribute lines); 0, or -1 with errno set.
// Every writer of an object that delta readers watch writes it so.
int ppsWrite(const char* path, const char* text, size_t length);

}  // namespace platform

// The PPS line parser.
typedef enum {
  PPS_ERROR = -1,
  PPS_END = 0,
  PPS_OBJECT = 1,
  PPS_OBJECT_CREATED = 2,
  PPS_OBJECT_DELETED = 3,
  PPS_OBJECT_TRUNCATED = 4,
  PPS_ATTRIBUTE = 5,
  PPS_ATTRIBUTE_DELETED = 6,
} pps_status_t;

typedef struct {
  const char* obj_name;  // name of the object line last seen, or null
  const char* attr_name; // attribute name (attribute and deleted lines)
  const char* encoding;  // encoding text between the colons ("" for none)
  const char* value;     // value text (attribute lines)
  int line_len;          // length of the line parsed
} pps_attrib_t;

// Parses the next line of the zero-terminated text at *ppsdata, in place (it
// writes terminators into the text), fills *info and advances *ppsdata past
// the line. Grammar: "@name" object (a leading '-' or '#' or '*' marks the
// object deleted, created, truncated), "name:encoding:value" attribute,
// "-name" deleted attribute. Empty lines are skipped. objnames, attrnames and
// flags are accepted for the interface and ignored (no filter).
pps_status_t ppsparse(char** ppsdata, const char* const* objnames, const char* const* attrnames, pps_attrib_t* info,
                      int parse_flags);

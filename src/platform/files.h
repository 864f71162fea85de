// The service's own files: the emergency log and its exports, the marker
// files, the objects and the configuration it reads whole. open(2)-like
// calls on resolved paths (rootPath) that reach the kernel, unless a program
// has put a file system of its own in their place: the fuzz targets keep
// these files in memory, so that an input costs no system call.
//
// A PPS delta descriptor reads its object through these calls; its watch
// and change journal, and the emergency journal, stay on the kernel's
// files: they need inotify and fdatasync.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstdio>

namespace platform {

// What a file system provides; each call behaves as its POSIX namesake
// (a result of -1 sets errno).
struct fileSystem {
  int (*open)(const char* path, int flags, mode_t mode);
  ssize_t (*read)(int fd, void* buf, size_t count);
  ssize_t (*write)(int fd, const void* buf, size_t count);
  off_t (*size)(int fd);  // fstat's st_size
  int (*truncate)(int fd, off_t length);
  int (*close)(int fd);
  int (*unlink)(const char* path);
  int (*mkdir)(const char* path, mode_t mode);
  FILE* (*openStream)(const char* path, const char* mode);  // fopen
};

// Replaces the kernel's file system for the whole process (null: the
// kernel's again). Set before the first file is opened, never while one is.
void setFileSystem(const fileSystem* replacement);

int fileOpen(const char* path, int flags, mode_t mode = 0);
ssize_t fileRead(int fd, void* buf, size_t count);
ssize_t fileWrite(int fd, const void* buf, size_t count);
off_t fileSize(int fd);
int fileTruncate(int fd, off_t length);
int fileClose(int fd);
int fileUnlink(const char* path);
int makeFolder(const char* path, mode_t mode);
FILE* fileOpenStream(const char* path, const char* mode);

}  // namespace platform

// A file system in memory in place of the kernel's for the service's own
// files (platform/files.h): files and folders by their resolved path, with
// the errors the kernel gives for a missing file or folder, an existing one
// (O_EXCL) and a folder opened as a file. Nothing is ever written to disk,
// and a file removed and made again reuses its memory.
#pragma once

#include <string>

namespace memoryFiles {

// Puts the memory in place of the kernel's files for the whole process.
void install();

// A file as another process writes it: the whole content, its folders made.
void put(const std::string& path, const std::string& content);

// Removes every file in the folder (not in folders below it) that is not open.
void removeFilesIn(const std::string& folder);

}  // namespace memoryFiles

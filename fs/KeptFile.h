// Puts a damaged file out of harm's way, under a name of its own: the path
// followed by ".kept-" and the first number that is free. What was kept
// earlier is never overwritten.
#pragma once

#include <string>

#include "fs/File.h"

namespace kept {

// Renames a file that nobody holds; returns its new path. Throws
// std::runtime_error.
std::string MoveAside(const std::string& path);

// Copies an open file but for the bytes from offset begin to offset end, which
// are not in danger; flushed. Returns the copy's path. The position is left
// anywhere. Throws std::runtime_error, and has then left no copy.
std::string CopyAside(File& file, unsigned begin, unsigned end);

}  // namespace kept

// Saves what a damaged file is about to lose under a name of its own: the path followed by ".kept-"
// and the first number that is free. A saved file is never overwritten.
#pragma once

#include <string>

#include "fs/File.h"

namespace kept {

constexpr unsigned kMaxCopies = 9999;

// Renames a file that no opener holds; returns its new path. Throws std::runtime_error.
std::string MoveAside(const std::string& path);

// Copies the first headSize bytes of an open file and those from begin to end, flushed. Returns the
// copy's path; empty, with nothing copied, when there are `limit` copies. Leaves the position
// undefined. Throws std::runtime_error, and has then left no copy.
std::string CopyAside(File& file, unsigned headSize, unsigned begin, unsigned end, unsigned limit);

}  // namespace kept

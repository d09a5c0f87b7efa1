// Sets aside what a damaged file is about to lose, under a name of its own: the path followed by
// ".kept-" and the first number that is free. What was set aside is never overwritten. The number 0
// is for a file that was moved and whose place is not taken yet: it alone says why there is no file
// at the path.
#pragma once

#include <string>

#include "fs/File.h"

namespace kept {

constexpr unsigned kMaxCopies = 9999;

// Renames a file that no opener holds. Throws std::runtime_error.
void MoveAside(const std::string& path);
bool IsMovedAside(const std::string& path);
// Whether something of the file was ever set aside.
bool HasCopy(const std::string& path);

// Once there is a new file at the path, gives one that was moved aside its number. Returns its
// name; empty if there is none. Throws std::runtime_error.
std::string NumberMoved(const std::string& path);

// Copies the first headSize bytes of an open file and those from begin to end, flushed. Returns the
// copy's path; empty, with nothing copied, when there are `limit` copies. Leaves the position
// undefined. Throws std::runtime_error, and has then left no copy.
std::string CopyAside(File& file, unsigned headSize, unsigned begin, unsigned end, unsigned limit);

}  // namespace kept

#include "pack/KeptFile.h"

#include <algorithm>
#include <optional>

#include "fs/FileSystem.h"
#include "pack/format/FileNames.h"
#include "platform/BlobAllocator.h"

namespace kept {

namespace {

constexpr unsigned kPieceSize = 64 * 1024;

// Empty when all of them are taken.
std::string FreeName(const std::string& path, unsigned limit) {
  for (unsigned n = 1; n <= limit; ++n) {
    std::string name = format::KeptPath(path, n);
    if (!FileSystem::Exists(name)) return name;
  }
  return {};
}

void CopyBytes(File& from, File& to, unsigned begin, unsigned end) {
  if (begin >= end) return;
  PooledBytes piece(std::min(kPieceSize, end - begin));
  from.seek(begin);
  for (unsigned at = begin; at < end;) {
    char* const bytes = reinterpret_cast<char*>(piece.data());
    at += to.write(bytes, from.read(bytes, std::min(kPieceSize, end - at)));
  }
}

}  // namespace

void MoveAside(const std::string& path) {
  FileSystem::MoveFileW(path, format::KeptPath(path, 0));
}

bool IsMovedAside(const std::string& path) {
  return FileSystem::Exists(format::KeptPath(path, 0));
}

bool HasCopy(const std::string& path) {
  return FileSystem::Exists(format::KeptPath(path, 1));
}

std::string NumberMoved(const std::string& path) {
  if (!IsMovedAside(path)) return {};
  std::string name = FreeName(path, kMaxCopies);
  if (name.empty()) throw Failure(FailureCode::Io, "kept::NumberMoved no name left for " + path);
  FileSystem::MoveFileW(format::KeptPath(path, 0), name);
  return name;
}

std::string CopyAside(File& file, unsigned headSize, unsigned begin, unsigned end, unsigned limit) {
  std::string name = FreeName(file.Path(), limit);
  if (name.empty()) return name;
  std::optional<File> copy(std::in_place);
  copy->open(name, GENERIC_READ | GENERIC_WRITE, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
  try {
    CopyBytes(file, *copy, 0, std::min(headSize, end));
    CopyBytes(file, *copy, begin, end);
    copy->close();  // flushes
  } catch (...) {
    copy.reset();  // a file that is open cannot be deleted
    FileSystem::Remove(name);
    throw;
  }
  return name;
}

}  // namespace kept

#include "fs/KeptFile.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "fs/FileSystem.h"
#include "platform/BlobAllocator.h"

namespace kept {

namespace {

constexpr unsigned kMaxKept = 9999;
constexpr unsigned kPieceSize = 64 * 1024;

bool Exists(const std::string& path) {
  const HANDLE handle = ::CreateFileW(FileSystem::ConvertString(path).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, 0);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError() != ERROR_FILE_NOT_FOUND;
  CloseHandle(handle);
  return true;
}

std::string FreeName(const std::string& path) {
  for (unsigned n = 1; n <= kMaxKept; ++n) {
    std::string name = path + ".kept-" + std::to_string(n);
    if (!Exists(name)) return name;
  }
  throw std::runtime_error("kept::FreeName no name left for " + path);
}

void CopyBytes(File& from, File& to, unsigned begin, unsigned end) {
  std::vector<char, BlobAllocator<char, TesselMemoryManager::kContainerPool, kTagBytes>> piece;
  piece.resize(kPieceSize);
  from.seek(begin);
  for (unsigned at = begin; at < end;) {
    const unsigned n = from.read(piece.data(), std::min(kPieceSize, end - at));
    to.write(piece.data(), n);
    at += n;
  }
}

}  // namespace

std::string MoveAside(const std::string& path) {
  std::string name = FreeName(path);
  FileSystem::MoveFileW(path, name);
  return name;
}

std::string CopyAside(File& file, unsigned begin, unsigned end) {
  std::string name = FreeName(file.Path());
  File copy;
  copy.open(name, GENERIC_READ | GENERIC_WRITE, CREATE_NEW, FILE_ATTRIBUTE_NORMAL);
  try {
    CopyBytes(file, copy, 0, begin);
    CopyBytes(file, copy, end, file.size());
    copy.close();  // flushes
  } catch (...) {
    FileSystem::Remove(name);
    throw;
  }
  return name;
}

}  // namespace kept

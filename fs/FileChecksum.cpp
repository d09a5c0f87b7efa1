// FileSystem's digests of files and the checksum file that rests on them.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "md5/MD5.h"
#include "pack/Hash.h"

namespace {

constexpr unsigned kMaxPiece = 512;

// The digest of what is left of a file. File reads all or nothing, so the last piece is cut to what
// its length leaves.
MD5 DigestRest(File& f, unsigned piece) {
  MD5 digest;
  const unsigned begin = f.tell();
  const unsigned end = f.size();
  if (end == INVALID_FILE_SIZE)
    throw std::runtime_error("FileSystem::GetFileChksum no size of " + f.Path() +
                             " GetLastError code = " + std::to_string(GetLastError()));
  char buffer[kMaxPiece];
  for (unsigned at = begin, n = 0; at < end; at += n) {
    n = f.read(buffer, std::min(piece, end - at));
    digest.update(reinterpret_cast<const unsigned char*>(buffer), n);
  }
  digest.finalize();
  return digest;
}

}  // namespace

void FileSystem::GetFileChksum(File& f, Hash& out, unsigned limit) {
  unsigned char raw[Hash::kSize];
  DigestRest(f, limit == 0 ? kMaxPiece : std::min(limit, kMaxPiece)).raw_digest(raw);
  out.setHash(raw);
}

void FileSystem::GetFileChksum(File& f, std::string& out) {
  DigestRest(f, kMaxPiece).hex_digest(out);
}

void FileSystem::GetFileChksum(std::string path, std::string& out) {
  FileReader reader;
  reader.open(path);
  GetFileChksum(reader, out);
  reader.close();
}

bool FileSystem::ValidateFile(File& f, const std::string& expected) {
  std::string computed;
  GetFileChksum(f, computed);
  return expected == computed;
}

bool FileSystem::ValidateFile(std::string path, const std::string& expected) {
  std::string computed;
  GetFileChksum(path, computed);
  return expected == computed;
}

bool ChkFile::Validate(FileReader& f) {
  f.seek(0);
  char stored[Hash::kSize];
  f.read(stored, sizeof stored);
  Hash computed;
  FileSystem::GetFileChksum(f, computed, 0);
  return std::memcmp(stored, computed.Bytes(), sizeof stored) == 0;
}

bool ChkFile::Validate(std::string& path) {
  FileReader reader;
  reader.open(path);
  return Validate(reader);
}

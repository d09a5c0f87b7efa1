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

// Feeds what is left of a file to a digest. File reads all or nothing, so
// that the last piece is cut to what its length leaves.
MD5 DigestRest(File& f, unsigned piece) {
  MD5 digest;
  unsigned at = f.tell();
  const unsigned end = f.size();
  if (end == INVALID_FILE_SIZE)
    throw std::runtime_error("FileSystem::GetFileChksum no size of " + f.Path() +
                             " GetLastError code = " + std::to_string(GetLastError()));
  char buffer[kMaxPiece];
  while (at < end) {
    const unsigned n = f.read(buffer, std::min(piece, end - at));
    digest.update(reinterpret_cast<const unsigned char*>(buffer), n);
    at += n;
  }
  digest.finalize();
  return digest;
}

}  // namespace

void FileSystem::GetFileChksum(File& f, Hash& out, unsigned limit) {
  const unsigned piece = limit == 0 ? kMaxPiece : std::min(limit, kMaxPiece);
  unsigned char raw[Hash::kSize];
  DigestRest(f, piece).raw_digest(raw);
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
  FileReader reader;
  reader.open(path);
  const bool valid = ValidateFile(reader, expected);
  reader.close();
  return valid;
}

bool ChkFile::Validate(FileReader& f) {
  f.seek(0);
  char stored[Hash::kSize] = {};
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

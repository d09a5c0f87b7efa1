// What the first bytes of a pack or journal show: whether a store wrote them, and whether anything
// was ever committed.
#pragma once

#include <cstdint>

#include "pack/format/Format.h"

namespace format {

// The header of a file that was created and not used.
FileHeader FreshHeader(std::uint32_t mode);

// Whether nothing was ever committed to a pack or journal of `size` bytes, which begins with these:
// at most a header of zeros, the beginning of a fresh one, or bytes in place of a header that no
// store wrote. Some file systems show those in a file that has grown.
bool WasCutOff(const unsigned char* bytes, std::uint64_t size, std::uint32_t mode);

// Whether its records can end where the header says, in a file of `size` bytes.
bool EndsWithin(const FileHeader& header, std::uint64_t size);

// Whether a store can have written this header.
bool IsOurs(const FileHeader& header);

// Where a file seems to come from.
enum class Origin {
  kMissing,
  kUnused,   // a new store: nothing was ever committed
  kStore,    // a store can have written its header
  kDamaged,  // it may be a store's, damaged since
  kForeign,
};

// Of a file of `size` bytes, which begins with these: the first kFileHeaderSize, zeros past its
// end.
Origin OriginOf(const unsigned char* bytes, std::uint64_t size, std::uint32_t mode);

// A file as its header shows it.
struct FileStatus {
  enum class State {
    kMissing,
    kNew,      // empty, or cut off while it was created
    kSound,    // the header can be what a commit wrote
    kDamaged,  // it cannot
  };

  // `bytes`: the first kFileHeaderSize of the file, zeros past its end. For a pack or a journal,
  // whichever it is.
  static FileStatus Judge(const unsigned char* bytes, std::uint64_t fileSize);

  // False if the header alone rules out a load.
  bool IsLoadable() const;
  // Whether it may have records.
  bool IsUsed() const { return state == State::kDamaged || header.endOffset > kFileHeaderSize; }

  State state = State::kMissing;
  std::uint64_t size = 0;  // of the file, bytes
  FileHeader header;
};

// As people read them: "missing", "new", "sound" or "damaged".
inline const char* NameOf(FileStatus::State state) {
  constexpr const char* kNames[] = {"missing", "new", "sound", "damaged"};
  return kNames[static_cast<int>(state)];
}

}  // namespace format

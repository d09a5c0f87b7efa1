// A possibly damaged file on a possibly failing disk, opened for reading only.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "blobring/Store.h"
#include "pack/format/ByteSource.h"
#include "tools/base/Files.h"

namespace tool {

// A set of offsets as disjoint ranges: begin, and one past the last.
using Ranges = std::map<uint64_t, uint64_t>;

void Add(Ranges& ranges, uint64_t begin, uint64_t end);
bool Contains(const Ranges& ranges, uint64_t at);
// What is missing from [begin, end).
Ranges Gaps(const Ranges& ranges, uint64_t begin, uint64_t end);

// Reads with pread(2): a mapping would kill the process if the file was cut short meanwhile. Blocks
// that cannot be read, or are gone, read as zeros and are noted.
class SalvageFile final : public format::ByteSource {
 public:
  // Throws Fault if the file cannot be opened or is not a regular file.
  explicit SalvageFile(const std::string& path) : SalvageFile(Opened(path)) {}

  const Ranges& unreadable() const { return unreadable_; }

 private:
  struct Opened {
    explicit Opened(const std::string& path);
    Fd fd;
    uint64_t size = 0;
  };

  explicit SalvageFile(Opened opened);
  std::span<unsigned char> Allocate(size_t size) override;
  // Past the end of the file there are zeros.
  void ReadFile(uint64_t offset, unsigned char* to, size_t size) override;

  Fd fd_;
  std::vector<unsigned char> window_;
  Ranges unreadable_;
};

}  // namespace tool

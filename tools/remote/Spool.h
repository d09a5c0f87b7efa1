// A temporary file without a name: what is being uploaded or downloaded and is too large for
// memory.
#pragma once

#include <string>
#include <string_view>

#include "blobring/Store.h"
#include "tools/base/Files.h"

namespace tool::remote {

class Spool {
 public:
  // In $TMPDIR, or /var/tmp. Throws Fault, as all calls do.
  Spool();

  void Append(std::string_view data);
  void WriteAt(uint64_t offset, std::string_view data);
  void Clear();

  // Returns the bytes read: fewer than `size` at the end only.
  size_t Read(uint64_t offset, char* out, size_t size) const;

  uint64_t size() const { return size_; }

  blobring::Hash Digest() const;  // MD5

  // Opens the file for as long as this lives.
  std::string path() const { return fmt::format("/proc/self/fd/{}", file_.get()); }

 private:
  Fd file_;
  uint64_t size_ = 0;
};

}  // namespace tool::remote

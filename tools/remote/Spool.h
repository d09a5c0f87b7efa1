// What is being uploaded or downloaded: in memory, or in a temporary file without a name.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tools/base/Files.h"

namespace tool::remote {

// Threads: one at a time uses a Spool. Different ones may be made and used on different threads.
class Spool {
 public:
  // In memory if maxSize bytes still fit into the 192 MiB that all Spools share; else, or for 0, in
  // a file in $TMPDIR or /var/tmp. More may be written. Throws Fault, as all calls do.
  explicit Spool(uint64_t maxSize = 0);
  ~Spool();
  Spool(const Spool&) = delete;

  void Append(std::string_view data);
  void WriteAt(uint64_t offset, std::string_view data);
  void Clear();

  uint64_t size() const { return size_; }

  // Returns the bytes read: fewer than `size` at the end only.
  size_t Read(uint64_t offset, char* out, size_t size) const;

  // All of it. A file is mapped: nothing else has a name for it.
  struct Bytes {
    std::string_view text;  // until the next write
    std::shared_ptr<void> mapping = nullptr;
  };
  Bytes Map() const;

  // Opens the file for as long as this lives. REQUIRES: it was made with 0.
  std::string path() const { return fmt::format("/proc/self/fd/{}", file_.get()); }

 private:
  uint64_t reserved_ = 0;  // of the memory of all
  std::string memory_;
  Fd file_;  // invalid: it is in memory
  uint64_t size_ = 0;
};

}  // namespace tool::remote

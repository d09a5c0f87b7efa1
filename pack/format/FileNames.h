// The names of a store's files: k.pak and k.jrn for slot k, with ".kept-N" behind for what a load
// has set aside, and ".new" for the unfinished pack of a repack.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace format {

std::string PackName(std::uint64_t slot);
std::string JournalName(std::uint64_t slot);
std::string PackPath(std::string_view directory, std::uint64_t slot);
std::string JournalPath(std::string_view directory, std::uint64_t slot);

// Of the file at `path`.
std::string KeptPath(std::string_view path, unsigned number);
std::string NewPath(std::string_view path);

struct FileName {
  // A name without a directory; nothing for files that are not a store's.
  static std::optional<FileName> Parse(std::string_view name);

  bool IsOfSlot() const { return suffix.empty(); }
  bool IsSetAside() const { return suffix.starts_with(".kept-"); }
  bool IsUnfinished() const { return suffix == ".new"; }

  std::uint64_t slot = 0;
  bool isPack = false;
  std::string suffix;  // ".kept-N", ".new" or nothing
};

}  // namespace format

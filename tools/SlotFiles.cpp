#include "tools/SlotFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/Error.h"
#include "tools/Fd.h"

namespace tool {
namespace {

using State = SlotFile::State;

SlotFile Inspect(const std::string& path) {
  const Fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid() && errno == ENOENT) {
    SlotFile missing;
    missing.path = path;
    return missing;
  }
  if (!fd.valid()) ThrowErrno("read " + path);
  struct stat status = {};
  std::array<unsigned char, format::kFileHeaderSize> bytes = {};
  const ssize_t got = ::pread(fd.get(), bytes.data(), bytes.size(), 0);
  if (got < 0 || ::fstat(fd.get(), &status) != 0) ThrowErrno("read " + path);
  return DescribeHeader(path, static_cast<uint64_t>(status.st_size), Bytes(bytes).first(static_cast<size_t>(got)));
}

bool IsLoadable(const SlotFile& pack) {
  return pack.state == State::kNew || (pack.state == State::kSound && pack.header.sequence >= 0);
}

}  // namespace

SlotFile DescribeHeader(const std::string& path, uint64_t fileSize, Bytes header) {
  std::array<unsigned char, format::kFileHeaderSize> bytes = {};
  std::copy_n(header.begin(), std::min(header.size(), bytes.size()), bytes.begin());
  SlotFile file{State::kDamaged, path, fileSize, format::FileHeader::Decode(bytes.data())};
  const bool isZero = std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
  if (fileSize < bytes.size() || (isZero && fileSize == bytes.size()))
    file.state = State::kNew;
  else if (file.header.endOffset >= bytes.size() && file.header.endOffset <= fileSize &&
           static_cast<int32_t>(file.header.recordCount) >= 0)
    file.state = State::kSound;
  return file;
}

std::string_view SlotFile::StateName() const {
  constexpr std::array<std::string_view, 4> kNames = {"missing", "new", "sound", "damaged"};
  return kNames.at(static_cast<size_t>(state));
}

SlotFiles::SlotFiles(const Layout& layout) : store_(layout.store()) {
  for (size_t slot = 0; slot < layout.slotCount(); ++slot)
    slots_.push_back({Inspect(layout.PackPath(slot)), Inspect(layout.JournalPath(slot))});
}

uint64_t SlotFiles::totalSize() const {
  uint64_t size = 0;
  for (const auto& [pack, journal] : slots_) size += pack.size + journal.size;
  return size;
}

bool SlotFiles::HoldRecords() const {
  return std::any_of(slots_.begin(), slots_.end(),
                     [](const auto& slot) { return slot[0].HasRecords() || slot[1].HasRecords(); });
}

void SlotFiles::RequirePresent() const {
  for (const auto& slot : slots_)
    for (const SlotFile& file : slot)
      if (file.state == State::kMissing)
        throw Fault(
            fmt::format("{} is missing; nothing was changed. Is the disk that holds it mounted? If it is "
                        "lost, `blobring salvage {} NEW` copies what is left into a new store; or restore the "
                        "whole store from a backup",
                        file.path, store_));
}

void SlotFiles::RequireLoadable() const {
  if (std::any_of(slots_.begin(), slots_.end(), [](const auto& slot) { return IsLoadable(slot[0]); })) return;
  const SlotFile& pack = slots_.front()[0];
  throw Fault(
      fmt::format("no pack can be loaded: the header of {} is damaged (sequence {}, {} of {} bytes in use); "
                  "nothing was changed. `blobring salvage {} NEW` copies what can be read into a new store; or "
                  "restore a backup",
                  pack.path, pack.header.sequence, pack.header.endOffset, pack.size, store_));
}

}  // namespace tool

#include "tools/SlotFiles.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/Error.h"

namespace tool {
namespace {

constexpr size_t kRecordCountAt = 4;
constexpr size_t kSequenceAt = 12;
constexpr size_t kEndOffsetAt = 20;

using Header = std::array<unsigned char, kFileHeaderSize>;

uint32_t Word(const Header& header, size_t at) {
  return uint32_t{header[at]} | uint32_t{header[at + 1]} << 8 | uint32_t{header[at + 2]} << 16 |
         uint32_t{header[at + 3]} << 24;
}

bool AllZero(const Header& header) {
  return std::all_of(header.begin(), header.end(), [](unsigned char byte) { return byte == 0; });
}

SlotFile::State StateOf(const SlotFile& file, const Header& header, size_t headerSize) {
  if (file.size <= kFileHeaderSize && (headerSize < kFileHeaderSize || AllZero(header))) return SlotFile::State::kNew;
  const bool possible = headerSize == kFileHeaderSize && file.endOffset >= kFileHeaderSize &&
                        file.endOffset <= file.size && static_cast<int32_t>(Word(header, kRecordCountAt)) >= 0;
  return possible ? SlotFile::State::kSound : SlotFile::State::kDamaged;
}

bool Loadable(const SlotFile& pack) {
  return pack.state == SlotFile::State::kNew || (pack.state == SlotFile::State::kSound && pack.sequence >= 0);
}

bool HasRecords(const SlotFile& file) {
  return file.state == SlotFile::State::kDamaged || file.endOffset > kFileHeaderSize;
}

}  // namespace

SlotFile DescribeHeader(const std::string& path, uint64_t fileSize, Bytes header) {
  Header bytes = {};
  const size_t headerSize = std::min(header.size(), bytes.size());
  std::copy_n(header.begin(), headerSize, bytes.begin());
  SlotFile file;
  file.path = path;
  file.size = fileSize;
  file.sequence = static_cast<int32_t>(Word(bytes, kSequenceAt));
  file.endOffset = Word(bytes, kEndOffsetAt);
  file.state = StateOf(file, bytes, headerSize);
  return file;
}

SlotFile InspectFile(const std::string& path) {
  const Fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid() && errno == ENOENT) {
    SlotFile missing;
    missing.path = path;
    return missing;
  }
  if (!fd.valid()) ThrowErrno("read " + path);
  struct stat status = {};
  Header header = {};
  const ssize_t got = ::pread(fd.get(), header.data(), header.size(), 0);
  if (got < 0 || ::fstat(fd.get(), &status) != 0) ThrowErrno("read " + path);
  return DescribeHeader(path, static_cast<uint64_t>(status.st_size), Bytes(header).first(static_cast<size_t>(got)));
}

SlotFiles::SlotFiles(const Layout& layout) : store_(layout.store()) {
  for (size_t slot = 0; slot < layout.slotCount(); ++slot)
    slots_.push_back({InspectFile(layout.PackPath(slot)), InspectFile(layout.JournalPath(slot))});
}

int SlotFiles::Current() const {
  const SlotFile* newest = nullptr;
  for (const Slot& slot : slots_)
    if (Loadable(slot.pack) && (newest == nullptr || slot.pack.sequence > newest->sequence)) newest = &slot.pack;
  if (newest == nullptr) return -1;
  return static_cast<int>(static_cast<uint32_t>(newest->sequence) % slots_.size());
}

void SlotFiles::RequirePresent() const {
  for (const Slot& slot : slots_)
    for (const SlotFile* file : {&slot.pack, &slot.journal})
      if (file->state == SlotFile::State::kMissing)
        throw Fault(
            fmt::format("{} is missing; nothing was changed. Is the disk that holds it mounted? If it is "
                        "lost, `blobring salvage {} NEW` copies what is left into a new store; or restore the "
                        "whole store from a backup",
                        file->path, store_));
}

void SlotFiles::RequireLoadable() const {
  RequirePresent();
  if (Current() >= 0) return;
  const SlotFile& pack = slots_.front().pack;
  throw Fault(
      fmt::format("no pack can be loaded: the header of {} is damaged (sequence {}, {} of {} bytes in use); "
                  "nothing was changed. `blobring salvage {} NEW` copies what can be read into a new store; or "
                  "restore a backup",
                  pack.path, pack.sequence, pack.endOffset, pack.size, store_));
}

bool SlotFiles::HoldRecords() const {
  return std::any_of(slots_.begin(), slots_.end(),
                     [](const Slot& slot) { return HasRecords(slot.pack) || HasRecords(slot.journal); });
}

}  // namespace tool

#include "tools/SlotFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "tools/Fd.h"

namespace tool {
namespace {

using State = SlotFile::State;

SlotFile Inspect(const std::string& path) {
  SlotFile file;
  file.path = path;
  const Fd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid() && errno == ENOENT) return file;
  if (!fd.valid()) ThrowErrno("read " + path);
  struct stat status = {};
  std::array<unsigned char, format::kFileHeaderSize> bytes = {};
  if (::pread(fd.get(), bytes.data(), bytes.size(), 0) < 0 || ::fstat(fd.get(), &status) != 0)
    ThrowErrno("read " + path);
  file.size = static_cast<uint64_t>(status.st_size);
  file.header = format::FileHeader::Decode(bytes.data());
  const bool isZero =
      std::all_of(bytes.begin(), bytes.end(), [](unsigned char byte) { return byte == 0; });
  const bool isPossible = file.header.endOffset >= bytes.size() &&
                          file.header.endOffset <= file.size &&
                          static_cast<int32_t>(file.header.recordCount) >= 0;
  if (file.size < bytes.size() || (isZero && file.size == bytes.size()))
    file.state = State::kNew;
  else
    file.state = isPossible ? State::kSound : State::kDamaged;
  return file;
}

}  // namespace

bool SlotFile::IsLoadable() const {
  return state == State::kNew ||
         (header.version == format::kVersion && header.mode <= 1 && header.sequence >= 0 &&
          static_cast<int32_t>(header.recordCount) >= 0);
}

std::string_view SlotFile::StateName() const {
  constexpr std::array<std::string_view, 4> kNames = {"missing", "new", "sound", "damaged"};
  return kNames.at(static_cast<size_t>(state));
}

std::vector<SlotFile> ReadSlotFiles(const Layout& layout) {
  std::vector<SlotFile> files;
  for (size_t slot = 0; slot < layout.slotCount(); ++slot)
    for (const std::string& path : {layout.PackPath(slot), layout.JournalPath(slot)})
      files.push_back(Inspect(path));
  return files;
}

}  // namespace tool

#include "store/Opening.h"

#include <algorithm>
#include <optional>

#include "fs/File.h"
#include "fs/FileSystem.h"
#include "pack/BlobFile.h"
#include "pack/KeptFile.h"
#include "pack/format/Conf.h"
#include "pack/format/FileNames.h"
#include "pack/format/Generation.h"
#include "pack/format/Headers.h"
#include "platform/Failure.h"

using format::Origin;

namespace {

// How far past the last slot to look for stray journals. The slots of a store are contiguous.
constexpr std::uint32_t kSlotsAhead = 16;
constexpr std::uint32_t kMaxLayoutSize = 8 * 1024 * 1024;  // 1000 lines of twice PATH_MAX

// A pack or journal as its first bytes show it.
struct SlotFile {
  std::string path;
  bool isPack = false;
  Origin origin = Origin::kMissing;
  std::int32_t sequence = 0;  // of a store's
};

SlotFile Inspect(const std::string& path, BlobFile::BlobFileMode mode) {
  SlotFile file{path, mode == BlobFile::Pack};
  if (!FileSystem::Exists(path)) return file;
  FileReader reader;
  reader.open(path);
  unsigned char bytes[format::kFileHeaderSize] = {};
  reader.read(reinterpret_cast<char*>(bytes), std::min(reader.size(), format::kFileHeaderSize));
  file.origin = format::OriginOf(bytes, reader.size(), mode);
  if (file.origin == Origin::kStore) file.sequence = format::FileHeader::Decode(bytes).sequence;
  return file;
}

struct SlotsOnDisk {
  std::vector<SlotFile> packs;
  std::vector<SlotFile> journals;

  template <class Test>
  const SlotFile* First(Test test) const {
    for (std::size_t slot = 0; slot < packs.size(); ++slot)
      for (const SlotFile* file : {&packs[slot], &journals[slot]})
        if (test(*file)) return file;
    return nullptr;
  }
};

SlotsOnDisk InspectAll(const std::string& directory, const std::vector<std::string>& packDirs) {
  SlotsOnDisk slots;
  for (std::size_t slot = 0; slot < packDirs.size(); ++slot) {
    slots.packs.push_back(Inspect(format::PackPath(packDirs[slot], slot), BlobFile::Pack));
    slots.journals.push_back(Inspect(format::JournalPath(directory, slot), BlobFile::Journal));
  }
  return slots;
}

// A file of the layout may be damaged; it is the load that deals with it. But what no store can
// have written may be another's, and a link may have led here.
void RequireOurs(const SlotsOnDisk& slots, bool hasLayout) {
  const auto isStrange = [&](const SlotFile& f) {
    return f.origin == Origin::kForeign || (!hasLayout && f.origin == Origin::kDamaged);
  };
  if (const SlotFile* file = slots.First(isStrange))
    throw Failure(FailureCode::Refused, file->path, " is not a file of a store");
}

// Without a layout file, the files themselves must agree with the slots.
void RequireTheseSlots(const std::string& directory, const SlotsOnDisk& slots) {
  const auto count = static_cast<std::uint32_t>(slots.packs.size());
  for (std::uint32_t slot = count; slot < count + kSlotsAhead; ++slot) {
    const std::string journal = format::JournalPath(directory, slot);
    if (FileSystem::Exists(journal))
      throw Failure(FailureCode::Argument, journal, " belongs to a store of more than ", count,
                    " slots");
  }
  for (std::uint32_t slot = 0; slot < count; ++slot) {
    for (const SlotFile* file : {&slots.packs[slot], &slots.journals[slot]}) {
      if (file->sequence > 0 && format::SlotOf(file->sequence, count) != slot)
        throw Failure(FailureCode::Argument, file->path, " has generation ", file->sequence,
                      ", which a store of ", count, " slots has elsewhere");
    }
  }
}

// A new store's files are created in order, each flushed, before anything is committed. If creation
// was interrupted, the last ones are missing and none has been used. A load that moves all files
// aside leaves a name that says so.
void RequireNoneMissing(const std::string& directory, const SlotsOnDisk& slots, bool mustExist,
                        bool hasLayout) {
  const auto isUsed = [](const SlotFile& f) { return f.origin > Origin::kUnused; };
  const auto exists = [](const SlotFile& f) { return f.origin != Origin::kMissing; };
  if (mustExist && !hasLayout && slots.First(exists) == nullptr)
    throw Failure(FailureCode::NoStore, "there is no store in ", directory);
  const bool journalUsed = std::any_of(slots.journals.begin(), slots.journals.end(), isUsed);
  const SlotFile* const missing = slots.First([&](const SlotFile& f) {
    const bool needsPack = journalUsed && f.isPack;
    return !exists(f) && (needsPack || !kept::IsMovedAside(f.path));
  });
  if (missing == nullptr) return;
  bool isBehind = false;
  const auto existsBehind = [&](const SlotFile& f) {
    isBehind = isBehind || &f == missing;
    return isBehind && exists(f);
  };
  if (mustExist || slots.First(isUsed) != nullptr || slots.First(existsBehind) != nullptr ||
      kept::HasCopy(missing->path))
    throw Failure(FailureCode::Refused, missing->path, " is missing from the store in ", directory,
                  "; is the disk that holds it mounted?");
}

void RequireNewestPack(const SlotsOnDisk& slots) {
  const auto older = [](const SlotFile& a, const SlotFile& b) { return a.sequence < b.sequence; };
  const SlotFile& pack = *std::max_element(slots.packs.begin(), slots.packs.end(), older);
  const SlotFile& journal = *std::max_element(slots.journals.begin(), slots.journals.end(), older);
  if (journal.sequence > pack.sequence)
    throw Failure(FailureCode::Damaged, journal.path, " has generation ", journal.sequence,
                  ", but the newest pack, ", pack.path, ", has ", pack.sequence);
}

// The text of the layout file; nothing where there is none.
std::optional<std::string> ReadLayout(const std::string& path) {
  if (!FileSystem::Exists(path)) return std::nullopt;
  FileReader reader;
  reader.open(path);
  if (reader.size() > kMaxLayoutSize)
    throw Failure(FailureCode::Damaged, path, " is too large for a layout file");
  std::string text(reader.size(), '\0');
  if (!text.empty()) reader.read(text.data(), static_cast<unsigned>(text.size()));
  return text;
}

std::string AbsoluteDirectory(const std::string& given) {
  std::string path = FileSystem::AbsolutePath(given);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The directories that the layout file names, with which the options must agree.
std::vector<std::string> RecordedDirs(const std::string& directory, const std::string& conf,
                                      const std::string& text, const OpenOptions& options) {
  auto [packDirs, error] = format::Conf::Parse(conf, text);
  if (!error.empty()) throw Failure(FailureCode::Damaged, error);
  if (options.slotCount != 0 && options.slotCount != packDirs.size())
    throw Failure(FailureCode::Argument, conf, " names ", packDirs.size(), " slots, not ",
                  options.slotCount);
  for (std::size_t slot = 0; slot < packDirs.size(); ++slot) {
    std::string& dir = packDirs[slot];
    if (dir == format::Conf::kOwnDirectory) dir = directory;
    const char* const given = options.packDirs != nullptr ? options.packDirs[slot] : dir.c_str();
    if (AbsoluteDirectory(given) != AbsoluteDirectory(dir))
      throw Failure(FailureCode::Argument, conf, " has the pack of slot ", slot, " in ", dir,
                    ", not in ", given);
  }
  return packDirs;
}

std::vector<std::string> GivenDirs(const std::string& directory, const OpenOptions& options) {
  const std::uint32_t slotCount =
      options.slotCount != 0 ? options.slotCount : format::kDefaultSlots;
  if (slotCount > format::kMaxSlots)
    throw Failure(FailureCode::Argument, "slotCount = ", slotCount, ", a store has at most ",
                  format::kMaxSlots);
  if (options.packDirs == nullptr) return {slotCount, directory};
  return {options.packDirs, options.packDirs + slotCount};
}

}  // namespace

std::vector<std::string> SlotsToOpen(const std::string& directory, const OpenOptions& options) {
  const std::string conf = directory + "/" + format::Conf::kFileName;
  const std::optional<std::string> text = ReadLayout(conf);
  std::vector<std::string> packDirs =
      text ? RecordedDirs(directory, conf, *text, options) : GivenDirs(directory, options);
  const SlotsOnDisk slots = InspectAll(directory, packDirs);
  if (!text || !options.readOnly) RequireOurs(slots, text.has_value());
  if (!text) RequireTheseSlots(directory, slots);
  const bool mustExist = options.mustExist || options.readOnly;
  RequireNoneMissing(directory, slots, mustExist, text.has_value());
  if (!options.readOnly && !options.eraseDamaged) RequireNewestPack(slots);
  return packDirs;
}

#include "api/Opening.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "api/Layout.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "pack/BlobFile.h"
#include "platform/Failure.h"

namespace api {

namespace {

constexpr std::uint32_t kDefaultSlots = 2;
// Slots beyond the last that are looked for. Those of a store are contiguous.
constexpr std::uint32_t kSlotsAhead = 16;
constexpr std::uint32_t kMaxLayoutSize =
    8 * 1024 * 1024;  // a line for each slot, PATH_MAX twice over

[[noreturn]] void Refuse(FailureCode code, const std::string& text) {
  throw Failure(code, text);
}

// A pack or journal as its first bytes show it.
struct SlotFile {
  std::string path;
  bool exists = false;
  bool isOurs = true;   // a store can have written it
  bool isUsed = false;  // something was committed to the store
  std::int32_t sequence = 0;
};

SlotFile Inspect(const std::string& path, BlobFile::BlobFileMode mode) {
  SlotFile file{path};
  file.exists = FileSystem::Exists(path);
  if (!file.exists) return file;
  FileReader reader;
  reader.open(path);
  const std::uint32_t size = reader.size();
  const std::uint32_t length = std::min(size, format::kFileHeaderSize);
  unsigned char bytes[format::kFileHeaderSize] = {};
  reader.read(reinterpret_cast<char*>(bytes), length);

  format::FileHeader fresh;
  fresh.mode = mode;
  fresh.endOffset = format::kFileHeaderSize;
  unsigned char freshBytes[format::kFileHeaderSize];
  fresh.Encode(freshBytes);
  const bool isZeros =
      std::all_of(bytes, bytes + length, [](unsigned char byte) { return byte == 0; });
  if ((isZeros && size == length) || std::memcmp(bytes, freshBytes, length) == 0) return file;
  const format::FileHeader header = format::FileHeader::Decode(bytes);
  file.isUsed = true;
  file.isOurs = header.version == format::kVersion && header.mode <= BlobFile::Pack;
  if (file.isOurs) file.sequence = header.sequence;
  return file;
}

struct Slots {
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

Slots InspectAll(const std::string& directory, const std::vector<std::string>& packDirs) {
  Slots slots;
  for (std::size_t slot = 0; slot < packDirs.size(); ++slot) {
    const std::string name = "/" + std::to_string(slot);
    slots.packs.push_back(Inspect(packDirs[slot] + name + ".pak", BlobFile::Pack));
    slots.journals.push_back(Inspect(directory + name + ".jrn", BlobFile::Journal));
  }
  return slots;
}

// Without a layout file, the files themselves must agree with the slots.
void RequireTheseSlots(const std::string& directory, const Slots& slots) {
  if (const SlotFile* file = slots.First([](const SlotFile& f) { return !f.isOurs; }))
    Refuse(FailureCode::Refused, file->path + " is not a file of a store");
  const auto count = static_cast<std::uint32_t>(slots.packs.size());
  for (std::uint32_t slot = count; slot < count + kSlotsAhead; ++slot) {
    const std::string journal = directory + "/" + std::to_string(slot) + ".jrn";
    if (FileSystem::Exists(journal))
      Refuse(FailureCode::Argument,
             journal + " belongs to a store of more than " + std::to_string(count) + " slots");
  }
  for (std::uint32_t slot = 0; slot < count; ++slot) {
    for (const SlotFile* file : {&slots.packs[slot], &slots.journals[slot]}) {
      if (file->sequence > 0 && static_cast<std::uint32_t>(file->sequence) % count != slot)
        Refuse(FailureCode::Argument, file->path + " has generation " +
                                          std::to_string(file->sequence) + ", which a store of " +
                                          std::to_string(count) + " slots has elsewhere");
    }
  }
}

// A new store's files are created in order, each flushed, before anything is
// committed: where that was interrupted, the last ones are missing and the rest
// is unused. A load that moves all files aside leaves them under other names.
void RequireNoneMissing(const std::string& directory, const Slots& slots, const BCOptions& options,
                        bool hasLayout) {
  const auto isUsed = [](const SlotFile& f) { return f.isUsed; };
  const auto exists = [](const SlotFile& f) { return f.exists; };
  const bool mustExist = options.mustExist != 0 || options.readOnly != 0;
  if (mustExist && !hasLayout && slots.First(exists) == nullptr)
    Refuse(FailureCode::NoStore, "there is no store in " + directory);
  const bool journalUsed = std::any_of(slots.journals.begin(), slots.journals.end(), isUsed);
  const auto isMissing = [&](const SlotFile& f) {
    const bool isJournal = f.path.ends_with(".jrn");
    return !f.exists && ((!isJournal && journalUsed) || !FileSystem::Exists(f.path + ".kept-1"));
  };
  const SlotFile* missing = slots.First(isMissing);
  if (missing == nullptr) return;
  bool isBefore = true;
  const auto existsBehind = [&](const SlotFile& f) {
    if (&f == missing) isBefore = false;
    return !isBefore && f.exists;
  };
  if (mustExist || slots.First(isUsed) != nullptr || slots.First(existsBehind) != nullptr)
    Refuse(FailureCode::Refused, missing->path + " is missing from the store in " + directory +
                                     "; is the disk that holds it mounted?");
}

void RequireNewestPack(const Slots& slots) {
  const auto older = [](const SlotFile& a, const SlotFile& b) { return a.sequence < b.sequence; };
  const SlotFile& pack = *std::max_element(slots.packs.begin(), slots.packs.end(), older);
  const SlotFile& journal = *std::max_element(slots.journals.begin(), slots.journals.end(), older);
  if (journal.sequence > pack.sequence)
    Refuse(FailureCode::Damaged, journal.path + " has generation " +
                                     std::to_string(journal.sequence) + ", but the newest pack, " +
                                     pack.path + ", has " + std::to_string(pack.sequence));
}

std::optional<std::vector<std::string>> ReadLayout(const std::string& directory) {
  const std::string path = directory + "/" + layout::kFileName;
  if (!FileSystem::Exists(path)) return std::nullopt;
  FileReader reader;
  reader.open(path);
  if (reader.size() > kMaxLayoutSize)
    Refuse(FailureCode::Damaged, path + " is too large for a layout file");
  std::string text(reader.size(), '\0');
  if (!text.empty()) reader.read(text.data(), static_cast<unsigned>(text.size()));
  try {
    return layout::Parse(path, text);
  } catch (const std::exception& e) {
    Refuse(FailureCode::Damaged, e.what());
  }
}

std::string AbsoluteDirectory(const std::string& given) {
  std::string path = FileSystem::AbsolutePath(given);
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Options that are given must say what the layout file says.
void RequireAgreement(const std::string& directory, const std::vector<std::string>& packDirs,
                      const BCOptions& options) {
  const std::string conf = directory + "/" + layout::kFileName;
  if (options.slotCount != 0 && options.slotCount != packDirs.size())
    Refuse(FailureCode::Argument, conf + " names " + std::to_string(packDirs.size()) +
                                      " slots, not " + std::to_string(options.slotCount));
  if (options.packDirs == nullptr) return;
  for (std::size_t slot = 0; slot < packDirs.size(); ++slot) {
    const std::string given = options.packDirs[slot];
    if (AbsoluteDirectory(given) != AbsoluteDirectory(packDirs[slot]))
      Refuse(FailureCode::Argument, std::string(conf)
                                        .append(" has the pack of slot ")
                                        .append(std::to_string(slot))
                                        .append(" in ")
                                        .append(packDirs[slot])
                                        .append(", not in ")
                                        .append(given));
  }
}

}  // namespace

std::vector<std::string> SlotsToOpen(const std::string& directory, const BCOptions& options) {
  std::vector<std::string> packDirs;
  const std::optional<std::vector<std::string>> recorded = ReadLayout(directory);
  if (recorded) {
    for (const std::string& dir : *recorded)
      packDirs.push_back(dir == layout::kOwnDirectory ? directory : dir);
    RequireAgreement(directory, packDirs, options);
  } else {
    const std::uint32_t slotCount = options.slotCount != 0 ? options.slotCount : kDefaultSlots;
    if (slotCount > layout::kMaxSlots)
      Refuse(FailureCode::Argument, "slotCount = " + std::to_string(slotCount) +
                                        ", a store has at most " +
                                        std::to_string(layout::kMaxSlots));
    for (std::uint32_t slot = 0; slot < slotCount; ++slot)
      packDirs.emplace_back(options.packDirs != nullptr ? options.packDirs[slot] : directory);
  }

  const Slots slots = InspectAll(directory, packDirs);
  if (!recorded) RequireTheseSlots(directory, slots);
  RequireNoneMissing(directory, slots, options, recorded.has_value());
  if (options.readOnly == 0 && options.eraseDamaged == 0) RequireNewestPack(slots);
  return packDirs;
}

}  // namespace api

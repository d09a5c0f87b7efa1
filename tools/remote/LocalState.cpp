#include "tools/remote/LocalState.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tools/base/Error.h"
#include "tools/base/StagedFile.h"
#include "tools/remote/Bucket.h"

namespace tool::remote {
namespace {

namespace stdfs = std::filesystem;

std::optional<std::string> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// Flushed, unless it is a mere copy.
void WriteFile(const std::string& directory, const std::string& name, std::string_view bytes,
               bool isCopy = false) {
  MakeDirectory(directory);
  const Fd opened = OpenDirectory(directory);
  StagedFile file(opened.get(), name, directory + "/" + name);
  file.Write(bytes);
  if (!isCopy) file.Sync();
  file.Publish(Existing::kReplace);
}

std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : stdfs::directory_iterator(directory, ignored))
    names.push_back(entry.path().filename().string());
  return names;
}

}  // namespace

LocalState::LocalState(const std::string& store, const std::string& cache,
                       const std::string& remoteId)
    : directory_(cache.empty() ? store + "/remote" : cache), remote_(directory_ + "/" + remoteId) {
  CreateAsClosedAs(store + "/0.jrn");
}

std::string LocalState::StoreId() {
  const std::string path = directory_ + "/id";
  std::error_code code;
  if (stdfs::exists(path, code) || code) {
    std::string id = ReadFile(path).value_or("");
    if (id.ends_with('\n')) id.pop_back();
    if (IsStoreId(id)) return id;
    throw Fault(
        "{} does not hold the store's id, 16 hexadecimal digits: `blobring remote ls` shows it "
        "beside the name of this machine; without the file this is a new store",
        path);
  }
  std::string id = Nonce();
  try {
    WriteFile(directory_, "id", id + "\n");
  } catch (const Fault& fault) {
    throw Fault("{}; --cache DIR keeps the store's id elsewhere", fault.what());
  }
  return id;
}

std::optional<std::string> LocalState::ReadCopy(const std::string& kind,
                                                const blobring::Hash& digest) const {
  std::optional<std::string> bytes = ReadFile(remote_ + "/" + kind + "/" + digest.text());
  if (bytes && DigestOf(*bytes) != digest) return std::nullopt;
  return bytes;
}

void LocalState::KeepCopy(const std::string& kind, const blobring::Hash& digest,
                          std::string_view bytes) const {
  try {
    WriteFile(remote_ + "/" + kind, digest.text(), bytes, true);
  } catch (const Fault&) {
  }
}

void LocalState::DropCopiesBut(const std::string& kind,
                               const std::set<blobring::Hash>& digests) const {
  const std::string directory = remote_ + "/" + kind;
  std::error_code ignored;
  for (const std::string& name : NamesIn(directory)) {
    const auto digest = blobring::Hash::parse(name);
    if (!digest || digests.count(*digest) == 0)
      stdfs::remove(stdfs::path(directory) / name, ignored);
  }
}

Index LocalState::Known() const {
  for (const std::string& name : NamesIn(remote_ + "/" + kKnownPlaces)) {
    const auto digest = blobring::Hash::parse(name);
    const auto bytes = digest ? ReadCopy(kKnownPlaces, *digest) : std::nullopt;
    if (bytes) return Index::Decode(*bytes, name);
  }
  return {};
}

void LocalState::KeepKnown(Index known) const {
  known.Sort();
  const std::string bytes = known.Encode();
  const blobring::Hash digest = DigestOf(bytes);
  KeepCopy(kKnownPlaces, digest, bytes);
  DropCopiesBut(kKnownPlaces, {digest});
}

std::map<std::string, Index> LocalState::Pending() const {
  std::map<std::string, Index> pending;
  for (const std::string& name : NamesIn(remote_ + "/pending")) {
    const auto bytes = ReadFile(remote_ + "/pending/" + name);
    try {
      if (!bytes) continue;
      Index index = Index::Decode(*bytes, name);
      if (index.packs.size() == 1 && index.packs[0] == name)
        pending.emplace(name, std::move(index));
    } catch (const Fault&) {  // cut off: the pack is an orphan then
    }
  }
  return pending;
}

void LocalState::KeepPending(const std::string& pack, const Index& index) const {
  WriteFile(remote_ + "/pending", pack, index.Encode());
}

void LocalState::DropPending(const std::vector<std::string>& packs) const {
  std::error_code ignored;
  for (const std::string& pack : packs) stdfs::remove(remote_ + "/pending/" + pack, ignored);
}

}  // namespace tool::remote

#include "tools/remote/PackBuilder.h"

#include <algorithm>

#include "tools/remote/Bucket.h"

namespace tool::remote {
namespace {

constexpr uint64_t kRecordsBegin = format::kFileHeaderSize + format::kStartSize;

// The file header and the start of the transaction.
std::string FrontOf(const BuiltPack& pack, const blobring::Hash& bodyDigest) {
  uint32_t maxBlobSize = 0;
  for (const Place& place : pack.index.places) maxBlobSize = std::max(maxBlobSize, place.size);
  format::FileHeader header;
  header.maxBlobSize = std::max(format::kInitialMaxBlobSize, maxBlobSize);
  header.recordCount = static_cast<uint32_t>(pack.index.places.size()) + 2;
  header.mode = 1;
  header.endOffset = static_cast<uint32_t>(pack.file->size());
  format::StartRecord start = {{format::kOpStartTransaction, 0}, {maxBlobSize}};
  start.block.length = static_cast<uint32_t>(pack.file->size() - format::kEndSize - kRecordsBegin);
  std::memcpy(start.block.digest, bodyDigest.data(), format::kDigestSize);
  unsigned char front[kRecordsBegin];
  header.Encode(front);
  start.Encode(front + format::kFileHeaderSize);
  return {reinterpret_cast<const char*>(front), sizeof front};
}

}  // namespace

bool PackBuilder::IsFullFor(uint64_t blobSize) const {
  uint64_t bytes = blobSize;
  for (const BuiltPack& pack : packs_) bytes += pack.file->size();
  return !packs_.empty() && bytes > 4 * kPackSize;
}

void PackBuilder::Add(const blobring::Hash& hash, int64_t transactionId, std::string_view data) {
  const uint64_t recordSize = format::kStoreHeaderSize + data.size();
  if (packs_.empty() || packs_.back().file->size() + recordSize + format::kEndSize > kPackSize) {
    const uint64_t alone = kRecordsBegin + recordSize + format::kEndSize;
    packs_.emplace_back().file = std::make_shared<Spool>(std::max(kPackSize, alone));
    packs_.back().file->Append(std::string(kRecordsBegin, '\0'));
  }
  BuiltPack& pack = packs_.back();
  const auto size = static_cast<uint32_t>(data.size());
  pack.index.places.push_back({hash, 0, static_cast<uint32_t>(pack.file->size()), size});
  pack.blobBytes += size;
  format::RecordHeader header{{format::kOpStore, transactionId}, {}, size};
  std::memcpy(header.hash, hash.data(), format::kHashSize);
  unsigned char bytes[format::kStoreHeaderSize];
  header.Encode(bytes);
  pack.file->Append({reinterpret_cast<const char*>(bytes), sizeof bytes});
  pack.file->Append(data);
}

std::vector<BuiltPack> PackBuilder::Finish() {
  std::vector<Spool::Bytes> mapped;
  std::vector<std::string_view> texts;
  const auto map = [&](const BuiltPack& pack) {
    return mapped.emplace_back(pack.file->Map()).text;
  };
  for (const BuiltPack& pack : packs_) texts.push_back(map(pack).substr(kRecordsBegin));
  const std::vector<blobring::Hash> bodies = DigestsOf(texts);
  mapped.clear();
  unsigned char tail[format::kEndSize];
  format::OpHeader{format::kOpEndTransaction, 0}.Encode(tail);
  for (size_t i = 0; i < packs_.size(); ++i) {
    packs_[i].file->Append({reinterpret_cast<const char*>(tail), sizeof tail});
    packs_[i].file->WriteAt(0, FrontOf(packs_[i], bodies[i]));
    texts[i] = map(packs_[i]);
  }
  const std::vector<blobring::Hash> digests = DigestsOf(texts);
  for (size_t i = 0; i < packs_.size(); ++i) {
    BuiltPack& pack = packs_[i];
    pack.digest = digests[i];
    pack.name = digests[i].text() + "-" + Nonce();
    pack.index.packs = {pack.name};
    pack.index.Sort();
  }
  return std::exchange(packs_, {});
}

}  // namespace tool::remote

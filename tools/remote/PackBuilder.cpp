#include "tools/remote/PackBuilder.h"

#include <algorithm>
#include <vector>

namespace tool::remote {
namespace {

constexpr uint64_t kRecordsBegin = format::kFileHeaderSize + format::kStartSize;
constexpr size_t kGather = size_t{1} << 20;

void Update(MD5& digest, std::string_view bytes) {
  digest.update(reinterpret_cast<const uint8_t*>(bytes.data()),
                static_cast<uint32_t>(bytes.size()));
}

}  // namespace

bool PackBuilder::IsFullFor(uint64_t blobSize) const {
  return !empty() && end_ + format::kStoreHeadSize + blobSize + format::kEndSize > kPackSize;
}

void PackBuilder::WriteOut() {
  Update(digest_, gathered_);
  pack_.file->Append(gathered_);
  gathered_.clear();
}

void PackBuilder::Add(const blobring::Hash& hash, int64_t transactionId, std::string_view data) {
  if (empty()) {
    pack_.file = std::make_shared<Spool>();
    pack_.file->Append(std::string(kRecordsBegin, '\0'));
    digest_.init();
    end_ = kRecordsBegin;
    maxBlobSize_ = 0;
  }
  const auto size = static_cast<uint32_t>(data.size());
  pack_.index.places.push_back({hash, 0, static_cast<uint32_t>(end_), size});
  format::RecordHead head{{format::kOpStore, transactionId}, {}, size};
  std::memcpy(head.hash, hash.data(), format::kHashSize);
  unsigned char bytes[format::kStoreHeadSize];
  head.Encode(bytes);
  gathered_.append(reinterpret_cast<const char*>(bytes), sizeof bytes);
  if (gathered_.size() + data.size() > kGather) {
    WriteOut();
    Update(digest_, data);
    pack_.file->Append(data);
  } else {
    gathered_ += data;
  }
  end_ += format::kStoreHeadSize + data.size();
  pack_.blobBytes += data.size();
  maxBlobSize_ = std::max(maxBlobSize_, size);
}

BuiltPack PackBuilder::Finish() {
  WriteOut();
  unsigned char tail[format::kEndSize];
  format::OpHeader{format::kOpEndTransaction, 0}.Encode(tail);
  pack_.file->Append({reinterpret_cast<const char*>(tail), sizeof tail});

  format::FileHeader header;
  header.maxBlobSize = std::max(format::kInitialMaxBlobSize, maxBlobSize_);
  header.recordCount = static_cast<uint32_t>(pack_.index.places.size()) + 2;
  header.mode = 1;
  header.endOffset = static_cast<uint32_t>(pack_.file->size());
  format::TransactionBlock block;
  block.maxBlobSize = maxBlobSize_;
  block.length = static_cast<uint32_t>(end_ - kRecordsBegin);
  digest_.finalize();
  digest_.raw_digest(block.digest);
  unsigned char front[kRecordsBegin];
  header.Encode(front);
  format::OpHeader{format::kOpStartTransaction, 0}.Encode(front + format::kFileHeaderSize);
  block.Encode(front + format::kFileHeaderSize + format::kOpHeaderSize);
  pack_.file->WriteAt(0, {reinterpret_cast<const char*>(front), sizeof front});

  pack_.digest = pack_.file->Digest();
  pack_.name = pack_.digest.text() + "-" + Nonce();
  pack_.index.packs = {pack_.name};
  pack_.index.Sort();
  return std::exchange(pack_, BuiltPack());
}

}  // namespace tool::remote

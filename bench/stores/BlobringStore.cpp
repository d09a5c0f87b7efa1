#include <blobring/blobring.h>

#include <algorithm>

#include "bench/Store.h"

namespace bench {
namespace {

void RequireOne(int result, const char* call) {
  Require(result == 1, "Blobring", call);
}

// The calls take hashes as non-const and only read them.
unsigned char* Bytes(const Key& key) {
  return const_cast<unsigned char*>(key.data());
}

using RawKey = unsigned char[BLOBRING_HASH_SIZE];
static_assert(sizeof(Key) == sizeof(RawKey));

class BlobringStore final : public Store {
 public:
  explicit BlobringStore(std::string directory) : path(std::move(directory)) {}
  ~BlobringStore() override {
    if (index >= 0) BCDispose(index);
  }

  void Open() override {
    index = BCOpen(path.c_str(), nullptr);
    Require(index >= 0, "Blobring", "BCOpen");
  }

  void Close() override {
    RequireOne(BCDispose(index), "BCDispose");
    index = -1;
  }

  void Put(std::span<const Blob> blobs) override {
    RequireOne(BCStartTransaction(index, &++id), "BCStartTransaction");
    if (blobs.size() == 1) {
      Key key;
      RequireOne(BCPut(index, blobs[0].data(), static_cast<int>(blobs[0].size()), key.data()),
                 "BCPut");
    } else {
      batch.clear();
      for (const Blob& blob : blobs)
        batch.push_back({blob.data(), static_cast<int>(blob.size()), {}});
      const int count = static_cast<int>(batch.size());
      Require(BCPutMany(index, batch.data(), count) == count, "Blobring", "BCPutMany");
    }
    RequireOne(BCEndTransaction(index, &id), "BCEndTransaction");
  }

  void Delete(std::span<const Key> keys) override {
    RequireOne(BCStartTransaction(index, &++id), "BCStartTransaction");
    const int count = static_cast<int>(keys.size());
    Require(BCDeleteMany(index, reinterpret_cast<const RawKey*>(keys.data()), count) == count,
            "Blobring", "BCDeleteMany");
    RequireOne(BCEndTransaction(index, &id), "BCEndTransaction");
  }

  void Compact() override { RequireOne(BCRepack(index), "BCRepack"); }

  void Get(const Key& key, std::string& out) override {
    int size = 0;
    int result = Fetch(key, out, size);
    if (result == BLOBRING_TOO_SMALL) {
      out.resize(static_cast<std::size_t>(size));
      result = Fetch(key, out, size);
    }
    Require(result == BLOBRING_FETCHED, "Blobring", "BCFetch");
    out.resize(static_cast<std::size_t>(size));
  }

  void GetMany(std::span<const Key> keys, std::span<std::string> out) override {
    items.resize(keys.size());
    const auto fetch = [&] {
      for (std::size_t i = 0; i < items.size(); ++i) {
        std::copy(keys[i].begin(), keys[i].end(), items[i].hash);
        items[i].buffer = reinterpret_cast<unsigned char*>(out[i].data());
        items[i].capacity = static_cast<int>(out[i].size());
      }
      const int fetched = BCFetchMany(index, items.data(), static_cast<int>(items.size()));
      for (std::size_t i = 0; i < items.size(); ++i)
        out[i].resize(static_cast<std::size_t>(items[i].size));
      return fetched == static_cast<int>(items.size());
    };
    Require(fetch() || fetch(), "Blobring", "BCFetchMany");
  }

  void PutInPieces(const Blob& blob) override {
    Blob rest = blob;
    const auto give = [](void* context, unsigned char* buffer, int capacity) {
      auto& left = *static_cast<Blob*>(context);
      const Blob piece = left.first(std::min(left.size(), static_cast<std::size_t>(capacity)));
      std::copy(piece.begin(), piece.end(), buffer);
      left = left.subspan(piece.size());
      return static_cast<int>(piece.size());
    };
    RequireOne(BCStartTransaction(index, &++id), "BCStartTransaction");
    RequireOne(BCStoreFrom(index, DigestOf(blob).data(), blob.size(), give, &rest), "BCStoreFrom");
    RequireOne(BCEndTransaction(index, &id), "BCEndTransaction");
  }

  void CheckInPieces(const Key& key) override {
    const auto take = [](void*, const unsigned char*, int) { return 0; };
    Require(BCRead(index, key.data(), take, nullptr) == BLOBRING_FETCHED, "Blobring", "BCRead");
  }

  std::int64_t SizeOf(const Key& key) override { return BCGetSize(index, Bytes(key)); }

  void ForEach(bool withData, const Visitor& visit) override {
    constexpr int kAtOnce = 256;
    std::vector<Key> keys(kAtOnce);
    std::vector<std::string> data(kAtOnce);
    const auto next = [&](const Key* after) {
      return BCNextHashes(index, after == nullptr ? nullptr : after->data(),
                          reinterpret_cast<RawKey*>(keys.data()), kAtOnce);
    };
    for (int count = next(nullptr); count > 0;
         count = next(&keys[static_cast<std::size_t>(count) - 1])) {
      const auto found = std::span(keys).first(static_cast<std::size_t>(count));
      if (withData) GetMany(found, std::span(data).first(found.size()));
      for (std::size_t i = 0; i < found.size(); ++i)
        visit(found[i], {reinterpret_cast<const unsigned char*>(data[i].data()), data[i].size()});
    }
  }

  bool Verifies() const override { return true; }
  void CheckDigests() override { RequireOne(BCFsck(index), "BCFsck"); }

 private:
  int Fetch(const Key& key, std::string& out, int& size) const {
    auto* buffer = reinterpret_cast<unsigned char*>(out.data());
    return BCFetch(index, key.data(), buffer, static_cast<int>(out.size()), &size);
  }

  std::string path;
  int index = -1;
  long long id = 0;
  std::vector<BCBlob> batch;
  std::vector<BCFetchItem> items;
};

}  // namespace

Contender Blobring() {
  return {"Blobring",
          std::string(BLOBRING_VERSION) +
              ": `BCOpen` with its defaults, `BCPutMany` (`BCPut` for single commits), "
              "`BCDeleteMany`, `BCNextHashes`",
          [](const std::filesystem::path& directory) -> std::unique_ptr<Store> {
            return std::make_unique<BlobringStore>(directory);
          }};
}

}  // namespace bench

#include <blobring/blobring.h>

#include <algorithm>

#include "bench/Require.h"
#include "bench/Store.h"

namespace bench {

namespace {

void RequireOne(int result, const char* call) {
  Require(result == 1, kBlobring, call);
}

unsigned char* Bytes(const Key& key) {
  return const_cast<unsigned char*>(key.data());  // the calls take it so, and read it
}

class BlobringStore : public Store {
 public:
  explicit BlobringStore(const std::filesystem::path& directory) : path(directory.u16string()) {}
  ~BlobringStore() override {
    if (index >= 0) BCDispose(index);
  }

  void Open() override {
    index = BCInitialize(path.c_str());
    RequireOne(BCAddPackDir(index, path.c_str()), "BCAddPackDir");
    RequireOne(BCAddPackDir(index, path.c_str()), "BCAddPackDir");
    RequireOne(BCSetDamagePolicy(index, BLOBRING_DAMAGE_KEEP), "BCSetDamagePolicy");
    RequireOne(BCLoad(index), "BCLoad");
  }

  void Close() override {
    RequireOne(BCDispose(index), "BCDispose");
    index = -1;
  }

  void Put(std::span<const Blob> blobs, Key* keys) override {
    Start();
    if (blobs.size() == 1) {
      RequireOne(BCPut(index, blobs[0].data(), static_cast<int>(blobs[0].size()), keys->data()), "BCPut");
    } else {
      PutMany(blobs, keys);
    }
    End();
  }

  void Delete(std::span<const Key> keys) override {
    Start();
    for (const Key& key : keys) RequireOne(BCDelete(index, Bytes(key)), "BCDelete");
    End();
  }

  void Compact() override { RequireOne(BCRepack(index), "BCRepack"); }

  // Asks with the room that there is, and once more where it was too little.
  void Get(const Key& key, std::string& out) override {
    int size = 0;
    int result = Fetch(key, out, size);
    if (result == BLOBRING_TOO_SMALL) {
      out.resize(static_cast<std::size_t>(size));
      result = Fetch(key, out, size);
    }
    Require(result == BLOBRING_FETCHED, kBlobring, "BCFetch");
    out.resize(static_cast<std::size_t>(size));
  }

  // Every fetch is compared with its key.
  void GetVerified(const Key& key, std::string& out) override { Get(key, out); }

  std::int64_t SizeOf(const Key& key) override { return BCGetSize(index, Bytes(key)); }

  void ForEachKey(const Visitor& visit) override {
    Key key;
    BCGetAllBlobHashesReset(index);
    while (BCGetAllBlobHashes(index, key.data(), 0) == 1) visit(key, {});
  }

  void ForEachBlob(const Visitor& visit) override {
    std::string data;
    ForEachKey([&](const Key& key, Blob) {
      Get(key, data);
      visit(key, {reinterpret_cast<const unsigned char*>(data.data()), data.size()});
    });
  }

  void CheckDigests() override { RequireOne(BCFsck(index), "BCFsck"); }
  bool VerifiesAtOpen() const override { return true; }

 private:
  int Fetch(const Key& key, std::string& out, int& size) const {
    return BCFetch(index, key.data(), reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(out.size()),
                   &size);
  }

  void Start() { RequireOne(BCStartTransaction(index, &id), "BCStartTransaction"); }

  void End() {
    RequireOne(BCEndTransaction(index, &id), "BCEndTransaction");
    ++id;
  }

  void PutMany(std::span<const Blob> blobs, Key* keys) {
    batch.clear();
    for (const Blob& blob : blobs) batch.push_back({blob.data(), static_cast<int>(blob.size()), {}});
    const int count = static_cast<int>(batch.size());
    Require(BCPutMany(index, batch.data(), count) == count, kBlobring, "BCPutMany");
    for (const BCBlob& blob : batch) std::copy_n(blob.hash, sizeof blob.hash, (keys++)->data());
  }

  std::u16string path;
  int index = -1;
  long long id = 1;
  std::vector<BCBlob> batch;
};

}  // namespace

std::unique_ptr<Store> MakeBlobring(const std::filesystem::path& directory) {
  return std::make_unique<BlobringStore>(directory);
}

}  // namespace bench

// The objects of a remote, byte by byte; docs/fleet.md shows them. Integers are little-endian.
//
//   blobring.json                      what the remote promises, one line of JSON
//   packs/XX/MD5-NONCE.pak             a pack file of a store, docs/format.md: one transaction
//   index/MD5-NONCE.idx                where the blobs of packs lie
//   snapshots/STOREID/SEQ-MD5.snap     the hashes of a store
//   gc/NONCE.tomb                      names of packs and indexes that are to go
//
// An MD5 in a name is that of the whole object. NONCE is random for each upload, so that no name is
// used twice and nothing is overwritten.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "blobring/Store.h"
#include "pack/format/Format.h"

namespace tool::remote {

// 16 hexadecimal digits, of random(4).
std::string Nonce();
bool IsStoreId(std::string_view text);  // a Nonce()

std::string PackKey(const std::string& name);  // name: MD5-NONCE
std::string IndexKey(const std::string& name);
// The MD5-NONCE of a key; empty if it is no pack's or index's.
std::string NameIn(const std::string& key);
// The MD5 that a name begins with.
blobring::Hash DigestIn(const std::string& name);

// blobring.json.
struct RemoteConfig {
  std::string id;
  int64_t pushSeconds = int64_t{24} * 3600;   // T: a push that took longer is not done
  int64_t graceSeconds = int64_t{72} * 3600;  // W, the grace period of garbage; above T
  bool etagIsMd5 = true;

  std::string Encode() const;
  static RemoteConfig Decode(const std::string& text);  // throws Fault
};

// Where a blob lies.
struct Place {
  blobring::Hash hash;
  uint32_t pack = 0;    // which of the packs
  uint32_t offset = 0;  // of its record
  uint32_t size = 0;    // of its data

  uint32_t end() const { return offset + format::kStoreHeaderSize + size; }
  // Orders them as they lie in the packs.
  std::pair<uint32_t, uint32_t> InPacks() const { return {pack, offset}; }
  friend bool operator<(const Place& a, const Place& b) {
    return std::tie(a.hash, a.pack, a.offset) < std::tie(b.hash, b.pack, b.offset);
  }
};

// An index: packs, and the places in them in ascending order of hashes.
//
//   "blobring index 1 PACKS PLACES\n", the packs' names, a line each, then for each place
//   hash 16, pack 4, offset 4, size 4
struct Index {
  std::vector<std::string> packs;
  std::vector<Place> places;
  std::vector<uint64_t> sizes;  // of the packs, where places were left out; else they follow

  // Adds another index.
  void Add(const Index& other);
  void Sort();  // REQUIRES before Encode: places in order

  std::string Encode() const;
  // Throws Fault, which calls it `name`.
  static Index Decode(std::string_view bytes, const std::string& name);

  // Of each pack: the bytes that its file has.
  std::vector<uint64_t> PackSizes() const;
};

// One store's hashes, ascending. A line of JSON, then 16 bytes each.
struct Snapshot {
  std::string time;  // of the store's machine, for people
  std::string host;  // the machine's name
  std::string message;
  bool isPartial = false;  // blobs are missing in it, that the store has
  uint64_t bytes = 0;      // of the blobs
  uint64_t count = 0;      // of the hashes; set by Decode
  std::vector<blobring::Hash> hashes;

  std::string Encode() const;
  // Throws Fault. With headerOnly, `bytes` may stop after the first line; hashes stays empty.
  static Snapshot Decode(std::string_view bytes, const std::string& name, bool headerOnly = false);
};

// snapshots/STOREID/SEQ-MD5.snap
struct SnapshotName {
  static constexpr uint64_t kMaxNumber = 999'999'999'999'999'999;

  std::string store;
  uint64_t number = 0;
  blobring::Hash digest;
  uint64_t size = 0;  // of the object, as it was listed

  std::string Key() const { return "snapshots/" + Short() + ".snap"; }
  std::string Short() const;  // STOREID/SEQ-MD5
  static std::optional<SnapshotName> Parse(const std::string& key);
};

// A tomb: the MD5 of the rest in hexadecimal, then the keys, a line each.
std::string EncodeTomb(const std::vector<std::string>& keys);
std::vector<std::string> DecodeTomb(const std::string& text, const std::string& name);

}  // namespace tool::remote

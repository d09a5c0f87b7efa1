// What a store remembers of its remotes, in its directory "remote" or where --cache says. All but
// `id` can be lost without harm: indexes are read again, packs that were not indexed are uploaded
// again.
//
//   id                     of the store, in the names of its snapshots
//   REMOTEID/index/MD5     copies of indexes, which never change
//   REMOTEID/snapshot/MD5  a copy of the last snapshot that was pulled
//   REMOTEID/known/MD5     an index of places that this store has uploaded, or read and compared
//   REMOTEID/pending/NAME  the index of one pack that was uploaded and that no index names yet
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "tools/remote/Formats.h"

namespace tool::remote {

inline constexpr char kIndexCopies[] = "index";
inline constexpr char kSnapshotCopies[] = "snapshot";
inline constexpr char kKnownPlaces[] = "known";

class LocalState {
 public:
  // `cache` may be empty. Creates no file.
  LocalState(const std::string& store, const std::string& cache, const std::string& remoteId);

  // Made at the first call. Throws Fault when it cannot be kept, or when what is kept is none.
  std::string StoreId();

  // A copy that matches its digest, or nothing.
  std::optional<std::string> ReadCopy(const std::string& kind, const blobring::Hash& digest) const;
  // Best effort.
  void KeepCopy(const std::string& kind, const blobring::Hash& digest,
                std::string_view bytes) const;
  void DropCopiesBut(const std::string& kind, const std::set<blobring::Hash>& digests) const;

  Index Known() const;
  void KeepKnown(Index known) const;  // best effort

  std::map<std::string, Index> Pending() const;
  void KeepPending(const std::string& pack, const Index& index) const;
  void DropPending(const std::vector<std::string>& packs) const;

 private:
  std::string directory_;
  std::string remote_;  // directory_/REMOTEID
};

}  // namespace tool::remote

// What a store remembers of its remotes, in its directory "remote" or where --cache says. All but
// `id` can be lost without harm: indexes are read again, packs that were not indexed are uploaded
// again.
//
//   id                     of the store, in the names of its snapshots
//   REMOTEID/sequence      of its last snapshot
//   REMOTEID/index/NAME    copies of indexes, which never change
//   REMOTEID/pending/NAME  the index of one pack that was uploaded and that no index names yet
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>

#include "tools/remote/Formats.h"

namespace tool::remote {

class LocalState {
 public:
  // `cache` may be empty. Creates no file.
  LocalState(const std::string& store, const std::string& cache, const std::string& remoteId);

  // Made at the first call. Throws Fault when it cannot be kept.
  std::string StoreId();
  uint64_t NextSequence();

  // A copy that matches the digest in its name, or nothing.
  std::optional<std::string> ReadIndex(const std::string& name) const;
  // Best effort.
  void KeepIndex(const std::string& name, std::string_view bytes) const;
  void DropIndexesBut(const std::set<std::string>& names) const;

  std::map<std::string, Index> Pending() const;
  void KeepPending(const std::string& pack, const Index& index) const;
  void DropPending(const std::vector<std::string>& packs) const;

 private:
  std::string directory_;
  std::string remote_;  // directory_/REMOTEID
};

}  // namespace tool::remote

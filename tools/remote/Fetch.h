// Reads blobs out of packs: whole packs, or the parts that are wanted.
#pragma once

#include <functional>
#include <set>

#include "tools/remote/Remote.h"

namespace tool::remote {

struct FetchedBlob {
  const Place& place;
  int64_t transactionId;  // of its record
  std::string_view data;  // matches the hash
};

// Hands each blob to `take`, in any order, on another thread: what has arrived is taken while more
// is read. `places` are ones of `index`. Packs that are gone, or that hold something else in one of
// the places, are added to `badPacks`, and those blobs are left out. Throws Fault, Interrupted and
// what take() throws.
void Fetch(Remote& remote, const Index& index, std::vector<Place> places,
           const std::function<void(const FetchedBlob&)>& take, std::set<std::string>& badPacks);

// What a pack has that was read whole.
struct PackContents {
  Index index;                        // of the blobs that match their hashes, sorted
  std::vector<std::string> findings;  // what is wrong: the digests of the file, of its transaction
                                      // and of its blobs
};
PackContents ReadPack(const std::string& key, const Spool& file);

}  // namespace tool::remote

// The index of a store: an ordered tree keyed by hash, one node for each blob,
// and a directory into it.
//
// Hashes are digests and so evenly spread: their first bits say where in the
// order a hash stands. The directory holds, for each value of those bits, the
// first blob that has it, which makes a look-up a few steps from there where
// the tree alone takes one from the root down for each doubling. It takes 2
// to 4 bytes for each blob on a 32-bit host and twice that on a 64-bit one,
// and exists for large indices only. It is never needed: where there is no
// memory for it the tree is searched.
//
// Nodes keep their place in memory; iterators stay good until their blob is
// erased. Nothing throws but what allocates a node.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/Hash.h"
#include "platform/BlobAllocator.h"

class BlobIndex {
 public:
  using Entry = BlobFile::BlobFileEntry;
  using Tree = std::map<Hash, Entry, std::less<Hash>,
                        BlobAllocator<std::pair<const Hash, Entry>, TesselMemoryManager::kContainerPool, kTagIndex>>;
  using iterator = Tree::iterator;
  using const_iterator = Tree::const_iterator;
  using Node = Tree::node_type;

  BlobIndex() = default;
  BlobIndex(const BlobIndex&) = delete;
  BlobIndex& operator=(const BlobIndex&) = delete;

  iterator begin() { return tree.begin(); }
  iterator end() { return tree.end(); }
  const_iterator begin() const { return tree.begin(); }
  const_iterator end() const { return tree.end(); }
  std::size_t size() const { return tree.size(); }
  bool empty() const { return tree.empty(); }

  const_iterator Find(const Hash& hash) const;
  // The first blob whose hash is greater.
  const_iterator After(const Hash& hash) const { return tree.upper_bound(hash); }

  // The entry of a hash; a blank one is made, with the one allocation of its
  // node, where there is none. Says in isNew which it was. Throws "Unable to
  // allocate memory".
  iterator FindOrMake(const Hash& hash, bool& isNew);

  // Takes over a node, whose entry replaces that of the same hash if there is
  // one.
  void Insert(Node&& node) noexcept;

  void Erase(const Hash& hash);
  void Erase(iterator blob);
  void Clear();

  template <class Predicate>
  void EraseIf(Predicate predicate) {
    for (iterator blob = begin(); blob != end();) {
      const iterator next = std::next(blob);
      if (predicate(blob->second)) Erase(blob);
      blob = next;
    }
  }

  // Empties the index node by node, in order, and keeps no memory.
  template <class Take>
  void TakeAll(Take take) {
    decltype(directory)().swap(directory);
    while (!tree.empty()) take(tree.extract(tree.begin()));
  }

 private:
  std::size_t Bucket(const Hash& hash) const { return static_cast<std::size_t>(hash.Prefix() >> shift); }
  iterator LowerBound(const Hash& hash);
  void Enter(iterator blob);
  void GrowDirectory();

  Tree tree;
  // For each bucket its first blob, or end().
  std::vector<iterator, BlobAllocator<iterator, TesselMemoryManager::kContainerPool, kTagBytes>> directory;
  unsigned shift = 64;  // of a hash's first 64 bits, which leaves the bucket
};

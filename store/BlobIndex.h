// The index of a store: one node for each blob, in the order of the hashes.
//
// Hashes are digests and evenly spread: their first bits tell roughly where a hash stands in the
// order. A directory divides the order into buckets by those bits, one or two blobs in each, and
// every bucket is a search tree of its own. A look-up reads one slot of the directory and one or
// two nodes instead of log n. A hostile file can hold keys that all fall into one bucket: the trees
// are treaps (Seidel and Aragon, 1996), balanced by random priorities, so that a bucket of n blobs
// still takes log n.
//
// The directory takes 2 to 4 bytes for each blob on a 32-bit host and twice that on a 64-bit one.
// If there is no memory to grow it, the trees get deeper.
//
// Nodes keep their place in memory; iterators stay valid until their blob is erased. Only
// allocating a node throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "pack/BlobFile.h"
#include "pack/Hash.h"
#include "platform/BlobAllocator.h"

class BlobIndex {
 public:
  using Entry = BlobFile::BlobFileEntry;
  using Blob = std::pair<const Hash, Entry>;

  struct Node {
    explicit Node(const Hash& hash) : blob(hash, Entry{}) {}

    Node* left = nullptr;
    Node* right = nullptr;
    std::uint32_t priority = 0;  // not less than that of any node below
    Blob blob;
  };
  struct Disposer {
    void operator()(Node* node) const noexcept;
  };
  using Handle = std::unique_ptr<Node, Disposer>;  // a node in no index

  template <bool isConst>
  class Position {
   public:
    using iterator_category = std::forward_iterator_tag;
    using difference_type = std::ptrdiff_t;
    using value_type = Blob;
    using reference = std::conditional_t<isConst, const Blob&, Blob&>;
    using pointer = std::conditional_t<isConst, const Blob*, Blob*>;

    Position() = default;
    reference operator*() const { return node->blob; }
    pointer operator->() const { return &node->blob; }
    Position& operator++() {
      node = index->NodeAfter(node->blob.first);
      return *this;
    }
    template <bool isOtherConst>
    bool operator==(const Position<isOtherConst>& other) const {
      return node == other.node;
    }

   private:
    friend class BlobIndex;
    friend class Position<!isConst>;
    Position(const BlobIndex* of, Node* at) : index(of), node(at) {}

    const BlobIndex* index = nullptr;
    Node* node = nullptr;  // null past the end
  };
  using iterator = Position<false>;
  using const_iterator = Position<true>;

  BlobIndex();
  ~BlobIndex() { Clear(); }
  BlobIndex(const BlobIndex&) = delete;
  BlobIndex& operator=(const BlobIndex&) = delete;

  iterator begin() { return {this, First(0)}; }
  iterator end() { return {this, nullptr}; }
  const_iterator begin() const { return {this, First(0)}; }
  const_iterator end() const { return {this, nullptr}; }
  std::size_t size() const { return count; }
  bool empty() const { return count == 0; }

  iterator Find(const Hash& hash) { return {this, *LinkTo(hash)}; }
  const_iterator Find(const Hash& hash) const { return {this, *LinkTo(hash)}; }
  // The first blob whose hash is greater.
  const_iterator After(const Hash& hash) const { return {this, NodeAfter(hash)}; }

  // The entry of a hash; a blank one if there was none, which isNew tells. Allocates one node.
  // Throws "Unable to allocate memory".
  iterator FindOrMake(const Hash& hash, bool& isNew);

  // Takes over a node, whose entry replaces that of the same hash if there is one.
  void Insert(Handle node) noexcept;

  void Erase(const Hash& hash) noexcept;
  void Clear() noexcept;

  template <class Predicate>
  void EraseIf(Predicate predicate) {
    for (iterator blob = begin(); blob != end();) {
      iterator next = blob;
      ++next;
      if (predicate(std::as_const(blob->second))) Erase(blob->first);
      blob = next;
    }
  }

  // Empties the index in order, node by node, and frees its memory. take must not throw.
  template <class Take>
  void TakeAll(Take take) {
    for (std::size_t bucket = 0; bucket <= LastBucket(); ++bucket) {
      PrefetchAhead(bucket);
      Node* next = nullptr;
      for (Node* node = Flatten(buckets[bucket]); node != nullptr; node = next) {
        next = node->right;
        take(Handle(node));
      }
    }
    Forget();
  }

  // Grows the directory for `blobs` blobs in all, if there is memory.
  void Reserve(std::size_t blobs) noexcept;

  // Starts to bring what look-ups of these hashes will read into the processor's caches.
  void Prefetch(const Hash* hashes, std::size_t hashCount) const {
    for (std::size_t i = 0; i < hashCount; ++i) Fetch(&buckets[BucketOf(hashes[i])]);
    for (std::size_t i = 0; i < hashCount; ++i) PrefetchNode(buckets[BucketOf(hashes[i])]);
  }

  // The same for a list whose hashes are looked up in its order: call it before the look-up of
  // entries[i].
  template <class Entries>
  void PrefetchBehind(const Entries& entries, std::size_t i) const {
    constexpr std::size_t kAhead = 8;
    if (i + 2 * kAhead < entries.size()) Fetch(&buckets[BucketOf(entries[i + 2 * kAhead].hash)]);
    if (i + kAhead < entries.size()) PrefetchNode(buckets[BucketOf(entries[i + kAhead].hash)]);
  }

 private:
  // Buckets ahead of a walk in order: of the farther one the root is fetched, of the nearer one
  // what lies below the root.
  static constexpr std::size_t kRootsAhead = 16;
  static constexpr std::size_t kNodesAhead = 6;

  std::size_t BucketOf(const Hash& hash) const {
    return static_cast<std::size_t>(hash.Prefix() >> shift);
  }
  std::size_t LastBucket() const { return static_cast<std::size_t>(~std::uint64_t{0} >> shift); }
  // The empty statement keeps g++ from treating prefetch-only functions as pure and dropping the
  // calls.
  static void Fetch(const void* address) {
    __builtin_prefetch(address);
    asm volatile("");
  }
  // A node takes two cache lines. A fetch of no address is not free.
  static void PrefetchNode(const Node* node) {
    if (node == nullptr) return;
    Fetch(node);
    Fetch(reinterpret_cast<const char*>(node) + 64);
  }
  void PrefetchAhead(std::size_t bucket) const {
    if (bucket + kRootsAhead > LastBucket()) return;
    PrefetchNode(buckets[bucket + kRootsAhead]);
    const Node* near = buckets[bucket + kNodesAhead];
    if (near == nullptr) return;
    PrefetchNode(near->left);
    PrefetchNode(near->right);
  }

  Node* First(std::size_t bucket) const;
  Node* NodeAfter(const Hash& hash) const;
  Node** LinkTo(const Hash& hash) const;
  void Add(Node* node) noexcept;
  void Place(Node* node) noexcept;
  void Resize(std::size_t blobs) noexcept;
  void Forget() noexcept;
  std::uint32_t Priority();
  static Node* Merge(Node* left, Node* right);
  static Node* Flatten(Node* root);

  using Directory =
      std::vector<Node*, BlobAllocator<Node*, TesselMemoryManager::kContainerPool, kTagBytes>>;

  Node* few[2] = {};     // the buckets while there is no directory
  Node** buckets = few;  // the root of each, by the first 64 - shift bits of the hash
  unsigned shift = 63;
  std::uint32_t random;  // never 0
  std::size_t count = 0;
  Directory directory;
};

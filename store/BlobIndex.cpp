#include "store/BlobIndex.h"

#include <algorithm>
#include <bit>
#include <exception>
#include <new>

namespace {

constexpr std::size_t kSmallestDirectory = 64;
constexpr std::size_t kMaxBlobsPerBucket = 2;

// Buckets for so many blobs, a power of two.
std::size_t BucketsFor(std::size_t blobs) {
  const std::size_t wanted = std::bit_ceil((blobs + kMaxBlobsPerBucket - 1) / kMaxBlobsPerBucket);
  return wanted < kSmallestDirectory ? 2 : wanted;
}

using NodeAllocator =
    BlobAllocator<BlobIndex::Node, TesselMemoryManager::kContainerPool, kTagIndex>;

BlobIndex::Node* MakeNode(const Hash& hash) {
  return new (NodeAllocator().allocate(1)) BlobIndex::Node(hash);
}

template <class Node>
Node* Leftmost(Node* node) {
  while (node->left != nullptr) node = node->left;
  return node;
}

}  // namespace

void BlobIndex::Disposer::operator()(Node* node) const noexcept {
  node->~Node();
  NodeAllocator().deallocate(node, 1);
}

// Where the process was placed in memory is what the author of a file cannot
// know.
BlobIndex::BlobIndex()
    : random(static_cast<std::uint32_t>(
                 (reinterpret_cast<std::uintptr_t>(this) * 0x9E3779B97F4A7C15ULL) >> 32) |
             1) {}

// Xorshift: Marsaglia, Xorshift RNGs, Journal of Statistical Software 8(14).
std::uint32_t BlobIndex::Priority() {
  random ^= random << 13;
  random ^= random >> 17;
  random ^= random << 5;
  return random;
}

BlobIndex::Node* BlobIndex::First(std::size_t bucket) const {
  const std::size_t last = LastBucket();
  while (bucket < last && buckets[bucket] == nullptr) ++bucket;
  if (bucket > last || buckets[bucket] == nullptr) return nullptr;
  PrefetchAhead(bucket);
  return Leftmost(buckets[bucket]);
}

BlobIndex::Node* BlobIndex::Next(Node* node) const {
  if (node->right != nullptr) return Leftmost(node->right);
  const Hash& hash = node->blob.first;
  while (node->parent != nullptr && node->parent->right == node) node = node->parent;
  return node->parent != nullptr ? node->parent : First(BucketOf(hash) + 1);
}

BlobIndex::Node* BlobIndex::Search(const Hash& hash) const {
  Node* node = buckets[BucketOf(hash)];
  while (node != nullptr && !(node->blob.first == hash))
    node = hash < node->blob.first ? node->left : node->right;
  return node;
}

BlobIndex::const_iterator BlobIndex::After(const Hash& hash) const {
  Node* after = nullptr;
  for (Node* node = buckets[BucketOf(hash)]; node != nullptr;) {
    const bool isAfter = hash < node->blob.first;
    if (isAfter) after = node;
    node = isAfter ? node->left : node->right;
  }
  return {this, after != nullptr ? after : First(BucketOf(hash) + 1)};
}

BlobIndex::iterator BlobIndex::FindOrMake(const Hash& hash, bool& isNew) {
  Node* node = Search(hash);
  isNew = node == nullptr;
  if (isNew) {
    node = MakeNode(hash);
    Link(node);
  }
  return {this, node};
}

void BlobIndex::Insert(Handle node) noexcept {
  Node* present = Search(node->blob.first);
  if (present != nullptr) {
    present->blob.second = node->blob.second;
  } else {
    Link(node.release());
  }
}

// Puts node, whose hash is not there yet, in its place.
void BlobIndex::Link(Node* node) noexcept {
  Node** link = &buckets[BucketOf(node->blob.first)];
  Node* parent = nullptr;
  while (*link != nullptr) {
    parent = *link;
    link = node->blob.first < parent->blob.first ? &parent->left : &parent->right;
  }
  *link = node;
  node->left = node->right = nullptr;
  node->parent = parent;
  node->priority = Priority();
  while (node->parent != nullptr && node->parent->priority < node->priority) RotateUp(node);
  ++count;
  Reserve(count);
}

void BlobIndex::Reserve(std::size_t blobs) noexcept {
  if (blobs > kMaxBlobsPerBucket * (LastBucket() + 1)) Resize(blobs);
}

// Gives node's place under its parent, or as a root, to another.
void BlobIndex::Replace(Node* node, Node* by) {
  Node* parent = node->parent;
  Node*& link = parent == nullptr ? buckets[BucketOf(node->blob.first)]
                                  : (parent->left == node ? parent->left : parent->right);
  link = by;
  if (by != nullptr) by->parent = parent;
}

void BlobIndex::RotateUp(Node* node) {
  Node* parent = node->parent;
  Replace(parent, node);
  Node*& outer = parent->left == node ? parent->left : parent->right;
  Node*& inner = parent->left == node ? node->right : node->left;
  outer = inner;
  if (inner != nullptr) inner->parent = parent;
  inner = parent;
  parent->parent = node;
}

// The tree of two, of which the first holds the smaller hashes.
BlobIndex::Node* BlobIndex::Merge(Node* left, Node* right) {
  Node* root = nullptr;
  Node* parent = nullptr;
  Node** link = &root;
  while (left != nullptr && right != nullptr) {
    Node*& top = left->priority < right->priority ? right : left;
    *link = top;
    top->parent = parent;
    parent = top;
    if (top == left) {
      link = &parent->right;
      left = parent->right;
    } else {
      link = &parent->left;
      right = parent->left;
    }
  }
  *link = left != nullptr ? left : right;
  if (*link != nullptr) (*link)->parent = parent;
  return root;
}

void BlobIndex::Erase(const Hash& hash) noexcept {
  Node* node = Search(hash);
  if (node != nullptr) Erase(iterator(this, node));
}

void BlobIndex::Erase(iterator blob) noexcept {
  Node* node = blob.node;
  Replace(node, Merge(node->left, node->right));
  Disposer()(node);
  --count;
  // What a much larger index needed is given back.
  if (count < directory.size() / 8) Resize(count);
}

void BlobIndex::Clear() noexcept {
  TakeAll([](Handle) {});
}

// Turns a tree into a list in order, linked by right, without the memory that
// a recursion would take.
BlobIndex::Node* BlobIndex::Flatten(Node* root) {
  Node* first = nullptr;
  Node** link = &first;
  for (Node* node = root; node != nullptr;) {
    if (node->left != nullptr) {
      Node* left = node->left;
      node->left = left->right;
      left->right = node;
      node = left;
    } else {
      *link = node;
      link = &node->right;
      node = node->right;
    }
  }
  return first;
}

// Puts node behind the greatest of its bucket, null where that is empty.
void BlobIndex::Append(Node* node, Node* last) {
  Node* above = last;
  Node* below = nullptr;
  while (above != nullptr && above->priority < node->priority) {
    below = above;
    above = above->parent;
  }
  node->left = below;
  node->right = nullptr;
  node->parent = above;
  if (below != nullptr) below->parent = node;
  (above != nullptr ? above->right : buckets[BucketOf(node->blob.first)]) = node;
}

// Deals the nodes out to as many buckets as so many blobs want; leaves all as
// it is where there is no memory.
void BlobIndex::Resize(std::size_t blobs) noexcept {
  const std::size_t wanted = BucketsFor(blobs);
  const std::size_t present = LastBucket() + 1;
  if (wanted == present) return;
  Directory fresh;
  Node* fewBefore[2] = {};
  try {
    if (wanted > std::size(few)) fresh.resize(wanted);
  } catch (const std::exception&) {
    return;
  }
  std::swap(few, fewBefore);
  Node** const before = directory.empty() ? fewBefore : directory.data();
  buckets = fresh.empty() ? few : fresh.data();
  shift = 64 - static_cast<unsigned>(std::countr_zero(wanted));

  Node* last = nullptr;
  for (std::size_t bucket = 0; bucket < present; ++bucket) {
    if (bucket + kRootsAhead < present) PrefetchNode(before[bucket + kRootsAhead]);
    Node* next = nullptr;
    for (Node* node = Flatten(before[bucket]); node != nullptr; node = next) {
      next = node->right;
      const bool isSameBucket =
          last != nullptr && BucketOf(last->blob.first) == BucketOf(node->blob.first);
      Append(node, isSameBucket ? last : nullptr);
      last = node;
    }
  }
  directory.swap(fresh);
}

void BlobIndex::Forget() noexcept {
  Directory().swap(directory);
  few[0] = few[1] = nullptr;
  buckets = few;
  shift = 63;
  count = 0;
}

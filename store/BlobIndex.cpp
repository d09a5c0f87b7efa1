#include "store/BlobIndex.h"

#include <algorithm>
#include <bit>
#include <exception>
#include <new>

namespace {

constexpr std::size_t kSmallestDirectory = 64;
constexpr std::size_t kMaxBlobsPerBucket = 2;

// Buckets for this many blobs, a power of two.
std::size_t BucketsFor(std::size_t blobs) {
  const std::size_t wanted = std::bit_ceil((blobs + kMaxBlobsPerBucket - 1) / kMaxBlobsPerBucket);
  return wanted < kSmallestDirectory ? 2 : wanted;
}

using NodeAllocator =
    BlobAllocator<BlobIndex::Node, TesselMemoryManager::kContainerPool, kTagIndex>;

BlobIndex::Node* MakeNode(const Hash& hash) {
  return new (NodeAllocator().allocate(1)) BlobIndex::Node(hash);
}

}  // namespace

void BlobIndex::Disposer::operator()(Node* node) const noexcept {
  node->~Node();
  NodeAllocator().deallocate(node, 1);
}

// Seeded from an address, which the author of a hostile file cannot predict (ASLR).
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
  Node* first = buckets[bucket];
  while (first->left != nullptr) first = first->left;
  return first;
}

BlobIndex::Node* BlobIndex::NodeAfter(const Hash& hash) const {
  Node* after = nullptr;
  for (Node* node = buckets[BucketOf(hash)]; node != nullptr;) {
    const bool isAfter = hash < node->blob.first;
    if (isAfter) after = node;
    node = isAfter ? node->left : node->right;
  }
  return after != nullptr ? after : First(BucketOf(hash) + 1);
}

// The link that leads to the node of a hash, null where there is none.
BlobIndex::Node** BlobIndex::LinkTo(const Hash& hash) const {
  Node** link = &buckets[BucketOf(hash)];
  while (*link != nullptr && !((*link)->blob.first == hash))
    link = hash < (*link)->blob.first ? &(*link)->left : &(*link)->right;
  return link;
}

BlobIndex::iterator BlobIndex::FindOrMake(const Hash& hash, bool& isNew) {
  Node* node = *LinkTo(hash);
  isNew = node == nullptr;
  if (isNew) Add(node = MakeNode(hash));
  return {this, node};
}

void BlobIndex::Insert(Handle node) noexcept {
  Node* present = *LinkTo(node->blob.first);
  if (present != nullptr) {
    present->blob.second = node->blob.second;
  } else {
    Add(node.release());
  }
}

void BlobIndex::Add(Node* node) noexcept {
  node->priority = Priority();
  Place(node);
  ++count;
  Reserve(count);
}

// Puts node, whose hash is not there yet, where its priority wants it. What was there is split into
// what goes to its left and what goes to its right.
void BlobIndex::Place(Node* node) noexcept {
  const Hash& hash = node->blob.first;
  Node** link = &buckets[BucketOf(hash)];
  while (*link != nullptr && (*link)->priority >= node->priority)
    link = hash < (*link)->blob.first ? &(*link)->left : &(*link)->right;
  Node* rest = *link;
  *link = node;
  Node** left = &node->left;
  Node** right = &node->right;
  while (rest != nullptr) {
    const bool goesRight = hash < rest->blob.first;
    Node**& side = goesRight ? right : left;
    *side = rest;
    side = goesRight ? &rest->left : &rest->right;
    rest = *side;
  }
  *left = *right = nullptr;
}

void BlobIndex::Reserve(std::size_t blobs) noexcept {
  if (blobs > kMaxBlobsPerBucket * (LastBucket() + 1)) Resize(blobs);
}

// The tree of two, of which the first holds the smaller hashes.
BlobIndex::Node* BlobIndex::Merge(Node* left, Node* right) {
  Node* root = nullptr;
  Node** link = &root;
  while (left != nullptr && right != nullptr) {
    const bool isLeft = left->priority >= right->priority;
    Node*& top = isLeft ? left : right;
    *link = top;
    link = isLeft ? &top->right : &top->left;
    top = *link;
  }
  *link = left != nullptr ? left : right;
  return root;
}

void BlobIndex::Erase(const Hash& hash) noexcept {
  Node** const link = LinkTo(hash);
  const Handle node(*link);
  if (!node) return;
  *link = Merge(node->left, node->right);
  --count;
  // What a much larger index needed is given back.
  if (count < directory.size() / 8) Resize(count);
}

void BlobIndex::Clear() noexcept {
  TakeAll([](Handle) {});
}

// Turns a tree into a list in order, linked by right, without the memory that a recursion would
// take.
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

// Rehashes into the bucket count for `blobs` blobs. Leaves the index unchanged if memory is short.
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

  for (std::size_t bucket = 0; bucket < present; ++bucket) {
    if (bucket + kRootsAhead < present) PrefetchNode(before[bucket + kRootsAhead]);
    Node* next = nullptr;
    for (Node* node = Flatten(before[bucket]); node != nullptr; node = next) {
      next = node->right;
      Place(node);
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

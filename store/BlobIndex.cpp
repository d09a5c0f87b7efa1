#include "store/BlobIndex.h"

#include <algorithm>
#include <bit>
#include <exception>

namespace {

// Below this a tree is searched as fast.
constexpr std::size_t kSmallestDirectory = 512;
constexpr std::size_t kMaxBlobsPerBucket = 4;

}  // namespace

BlobIndex::const_iterator BlobIndex::Find(const Hash& hash) const {
  if (directory.empty()) return tree.find(hash);
  const_iterator blob = directory[Bucket(hash)];
  while (blob != tree.end() && blob->first < hash) ++blob;
  return blob != tree.end() && blob->first == hash ? blob : tree.end();
}

// The first blob that is not before hash.
BlobIndex::iterator BlobIndex::LowerBound(const Hash& hash) {
  iterator blob = directory.empty() ? tree.end() : directory[Bucket(hash)];
  if (blob == tree.end()) return tree.lower_bound(hash);
  while (blob != tree.end() && blob->first < hash) ++blob;
  return blob;
}

void BlobIndex::Enter(iterator blob) {
  if (tree.size() > kMaxBlobsPerBucket * std::max(directory.size(), kSmallestDirectory)) {
    GrowDirectory();
  } else if (!directory.empty()) {
    iterator& first = directory[Bucket(blob->first)];
    if (first == tree.end() || blob->first < first->first) first = blob;
  }
}

void BlobIndex::GrowDirectory() {
  const std::size_t buckets = std::bit_ceil(tree.size() / kMaxBlobsPerBucket + 1);
  try {
    directory.assign(buckets, tree.end());
  } catch (const std::exception&) {
    directory.clear();
    return;
  }
  shift = 64 - static_cast<unsigned>(std::countr_zero(buckets));
  for (iterator blob = tree.begin(); blob != tree.end(); ++blob) {
    iterator& first = directory[Bucket(blob->first)];
    if (first == tree.end()) first = blob;
  }
}

BlobIndex::iterator BlobIndex::FindOrMake(const Hash& hash, bool& isNew) {
  const iterator next = LowerBound(hash);
  isNew = next == tree.end() || !(next->first == hash);
  if (!isNew) return next;
  const iterator blob = tree.try_emplace(next, hash);
  Enter(blob);
  return blob;
}

void BlobIndex::Insert(Node&& node) noexcept {
  const iterator next = LowerBound(node.key());
  if (next != tree.end() && next->first == node.key()) {
    next->second = node.mapped();
    return;
  }
  Enter(tree.insert(next, std::move(node)));
}

void BlobIndex::Erase(const Hash& hash) {
  const iterator blob = LowerBound(hash);
  if (blob != tree.end() && blob->first == hash) Erase(blob);
}

void BlobIndex::Erase(iterator blob) {
  if (!directory.empty() && directory[Bucket(blob->first)] == blob) {
    const iterator next = std::next(blob);
    const bool isInBucket = next != tree.end() && Bucket(next->first) == Bucket(blob->first);
    directory[Bucket(blob->first)] = isInBucket ? next : tree.end();
  }
  tree.erase(blob);
}

void BlobIndex::Clear() {
  tree.clear();
  decltype(directory)().swap(directory);
}

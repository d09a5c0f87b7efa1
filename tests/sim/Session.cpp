#include "tests/sim/Session.h"

#include <cstring>
#include <exception>

#include "blobring/blobring.h"
#include "tests/support/SimFiles.h"

namespace explore {

namespace {

const char16_t* PackDirectory(int slot) {
  return slot % 2 == 0 ? u"/s" : u"/p";
}

// The answer of a call that must not throw, and that knows only no and yes.
template <typename Function>
bool YesOrNo(const char* name, Function function) {
  int answer;
  try {
    answer = function();
  } catch (const std::exception& e) {
    throw Violation{std::string(name) + " threw " + e.what()};
  }
  if (answer != 0 && answer != 1) throw Violation{std::string(name) + " returned " + std::to_string(answer)};
  return answer == 1;
}

}  // namespace

std::string PackPath(int slot) {
  return (slot % 2 == 0 ? "/s/" : "/p/") + std::to_string(slot) + ".pak";
}
std::string JournalPath(int slot) {
  return "/s/" + std::to_string(slot) + ".jrn";
}

void FreshMachine() {
  sim::Files().Reset();
  sim::Files().disk.MakeDirectory("/s");
  sim::Files().disk.MakeDirectory("/p");
}

bool Session::Initialize() {
  try {
    index_ = BCInitialize(u"/s");
  } catch (const std::exception&) {
    return false;
  }
  if (index_ < 0) throw Violation{"BCInitialize returned " + std::to_string(index_)};
  if (keepDamaged_ && BCSetDamagePolicy(index_, BLOBRING_DAMAGE_KEEP) != 1)
    throw Violation{"BCSetDamagePolicy did not return 1"};
  return true;
}

bool Session::AddPackDir(int slot) {
  try {
    const int answer = BCAddPackDir(index_, PackDirectory(slot));
    if (answer != 1) throw Violation{"BCAddPackDir returned " + std::to_string(answer)};
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

bool Session::Load() {
  return YesOrNo("BCLoad", [this] { return BCLoad(index_); });
}

bool Session::Start(long long id) {
  return YesOrNo("BCStartTransaction", [this, &id] { return BCStartTransaction(index_, &id); });
}

bool Session::End(long long id) {
  return YesOrNo("BCEndTransaction", [this, &id] { return BCEndTransaction(index_, &id); });
}

bool Session::Store(int blob) {
  Blob& b = BlobOf(blob);
  return YesOrNo("BCStore", [this, &b] { return BCStore(index_, b.hash, b.data.data(), b.size()); });
}

bool Session::Put(int blob) {
  const Blob& b = BlobOf(blob);
  unsigned char hash[16] = {};
  const bool stored = YesOrNo("BCPut", [&] { return BCPut(index_, b.data.data(), b.size(), hash); });
  if (std::memcmp(hash, b.hash, sizeof hash) != 0) throw Violation{"BCPut found another hash"};
  return stored;
}

bool Session::Delete(int blob) {
  return YesOrNo("BCDelete", [this, blob] { return BCDelete(index_, BlobOf(blob).hash); });
}

bool Session::Repack() {
  return YesOrNo("BCRepack", [this] { return BCRepack(index_); });
}

Session::Check Session::Fsck() {
  try {
    const int answer = BCFsck(index_);
    if (answer == 1) return Check::Sound;
    if (answer == 0) return Check::Faults;
    throw Violation{"BCFsck returned " + std::to_string(answer)};
  } catch (const std::exception& e) {
    if (std::strcmp(e.what(), "Unable to allocate memory") == 0) return Check::NoMemory;
    throw Violation{std::string("BCFsck threw ") + e.what()};
  }
}

void Session::Dispose() {
  if (index_ < 0) return;
  const int index = index_;
  index_ = -1;
  if (!YesOrNo("BCDispose", [index] { return BCDispose(index); })) throw Violation{"BCDispose returned 0"};
}

void Session::Open() {
  if (!Initialize()) throw Violation{"BCInitialize threw"};
  for (int slot = 0; slot < slots_; ++slot)
    if (!AddPackDir(slot)) throw Violation{"BCAddPackDir threw for slot " + std::to_string(slot)};
  if (!Load()) throw Violation{"BCLoad returned 0"};
}

Mask Session::List() {
  const int count = BCGetAllBlobHashesReset(index_);
  unsigned char hash[16];
  unsigned char last[16] = {};
  Mask blobs = 0;
  int listed = 0;
  for (; BCGetAllBlobHashes(index_, hash, 0) == 1; ++listed) {
    const int blob = BlobOfHash(hash);
    if (blob < 0) throw Violation{"the index lists a hash that was never stored"};
    if (listed > 0 && std::memcmp(last, hash, 16) >= 0) throw Violation{"the index lists hashes out of order"};
    std::memcpy(last, hash, 16);
    blobs |= Bit(blob);
  }
  if (listed != count)
    throw Violation{"the index counts " + std::to_string(count) + " blobs and lists " + std::to_string(listed)};
  return blobs;
}

bool Session::ReadAll(Mask blobs) {
  static unsigned char buffer[kLargestBlob];
  for (int id = 0; id < kAllBlobs; ++id) {
    if ((blobs & Bit(id)) == 0) continue;
    Blob& blob = BlobOf(id);
    const int size = BCGetSize(index_, blob.hash);
    if (size != blob.size())
      throw Violation{"blob " + std::to_string(id) + " has size " + std::to_string(size) + " in the index"};
    std::memset(buffer, 0xEE, static_cast<std::size_t>(size));
    const int answer = BCGet(index_, blob.hash, buffer, size);
    if (answer == 2) return false;
    if (answer != 0) throw Violation{"BCGet of blob " + std::to_string(id) + " returned " + std::to_string(answer)};
    if (size > 0 && std::memcmp(buffer, blob.data.data(), static_cast<std::size_t>(size)) != 0)
      throw Violation{"blob " + std::to_string(id) + " read back with other bytes"};
  }
  return true;
}

Mask Session::ExpectSound() {
  const Mask blobs = List();
  if (!ReadAll(blobs)) throw Violation{"a blob cannot be read"};
  if (Fsck() != Check::Sound) throw Violation{"BCFsck found faults"};
  return blobs;
}

}  // namespace explore

// One open store: the library's calls with their traps taken out.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/Buffer.h"
#include "tools/Hash.h"
#include "tools/Layout.h"

namespace tool {

// What becomes of files that cannot be read. Kept: nothing is ever deleted.
// Erased: what the library does on a device that must come back by itself. An
// older pack is used in place of a damaged one, changes are made to it, and a
// store without any is emptied.
enum class OnDamage { kKeep, kErase };

// The store that a command works on.
struct StoreOptions {
  Layout layout;
  OnDamage onDamage = OnDamage::kKeep;
};

// Opens the store and closes it in the destructor; changes that were not
// committed by then are lost. Every member throws Fault on failure, with the
// library's own words and what to do next. One caller at a time.
//
// Damage that is kept: the library deletes nothing, and loads what is left.
// Reading goes on with that; changes are refused, so that nothing is written
// over damage before somebody has seen the messages. A forced Repack() makes a
// sound store of what can be read.
class Store {
 public:
  enum class Files { kMustExist, kMayBeMade };

  // Takes the store for this process. With kMustExist no file is created:
  // Fault when one is missing or, unless damage is to be erased, none can be
  // loaded (see SlotFiles). What the library had to do about damaged files is
  // said on standard error.
  explicit Store(StoreOptions options, Files files = Files::kMustExist);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Bytes of a committed blob; nothing when there is none of that hash.
  std::optional<uint32_t> SizeOf(const Hash& hash) const;

  // A committed blob, checked against its hash; the bytes stay in the buffer.
  // After a Fault the store is open and the other blobs can be read.
  Bytes Get(const Hash& hash, Buffer& buffer);

  // The hashes of all committed blobs, ascending.
  std::vector<Hash> List() const;

  void Begin();

  // Stores a blob that is not there yet and returns its hash; messages call
  // it `name`. After a Fault what was put before can still be committed.
  Hash Put(Bytes data, const std::string& name);

  void Delete(const Hash& hash);
  void Commit();

  enum class Force { kNo, kDespiteDamage };
  void Repack(Force force);

  // Reads every blob. Returns what is wrong, in the library's words; nothing
  // when all is sound.
  std::vector<std::string> Check() const;

  const Layout& layout() const { return options_.layout; }

  // Loading found damage and said so; what was erased counts as well.
  bool damaged() const { return damaged_; }
  OnDamage onDamage() const { return options_.onDamage; }

 private:
  void Open();
  bool TryOpen();
  bool Load(const std::string& action);
  void NoteLostHeaders();
  void Close();
  void RefuseWhenDamaged() const;

  StoreOptions options_;
  int index_ = -1;
  bool damaged_ = false;
  long long transactionId_ = 0;
};

}  // namespace tool

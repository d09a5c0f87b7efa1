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

// Opens the store and closes it in the destructor; changes that were not
// committed by then are lost. Every member throws Fault on failure, with the
// library's own words and what to do next. One caller at a time.
//
// Damage: the library never deletes what it cannot read, and loads what is left.
// Reading goes on with that; changes are refused, so that nothing is written
// over damage before somebody has seen the messages. A forced Repack() makes a
// sound store of what can be read.
class Store {
 public:
  enum class Files { kMustExist, kMayBeMade };

  // Takes the store for this process. With kMustExist no file is created:
  // Fault when one is missing or none can be loaded (see SlotFiles). What the
  // library had to do about damaged files is said on standard error.
  explicit Store(Layout layout, Files files = Files::kMustExist);
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

  const Layout& layout() const { return layout_; }

  // Loading found damage and said so.
  bool damaged() const { return damaged_; }

 private:
  void Open();
  void Load(const std::string& action);
  void Close();
  void RefuseWhenDamaged() const;

  Layout layout_;
  int index_ = -1;
  bool damaged_ = false;
  long long transactionId_ = 0;
};

}  // namespace tool

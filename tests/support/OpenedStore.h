// A store on the simulated machine, through the exported functions alone.
#pragma once

#include <blobring/Store.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/JournalBytes.h"
#include "tests/support/SimDiagnostics.h"
#include "tests/support/SimFiles.h"
#include "tests/support/SimMemory.h"

namespace test {

// The text that messages use: no leading zeros.
std::string TextOf(const HashBytes& hash);

// A machine with an empty disk and the directories /s, /p, /a, /b and /c, where nothing is planned
// and nothing recorded.
sim::SimFiles& FreshMachine();

// The contents of a file as a reader sees it; fails the test if it is missing.
std::string FileBytes(const std::string& path);
// Makes or replaces a file, durable.
void SetFile(const std::string& path, std::string_view bytes);

BCStatistics StatisticsOf(int index);
// What the store lists, one by one and at once. Nothing where the two differ, or are not in order.
std::optional<std::vector<HashBytes>> HashesOf(int index);
std::string LastErrorOf(int index);
// What one BCFetchMany gives for each hash: the blob; nothing unless it is BLOBRING_FETCHED.
std::vector<std::optional<std::string>> FetchMany(int index, const std::vector<HashBytes>& hashes);
// A blob by BCRead: nothing unless it is BLOBRING_FETCHED.
std::optional<std::string> ReadInPieces(int index, const HashBytes& hash);
// BCStoreFrom of a blob, from a source that has `given`. The result.
int StoreInPieces(int index, std::string_view blob, std::string_view given);
// What a call of the wrapper fails with; "none" when it does not.
blobring::Error ErrorOf(const std::function<void()>& call);

// A store in /s whose slot k has its pack in /s as well.
class OpenedStore {
 public:
  enum class Policy { Erase, Keep, NotLoaded };

  // Opens, adds the slots and loads.
  explicit OpenedStore(int slots = 1, Policy policy = Policy::Erase);
  OpenedStore(const OpenedStore&) = delete;
  OpenedStore& operator=(const OpenedStore&) = delete;
  ~OpenedStore();

  int index = -1;
  bool loaded = false;  // what BCLoad said

  bool Start(long long id) const { return BCStartTransaction(index, &id) == 1; }
  bool End(long long id) const { return BCEndTransaction(index, &id) == 1; }
  bool Store(std::string_view data) const;
  bool Delete(std::string_view data) const;
  // One transaction with these blobs.
  bool Commit(long long id, const std::vector<std::string>& blobs) const;

  // A committed blob, read by the size that the store gives; nothing when it is not there or cannot
  // be read.
  std::optional<std::string> GetBy(HashBytes hash) const;
  bool Has(std::string_view data) const { return GetBy(HashOf(data)) == data; }
};

}  // namespace test

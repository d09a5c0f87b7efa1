// A store opened for one command.
#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "blobring/Store.h"
#include "tools/base/Console.h"
#include "tools/base/Files.h"
#include "tools/view/Layout.h"

namespace tool {

// The store's files are this process's as long as it lives, so messages wait until it is closed,
// and nothing else must be waited for or printed meanwhile.
class OpenStore {
  HeldMessages heldMessages_;  // outlives the store

 public:
  // Says what loading reports. Throws blobring::Error, Fault or UsageError.
  OpenStore(const StoreOptions& options, Access access);

  Layout layout;
  blobring::Store store;
  bool damaged;  // the newest generation is not whole
};

// The size of a committed blob; nothing if there is none. Reads no file.
std::optional<size_t> SizeOf(const blobring::Store& store, blobring::Hash hash);

// Sends the library's messages to the tool, not to standard error. Once, at start.
void InitTrace();

// Returns the messages since the last call, at most the first 1000, and forgets them. Up to this
// level: BLOBRING_HOST_ERROR, or BLOBRING_HOST_WARNING for both.
std::vector<std::string> DrainTrace(int maxLevel);

// The cause of a failure and what the user can do about it, then the store's own text.
std::string Explain(const std::exception& failure);
// The same; of a full disk, with what to do in a line of its own.
std::string ExplainInLines(const std::exception& failure);

}  // namespace tool

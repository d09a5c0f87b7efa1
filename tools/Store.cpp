#include "tools/Store.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

#include "blobring/blobring.h"
#include "tools/Console.h"
#include "tools/Error.h"
#include "tools/SlotFiles.h"
#include "tools/Trace.h"

namespace tool {
namespace {

// Paths go to the library as UTF-16 units, one for each byte.
std::u16string Widen(const std::string& path) {
  std::u16string wide;
  for (const char c : path) wide += static_cast<char16_t>(static_cast<unsigned char>(c));
  return wide;
}

// The library's pointers to hashes are not const, though it changes none.
unsigned char* Mutable(const Hash& hash) {
  return const_cast<unsigned char*>(hash.bytes.data());
}

// Runs one call of the library. Throws Fault("cannot <action>: <reason>") when
// the call throws or `succeeded` is not true of its result.
template <typename Call, typename Succeeded>
int Checked(const std::string& action, Call call, Succeeded succeeded) {
  const TraceCapture trace;
  try {
    const int result = call();
    if (succeeded(result)) return result;
  } catch (const std::exception& e) {
    const std::string advice = AdviceFor(e.what());
    throw Fault(fmt::format("cannot {}: {}{}{}", action, e.what(), advice.empty() ? "" : "; ", advice));
  }
  throw Fault(fmt::format("cannot {}: {}", action, trace.Reason()));
}

template <typename Call>
void Checked(const std::string& action, Call call) {
  Checked(action, call, [](int result) { return result == 1; });
}

// Transactions are repacked in the order of their ids; the time gives that.
long long NextTransactionId() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

Store::Store(StoreOptions options, Files files) : options_(std::move(options)) {
  if (files == Files::kMustExist) {
    const SlotFiles found(layout());
    if (onDamage() == OnDamage::kErase)
      found.RequirePresent();
    else
      found.RequireLoadable();
  }
  Open();
}

Store::~Store() {
  Close();
}

void Store::Open() {
  if (TryOpen()) return;
  // The files have been erased; opening makes new ones.
  if (!TryOpen())
    throw Fault(fmt::format("cannot open the store {}, though it was erased (see above)", layout().store()));
  Say(fmt::format("the store {} was erased and is empty now", layout().store()));
}

// False when the library has erased the store, which is then closed.
bool Store::TryOpen() {
  const std::string action = "open the store " + layout().store();
  index_ = Checked(
      action, [&] { return BCInitialize(Widen(layout().store()).c_str()); }, [](int index) { return index >= 0; });
  try {
    BCSetDamagePolicy(index_, onDamage() == OnDamage::kErase ? BLOBRING_DAMAGE_ERASE : BLOBRING_DAMAGE_KEEP);
    for (size_t slot = 0; slot < layout().slotCount(); ++slot)
      Checked(action, [&] { return BCAddPackDir(index_, Widen(layout().PackDir(slot)).c_str()); });
    if (Load(action)) return true;
  } catch (...) {
    Close();
    throw;
  }
  Close();
  return false;
}

bool Store::Load(const std::string& action) {
  TraceCapture trace;
  const int loaded = BCLoad(index_);
  // A load of sound files is silent, so every line tells of damage.
  damaged_ = damaged_ || !trace.lines().empty();
  for (const TraceLine& line : trace.lines()) Say(line.text);
  if (loaded != 1 && onDamage() == OnDamage::kKeep)
    throw Fault(fmt::format("cannot {}: {}; no file was changed", action, trace.Reason()));
  if (loaded == 1) NoteLostHeaders();
  return loaded == 1;
}

// A pack without its header does not say how new it is. A load that finds
// another one has no reason to look at it.
void Store::NoteLostHeaders() {
  const SlotFiles files(layout());
  for (const Slot& slot : files.slots()) {
    if (slot.pack.state != SlotFile::State::kDamaged) continue;
    damaged_ = true;
    Say(fmt::format("the header of {} is damaged: if that was the newest pack, an older state is shown",
                    slot.pack.path));
  }
}

void Store::RefuseWhenDamaged() const {
  if (damaged_ && onDamage() == OnDamage::kKeep)
    throw Fault(
        fmt::format("the store {0} is damaged (see above) and takes no changes while this is reported: "
                    "`blobring salvage {0} NEW` copies all that can be read into a new store; or restore a "
                    "backup, or go on with what is shown by `blobring repack --force {0}`",
                    layout().store()));
}

void Store::Close() {
  const TraceCapture trace;
  if (index_ >= 0) BCDispose(std::exchange(index_, -1));
}

std::optional<uint32_t> Store::SizeOf(const Hash& hash) const {
  const int size = Checked(
      "look up " + hash.Text(), [&] { return BCGetSize(index_, Mutable(hash)); },
      [](int result) { return result >= -1; });
  if (size < 0) return std::nullopt;
  return static_cast<uint32_t>(size);
}

Bytes Store::Get(const Hash& hash, Buffer& buffer) {
  // BCGet takes an absent hash or a wrong size for a fault of the whole store.
  const std::optional<uint32_t> size = SizeOf(hash);
  if (!size) throw Fault(fmt::format("{} has no blob {}", layout().store(), hash.Text()));
  unsigned char* to = buffer.Reserve(std::max<size_t>(*size, 1));
  try {
    Checked(
        "read the blob " + hash.Text(), [&] { return BCGet(index_, Mutable(hash), to, static_cast<int>(*size)); },
        [](int result) { return result == 0; });
  } catch (const Fault&) {
    // A failed read closes the store for good; the other blobs are still there.
    Close();
    Open();
    throw;
  }
  return {to, *size};
}

std::vector<Hash> Store::List() const {
  const TraceCapture trace;
  const int count = BCGetAllBlobHashesReset(index_);
  std::vector<Hash> hashes;
  hashes.reserve(static_cast<size_t>(count));
  for (Hash hash; BCGetAllBlobHashes(index_, hash.bytes.data(), 0) == 1;) hashes.push_back(hash);
  if (hashes.size() != static_cast<size_t>(count))
    throw Fault(fmt::format("cannot list the store {}: {} of {} hashes read", layout().store(), hashes.size(), count));
  return hashes;
}

void Store::Begin() {
  RefuseWhenDamaged();
  transactionId_ = NextTransactionId();
  Checked("start a transaction", [&] { return BCStartTransaction(index_, &transactionId_); });
}

Hash Store::Put(Bytes data, const std::string& name) {
  Hash hash;
  Checked("store " + name,
          [&] { return BCPut(index_, data.data(), static_cast<int>(data.size()), hash.bytes.data()); });
  return hash;
}

void Store::Delete(const Hash& hash) {
  Checked("delete the blob " + hash.Text(), [&] { return BCDelete(index_, Mutable(hash)); });
}

void Store::Commit() {
  Checked("commit", [&] { return BCEndTransaction(index_, &transactionId_); });
}

void Store::Repack(Force force) {
  if (force == Force::kNo) RefuseWhenDamaged();
  Checked("repack the store " + layout().store(), [&] { return BCRepack(index_); });
}

std::vector<std::string> Store::Check() const {
  const TraceCapture trace;
  std::vector<std::string> faults;
  try {
    if (BCFsck(index_) == 1) return faults;
  } catch (const std::exception& e) {
    throw Fault(fmt::format("cannot check the store {}: {}", layout().store(), e.what()));
  }
  for (const TraceLine& line : trace.lines())
    if (line.isError) faults.push_back(line.text);
  return faults;
}

}  // namespace tool

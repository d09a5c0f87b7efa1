// Blobring for C++20: a store as an object, over the flat calls of blobring.h. Header-only; link
// with the library.
//
//   blobring::Store store("/data/store");
//   blobring::Transaction change(store);
//   const blobring::Hash hash = store.put(bytes);
//   change.commit();  // from here on it survives a power cut
//   std::optional<std::vector<std::byte>> data = store.get(hash);
//
// Errors: a failure throws blobring::Error. Asking for an absent blob is no failure and costs a
// look-up.
// Threads: const functions may run at any time on any number of threads, beside each other and
// beside one thread that calls others. Moving, closing and destroying a store must not overlap with
// any other use of it. Different stores have nothing to do with each other.
#ifndef BLOBRING_STORE_H
#define BLOBRING_STORE_H

#if defined(_MSVC_LANG) ? _MSVC_LANG < 202002L : __cplusplus < 202002L
#error "blobring/Store.h needs C++20"
#endif

#include <blobring/Hash.h>
#include <blobring/blobring.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace blobring {

enum class Operation {
  Load = BLOBRING_LOADING,
  Check = BLOBRING_CHECKING,
  Repack = BLOBRING_REPACKING
};

// Progress callback, see BCProgress. Return false to stop; ignored during a load. An exception
// stops the operation too, and reaches the caller when it has ended. Must not call a store.
using Progress = std::function<bool(Operation operation, std::uint64_t done, std::uint64_t total)>;

// How a store is opened, see BCOptions.
struct Options {
  // 0: those of blobring.conf; without that file two, or one for each pack directory.
  unsigned slots = 0;
  // One for each slot. Empty: those of blobring.conf, or else the store's own directory.
  std::vector<std::filesystem::path> packDirectories = {};
  // True: a store that cannot be read is erased. This opening fails; the next one starts empty.
  bool eraseDamaged = false;
  // Of the load.
  Progress progress = {};
  // True: fail with BLOBRING_ERROR_NO_STORE rather than create a store.
  bool mustExist = false;
  // True: never write; every change fails with BLOBRING_ERROR_READ_ONLY.
  bool readOnly = false;
};

class Transaction;

class Store {
 public:
  // Opens the store in an existing directory, or creates its files there. Throws Error when the
  // files do not agree with the options, see BCOpen.
  explicit Store(const std::filesystem::path& directory, const Options& options = {}) {
    std::vector<std::string> names;
    for (const std::filesystem::path& pack : options.packDirectories)
      names.push_back(pack.string());
    std::vector<const char*> packs;
    packs.reserve(names.size());
    for (const std::string& name : names) packs.push_back(name.c_str());
    Watch watch(options.progress);
    BCOptions raw{};
    raw.size = sizeof raw;
    raw.slotCount = packs.empty() ? options.slots : static_cast<std::uint32_t>(packs.size());
    raw.packDirs = packs.empty() ? nullptr : packs.data();
    raw.eraseDamaged = options.eraseDamaged ? 1 : 0;
    raw.progress = &Watch::call;
    raw.mustExist = options.mustExist ? 1 : 0;
    raw.readOnly = options.readOnly ? 1 : 0;
    index_ = BCOpen(directory.string().c_str(), &raw);
    if (index_ < 0) throw failure("open " + directory.string(), -1);
    if (!watch.thrown) return;
    BCDispose(index_);
    std::rethrow_exception(watch.thrown);
  }

  // An open transaction moves with its store.
  Store(Store&& other) noexcept { take(other); }
  Store& operator=(Store&& other) noexcept {
    if (this == &other) return *this;
    close();
    take(other);
    return *this;
  }
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  // Changes that were not committed are lost.
  ~Store() { close(); }

  // Closes the store and abandons its transaction. Every later call fails.
  inline void close() noexcept;

  // Stores a blob in the open transaction, or commits it at once without one. Returns its hash. A
  // blob that is present is not written again. After an Error the transaction can still be
  // committed, without the blob.
  inline Hash put(std::span<const std::byte> data);
  Hash put(std::string_view text) { return put(std::as_bytes(std::span(text))); }

  // Returns a committed blob; nothing when it is absent, or put and not committed yet.
  std::optional<std::vector<std::byte>> get(const Hash& hash) const {
    const std::optional<std::size_t> bytes = size(hash);
    if (!bytes) return std::nullopt;
    std::vector<std::byte> data(*bytes);
    if (!get(hash, data)) return std::nullopt;  // deleted since
    return data;
  }

  // Copies a committed blob to the beginning of buffer and returns its size; nothing when it is
  // absent. Copies nothing when the size returned is larger than the buffer.
  std::optional<std::size_t> get(const Hash& hash, std::span<std::byte> buffer) const {
    constexpr std::size_t kMost = static_cast<std::size_t>(std::numeric_limits<int>::max());
    const int capacity = static_cast<int>(buffer.size() < kMost ? buffer.size() : kMost);
    int bytes = 0;
    switch (BCFetch(index_, hash.data(), reinterpret_cast<unsigned char*>(buffer.data()), capacity,
                    &bytes)) {
      case BLOBRING_FETCHED:
      case BLOBRING_TOO_SMALL:
        return static_cast<std::size_t>(bytes);
      case BLOBRING_NOT_FOUND:
        return std::nullopt;
      default:
        throw failure("get " + hash.text(), index_);
    }
  }

  // Returns the bytes of a committed blob; nothing when it is absent.
  std::optional<std::size_t> size(const Hash& hash) const {
    return get(hash, std::span<std::byte>());
  }
  bool contains(const Hash& hash) const { return size(hash).has_value(); }

  // Deletes a blob if it is present; commits as put does.
  inline void erase(const Hash& hash);

  // put, get and erase of many, faster than one by one. In an open transaction, the changes before
  // one that fails are pending; without one, all or none are committed. getMany gives the blobs in
  // the order of their hashes, nothing for those that are absent, and takes memory for all of them.
  inline std::vector<Hash> putMany(std::span<const std::span<const std::byte>> blobs);
  inline std::vector<std::optional<std::vector<std::byte>>> getMany(
      std::span<const Hash> hashes) const;
  inline void eraseMany(std::span<const Hash> hashes);

  // A blob in pieces, in memory that does not grow with it. A sink gets the next bytes, which
  // remain valid until it returns, and returns false to stop. A source writes the next bytes to the
  // beginning of the buffer and returns how many, 0 when there are no more. Both may throw; the
  // exception reaches the caller. Neither may call a store.
  using Sink = std::function<bool(std::span<const std::byte> piece)>;
  using Source = std::function<std::size_t(std::span<std::byte> buffer)>;

  // Hands a committed blob to the sink. What the sink has got must not be used unless Whole is
  // returned: a blob that is damaged throws after some of it was handed out. See BCRead.
  enum class Read { Whole, Absent, Stopped };
  inline Read read(const Hash& hash, const Sink& sink) const;

  // Stores a blob of `size` bytes whose hash is known, as put does. The source is not called if the
  // blob is present. Throws Error, and what the source throws; the transaction can then still be
  // committed, without the blob. See BCStoreFrom.
  inline void putFrom(const Hash& hash, std::uint64_t size, const Source& source);

  // A committed blob, as blobs() shows it.
  struct Blob {
    Hash hash;
    std::size_t size;  // bytes
  };

  // Iterates over the committed blobs in ascending order of their hashes, which it obtains a few
  // hundred at a time. The store may change meanwhile: the iterator may not notice.
  template <class Item>  // Hash or Blob
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::forward_iterator_tag;
    using value_type = Item;
    using difference_type = std::ptrdiff_t;
    using pointer = const Item*;
    using reference = const Item&;

    Iterator() = default;
    explicit Iterator(int index) : index_(index) { obtain(nullptr); }
    reference operator*() const { return (*items_)[at_]; }
    pointer operator->() const { return &**this; }
    Iterator& operator++() {
      const Hash before = hashOf(**this);
      if (++at_ == items_->size()) obtain(before.data());
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const Iterator& a, const Iterator& b) {
      if (!a.items_ || !b.items_) return a.items_ == b.items_;
      return a.index_ == b.index_ && hashOf(*a) == hashOf(*b);
    }

   private:
    static const Hash& hashOf(const Hash& item) { return item; }
    static const Hash& hashOf(const Blob& item) { return item.hash; }

    void obtain(const std::uint8_t* before) {
      constexpr int kAtATime = 256;
      std::vector<Hash> hashes(kAtATime);
      const int found =
          BCNextHashes(index_, before, reinterpret_cast<Digest*>(hashes.data()), kAtATime);
      if (found < 0) throw failure("hashes", index_);
      hashes.resize(static_cast<std::size_t>(found));
      items_ = nullptr;
      at_ = 0;
      if (found == 0) return;
      if constexpr (std::is_same_v<Item, Hash>) {
        items_ = std::make_shared<const std::vector<Hash>>(std::move(hashes));
      } else {
        std::vector<Blob> blobs;
        for (const BCFetchItem& item : sizesOf(index_, hashes))
          if (item.result != BLOBRING_NOT_FOUND)  // deleted since
            blobs.push_back({Hash(std::to_array(item.hash)), static_cast<std::size_t>(item.size)});
        if (blobs.empty()) return obtain(hashes.back().data());
        items_ = std::make_shared<const std::vector<Blob>>(std::move(blobs));
      }
    }

    int index_ = -1;
    std::shared_ptr<const std::vector<Item>> items_;  // null at the end
    std::size_t at_ = 0;
  };
  template <class Item>
  class Range {
   public:
    explicit Range(int index) : index_(index) {}
    Iterator<Item> begin() const { return Iterator<Item>(index_); }
    Iterator<Item> end() const { return {}; }

   private:
    int index_;
  };
  Range<Hash> hashes() const { return Range<Hash>(index_); }
  Range<Blob> blobs() const { return Range<Blob>(index_); }

  BCStatistics stats() const {
    BCStatistics statistics{};
    statistics.size = sizeof statistics;
    if (BCGetStatistics(index_, &statistics) != 1) throw failure("stats", index_);
    return statistics;
  }

  // Copies every blob into the next slot, which frees the space of deleted ones. Returns false when
  // progress stopped it; the store is as it was. After an Error it is as it was or closed;
  // stats().loaded tells.
  bool repack(const Progress& progress = {}) {
    bool stopped = false;
    const int result = watched(progress, stopped, [this] { return BCRepack(index_); });
    if (result == 1) return true;
    if (stopped) return false;
    throw failure("repack", index_);
  }

  // Reads every blob and checks it against its hash. Faults go to the trace; lastFailure() has the
  // first ones.
  enum class Checked { Sound, Faulty, Stopped };
  Checked check(const Progress& progress = {}) const {
    bool stopped = false;
    switch (watched(progress, stopped, [this] { return BCCheck(index_); })) {
      case BLOBRING_CHECK_SOUND:
        return Checked::Sound;
      case BLOBRING_CHECK_FAULTY:
        return Checked::Faulty;
      case BLOBRING_CHECK_STOPPED:
        return Checked::Stopped;
      default:
        throw failure("check", index_);
    }
  }

  // See BCLastError.
  std::string lastFailure() const { return lastFailure(index_); }

  // The index for the calls of blobring.h.
  int index() const { return index_; }

 private:
  friend class Transaction;
  using Digest = unsigned char[BLOBRING_HASH_SIZE];
  static_assert(sizeof(Hash) == sizeof(Digest));

  // Calls a Progress from the C callback, which no exception may leave. Every store has the same
  // callback, which finds the Progress of its thread: checks may run on several.
  struct Watch {
    explicit Watch(const Progress& of) : progress(of) { running = progress ? this : nullptr; }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() { running = nullptr; }

    const Progress& progress;
    std::exception_ptr thrown;
    bool stopped = false;

    static inline constinit thread_local Watch* running = nullptr;

    static int call(void* /*context*/, int operation, std::uint64_t done,
                    std::uint64_t total) noexcept {
      if (running == nullptr) return 0;
      Watch& watch = *running;
      if (watch.thrown) return 1;
      try {
        watch.stopped = !watch.progress(static_cast<Operation>(operation), done, total);
      } catch (...) {
        watch.thrown = std::current_exception();
        watch.stopped = true;
      }
      return watch.stopped ? 1 : 0;
    }
  };

  // Calls a Sink or Source from the C callback. What it throws reaches the caller of the store.
  template <class Function>
  struct Guard {
    const Function& function;
    std::exception_ptr thrown;

    template <class Piece>
    std::size_t call(std::span<Piece> piece, std::size_t failed) noexcept {
      try {
        return function(piece);
      } catch (...) {
        thrown = std::current_exception();
        return failed;
      }
    }
    void rethrow() const {
      if (thrown) std::rethrow_exception(thrown);
    }
  };

  template <class Call>
  int watched(const Progress& progress, bool& stopped, Call call) const {
    Watch watch(progress);
    const int result = call();
    if (watch.thrown) std::rethrow_exception(watch.thrown);
    stopped = watch.stopped;
    return result;
  }

  static const unsigned char* bytesOf(std::span<const std::byte> data) {
    return reinterpret_cast<const unsigned char*>(data.data());
  }

  // The calls take int.
  static int sizeOf(std::span<const std::byte> data) {
    if (data.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()))
      return static_cast<int>(data.size());
    throw Error("blobring: put: a blob of " + std::to_string(data.size()) + " bytes is too large",
                BLOBRING_ERROR_ARGUMENT);
  }
  template <class Item>
  static int countOf(std::span<Item> items) {
    if (items.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()))
      return static_cast<int>(items.size());
    throw Error("blobring: more than 2147483647 blobs", BLOBRING_ERROR_ARGUMENT);
  }

  // Asks for the sizes alone: BCFetch with capacity 0.
  static std::vector<BCFetchItem> sizesOf(int index, std::span<const Hash> hashes) {
    std::vector<BCFetchItem> items(hashes.size());
    for (std::size_t i = 0; i < items.size(); ++i)
      std::memcpy(items[i].hash, hashes[i].data(), Hash::kSize);
    BCFetchMany(index, items.data(), countOf(hashes));
    return items;
  }

  static std::string lastFailure(int index) {
    std::array<char, 1024> text{};
    BCLastError(index, text.data(), static_cast<int>(text.size()));
    return text.data();
  }
  static Error failure(const std::string& operation, int index) {
    return {"blobring: " + operation + ": " + lastFailure(index), BCLastErrorCode(index),
            BCLastSystemError(index)};
  }

  inline void take(Store& other) noexcept;

  int index_ = -1;
  Transaction* open_ = nullptr;
};

// A transaction on a store, at most one at a time. The destructor abandons the changes since the
// constructor unless they are committed. Both may be moved; one that was moved from has ended.
class Transaction {
 public:
  // Any id will do. It is kept with the blobs, and a repack orders them by it.
  explicit Transaction(Store& store, long long id = 0) : store_(&store), id_(id) {
    if (store.open_ != nullptr)
      throw Error("blobring: begin: a transaction is open already", BLOBRING_ERROR_REFUSED);
    if (BCStartTransaction(store.index_, &id) != 1) throw Store::failure("begin", store.index_);
    store.open_ = this;
  }
  Transaction(Transaction&& other) noexcept { take(other); }
  Transaction& operator=(Transaction&& other) noexcept {
    if (this == &other) return *this;
    abandon();
    take(other);
    return *this;
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() { abandon(); }

  // Once this returns, the changes survive a power cut. After an Error they are still pending and
  // it can be called again, unless the code is BLOBRING_ERROR_IN_DOUBT; see BCEndTransaction.
  void commit() {
    if (store_ == nullptr)
      throw Error("blobring: commit: the transaction has ended", BLOBRING_ERROR_CLOSED);
    if (BCEndTransaction(store_->index_, &id_) != 1) throw Store::failure("commit", store_->index_);
    store_->open_ = nullptr;
    store_ = nullptr;
  }

 private:
  friend class Store;

  void abandon() noexcept {
    if (store_ == nullptr) return;
    BCAbandonTransaction(store_->index_);
    store_->open_ = nullptr;
    store_ = nullptr;
  }
  void take(Transaction& other) noexcept {
    store_ = std::exchange(other.store_, nullptr);
    id_ = other.id_;
    if (store_ != nullptr) store_->open_ = this;
  }

  Store* store_ = nullptr;  // null once it has ended
  long long id_ = 0;
};

inline void Store::close() noexcept {
  if (open_ != nullptr) open_->store_ = nullptr;
  open_ = nullptr;
  if (index_ >= 0) BCDispose(index_);
  index_ = -1;
}

inline void Store::take(Store& other) noexcept {
  index_ = std::exchange(other.index_, -1);
  open_ = std::exchange(other.open_, nullptr);
  if (open_ != nullptr) open_->store_ = this;
}

inline Hash Store::put(std::span<const std::byte> data) {
  const int size = sizeOf(data);
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  Hash hash;
  if (BCPut(index_, bytesOf(data), size, hash.data()) != 1) throw failure("put", index_);
  if (own) own->commit();
  return hash;
}

inline std::vector<Hash> Store::putMany(std::span<const std::span<const std::byte>> blobs) {
  std::vector<BCBlob> items;
  items.reserve(blobs.size());
  for (const std::span<const std::byte> blob : blobs)
    items.push_back({bytesOf(blob), sizeOf(blob), {}});
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  if (BCPutMany(index_, items.data(), countOf(blobs)) != countOf(blobs))
    throw failure("put", index_);
  if (own) own->commit();
  std::vector<Hash> hashes;
  hashes.reserve(items.size());
  for (const BCBlob& item : items) hashes.emplace_back(std::to_array(item.hash));
  return hashes;
}

inline Store::Read Store::read(const Hash& hash, const Sink& sink) const {
  Guard<Sink> guard{sink, nullptr};
  const auto take = [](void* context, const unsigned char* data, int size) {
    const std::span piece(reinterpret_cast<const std::byte*>(data), static_cast<std::size_t>(size));
    return static_cast<Guard<Sink>*>(context)->call(piece, 0) == 0 ? 1 : 0;
  };
  const int result = BCRead(index_, hash.data(), take, &guard);
  guard.rethrow();
  switch (result) {
    case BLOBRING_FETCHED:
      return Read::Whole;
    case BLOBRING_NOT_FOUND:
      return Read::Absent;
    case BLOBRING_STOPPED:
      return Read::Stopped;
    default:
      throw failure("read " + hash.text(), index_);
  }
}

inline void Store::putFrom(const Hash& hash, std::uint64_t size, const Source& source) {
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  Guard<Source> guard{source, nullptr};
  const auto give = [](void* context, unsigned char* buffer, int capacity) {
    constexpr auto kFailed = std::numeric_limits<std::size_t>::max();
    const std::span room(reinterpret_cast<std::byte*>(buffer), static_cast<std::size_t>(capacity));
    const std::size_t given = static_cast<Guard<Source>*>(context)->call(room, kFailed);
    return given <= room.size() ? static_cast<int>(given) : -1;
  };
  const int stored = BCStoreFrom(index_, hash.data(), size, give, &guard);
  guard.rethrow();
  if (stored != 1) throw failure("put " + hash.text(), index_);
  if (own) own->commit();
}

// The sizes first, then the blobs.
inline std::vector<std::optional<std::vector<std::byte>>> Store::getMany(
    std::span<const Hash> hashes) const {
  std::vector<BCFetchItem> items = sizesOf(index_, hashes);
  std::vector<std::optional<std::vector<std::byte>>> blobs(hashes.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (items[i].result != BLOBRING_TOO_SMALL) continue;
    blobs[i].emplace(static_cast<std::size_t>(items[i].size));
    items[i].buffer = reinterpret_cast<unsigned char*>(blobs[i]->data());
    items[i].capacity = items[i].size;
  }
  BCFetchMany(index_, items.data(), countOf(hashes));
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (items[i].result == BLOBRING_FAILED) throw failure("get " + hashes[i].text(), index_);
    if (items[i].result == BLOBRING_FETCHED && !blobs[i]) blobs[i].emplace();  // an empty blob
    if (items[i].result == BLOBRING_NOT_FOUND) blobs[i].reset();               // deleted since
  }
  return blobs;
}

inline void Store::erase(const Hash& hash) {
  eraseMany({&hash, 1});
}

inline void Store::eraseMany(std::span<const Hash> hashes) {
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  const int count = countOf(hashes);
  const int erased = BCDeleteMany(index_, reinterpret_cast<const Digest*>(hashes.data()), count);
  if (erased != count)
    throw failure("erase " + hashes[static_cast<std::size_t>(erased)].text(), index_);
  if (own) own->commit();
}

}  // namespace blobring

#endif

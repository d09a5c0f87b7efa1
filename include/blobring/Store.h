// Blobring for C++20: a store as an object, over the flat calls of
// blobring.h. Header-only; link with the library.
//
//   blobring::Store store("/data/store");
//   blobring::Transaction change(store);
//   const blobring::Hash hash = store.put(bytes);
//   change.commit();  // from here on it survives a power cut
//   std::optional<std::vector<std::byte>> data = store.get(hash);
//
// Errors: every failure is a blobring::Error with the store's own words.
// Asking for a blob that is not there is none, and costs a look-up.
// Threads: calls on stores of a process must not overlap.
// Names that the calls below cannot explain are those of blobring.h.
#ifndef BLOBRING_STORE_H
#define BLOBRING_STORE_H

#if defined(_MSVC_LANG) ? _MSVC_LANG < 202002L : __cplusplus < 202002L
#error "blobring/Store.h needs C++20"
#endif

#include <blobring/blobring.h>

#include <array>
#include <compare>
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
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace blobring {

// What the store reported, behind the operation that failed.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The key of a blob: the MD5 digest of its contents (RFC 1321). Ordered by
// bytes, the first one counting most, as a store enumerates.
class Hash {
 public:
  static constexpr std::size_t kSize = BLOBRING_HASH_SIZE;

  constexpr Hash() = default;  // 16 zeros
  explicit constexpr Hash(const std::array<std::uint8_t, kSize>& digest) : bytes_(digest) {}

  // The hash that a blob of these contents has. Throws Error from 4 GiB on.
  static Hash of(std::span<const std::byte> data);

  // From 32 hexadecimal digits of either case; nothing for any other text.
  static constexpr std::optional<Hash> parse(std::string_view text) {
    if (text.size() != 2 * kSize) return std::nullopt;
    Hash hash;
    for (std::size_t i = 0; i < text.size(); ++i) {
      const int digit = digitValue(text[i]);
      if (digit < 0) return std::nullopt;
      hash.bytes_[i / 2] = static_cast<std::uint8_t>(hash.bytes_[i / 2] << 4 | digit);
    }
    return hash;
  }

  // 32 hexadecimal digits, lower case.
  std::string text() const {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : bytes_) {
      text += kDigits[byte >> 4];
      text += kDigits[byte & 15];
    }
    return text;
  }

  constexpr const std::array<std::uint8_t, kSize>& bytes() const { return bytes_; }
  std::uint8_t* data() { return bytes_.data(); }
  const std::uint8_t* data() const { return bytes_.data(); }

  friend constexpr auto operator<=>(const Hash&, const Hash&) = default;

 private:
  static constexpr int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  std::array<std::uint8_t, kSize> bytes_{};
};

enum class Operation { Load = BLOBRING_LOADING, Check = BLOBRING_CHECKING, Repack = BLOBRING_REPACKING };

// Told how far an operation has got, see BCProgress; returns whether to go on.
// What it throws stops the operation, or waits for the end of a load, and then
// reaches the caller. Must not call the store.
using Progress = std::function<bool(Operation operation, std::uint64_t done, std::uint64_t total)>;

struct Options {
  unsigned slots = 2;                                       // where packDirectories is empty
  std::vector<std::filesystem::path> packDirectories = {};  // of the slots in turn; otherwise the store's own
  bool eraseDamaged = false;  // true: a store that cannot be read is erased and starts empty
  Progress progress = {};     // of loading
};

class Transaction;

class Store {
 public:
  // Opens the store in a directory that exists, creating its files when they
  // are missing. The same slots in the same order every time.
  explicit Store(const std::filesystem::path& directory, const Options& options = {}) {
    std::vector<std::string> names;
    for (const std::filesystem::path& pack : options.packDirectories) names.push_back(pack.string());
    std::vector<const char*> packs;
    for (const std::string& name : names) packs.push_back(name.c_str());
    Watch watch{options.progress, nullptr};
    BCOptions raw{};
    raw.size = sizeof raw;
    raw.slotCount = packs.empty() ? options.slots : static_cast<std::uint32_t>(packs.size());
    raw.packDirs = packs.empty() ? nullptr : packs.data();
    raw.eraseDamaged = options.eraseDamaged ? 1 : 0;
    raw.progress = options.progress ? &Watch::call : nullptr;
    raw.progressContext = &watch;
    if (raw.slotCount == 0) throw Error("blobring: a store needs a slot");
    index_ = BCOpen(directory.string().c_str(), &raw);
    if (index_ < 0) throw failure("open " + directory.string(), -1);
    BCSetProgress(index_, nullptr, nullptr);
    if (!watch.thrown) return;
    BCDispose(index_);
    std::rethrow_exception(watch.thrown);
  }

  // A transaction that is open goes with it.
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

  // Closes the store and ends its transaction; every later call fails.
  inline void close() noexcept;

  // Stores a blob and returns its hash, in the open transaction or, without
  // one, committed at once. One that is there already is not written again.
  // After an Error the transaction is sound and may be committed without it.
  inline Hash put(std::span<const std::byte> data);
  Hash put(std::string_view text) { return put(std::as_bytes(std::span(text))); }

  // The committed blob; nothing when there is none of that hash.
  std::optional<std::vector<std::byte>> get(const Hash& hash) const {
    const std::optional<std::size_t> bytes = size(hash);
    if (!bytes) return std::nullopt;
    std::vector<std::byte> data(*bytes);
    get(hash, data);
    return data;
  }

  // Reads the committed blob into the beginning of a buffer and returns its
  // size; nothing when there is none of that hash. When it is larger than the
  // buffer, nothing is read: compare.
  std::optional<std::size_t> get(const Hash& hash, std::span<std::byte> buffer) const {
    constexpr std::size_t kMost = static_cast<std::size_t>(std::numeric_limits<int>::max());
    const int capacity = static_cast<int>(buffer.size() < kMost ? buffer.size() : kMost);
    int bytes = 0;
    switch (BCFetch(index_, hash.data(), reinterpret_cast<unsigned char*>(buffer.data()), capacity, &bytes)) {
      case BLOBRING_FETCHED:
      case BLOBRING_TOO_SMALL:
        return static_cast<std::size_t>(bytes);
      case BLOBRING_NOT_FOUND:
        return std::nullopt;
      default:
        throw failure("get " + hash.text(), index_);
    }
  }

  // Bytes of the committed blob; nothing when there is none of that hash.
  // Asks the index alone, except about an empty blob, which is read.
  std::optional<std::size_t> size(const Hash& hash) const { return get(hash, std::span<std::byte>()); }
  bool contains(const Hash& hash) const { return size(hash).has_value(); }

  // Deletes a blob if it is there, as put stores one.
  inline void erase(const Hash& hash);

  // The committed hashes in ascending order. Goes on through changes: a blob
  // that comes or goes behind the iterator is not noticed.
  class HashIterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using iterator_concept = std::forward_iterator_tag;
    using value_type = Hash;
    using difference_type = std::ptrdiff_t;
    using pointer = const Hash*;
    using reference = const Hash&;

    HashIterator() = default;
    explicit HashIterator(int index) : index_(index) { advance(nullptr); }
    reference operator*() const { return hash_; }
    pointer operator->() const { return &hash_; }
    HashIterator& operator++() {
      const Hash before = hash_;
      advance(before.data());
      return *this;
    }
    HashIterator operator++(int) {
      HashIterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const HashIterator& a, const HashIterator& b) {
      return a.atEnd_ == b.atEnd_ && (a.atEnd_ || (a.index_ == b.index_ && a.hash_ == b.hash_));
    }

   private:
    void advance(const std::uint8_t* before) {
      const int found = BCNextHash(index_, before, hash_.data());
      if (found < 0) throw failure("hashes", index_);
      atEnd_ = found == 0;
    }

    int index_ = -1;
    bool atEnd_ = true;
    Hash hash_;
  };
  class HashRange {
   public:
    explicit HashRange(int index) : index_(index) {}
    HashIterator begin() const { return HashIterator(index_); }
    HashIterator end() const { return {}; }

   private:
    int index_;
  };
  HashRange hashes() const { return HashRange(index_); }

  BCStatistics stats() const {
    BCStatistics statistics{};
    statistics.size = sizeof statistics;
    if (BCGetStatistics(index_, &statistics) != 1) throw failure("stats", index_);
    return statistics;
  }

  // Copies every blob into the next slot, which frees what deleted ones took.
  // False when progress stopped it: the store is as it was. After an Error it
  // is as it was (refused) or closed; stats().loaded tells.
  bool repack(const Progress& progress = {}) {
    bool stopped = false;
    const int result = watched(progress, stopped, [this] { return BCRepack(index_); });
    if (result == 1) return true;
    if (stopped) return false;
    throw failure("repack", index_);
  }

  // Reads every blob and compares it with its hash. What is wrong is on the
  // trace; lastFailure() has its beginning.
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

  // What the last call that had to report something said, see BCLastError.
  std::string lastFailure() const { return lastFailure(index_); }

  // For the calls of blobring.h.
  int index() const { return index_; }

 private:
  friend class Transaction;

  // An embedder's function behind the C one, which no exception may leave.
  struct Watch {
    const Progress& progress;
    std::exception_ptr thrown;
    bool stopped = false;

    static int call(void* context, int operation, std::uint64_t done, std::uint64_t total) noexcept {
      Watch& watch = *static_cast<Watch*>(context);
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

  template <class Call>
  int watched(const Progress& progress, bool& stopped, Call call) const {
    if (!progress) return call();
    Watch watch{progress, nullptr};
    BCSetProgress(index_, &Watch::call, &watch);
    const int result = call();
    BCSetProgress(index_, nullptr, nullptr);
    if (watch.thrown) std::rethrow_exception(watch.thrown);
    stopped = watch.stopped;
    return result;
  }

  static const unsigned char* bytesOf(std::span<const std::byte> data) {
    return reinterpret_cast<const unsigned char*>(data.data());
  }

  static std::string lastFailure(int index) {
    std::array<char, 1024> text{};
    BCLastError(index, text.data(), static_cast<int>(text.size()));
    return text.data();
  }
  static Error failure(const std::string& operation, int index) {
    return Error("blobring: " + operation + ": " + lastFailure(index));
  }

  inline void take(Store& other) noexcept;

  int index_ = -1;
  Transaction* open_ = nullptr;
};

// The changes to a store from here to commit(), one at a time. Destroyed
// before that, it abandons them. Its store may be moved.
class Transaction {
 public:
  // The id, any number, is kept with the blobs: a repack orders them by it.
  explicit Transaction(Store& store, long long id = 0) : store_(&store), id_(id) {
    if (store.open_ != nullptr) throw Error("blobring: begin: a transaction is open already");
    if (BCStartTransaction(store.index_, &id) != 1) throw Store::failure("begin", store.index_);
    store.open_ = this;
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (store_ == nullptr) return;
    BCAbandonTransaction(store_->index_);
    store_->open_ = nullptr;
  }

  // Once this returns, the changes survive a power cut. After an Error they
  // are pending still and it can be called again, unless stats().inDoubt says
  // that a flush has failed: then only opening the store anew tells.
  void commit() {
    if (store_ == nullptr) throw Error("blobring: commit: the transaction has ended");
    if (BCEndTransaction(store_->index_, &id_) != 1) throw Store::failure("commit", store_->index_);
    store_->open_ = nullptr;
    store_ = nullptr;
  }

 private:
  friend class Store;

  Store* store_;  // null once it has ended
  long long id_;
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
  if (data.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    throw Error("blobring: put: a blob of " + std::to_string(data.size()) + " bytes is too large");
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  Hash hash;
  if (BCPut(index_, bytesOf(data), static_cast<int>(data.size()), hash.data()) != 1) throw failure("put", index_);
  if (own) own->commit();
  return hash;
}

inline void Store::erase(const Hash& hash) {
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  Hash copy = hash;
  if (BCDelete(index_, copy.data()) != 1) throw failure("erase " + hash.text(), index_);
  if (own) own->commit();
}

inline Hash Hash::of(std::span<const std::byte> data) {
  if (data.size() > std::numeric_limits<unsigned>::max()) throw Error("blobring: hash of more than 4 GiB");
  Hash hash;
  if (BCMD5ChkSumInt(reinterpret_cast<const unsigned char*>(data.data()), static_cast<unsigned>(data.size()),
                     hash.data()) != 1)
    throw Error("blobring: the digest cannot be computed");
  return hash;
}

}  // namespace blobring

template <>
struct std::hash<blobring::Hash> {
  // Digests are evenly spread: the first bytes serve.
  std::size_t operator()(const blobring::Hash& key) const noexcept {
    std::size_t value = 0;
    std::memcpy(&value, key.data(), sizeof value);
    return value;
  }
};

#endif

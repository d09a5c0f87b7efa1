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
// Threads: as in blobring.h. Different stores may be used on different threads, but constructing,
// moving, closing and destroying a store must not overlap with any other use of a store.
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

// What failed, and the store's text of the failure, which begins with the cause.
class Error : public std::runtime_error {
 public:
  Error(const std::string& text, int code) : std::runtime_error(text), code_(code) {}

  // BLOBRING_ERROR_...
  int code() const noexcept { return code_; }

 private:
  int code_;
};

// The key of a blob: the MD5 digest of its contents (RFC 1321). Ordered bytewise, as a store
// enumerates.
class Hash {
 public:
  static constexpr std::size_t kSize = BLOBRING_HASH_SIZE;

  // 16 zeros.
  constexpr Hash() = default;
  explicit constexpr Hash(const std::array<std::uint8_t, kSize>& digest) : bytes_(digest) {}

  // Returns the hash of a blob with these contents. Throws Error for 4 GiB or more.
  static Hash of(std::span<const std::byte> data);

  // Takes 32 hexadecimal digits of either case. Returns nothing for other texts.
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

  // Returns 32 hexadecimal digits, lower case.
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

  // NOLINTNEXTLINE(modernize-use-nullptr): clang-tidy 14 means the 0 of the generated code
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
    Watch watch{options.progress, nullptr};
    BCOptions raw{};
    raw.size = sizeof raw;
    raw.slotCount = packs.empty() ? options.slots : static_cast<std::uint32_t>(packs.size());
    raw.packDirs = packs.empty() ? nullptr : packs.data();
    raw.eraseDamaged = options.eraseDamaged ? 1 : 0;
    raw.progress = options.progress ? &Watch::call : nullptr;
    raw.progressContext = &watch;
    raw.mustExist = options.mustExist ? 1 : 0;
    raw.readOnly = options.readOnly ? 1 : 0;
    index_ = BCOpen(directory.string().c_str(), &raw);
    if (index_ < 0) throw failure("open " + directory.string(), -1);
    BCSetProgress(index_, nullptr, nullptr);
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

  // Returns a committed blob; nothing when it is absent.
  std::optional<std::vector<std::byte>> get(const Hash& hash) const {
    const std::optional<std::size_t> bytes = size(hash);
    if (!bytes) return std::nullopt;
    std::vector<std::byte> data(*bytes);
    get(hash, data);
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

  // Iterates over the committed hashes in ascending order. The store may change meanwhile: changes
  // behind the iterator go unnoticed.
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

  // Calls a Progress from the C callback, which no exception may leave.
  struct Watch {
    const Progress& progress;
    std::exception_ptr thrown;
    bool stopped = false;

    static int call(void* context, int operation, std::uint64_t done,
                    std::uint64_t total) noexcept {
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
    return {"blobring: " + operation + ": " + lastFailure(index), BCLastErrorCode(index)};
  }

  inline void take(Store& other) noexcept;

  int index_ = -1;
  Transaction* open_ = nullptr;
};

// A transaction on a store, at most one at a time. The destructor abandons the changes since the
// constructor unless they are committed. The store may be moved.
class Transaction {
 public:
  // Any id will do. It is kept with the blobs, and a repack orders them by it.
  explicit Transaction(Store& store, long long id = 0) : store_(&store), id_(id) {
    if (store.open_ != nullptr)
      throw Error("blobring: begin: a transaction is open already", BLOBRING_ERROR_REFUSED);
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
    throw Error("blobring: put: a blob of " + std::to_string(data.size()) + " bytes is too large",
                BLOBRING_ERROR_ARGUMENT);
  std::optional<Transaction> own;
  if (open_ == nullptr) own.emplace(*this);
  Hash hash;
  if (BCPut(index_, bytesOf(data), static_cast<int>(data.size()), hash.data()) != 1)
    throw failure("put", index_);
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
  if (data.size() > std::numeric_limits<unsigned>::max())
    throw Error("blobring: hash of 4 GiB or more", BLOBRING_ERROR_ARGUMENT);
  Hash hash;
  if (BCMD5ChkSumInt(reinterpret_cast<const unsigned char*>(data.data()),
                     static_cast<unsigned>(data.size()), hash.data()) != 1)
    throw Error("blobring: the digest cannot be computed", BCLastErrorCode(-1));
  return hash;
}

}  // namespace blobring

template <>
struct std::hash<blobring::Hash> {
  // Digests are evenly distributed; the first bytes will do.
  std::size_t operator()(const blobring::Hash& key) const noexcept {
    std::size_t value = 0;
    std::memcpy(&value, key.data(), sizeof value);
    return value;
  }
};

#endif

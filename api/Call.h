// One exported call from entry to return: the store that it works on, whether its arguments are
// valid, and what becomes of what the store throws.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "api/Registry.h"
#include "pack/BlobPair.h"
#include "pack/Hash.h"
#include "platform/Failure.h"

namespace api {

inline std::uint32_t Word(int value) {
  return static_cast<std::uint32_t>(value);
}

inline Hash ToHash(const unsigned char* bytes) {
  Hash hash;
  hash.setHash(const_cast<unsigned char*>(bytes));  // only reads them
  return hash;
}

inline BlobPair PairOf(const unsigned char* hash, const unsigned char* data, int size) {
  BlobPair pair;
  pair.hash = ToHash(hash);
  pair.buffer = {const_cast<unsigned char*>(data), Word(size)};  // written to by GetBlob alone
  return pair;
}

// What a call leaves behind when it has caught a failure: a warning of prefix, the failure's text
// and, if there is a hash, separator and hash; and a numeric record, unless errorId is 0.
struct Handler {
  const char* prefix;
  std::uint32_t errorId = 0;
  const unsigned char* hash = nullptr;
  const char* separator = " hash=";
};

// What is traced until the Call goes is the text of the store's last failure, or of the thread's
// for a call that belongs to no store.
//
// A function of the host's that runs inside a call must not call back. A call on a store from there
// is refused, and so is one that opens or disposes of one: the object that the outer call works on
// could go.
class Call {
 public:
  Call(const char* callName, int storeIndex);
  explicit Call(const char* callName);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call();

  // False, after a message, when the call is refused.
  explicit operator bool() const { return !refused_; }
  BlobController& Store() const { return *store_; }

  // Of a call without a store that makes or drops one: false when refused.
  bool MayChangeRegistry();

  // Traces into a store's text from here on, unless it runs in another call.
  void BelongsTo(registry::Entry& entry) const;

  // False, after a message or when the call is refused, if pointer is null.
  bool Has(const char* argument, const void* pointer) {
    if (!refused_ && pointer == nullptr) Refuse(FailureCode::Argument, Text(argument, " is null"));
    return !refused_ && pointer != nullptr;
  }
  // Whether size bytes at data can be a blob. argument is the name of data.
  bool HasBytes(const char* argument, const unsigned char* data, const char* sizeName, int size);

  // Writes the name of the call and the text as a warning; false.
  bool Refuse(FailureCode code, const std::string& text);

  // Runs work, which returns the result, and turns a failure into `failed`.
  template <class Work>
  int Catch(const Handler& handler, int failed, Work work) {
    try {
      return work();
    } catch (const std::exception& e) {
      Report(handler, e);
      return failed;
    }
  }

  // The calls that this one runs in have ended, whether they return or not.
  void EndOuterCalls() { outerCalls_ = 0; }

 private:
  void Report(const Handler& handler, const std::exception& e) const;
  bool RefuseNested();

  const char* name_;
  int index_ = -1;
  int outerCalls_;                   // of this thread, that have not returned
  BlobController* store_ = nullptr;  // set unless refused_, in a call on a store
  bool refused_ = false;
};

}  // namespace api

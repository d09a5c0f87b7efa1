// One exported call from entry to return: finds the store, checks the arguments, and turns what the
// store throws into a failure value.
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

// How a call reports a failure that it has caught: a warning of prefix, the failure's text and, if
// there is a hash, separator and hash; and a numeric record, unless errorId is 0.
struct Handler {
  const char* prefix;
  std::uint32_t errorId = 0;
  const unsigned char* hash = nullptr;
  const char* separator = " hash=";
};

// Until the Call is destroyed, whatever is traced becomes the text of the thread's last failure,
// and with the end of the call the store's, if it is a call on one. The store stays as long.
//
// A function of the host's that runs inside a call must not call back: the inner call could remove
// the object that the outer one works on. Such a call is refused.
class Call {
 public:
  Call(const char* callName, int storeIndex);
  explicit Call(const char* callName);
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() { End(); }

  // False, after a message, if the call is refused.
  explicit operator bool() const { return !refused_; }
  BlobController& Store() const { return *store_; }

  // For a call that opens or disposes of a store. False, after a message, inside another call.
  bool RequireOutermost();

  // Makes this a call on a store from here on, unless it runs inside another call. Null if it does
  // or no store has the index.
  BlobController* Enter(int storeIndex);

  // False if pointer is null, after a message, or if the call is refused.
  bool Require(const char* argument, const void* pointer) {
    if (!refused_ && pointer == nullptr) Refuse(FailureCode::Argument, Text(argument, " is null"));
    return !refused_ && pointer != nullptr;
  }
  // False, after a message, if size bytes at data cannot be a blob. argument is the name of data.
  bool RequireBytes(const char* argument, const unsigned char* data, const char* sizeName,
                    int size);

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

  // Before a function of the host's that may not return: this call, or those around it and a check
  // in them, count as ended.
  void End();
  void EndOuterCalls() {
    outerCalls_ = 0;
    BlobController::ForgetCheck();
  }

  // For a call whose result says the same of an empty store and of one that is not loaded.
  void NoteIfNotLoaded() const;

  // Runs work. What it throws reaches the caller, and memory that cannot be had as the store's own
  // failure.
  template <class Work>
  static auto Pass(Work work) {
    try {
      return work();
    } catch (const std::bad_alloc& e) {
      trace::NoteCause(e);
      pooled::ThrowNoMemory();
    } catch (const std::exception& e) {
      trace::NoteCause(e);
      throw;
    }
  }

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

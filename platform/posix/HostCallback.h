// A function of the host's and its context, which the host may exchange at any time from any
// thread.
#pragma once

#include <mutex>

namespace platform {

// Constant-initialised and never destroyed: usable from the first static initialiser to the last
// static destructor.
template <typename Function>
class HostCallback {
 public:
  struct Pair {
    Function* function;
    void* context;
  };

  void Set(Function* function, void* context) {
    const std::lock_guard lock(mutex_);
    pair_ = {function, context};
  }

  // For a call without the lock, so that the function may call back in. Another thread may exchange
  // the pair during the call.
  Pair Get() {
    const std::lock_guard lock(mutex_);
    return pair_;
  }

 private:
  std::mutex mutex_;
  Pair pair_{nullptr, nullptr};
};

}  // namespace platform

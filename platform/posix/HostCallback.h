// A function of the host's and its context, which it may exchange at any time
// from any thread.
#pragma once

#include <mutex>

namespace platform {

// Constant-initialised and never destroyed: usable from the first static
// initialiser to the last static destructor.
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

  // The function is called without the lock, so that it may call back in. A
  // thread that got the pair can still be in the function after another
  // thread has exchanged it.
  Pair Get() {
    const std::lock_guard lock(mutex_);
    return pair_;
  }

 private:
  std::mutex mutex_;
  Pair pair_{nullptr, nullptr};
};

}  // namespace platform

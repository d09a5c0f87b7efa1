// The most recent records of a trace, in bounded memory, written without a
// lock by any number of threads.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace platform {

// A record is seven words. Its number counts from 0 and wraps at 2^32.
//
// A writer takes the next number, withdraws its slot, fills it and publishes
// it under the number. A reader accepts a slot that carried the right number
// before and after (a sequence lock). Left to chance: a writer that stands
// still while 1024 others pass can mix its words into a later record.
class TraceRing {
 public:
  static constexpr std::size_t kWordCount = 7;
  static constexpr std::uint32_t kCapacity = 1024;
  using Words = std::array<std::uint32_t, kWordCount>;

  void Append(const Words& words) {
    const std::uint32_t number = next_.fetch_add(1, std::memory_order_relaxed);
    Slot& slot = slots_[number % kCapacity];
    slot.published.store(0, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = 0; i < kWordCount; ++i) slot.words[i].store(words[i], std::memory_order_relaxed);
    slot.published.store(number + 1, std::memory_order_release);
  }

  // How many records there ever were, modulo 2^32.
  std::uint32_t Total() const { return next_.load(std::memory_order_acquire); }

  // False when the record of that number is overwritten or not there yet.
  bool Read(std::uint32_t number, Words& words) const {
    const Slot& slot = slots_[number % kCapacity];
    if (slot.published.load(std::memory_order_acquire) != number + 1) return false;
    for (std::size_t i = 0; i < kWordCount; ++i) words[i] = slot.words[i].load(std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_acquire);
    return slot.published.load(std::memory_order_relaxed) == number + 1;
  }

 private:
  struct Slot {
    std::atomic<std::uint32_t> published;  // number + 1; 0 while it is written
    std::atomic<std::uint32_t> words[kWordCount];
  };

  std::atomic<std::uint32_t> next_{0};
  Slot slots_[kCapacity] = {};
};

}  // namespace platform

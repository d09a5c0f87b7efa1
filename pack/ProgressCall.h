// The embedder's function that is told how far a long operation has got, and its wish to stop it.
#pragma once

#include <cstdint>

struct ProgressCall {
  // Their values are part of the interface.
  enum Operation : int { kLoad = 1, kCheck = 2, kRepack = 3 };

  int (*function)(void* context, int operation, std::uint64_t done, std::uint64_t total) = nullptr;
  void* context = nullptr;

  // Whether the operation is to stop.
  bool Stops(Operation operation, std::uint64_t done, std::uint64_t total) const {
    return function != nullptr && function(context, operation, done, total) != 0;
  }
};

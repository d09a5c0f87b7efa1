// The embedder's functions that a blob comes from and goes to, piece by piece.
#pragma once

#include <cstdint>
#include <span>

#include "platform/Failure.h"

// Bytes of a blob that are in memory at a time. The digest of a piece finds it in the caches.
constexpr std::uint32_t kPieceSize = 64 * 1024;

struct PieceSink {
  int (*function)(void* context, const unsigned char* data, int size);
  void* context;

  // Whether it wants more.
  bool Takes(std::span<const unsigned char> piece) const {
    return function(context, piece.data(), static_cast<int>(piece.size())) == 0;
  }
};

class PieceSource {
 public:
  using Function = int(void* context, unsigned char* buffer, int capacity);

  // Of a blob of `size` bytes.
  PieceSource(Function* sourceFunction, void* sourceContext, std::uint32_t size)
      : function(sourceFunction), context(sourceContext), left(size) {}

  // The bytes that have not been read.
  std::uint32_t Left() const { return left; }

  // Fills the buffer with the next bytes. Throws Failure when there are fewer, and what the
  // function throws.
  void Read(std::span<unsigned char> buffer) {
    while (!buffer.empty()) {
      const int got = function(context, buffer.data(), static_cast<int>(buffer.size()));
      if (got < 0)
        throw Failure(FailureCode::Refused, "the source has failed, ", left, " bytes were to come");
      if (got == 0)
        throw Failure(FailureCode::Argument, "the source has ended, ", left, " bytes were to come");
      if (static_cast<std::size_t>(got) > buffer.size())
        throw Failure(FailureCode::Argument, "the source has returned ", got, " for ",
                      buffer.size(), " bytes");
      left -= static_cast<std::uint32_t>(got);
      buffer = buffer.subspan(static_cast<std::size_t>(got));
    }
  }

 private:
  Function* function;
  void* context;
  std::uint32_t left;
};

// Memory that helps but is not needed: a request that is refused is made again
// for half as much.
#pragma once

#include <algorithm>
#include <cstddef>

#include "platform/Failure.h"

// Resizes a vector to wanted elements or, where there is no memory for them, to
// the most of wanted/2, wanted/4, ... that there is, at least `least`. Throws
// Failure("Unable to allocate memory") when not even these can be had.
template <class Vector>
void ResizeOrSmaller(Vector& vector, std::size_t wanted, std::size_t least) {
  for (std::size_t size = std::max(wanted, least);; size = std::max(size / 2, least)) {
    try {
      vector.resize(size);
      return;
    } catch (const Failure& e) {
      if (e.code != FailureCode::Memory || size == least) throw;
    }
  }
}

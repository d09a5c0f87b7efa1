// Two digests at once: see UpdateBoth.
#pragma once

#include <cstddef>
#include <cstdint>

#include "md5/MD5.h"

// Adds firstLength bytes to one digest and secondLength to another.
void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::size_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::size_t secondLength);

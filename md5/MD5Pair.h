// Two digests at once, for whoever has two things to hash at one time: a blob
// and the transaction that it is part of, or one file and another.
#pragma once

#include <cstdint>

#include "md5/MD5.h"

// Does first.update(firstInput, firstLength) and second.update(secondInput,
// secondLength), in half the time as long as both have whole blocks left. The
// inputs may be the same or overlap; the objects must be two.
void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::uint32_t secondLength);

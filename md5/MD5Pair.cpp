#include "md5/MD5Pair.h"

void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::size_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::size_t secondLength) {
  first.update(firstInput, static_cast<std::uint32_t>(firstLength));
  second.update(secondInput, static_cast<std::uint32_t>(secondLength));
}

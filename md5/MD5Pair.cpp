#include "md5/MD5Pair.h"

#include <algorithm>
#include <cassert>

#include "md5/MD5Block.h"

namespace {

constexpr std::uint32_t kBlockSize = md5::kBlockSize;

// What an object with bufferedSize bytes in its buffer needs to fill it, as far
// as length goes.
std::uint32_t SizeToFill(std::uint32_t bufferedSize, std::uint32_t length) {
  return std::min((kBlockSize - bufferedSize) % kBlockSize, length);
}

}  // namespace

void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::uint32_t secondLength) {
  assert(&first != &second);
  std::uint32_t firstAt = SizeToFill(first.BufferedSize(), firstLength);
  std::uint32_t secondAt = SizeToFill(second.BufferedSize(), secondLength);
  first.update(firstInput, firstAt);
  second.update(secondInput, secondAt);

  // Blocks may follow only on an empty buffer. Where the input did not fill it,
  // none is left, so that it need not be asked.
  const std::uint32_t blockCount = std::min(firstLength - firstAt, secondLength - secondAt) / kBlockSize;
  if (blockCount != 0 && !first.finalized && !second.finalized) {
    md5::CompressTwo(first.state, firstInput + firstAt, second.state, secondInput + secondAt, blockCount);
    first.AddToCount(blockCount * kBlockSize);
    second.AddToCount(blockCount * kBlockSize);
    firstAt += blockCount * kBlockSize;
    secondAt += blockCount * kBlockSize;
  }
  if (firstAt != firstLength) first.update(firstInput + firstAt, firstLength - firstAt);
  if (secondAt != secondLength) second.update(secondInput + secondAt, secondLength - secondAt);
}

// The mutations of inputs that are one byte of options and a file of records.
#include <algorithm>

#include "tests/fuzz/Bytes.h"
#include "tests/fuzz/RecordMutator.h"
#include "tests/fuzz/Target.h"

namespace {

// Writes options and file to data.
std::size_t Put(std::uint8_t* data, std::uint8_t options, const std::string& file) {
  data[0] = options;
  std::copy(file.begin(), file.end(), data + 1);
  return 1 + file.size();
}

}  // namespace

std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
  fuzz::Random random(seed);
  if (size < 2 || random.OneIn(8)) return LLVMFuzzerMutate(data, size, maxSize);
  const auto flipped = static_cast<std::uint8_t>(random.OneIn(4) ? 1U << random.Below(8) : 0);
  const std::string file = fuzz::MutateFile(fuzz::View(data + 1, size - 1), maxSize - 1, random);
  return Put(data, data[0] ^ flipped, file);
}

std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstSize, const std::uint8_t* second,
                                      std::size_t secondSize, std::uint8_t* out, std::size_t maxSize, unsigned seed) {
  if (firstSize < 2 || secondSize < 2 || maxSize < 1) return 0;
  fuzz::Random random(seed);
  const std::string file = fuzz::JoinFiles(fuzz::View(first + 1, firstSize - 1), fuzz::View(second + 1, secondSize - 1),
                                           maxSize - 1, random);
  return Put(out, first[0], file);
}

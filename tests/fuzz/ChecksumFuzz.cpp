// A checksum file of any bytes, digested from any place in pieces of any
// size. The first two bytes of the input are those of the piece's size, the
// third is the place, the rest is the file.
#include <algorithm>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "fs/ChkFile.h"
#include "fs/File.h"
#include "fs/FileSystem.h"
#include "pack/Hash.h"
#include "tests/fuzz/Bytes.h"
#include "tests/fuzz/RecordMutator.h"
#include "tests/fuzz/Target.h"
#include "tests/support/OpenedStore.h"

namespace {

using fuzz::Require;

constexpr std::size_t kOptions = 3;
constexpr std::size_t kDigest = 16;
constexpr const char* kPath = "/s/file";

// Nothing: it threw.
template <class Call>
std::optional<bool> ResultOf(Call call) {
  try {
    return call();
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

bool StartsWithDigest(std::string_view file) {
  const test::HashBytes digest = test::HashOf(file.substr(kDigest));
  return std::memcmp(file.data(), digest.data(), kDigest) == 0;
}

void CheckValidation(std::string_view file) {
  std::optional<bool> wanted;
  if (file.size() >= kDigest) wanted = StartsWithDigest(file);
  std::string path = kPath;
  Require(ResultOf([&] { return ChkFile::Validate(path); }) == wanted, "a checksum file is valid when it should be");
  FileReader reader;
  reader.open(path);
  for (int round = 0; round < 2; ++round)
    Require(ResultOf([&] { return ChkFile::Validate(reader); }) == wanted, "an open one as well, and twice");
}

void CheckDigests(std::string_view file, unsigned limit, unsigned place) {
  const test::HashBytes wanted = test::HashOf(file.substr(std::min<std::size_t>(place, file.size())));
  const std::string text = test::TextOf(wanted);
  FileReader reader;
  reader.open(kPath);
  reader.seek(place);
  Hash raw;
  const std::uint64_t callsBefore = sim::Files().allCalls();
  FileSystem::GetFileChksum(reader, raw, limit);
  Require(sim::Files().allCalls() - callsBefore <= 4 + file.size() / std::clamp(limit == 0 ? 512U : limit, 1U, 512U),
          "a file is read once");
  Require(std::memcmp(raw.Bytes(), wanted.data(), kDigest) == 0, "the raw digest is right");
  Require(reader.tell() == std::max<std::size_t>(place, file.size()), "the position is at the end");
  reader.seek(place);
  Require(FileSystem::ValidateFile(reader, text), "the text of the digest is right");
  reader.seek(place);
  Require(!FileSystem::ValidateFile(reader, text + "0"), "another text is not");
  reader.close();
  Require(FileSystem::ValidateFile(kPath, test::TextOf(test::HashOf(file))), "a file is valid by its path");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kOptions) return 0;
  const std::string_view file = fuzz::View(data + kOptions, size - kOptions);
  test::FreshMachine();
  test::SetFile(kPath, file);
  const std::size_t memoryBefore = sim::Memory().liveBytes();
  sim::Memory().ResetPeak();
  CheckValidation(file);
  CheckDigests(file, static_cast<unsigned>(data[0] | data[1] << 8), data[2]);
  Require(sim::Memory().peakBytes() - memoryBefore <= 4096, "memory does not grow with the file");
  Require(sim::Memory().liveBytes() == memoryBefore && sim::Files().openHandles() == 0, "nothing is left open");
  return 0;
}

// Plain changes, most of them followed by a digest that is right.
std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize, unsigned seed) {
  fuzz::Random random(seed);
  const std::size_t mutated = LLVMFuzzerMutate(data, size, maxSize);
  if (mutated < kOptions + kDigest || random.OneIn(3)) return mutated;
  const test::HashBytes digest = test::HashOf(fuzz::View(data, mutated).substr(kOptions + kDigest));
  std::memcpy(data + kOptions, digest.data(), kDigest);
  return mutated;
}

std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* first, std::size_t firstSize, const std::uint8_t* second,
                                      std::size_t secondSize, std::uint8_t* out, std::size_t maxSize, unsigned seed) {
  fuzz::Random random(seed);
  std::string bytes(fuzz::View(first, random.Below(firstSize + 1)));
  bytes += fuzz::View(second, secondSize).substr(random.Below(secondSize + 1));
  bytes.resize(std::min(bytes.size(), maxSize));
  std::copy(bytes.begin(), bytes.end(), out);
  return bytes.size();
}

#include "md5/MD5.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <fstream>
#include <istream>
#include <ostream>

#include "md5/MD5Blocks.h"

namespace {

constexpr std::uint32_t kBlockSize = md5::kBlockSize;
constexpr std::size_t kChunkSize = 1024;

// The part of length bytes that fills a buffer of bufferedSize bytes.
std::uint32_t SizeToFill(std::uint32_t bufferedSize, std::uint32_t length) {
  return std::min((kBlockSize - bufferedSize) % kBlockSize, length);
}

}  // namespace

MD5::MD5() {
  init();
}

MD5::MD5(std::FILE* file) : MD5() {
  update(file);
  finalize();
}

MD5::MD5(std::istream& stream) : MD5() {
  update(stream);
  finalize();
}

MD5::MD5(std::ifstream& stream) : MD5(static_cast<std::istream&>(stream)) {}

void MD5::init() {
  std::memcpy(state, md5::kInitialState, sizeof(state));
  count[0] = 0;
  count[1] = 0;
  finalized = false;
}

void MD5::AddToCount(std::uint32_t length) {
  const std::uint32_t lowBits = length << 3;
  count[0] += lowBits;
  if (count[0] < lowBits) ++count[1];
  count[1] += length >> 29;
}

void MD5::update(const std::uint8_t* input, std::uint32_t length) {
  if (finalized || length == 0) return;
  const std::uint32_t index = BufferedSize();
  AddToCount(length);
  if (index != 0) {
    const std::uint32_t taken = SizeToFill(index, length);
    std::memcpy(buffer + index, input, taken);
    if (index + taken < kBlockSize) return;
    md5::CompressOne(state, buffer, 1);
    input += taken;
    length -= taken;
  }
  const std::uint32_t rest = length % kBlockSize;
  md5::CompressOne(state, input, length / kBlockSize);
  std::memcpy(buffer, input + (length - rest), rest);
}

void MD5::update(std::FILE* file) {
  std::uint8_t chunk[kChunkSize];
  while (const std::size_t got = std::fread(chunk, 1, sizeof(chunk), file)) {
    update(chunk, static_cast<std::uint32_t>(got));
  }
  std::fclose(file);
}

void MD5::update(std::istream& stream) {
  char chunk[kChunkSize];
  while (stream.good()) {
    stream.read(chunk, sizeof(chunk));
    update(reinterpret_cast<const std::uint8_t*>(chunk),
           static_cast<std::uint32_t>(stream.gcount()));
  }
}

void MD5::update(std::ifstream& stream) {
  update(static_cast<std::istream&>(stream));
}

void MD5::finalize() {
  if (finalized) return;
  std::uint8_t tail[2 * kBlockSize];
  std::memcpy(tail, buffer, BufferedSize());
  const std::uint64_t bitCount = std::uint64_t{count[1]} << 32 | count[0];
  md5::CompressOne(state, tail, md5::PadTail(tail, BufferedSize(), bitCount));
  md5::Encode(digest, state, 4);
  finalized = true;
}

void MD5::raw_digest(std::uint8_t* out) {
  if (finalized) std::memcpy(out, digest, sizeof(digest));
}

void MD5::hex_digest(std::string& out) {
  constexpr char kDigits[] = "0123456789abcdef";
  out.clear();
  if (!finalized) return;
  for (const std::uint8_t byte : digest) {
    if (byte >= 0x10) out.push_back(kDigits[byte >> 4]);
    out.push_back(kDigits[byte & 15]);
  }
}

std::ostream& operator<<(std::ostream& os, MD5 md5) {
  std::string text;
  md5.hex_digest(text);
  return os << text;
}

void UpdateBoth(MD5& first, const std::uint8_t* firstInput, std::uint32_t firstLength, MD5& second,
                const std::uint8_t* secondInput, std::uint32_t secondLength) {
  assert(&first != &second);
  std::uint32_t firstAt = SizeToFill(first.BufferedSize(), firstLength);
  std::uint32_t secondAt = SizeToFill(second.BufferedSize(), secondLength);
  first.update(firstInput, firstAt);
  second.update(secondInput, secondAt);

  // If input is left after this, the buffer is empty.
  const std::uint32_t blockCount =
      std::min(firstLength - firstAt, secondLength - secondAt) / kBlockSize;
  if (blockCount != 0) {  // the state of a finalized digest is no longer used
    md5::CompressTwo(first.state, firstInput + firstAt, second.state, secondInput + secondAt,
                     blockCount);
    first.AddToCount(blockCount * kBlockSize);
    second.AddToCount(blockCount * kBlockSize);
    firstAt += blockCount * kBlockSize;
    secondAt += blockCount * kBlockSize;
  }
  if (firstAt != firstLength) first.update(firstInput + firstAt, firstLength - firstAt);
  if (secondAt != secondLength) second.update(secondInput + secondAt, secondLength - secondAt);
}

#include "md5/MD5.h"

#include <cstring>
#include <fstream>
#include <istream>
#include <ostream>

#include "md5/MD5Block.h"
#include "md5/MD5Rounds.h"

namespace {

constexpr std::size_t kChunkSize = 1024;

// Writes size / 4 words to out, little-endian on every host.
void encode(std::uint8_t* out, const std::uint32_t* words, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<std::uint8_t>(words[i / 4] >> (8 * (i % 4)));
}

}  // namespace

MD5::MD5() {
  init();
}

MD5::MD5(std::FILE* file) {
  init();
  update(file);
  finalize();
}

MD5::MD5(std::istream& stream) {
  init();
  update(stream);
  finalize();
}

MD5::MD5(std::ifstream& stream) {
  init();
  update(stream);
  finalize();
}

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
    const std::uint32_t missing = static_cast<std::uint32_t>(md5::kBlockSize) - index;
    const std::uint32_t taken = length < missing ? length : missing;
    std::memcpy(buffer + index, input, taken);
    if (taken < missing) return;
    md5::CompressOne(state, buffer, 1);
    input += taken;
    length -= taken;
  }
  const std::uint32_t rest = length % md5::kBlockSize;
  md5::CompressOne(state, input, length / md5::kBlockSize);
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
    update(reinterpret_cast<const std::uint8_t*>(chunk), static_cast<std::uint32_t>(stream.gcount()));
  }
}

void MD5::update(std::ifstream& stream) {
  update(static_cast<std::istream&>(stream));
}

void MD5::finalize() {
  if (finalized) return;
  constexpr std::uint32_t kLengthOffset = md5::kBlockSize - sizeof(count);
  std::uint32_t index = BufferedSize();
  buffer[index++] = 0x80;
  if (index > kLengthOffset) {
    std::memset(buffer + index, 0, md5::kBlockSize - index);
    md5::CompressOne(state, buffer, 1);
    index = 0;
  }
  std::memset(buffer + index, 0, kLengthOffset - index);
  encode(buffer + kLengthOffset, count, sizeof(count));
  md5::CompressOne(state, buffer, 1);
  encode(digest, state, sizeof(digest));
  finalized = true;
}

void MD5::raw_digest(std::uint8_t* out) const {
  if (finalized) std::memcpy(out, digest, sizeof(digest));
}

void MD5::hex_digest(std::string& out) const {
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

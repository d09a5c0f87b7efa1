#include "pack/Hash.h"

#include "md5/MD5.h"

Hash::Hash() : bytes{} {}

void Hash::setHash(unsigned char* source) {
  std::memcpy(bytes, source, kSize);
}

std::string Hash::toString() const {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * kSize);
  for (const unsigned char byte : bytes) {
    if (byte >= 0x10) text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0x0F]);
  }
  return text;
}

Hash Finish(MD5& md5) {
  md5.finalize();
  unsigned char digest[Hash::kSize];
  md5.raw_digest(digest);
  Hash hash;
  hash.setHash(digest);
  return hash;
}

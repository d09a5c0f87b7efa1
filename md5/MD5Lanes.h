// Many digests at once.
#pragma once

#include <cstddef>
#include <cstdint>

namespace md5 {

struct Message {
  const std::uint8_t* data;
  std::size_t size;
  std::uint8_t* digest;  // 16 bytes
};

void DigestMany(const Message* messages, std::size_t count);

}  // namespace md5

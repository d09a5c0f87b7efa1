#include "md5/MD5Lanes.h"

#include "md5/MD5.h"

namespace md5 {

void DigestMany(const Message* messages, std::size_t count) {
  for (const Message* message = messages; message != messages + count; ++message) {
    MD5 digest;
    digest.update(message->data, static_cast<std::uint32_t>(message->size));
    digest.finalize();
    digest.raw_digest(message->digest);
  }
}

}  // namespace md5

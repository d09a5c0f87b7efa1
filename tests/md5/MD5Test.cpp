// Every way to compute a digest, against OpenSSL.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/mman.h>

#include <deque>
#include <random>
#include <sstream>
#include <vector>

#include "md5/MD5.h"
#include "md5/MD5Blocks.h"

namespace {

using Bytes = std::basic_string<unsigned char>;

std::string Reference(std::basic_string_view<unsigned char> bytes) {
  std::string raw(16, '\0');
  EVP_Digest(bytes.data(), bytes.size(), reinterpret_cast<unsigned char*>(raw.data()), nullptr,
             EVP_md5(), nullptr);
  return raw;
}

Bytes RandomBytes(std::size_t size, unsigned seed = 1321) {
  std::mt19937 random(seed);
  Bytes bytes(size, 0);
  for (unsigned char& c : bytes) c = static_cast<unsigned char>(random());
  return bytes;
}

void Add(MD5& md5, const Bytes& bytes) {
  md5.update(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

std::string Finished(MD5& md5) {
  md5.finalize();
  std::string raw(16, '\0');
  md5.raw_digest(reinterpret_cast<unsigned char*>(raw.data()));
  return raw;
}

// Alone and in step with another digest; and nothing is added to a finished one.
TEST(MD5, IsTheSameWhereverTheInputIsSplit) {
  const Bytes bytes = RandomBytes(300);
  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    for (const std::size_t piece : {1U, 63U, 64U, 65U, 130U}) {
      MD5 one, first, second;
      Bytes others;
      for (std::size_t at = 0; at < size; at += piece) {
        const Bytes part = bytes.substr(at, std::min(piece, size - at)),
                    other = bytes.substr(at, 2 * piece);
        Add(one, part);
        UpdateBoth(first, part.data(), static_cast<std::uint32_t>(part.size()), second,
                   other.data(), static_cast<std::uint32_t>(other.size()));
        others += other;
      }
      const std::string expected = Reference(bytes.substr(0, size));
      Finished(one);
      Add(one, bytes);
      EXPECT_TRUE(Finished(one) == expected && Finished(first) == expected &&
                  Finished(second) == Reference(others))
          << size << " in pieces of " << piece;
    }
  }
}

// 2^32 bits are 512 MiB: passed inside one call, and by the sum of two.
TEST(MD5, CountsMoreThanThirtyTwoBitsOfBits) {
  const std::uint32_t size = (512U << 20) + 99;
  void* zeros = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  const auto* bytes = static_cast<const unsigned char*>(zeros);
  const std::string expected = Reference({bytes, size});
  for (const std::uint32_t first : {size, size / 2}) {
    MD5 md5;
    md5.update(bytes, first);
    md5.update(bytes + first, size - first);
    EXPECT_EQ(Finished(md5), expected) << first;
  }
  munmap(zeros, size);
}

// 1024 bytes are read at a time. A byte below 16 is printed with one digit.
TEST(MD5, ReadsFilesAndStreamsToTheirEndAndPrintsWhatItFound) {
  Bytes bytes = RandomBytes(5000);
  MD5 ofFile(fmemopen(bytes.data(), bytes.size(), "rb"));
  std::istringstream stream(std::string(bytes.begin(), bytes.end())), nothing;
  MD5 ofStream(stream);
  EXPECT_EQ(Finished(ofFile), Reference(bytes));
  EXPECT_EQ(Finished(ofStream), Reference(bytes));
  std::ostringstream printed;
  printed << MD5(nothing);
  EXPECT_EQ(printed.str(), "d41d8cd98f0b24e980998ecf8427e");
}

// The bytes behind `at` in pieces; each takes the place of the one before.
struct Pieces final : MD5Source {
  Pieces(const Bytes& all, std::size_t from, std::size_t pieceSize)
      : whole(all), at(from), size(pieceSize) {}
  std::span<const std::uint8_t> Next() override {
    piece = whole.substr(at, size);
    at += piece.size();
    return piece;
  }
  const Bytes& whole;
  std::size_t at, size;
  Bytes piece = {};
};

// With lanes and without; a third of the messages whole, the others in pieces behind a first part
// of 0 or 1 blocks. Lanes end together, one by one, and in the order of their lengths.
TEST(DigestMany, DoesAnyNumberOfMessagesOfAnySize) {
  for (std::size_t count = 0; count <= 301; count += count == 40 ? 261 : 1) {
    for (const int kind : {0, 1, 2, 3}) {
      std::deque<Bytes> bytes;
      std::deque<Pieces> sources;
      std::vector<MD5Message> messages;
      std::vector<std::string> digests(count, std::string(16, '?'));
      for (std::size_t i = 0; i < count; ++i) {
        const std::size_t size = kind < 2         ? 1000
                                 : count > 40     ? i
                                 : i == count / 2 ? 30001
                                                  : 100 * (count - i);
        const bool whole = i % 3 == 0;
        const std::size_t front = whole ? size : std::min(64 * (i % 3 - 1), size / 64 * 64);
        bytes.push_back(RandomBytes(size, static_cast<unsigned>(i)));
        sources.emplace_back(bytes[i], front, i % 2 == 0 ? 64 : 1024);
        messages.push_back({bytes[i].data(), front,
                            reinterpret_cast<unsigned char*>(digests[i].data()),
                            whole ? nullptr : &sources.back()});
      }
      md5::DigestMany(messages.data(), count, kind % 2 == 1 && md5::HasLanes());
      for (std::size_t i = 0; i < count; ++i)
        EXPECT_EQ(digests[i], Reference(bytes[i])) << i << " of " << count << ", kind " << kind;
    }
  }
}

}  // namespace

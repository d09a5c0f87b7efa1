// Every way to compute a digest, against OpenSSL.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/mman.h>

#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
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

// RFC 1321, A.5, as a store prints it: a byte below 16 has one digit.
TEST(MD5, PrintsTheDigestsOfRfc1321) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "d41d8cd98f0b24e980998ecf8427e"},
      {"abc", "90150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e217b67a"}};
  for (const auto& [text, digest] : rows) {
    std::istringstream stream(text);
    std::ostringstream written;
    written << MD5(stream);
    EXPECT_EQ(written.str(), digest) << text;
  }
}

// Two digests in step: every fill of either buffer, every padding.
TEST(MD5, IsTheSameWhereverTheInputIsSplit) {
  const Bytes bytes = RandomBytes(300);
  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    const Bytes message = bytes.substr(0, size);
    for (const std::size_t piece : {1U, 55U, 63U, 64U, 65U, 130U}) {
      MD5 one, first, second;
      for (std::size_t at = 0; at < size; at += piece) {
        const Bytes part = message.substr(at, piece), other = bytes.substr(at, 2 * piece);
        Add(one, part);
        UpdateBoth(first, part.data(), static_cast<std::uint32_t>(part.size()), second,
                   other.data(), static_cast<std::uint32_t>(other.size()));
      }
      MD5 all;
      for (std::size_t at = 0; at < size; at += piece) Add(all, bytes.substr(at, 2 * piece));
      EXPECT_EQ(Finished(one), Reference(message)) << size << " in pieces of " << piece;
      EXPECT_EQ(Finished(first), Reference(message)) << size << " in pieces of " << piece;
      EXPECT_EQ(Finished(second), Finished(all)) << size << " in pieces of " << piece;
    }
  }
}

TEST(MD5, TakesNothingOnceItIsFinishedAndGivesNothingBefore) {
  const Bytes bytes = RandomBytes(1000);
  MD5 done, open;
  std::string text = "left over";
  done.hex_digest(text);
  EXPECT_EQ(text, "");
  const std::string digest = Finished(done);
  UpdateBoth(done, bytes.data(), 1000, open, bytes.data(), 1000);
  UpdateBoth(open, bytes.data(), 1000, done, bytes.data(), 1000);
  EXPECT_EQ(Finished(done), digest);
  EXPECT_EQ(Finished(open), Reference(bytes + bytes));
  done.init();
  EXPECT_EQ(Finished(done), digest);
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

// 1024 bytes are read at a time.
TEST(MD5, ReadsFilesFromWhereTheyStand) {
  for (const std::size_t size : {0U, 1023U, 1024U, 5000U}) {
    const Bytes bytes = RandomBytes(size + 2);
    const std::string path = testing::TempDir() + "md5";
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(size + 2));
    std::FILE* file = std::fopen(path.c_str(), "rb");
    std::fseek(file, 2, SEEK_SET);
    MD5 ofFile(file);
    std::ifstream stream(path, std::ios::binary);
    stream.seekg(2);
    MD5 ofStream(stream);
    EXPECT_EQ(Finished(ofFile), Reference(bytes.substr(2))) << size;
    EXPECT_EQ(Finished(ofStream), Reference(bytes.substr(2))) << size;
  }
}

// The bytes behind `from` in pieces, each gone when the next one is asked for.
class Pieces final : public MD5Source {
 public:
  Pieces(const Bytes& whole, std::size_t from, std::size_t pieceSize, int pieces)
      : rest(whole.substr(from)), size(pieceSize), left(pieces) {}
  std::span<const std::uint8_t> Next() override {
    if (left-- == 0) throw std::runtime_error("no piece");
    const std::size_t length = std::min(size, rest.size());
    piece = std::make_unique<unsigned char[]>(length);
    std::copy_n(rest.begin(), length, piece.get());
    rest.erase(0, length);
    return {piece.get(), length};
  }

 private:
  Bytes rest;
  std::size_t size;
  int left;
  std::unique_ptr<unsigned char[]> piece;
};

// Lanes that end at different times, whole and in pieces; failing: that one's source gives two
// pieces and no third.
void ExpectMany(const std::vector<std::size_t>& sizes, std::size_t pieceSize,
                std::size_t failing = SIZE_MAX) {
  for (const bool inLanes : {false, md5::HasLanes()}) {
    std::vector<Bytes> bytes;
    std::vector<std::unique_ptr<Pieces>> sources;
    std::vector<MD5Message> messages;
    std::vector<std::string> digests(sizes.size(), std::string(16, '?'));
    for (std::size_t i = 0; i < sizes.size(); ++i)
      bytes.push_back(RandomBytes(sizes[i], static_cast<unsigned>(i)));
    for (std::size_t i = 0; i < sizes.size(); ++i) {
      const std::size_t front =
          i % 3 == 0 ? sizes[i] : std::min<std::size_t>(64 * (i % 3 - 1), sizes[i] / 64 * 64);
      sources.push_back(
          std::make_unique<Pieces>(bytes[i], front, pieceSize, i == failing ? 2 : -1));
      messages.push_back({bytes[i].data(), front,
                          reinterpret_cast<unsigned char*>(digests[i].data()),
                          i % 3 == 0 ? nullptr : sources.back().get()});
    }
    const auto digest = [&] { md5::DigestMany(messages.data(), messages.size(), inLanes); };
    if (failing < sizes.size()) {
      EXPECT_THROW(digest(), std::runtime_error);
      continue;
    }
    digest();
    for (std::size_t i = 0; i < sizes.size(); ++i)
      EXPECT_EQ(digests[i], Reference(bytes[i]))
          << i << " of " << sizes.size() << ", " << sizes[i] << " bytes";
  }
}

TEST(DigestMany, DoesAnyNumberOfMessagesOfAnySize) {
  std::vector<std::size_t> all(301);
  for (std::size_t size = 0; size < all.size(); ++size) all[size] = size;
  for (const std::size_t piece : {64U, 1024U}) {
    ExpectMany(all, piece);
    for (std::size_t count = 0; count <= 40; ++count) {
      std::vector<std::size_t> sizes(count, 1000);
      ExpectMany(sizes, piece);
      for (std::size_t i = 0; i < count; ++i) sizes[i] = i == count / 2 ? 30001 : 100 * (count - i);
      ExpectMany(sizes, piece);
    }
  }
  ExpectMany(std::vector<std::size_t>(20, 1000), 64, 10);
}

}  // namespace

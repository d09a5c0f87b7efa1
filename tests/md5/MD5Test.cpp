#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include "md5/MD5.h"
#include "tests/md5/Reference.h"

namespace {

#if defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer);
#elif defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#ifdef NDEBUG
constexpr bool kSlowBuild = kSanitized;
#else
constexpr bool kSlowBuild = true;
#endif

void Add(MD5& md5, std::string_view bytes) {
  md5.update(reinterpret_cast<const std::uint8_t*>(bytes.data()), static_cast<std::uint32_t>(bytes.size()));
}

std::string RawOf(const MD5& md5) {
  std::string raw(16, '\0');
  md5.raw_digest(reinterpret_cast<std::uint8_t*>(raw.data()));
  return raw;
}

std::string TextOf(const MD5& md5) {
  std::string text = "left over";
  md5.hex_digest(text);
  return text;
}

std::string DigestOf(std::string_view first, std::string_view second = {}) {
  MD5 md5;
  Add(md5, first);
  Add(md5, second);
  md5.finalize();
  return RawOf(md5);
}

// A file that exists as long as the object does.
class ScratchFile {
 public:
  explicit ScratchFile(const std::string& contents) : path(testing::TempDir() + "md5-" + std::to_string(getpid())) {
    std::ofstream(path, std::ios::binary) << contents;
  }
  ~ScratchFile() { std::remove(path.c_str()); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const std::string path;
};

TEST(MD5, GivesTheDigestsOfRfc1321WhereverTheInputIsSplit) {
  const struct {
    std::string_view text, digest;
  } rows[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [text, digest] : rows) {
    for (std::size_t cut = 0; cut <= text.size(); ++cut) {
      EXPECT_EQ(HexOf(DigestOf(text.substr(0, cut), text.substr(cut))), digest) << text << " cut at " << cut;
    }
  }
}

// 0 to 300 bytes pass every length of padding and every fill of the buffer.
TEST(MD5, AgreesWithOpenSslAtEverySizeAndPieceSize) {
  const std::string bytes = RandomBytes(300);
  for (std::size_t size = 0; size <= bytes.size(); ++size) {
    const std::string_view message = std::string_view(bytes).substr(0, size);
    const std::string expected = ReferenceDigest(message);
    for (const std::size_t piece : {1U, 3U, 55U, 63U, 64U, 65U, 127U, 300U}) {
      MD5 md5;
      for (std::size_t at = 0; at < size; at += piece) Add(md5, message.substr(at, piece));
      md5.finalize();
      EXPECT_EQ(HexOf(RawOf(md5)), HexOf(expected)) << size << " bytes in pieces of " << piece;
    }
  }
}

TEST(MD5, TakesInputAtAnyAddress) {
  const std::string bytes = RandomBytes(70000);
  for (std::size_t offset = 0; offset < 16; ++offset) {
    const std::string_view message = std::string_view(bytes).substr(offset);
    EXPECT_EQ(DigestOf(message), ReferenceDigest(message)) << offset;
  }
}

// 2^32 bits are 512 MiB. The count passes them inside one call, and by adding
// up two that are smaller. Untouched pages of zeros take no memory.
TEST(MD5, CountsMoreThanThirtyTwoBitsOfBits) {
  if (kSlowBuild) GTEST_SKIP() << "takes too long in this build";
  const std::size_t size = (std::size_t{512} << 20) + 99;
  void* const zeros = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(zeros, MAP_FAILED);
  const std::string_view message(static_cast<const char*>(zeros), size);
  // head -c 536871011 /dev/zero | md5sum
  const std::string expected = "04d77adc95f6d234bee9094a52100daa";
  EXPECT_EQ(HexOf(DigestOf(message)), expected);
  EXPECT_EQ(HexOf(DigestOf(message.substr(0, size / 2), message.substr(size / 2))), expected);
  munmap(zeros, size);
}

TEST(MD5, WritesBytesBelowSixteenAsOneDigit) {
  const struct {
    std::string_view text, digest;
  } rows[] = {
      {"", "d41d8cd98f0b24e980998ecf8427e"},
      {"abc", "90150983cd24fb0d6963f7d28e17f72"},
      {"a", "cc175b9c0f1b6a831c399e269772661"},
  };
  for (const auto& [text, digest] : rows) {
    MD5 md5;
    Add(md5, text);
    md5.finalize();
    EXPECT_EQ(TextOf(md5), digest);
    std::ostringstream written;
    written << "md5 " << md5 << '.';
    EXPECT_EQ(written.str(), "md5 " + std::string(digest) + ".");
  }
}

TEST(MD5, GivesNothingBeforeTheEndAndTakesNothingAfterIt) {
  MD5 md5;
  Add(md5, "abc");
  EXPECT_EQ(RawOf(md5), std::string(16, '\0'));
  EXPECT_EQ(TextOf(md5), "");

  md5.finalize();
  const std::string digest = RawOf(md5);
  Add(md5, "more");
  md5.finalize();
  EXPECT_EQ(RawOf(md5), digest);
  EXPECT_EQ(HexOf(digest), "900150983cd24fb0d6963f7d28e17f72");

  md5.init();
  EXPECT_EQ(TextOf(md5), "");
  md5.update(static_cast<const std::uint8_t*>(nullptr), 0);
  Add(md5, "a");
  md5.finalize();
  EXPECT_EQ(HexOf(RawOf(md5)), "0cc175b9c0f1b6a831c399e269772661");
}

TEST(MD5, CopiesGoTheirOwnWays) {
  MD5 original;
  Add(original, "message ");
  MD5 copy = original;
  Add(original, "digest");
  Add(copy, "digesT");
  original.finalize();
  copy.finalize();
  EXPECT_EQ(HexOf(RawOf(original)), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(RawOf(copy), ReferenceDigest("message digesT"));
}

// 1024 bytes are read at a time: nothing, a part, all and more than that.
TEST(MD5, ReadsFilesAndStreamsFromWhereTheyStand) {
  for (const std::size_t size : {0U, 1U, 1023U, 1024U, 1025U, 2048U, 5000U}) {
    SCOPED_TRACE(size);
    const std::string bytes = RandomBytes(size + 2);
    const std::string expected = ReferenceDigest(std::string_view(bytes).substr(2));
    const ScratchFile scratch(bytes);

    std::FILE* file = std::fopen(scratch.path.c_str(), "rb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fseek(file, 2, SEEK_SET), 0);
    const int descriptor = fileno(file);
    EXPECT_EQ(RawOf(MD5(file)), expected);
    EXPECT_EQ(lseek(descriptor, 0, SEEK_CUR), -1) << "the file is still open";

    std::ifstream fileStream(scratch.path, std::ios::binary);
    fileStream.seekg(2);
    EXPECT_EQ(RawOf(MD5(fileStream)), expected);
    EXPECT_TRUE(fileStream.is_open());

    std::istringstream stream(bytes);
    stream.seekg(2);
    EXPECT_EQ(RawOf(MD5(stream)), expected);
  }
}

TEST(MD5, TakesNothingFromAStreamThatIsNotGood) {
  std::istringstream stream("abc");
  stream.setstate(std::ios::failbit);
  EXPECT_EQ(RawOf(MD5(stream)), ReferenceDigest(""));
  std::ifstream missing("/nonexistent/md5");
  EXPECT_EQ(RawOf(MD5(missing)), ReferenceDigest(""));
}

}  // namespace

// md5_bench [TURNS]: the speed of every digest engine as a multiple of OpenSSL's. All of them take
// turns in one process, so that a slow moment of the machine affects all; a ratio is the median of
// the ratios of each turn.
#include <openssl/evp.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "md5/MD5.h"
#include "md5/MD5Blocks.h"

namespace {

constexpr std::size_t kMessages = 64;

struct Work {
  Work(std::size_t smallest, std::size_t largest) {
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> size(smallest, largest);
    for (std::size_t i = 0; i < kMessages; ++i) {
      for (std::uint8_t& byte : bytes[i] = std::vector<std::uint8_t>(size(random)))
        byte = static_cast<std::uint8_t>(random());
      messages[i] = {bytes[i].data(), bytes[i].size(), digests[i]};
      total += bytes[i].size();
    }
  }

  std::vector<std::uint8_t> bytes[kMessages];
  std::uint8_t digests[kMessages][16];
  MD5Message messages[kMessages];
  std::size_t total = 0;
};

void DigestByOpenSsl(Work& work) {
  static EVP_MD_CTX* const context = EVP_MD_CTX_new();
  for (const MD5Message& message : work.messages) {
    EVP_DigestInit_ex2(context, EVP_md5(), nullptr);
    EVP_DigestUpdate(context, message.data, message.size);
    EVP_DigestFinal_ex(context, message.digest, nullptr);
  }
}

void DigestOneByOne(Work& work) {
  for (const MD5Message& message : work.messages) {
    MD5 md5;
    md5.update(message.data, static_cast<std::uint32_t>(message.size));
    md5.finalize();
    md5.raw_digest(message.digest);
  }
}

// Two messages at a time; their last blocks are not interleaved.
void DigestTwoByTwo(Work& work) {
  for (std::size_t i = 0; i < kMessages; i += 2) {
    const MD5Message &one = work.messages[i], &two = work.messages[i + 1];
    MD5 first, second;
    UpdateBoth(first, one.data, static_cast<std::uint32_t>(one.size), second, two.data,
               static_cast<std::uint32_t>(two.size));
    first.finalize();
    second.finalize();
    first.raw_digest(one.digest);
    second.raw_digest(two.digest);
  }
}

void DigestManyScalar(Work& work) {
  md5::DigestMany(work.messages, kMessages, false);
}

template <std::size_t atATime>
void DigestInLanes(Work& work) {
  for (std::size_t i = 0; i < kMessages; i += atATime) DigestMany(work.messages + i, atATime);
}

constexpr struct {
  const char* name;
  void (*run)(Work& work);
} kEngines[] = {
    {"OpenSSL", DigestByOpenSsl},      {"MD5", DigestOneByOne},
    {"UpdateBoth", DigestTwoByTwo},    {"many, scalar", DigestManyScalar},
    {"many by 4", DigestInLanes<4>},   {"many by 8", DigestInLanes<8>},
    {"many by 64", DigestInLanes<64>},
};

double CpuSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void Compare(const char* name, std::size_t smallest, std::size_t largest, int turns) {
  Work work(smallest, largest);
  const std::size_t repeats =
      std::max<std::size_t>(1, (std::size_t{1} << 19) / (work.total + kMessages * 128));
  std::vector<double> columns[std::size(kEngines)];  // OpenSSL's seconds, then ratios to them
  for (int turn = 0; turn < turns; ++turn) {
    for (std::size_t i = 0; i < std::size(kEngines); ++i) {
      const double start = CpuSeconds();
      for (std::size_t n = 0; n < repeats; ++n) kEngines[i].run(work);
      const double seconds = CpuSeconds() - start;
      columns[i].push_back(i == 0 ? seconds : columns[0].back() / seconds);
    }
  }
  std::printf("%-14s %8.0f", name,
              static_cast<double>(work.total * repeats) / Median(columns[0]) / 1e6);
  for (std::size_t i = 1; i < std::size(kEngines); ++i) std::printf(" %12.3f", Median(columns[i]));
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const int turns = argc > 1 ? std::max(1, std::atoi(argv[1])) : 501;
  std::printf("%-14s %8s", "message", "OpenSSL");
  for (std::size_t i = 1; i < std::size(kEngines); ++i) std::printf(" %12s", kEngines[i].name);
  std::printf("\n%-14s %8s  then multiples of OpenSSL's speed\n", "", "MB/s");
  Compare("64 B", 64, 64, turns);
  Compare("1 KiB", 1024, 1024, turns);
  Compare("16 KiB", 16384, 16384, turns);
  Compare("256 KiB", 262144, 262144, turns);
  Compare("0 to 4 KiB", 0, 4096, turns);
}

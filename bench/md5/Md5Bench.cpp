// Speed of every digest engine as a multiple of OpenSSL's, measured in one
// process, turn by turn, so that a slow moment of the machine falls on all of
// them. Each ratio is the median over the turns of the ratio within a turn.
//
//   md5_bench [turns]      501 unless told
#include <openssl/evp.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "md5/MD5.h"
#include "md5/MD5Engines.h"

namespace {

constexpr std::size_t kMessages = 64;
constexpr std::size_t kDigestSize = 16;

struct Sizes {
  const char* name;
  std::size_t smallest, largest;  // evenly spread between these
};

// Messages to digest and where their digests go.
class Work {
 public:
  explicit Work(const Sizes& sizes) : digests(kMessages * kDigestSize) {
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> size(sizes.smallest, sizes.largest);
    for (std::size_t i = 0; i < kMessages; ++i) {
      std::vector<std::uint8_t>& message = messages.emplace_back(size(random));
      for (std::uint8_t& byte : message) byte = static_cast<std::uint8_t>(random());
      total += message.size();
    }
  }

  std::uint8_t* Digest(std::size_t i) { return digests.data() + i * kDigestSize; }

  std::vector<std::vector<std::uint8_t>> messages;
  std::vector<std::uint8_t> digests;
  std::size_t total = 0;
};

void DigestByOpenSsl(Work& work) {
  static EVP_MD_CTX* const context = EVP_MD_CTX_new();
  for (std::size_t i = 0; i < kMessages; ++i) {
    EVP_DigestInit_ex2(context, EVP_md5(), nullptr);
    EVP_DigestUpdate(context, work.messages[i].data(), work.messages[i].size());
    EVP_DigestFinal_ex(context, work.Digest(i), nullptr);
  }
}

void DigestOneByOne(Work& work) {
  for (std::size_t i = 0; i < kMessages; ++i) {
    MD5 md5;
    md5.update(work.messages[i].data(), static_cast<std::uint32_t>(work.messages[i].size()));
    md5.finalize();
    md5.raw_digest(work.Digest(i));
  }
}

// Two messages at a time, each up to its end; the ends are not interleaved.
void DigestTwoByTwo(Work& work) {
  for (std::size_t i = 0; i < kMessages; i += 2) {
    const std::vector<std::uint8_t>&one = work.messages[i], &two = work.messages[i + 1];
    MD5 first, second;
    UpdateBoth(first, one.data(), static_cast<std::uint32_t>(one.size()), second, two.data(),
               static_cast<std::uint32_t>(two.size()));
    first.finalize();
    second.finalize();
    first.raw_digest(work.Digest(i));
    second.raw_digest(work.Digest(i + 1));
  }
}

void DigestInLanes(Work& work, std::size_t atATime, const md5::LaneEngine* engine) {
  MD5Message messages[kMessages];
  for (std::size_t i = 0; i < kMessages; ++i) {
    messages[i] = {work.messages[i].data(), work.messages[i].size(), work.Digest(i)};
  }
  for (std::size_t i = 0; i < kMessages; i += atATime) md5::DigestMany(messages + i, atATime, engine);
}

template <std::size_t atATime>
void DigestMany(Work& work) {
  DigestInLanes(work, atATime, md5::FindLaneEngine());
}

void DigestManyScalar(Work& work) {
  DigestInLanes(work, kMessages, nullptr);
}

struct Contestant {
  const char* name;
  void (*run)(Work& work);
};

constexpr Contestant kContestants[] = {
    {"OpenSSL", DigestByOpenSsl},          {"MD5", DigestOneByOne},      {"UpdateBoth", DigestTwoByTwo},
    {"many, scalar", DigestManyScalar},    {"many by 4", DigestMany<4>}, {"many by 8", DigestMany<8>},
    {"many by 64", DigestMany<kMessages>},
};

// The thread's own time: others may be using the machine.
double CpuSeconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

double SecondsOf(const Contestant& contestant, Work& work, std::size_t repeats) {
  const double start = CpuSeconds();
  for (std::size_t i = 0; i < repeats; ++i) contestant.run(work);
  return CpuSeconds() - start;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void Compare(const Sizes& sizes, int turns) {
  Work work(sizes);
  const std::size_t repeats = std::max<std::size_t>(1, (std::size_t{1} << 19) / (work.total + kMessages * 128));
  std::vector<std::vector<double>> ratios(std::size(kContestants));
  std::vector<double> ownSeconds;
  for (int turn = 0; turn < turns; ++turn) {
    double openSsl = 0;
    for (std::size_t i = 0; i < std::size(kContestants); ++i) {
      const double seconds = SecondsOf(kContestants[i], work, repeats);
      if (i == 0) {
        openSsl = seconds;
        ownSeconds.push_back(seconds);
      }
      ratios[i].push_back(openSsl / seconds);
    }
  }
  const double bytes = static_cast<double>(work.total) * static_cast<double>(repeats);
  std::printf("%-14s %8.0f", sizes.name, bytes / Median(ownSeconds) / 1e6);
  for (std::size_t i = 1; i < std::size(kContestants); ++i) std::printf(" %12.3f", Median(ratios[i]));
  std::printf("\n");
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  const int turns = argc > 1 ? std::max(1, std::atoi(argv[1])) : 501;
  std::printf("%-14s %8s", "message", "OpenSSL");
  for (std::size_t i = 1; i < std::size(kContestants); ++i) std::printf(" %12s", kContestants[i].name);
  std::printf("\n%-14s %8s  then times OpenSSL's speed\n", "", "MB/s");
  constexpr Sizes kSizes[] = {{"64 B", 64, 64},
                              {"1 KiB", 1024, 1024},
                              {"16 KiB", 16384, 16384},
                              {"256 KiB", 262144, 262144},
                              {"0 to 4 KiB", 0, 4096}};
  for (const Sizes& sizes : kSizes) Compare(sizes, turns);
}

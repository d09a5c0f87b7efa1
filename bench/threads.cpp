// Threads on one store: what a second one gains, how long a read can take beside commits and a
// repack, and what readers cost a commit.
//
//     threads [MIB]    of blobs of 1 KiB, 1024 by default, below $TMPDIR
#include <blobring/Store.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

std::string Blob(std::mt19937_64& random) {
  std::string bytes(1024, ' ');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

double Median(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return times.at(times.size() / 2);
}
double Longest(const std::vector<double>& times) {
  return *std::max_element(times.begin(), times.end());
}

// Runs work while `count` threads fetch, and returns what each fetch took, in microseconds.
template <class Work>
std::vector<double> Beside(const blobring::Store& store, const std::vector<blobring::Hash>& hashes,
                           unsigned count, Work work) {
  std::atomic<bool> stops = false;
  std::vector<std::vector<double>> times(count);
  std::vector<std::thread> readers;
  for (unsigned i = 0; i < count; ++i) {
    readers.emplace_back([&, i] {
      std::mt19937_64 random(i);
      std::vector<std::byte> buffer(1024);
      while (!stops) {
        const Clock::time_point start = Clock::now();
        if (store.get(hashes[random() % hashes.size()], buffer) != 1024U) std::abort();
        times[i].push_back(Microseconds(Clock::now() - start).count());
      }
    });
  }
  work();
  stops = true;
  std::vector<double> all;
  for (unsigned i = 0; i < count; ++i) {
    readers[i].join();
    all.insert(all.end(), times[i].begin(), times[i].end());
  }
  return all;
}

void Measure(const std::filesystem::path& directory, std::size_t blobCount) {
  blobring::Store store(directory);
  std::mt19937_64 random(7);
  std::vector<blobring::Hash> hashes;
  while (hashes.size() < blobCount) {
    blobring::Transaction change(store);
    for (int i = 0; i < 10000; ++i) hashes.push_back(store.put(Blob(random)));
    change.commit();
  }
  const auto seconds = [](int count) { std::this_thread::sleep_for(std::chrono::seconds(count)); };
  for (const unsigned threads : {1U, 2U, 4U}) {
    const auto times = Beside(store, hashes, threads, [&] { seconds(3); });
    std::printf("| %u thread%s | %.0f fetches a second |\n", threads, threads > 1 ? "s" : "",
                static_cast<double>(times.size()) / 3);
  }
  for (const unsigned readers : {0U, 1U, 4U}) {
    std::vector<double> commits;
    const auto reads = Beside(store, hashes, readers, [&] {
      for (int i = 0; i < 500; ++i) {
        const std::string blob = Blob(random);
        const Clock::time_point start = Clock::now();
        store.put(blob);
        commits.push_back(Microseconds(Clock::now() - start).count());
      }
    });
    std::printf("| 500 commits beside %u readers | %.2f ms each (median)", readers,
                Median(commits) / 1000);
    if (readers > 0)
      std::printf(", reads %.1f µs (median), %.2f ms (longest)", Median(reads),
                  Longest(reads) / 1000);
    std::printf(" |\n");
  }
  const auto reads = Beside(store, hashes, 1, [&] { store.repack(); });
  std::printf(
      "| a repack of %zu MiB beside a reader | reads %.1f µs (median), %.2f ms (longest) |\n",
      blobCount / 1024, Median(reads), Longest(reads) / 1000);
}

}  // namespace

int main(int argc, char** argv) {
  std::string directory =
      (std::filesystem::temp_directory_path() / "blobring-threads-XXXXXX").string();
  if (::mkdtemp(directory.data()) == nullptr) return std::perror(directory.c_str()), 1;
  int status = 0;
  try {
    Measure(directory, (argc > 1 ? std::stoul(argv[1]) : 1024) * 1024);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "threads: %s\n", e.what());
    status = 1;
  }
  std::filesystem::remove_all(directory);
  return status;
}

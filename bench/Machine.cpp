#include "bench/Machine.h"

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

namespace bench {

namespace {

std::string ProcessorName() {
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);)
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  return "unknown processor";
}

double MemoryGiB() {
  return static_cast<double>(::sysconf(_SC_PHYS_PAGES)) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1 << 30);
}

// The type of the mount that the path lies in: the longest one that begins it.
std::string FileSystemType(const std::filesystem::path& directory) {
  const std::string path = std::filesystem::absolute(directory).string();
  std::ifstream mounts("/proc/mounts");
  std::string device, mountPoint, type, rest, found;
  std::size_t longest = 0;
  while (mounts >> device >> mountPoint >> type && std::getline(mounts, rest)) {
    if (!path.starts_with(mountPoint) || mountPoint.size() < longest) continue;
    longest = mountPoint.size();
    found = type;
  }
  return found;
}

}  // namespace

std::vector<std::string> DescribeMachine(const std::filesystem::path& directory) {
  utsname system;
  ::uname(&system);
  double load = 0;
  ::getloadavg(&load, 1);
  return {
      fmt::format("{}, {} cores, {:.0f} GiB of memory", ProcessorName(), std::thread::hardware_concurrency(),
                  MemoryGiB()),
      fmt::format("{} {}, {}, stores on {}", system.sysname, system.release, system.machine, FileSystemType(directory)),
#ifdef __clang__
      fmt::format("clang {}.{}", __clang_major__, __clang_minor__),
#else
      fmt::format("g++ {}.{}", __GNUC__, __GNUC_MINOR__),
#endif
      fmt::format("load average at the end {:.1f} (1.0 is this program alone)", load),
  };
}

}  // namespace bench

// The simulated machine against states that were worked out by hand: it must not be kinder than a
// real disk.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "tests/support/SimCrash.h"

namespace sim {
namespace {

// "a512b3.9 g=": runs of a letter in /f, zeros as dots; other files with names.
std::string Describe(const Image& image) {
  std::string text;
  for (const auto& [path, bytes] : image) {
    if (path != "/f") text += " " + path.substr(1) + "=";
    for (std::size_t at = 0, end = 0; at < bytes.size(); at = end) {
      end = std::min(bytes.find_first_not_of(bytes[at], at), bytes.size());
      text += (bytes[at] == 0 ? '.' : bytes[at]) + std::to_string(end - at);
    }
  }
  return text;
}

// Steps on /f (inode 0), which holds a1024: "b 500 24" writes 24 b from 500 on, "T 600" cuts it off
// there; F flush, D failed flush, R remove, C create, N rename /g over it.
void Do(Disk& disk, const std::string& steps) {
  std::istringstream in(steps);
  std::size_t at = 0, size = 0;
  for (char step = 0; in >> step;) {
    if (step == 'T' && in >> at) disk.Truncate(0, at);
    if (step == 'F') disk.Flush(0);
    if (step == 'D') disk.DropUpdates(0);
    if (step == 'R') disk.Remove("/f");
    if (step == 'C') disk.Create("/f");
    if (step == 'N') disk.Rename("/g", "/f");
    if (step >= 'a' && in >> at >> size) disk.Write(0, at, Bytes(size, step).data(), size);
  }
}

TEST(SimDisk, LeavesEveryDiskThatAPowerCutCouldAndNoOther) {
  const Forger forger = [](const Bytes&, std::size_t) { return Bytes(2, 'x'); };
  const struct {
    const char* steps;
    std::set<std::string> states;
    Forger forger = nullptr;
  } rows[] = {
      {"b 500 24 c 510 1",
       {"a1024", "a500b12a512", "a500b10c1b1a512", "a512b12a500", "a500b24a500",
        "a500b10c1b13a500"}},
      {"b 1024 3", {"a1024", "a1024.3", "a1024b3"}},
      {"b 1024 3", {"a1024", "a1024.3", "a1024b3", "a1024x2.1"}, forger},
      {"T 1026", {"a1024", "a1024.2", "a1024x2"}, forger},
      {"T 600 F b 700 1",  // what was cut off may come back
       {"a600", "a600.101", "a600.100b1", "a701"},
       [](const Bytes&, std::size_t) { return Bytes(); }},
      {"R C", {"a1024", ""}},
      {"N", {"a1024 g=g2", "a1024", "g2 g=g2", "g2"}},
      {"b 0 4 F c 0 4 D", {"b4a1020"}},
  };
  for (const auto& [steps, states, formerly] : rows) {
    Disk disk;
    Image image = {{"/f", Bytes(1024, 'a')}};
    if (*steps == 'N') image.push_back({"/g", "gg"});
    disk.Load(image);
    Do(disk, steps);
    const CrashStates crash(disk, formerly);
    Choices choices(crash.units(), 0);
    std::set<std::string> found;
    do found.insert(Describe(crash.Build(choices)));
    while (crash.Next(choices));
    EXPECT_EQ(found, states) << steps;
  }
}

}  // namespace
}  // namespace sim

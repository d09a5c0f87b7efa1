// Cuts the power at every moment of a workload, and opens what is found.
//
// Moments: before every call that changes the disk or makes a change durable,
// and after the last. Disks: every combination of what was not flushed
// (SimCrash.h) while there are few, else the ordered prefix, nothing, each
// unit alone and each unit left out, and a seeded sample. On each:
//   - the store loads and holds what the last acknowledged commit left, or the
//     one that was under way; every blob reads back; the check is clean;
//   - a new commit works, and is found again after one more power cut;
//   - nothing is left open and no memory is left taken.
// A cut during recovery is the same again on the disks that recovery passes
// through. A killed process leaves its writes unflushed: the next one works
// on top of them, and the power is cut under that one in turn.
//
// A state counts once: states are told apart by a 64-bit hash of the disk,
// the number of slots and the contents that are allowed.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "tests/sim/Workload.h"
#include "tests/support/SimCrash.h"
#include "tests/support/SimFiles.h"

namespace explore {

struct Finding {
  std::string token;  // for --replay
  std::string text;
};

// A set of 64-bit hashes; open addressing, for speed.
class HashSet {
 public:
  HashSet() : slots_(1 << 16, 0) {}
  bool Insert(std::uint64_t hash);  // false: was there
  std::size_t size() const { return count_; }

 private:
  std::vector<std::uint64_t> slots_;
  std::size_t count_ = 0;
};

class PowerCut {
 public:
  struct Limits {
    std::uint64_t states = ~std::uint64_t{0};  // in all; further ones are left out
    std::uint64_t exhaustive = 1024;           // up to this many disks of one moment: all of them
    unsigned sample = 96;                      // above: this many at random
    unsigned nestedExhaustive = 64;            // the same for a cut during recovery
    unsigned nestedSample = 12;
    unsigned followUpEvery = 16;  // one state in so many: cuts in the new commit as well
    std::size_t findings = 5;     // stop after so many
  };

  explicit PowerCut(std::uint64_t seed) : PowerCut(seed, Limits()) {}
  PowerCut(std::uint64_t seed, const Limits& limits) : seed_(seed), limits_(limits) {}

  // Runs the workload and explores every moment of it.
  void Explore(const Workload& workload);
  // The state that a token names, with the trace on. False: no such state.
  bool Replay(const std::string& token);
  // The disks that the replay opened.
  const std::string& description() const { return description_; }

  // Broken disks, which stand for a broken store: applied around every step
  // of a kind of the first run, never to what is opened afterwards.
  struct Breakage {
    char step = ' ';             // the kind of step: 'E' or 'R'
    unsigned lieAboutFlush = 0;  // this flush of the step
    std::string headerFirst{};   // in files of this suffix
    std::string neverFlush{};    // files of this suffix
    std::string loseZeros{};     // written to files of this suffix
    bool renameNotSynced = false;
  };
  void Break(const Breakage& breakage) { breakage_ = breakage; }
  bool BreakageReached() const { return breakageReached_; }

  std::uint64_t states() const { return seen_.size(); }
  std::uint64_t moments() const { return moments_; }
  const std::vector<Finding>& findings() const { return findings_; }
  bool Full() const { return states() >= limits_.states || findings_.size() >= limits_.findings; }
  // Where the explorer is, for a report after a crash.
  std::string CurrentToken() const;

 private:
  struct Moment {
    sim::Disk disk;
    Allowed allowed;
  };
  // One level of a nest of power cuts: the first run, the opening of what it
  // left, the opening of what that left.
  struct Level {
    std::vector<Moment> moments;  // the first `count` are in use
    std::size_t count = 0;
    Allowed allowed;            // of the run that is being watched
    HealthyRun* run = nullptr;  // or where to ask for it
    sim::CrashStates states;
    sim::Choices choices;
    sim::Image image;
    std::size_t momentAt = 0;
    bool killed = false;
  };
  static constexpr int kLevels = 3;

  void Watch(int level);
  static void OnCall(void* context, sim::Call call);
  void AddMoment(Level& level);
  void RunWatched(const Workload& workload);
  void ExploreMoments(int level);
  void ExploreMoment(int level);
  void ExploreAll(int level);
  void ExploreSample(int level);
  void TryChoices(int level);
  void TryKilled(int level);
  // Opens the disk as it is, checks it, commits, cuts the power, checks again.
  void Verify(int level, bool watch, bool watchCommit);
  void VerifyAndExplore(int level, bool watch, bool watchCommit);
  void Report(int level, const std::string& text);
  std::string Token(int level) const;
  std::string Describe(int level) const;
  static void BeforeStep(void* context, const Step& step);
  static void AfterStep(void* context, const Step& step);

  std::uint64_t seed_;
  Limits limits_;
  Breakage breakage_;
  bool breakageReached_ = false;
  HashSet seen_;
  std::uint64_t moments_ = 0;
  std::vector<Finding> findings_;
  std::string workloadName_;
  std::string description_;
  int slots_ = 1;
  bool keepDamaged_ = false;
  Level levels_[kLevels];
  int watching_ = 0;
  int current_ = -1;
};

}  // namespace explore

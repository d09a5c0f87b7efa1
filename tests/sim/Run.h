// What is done to a store: a script of steps, and its run against a model, on a healthy machine or
// on one on which something fails.
//
// A script is the number of slots, a "k" where damaged files are kept, a colon and steps, blanks
// between them:
//   S   start a transaction          E   end it           R   repack, R1 one that is stopped
//   +n  store blob n                 *n  the same by BCPut, which finds the hash
//   ^n  the same by BCStoreFrom      !n  the same from a source that fails
//   -n  delete blob n                ~n  the same by BCDeleteMany
//   G   read everything and check
//   F   end it, which fails as its header is written
//   O   dispose and open again
//   K   the process is killed; open again
//   C   the power fails and what was not flushed is lost; open again
//   Jn  damage the n-th last transaction of the journal; open again
//   Tn  cut the journal off inside its n-th last transaction; open again
//   Ln  damage the same, if there is any; load again without opening
//   P   damage the newest pack, if an older one is whole or it is the only one; open again
//   N   cut the newest pack off to nothing, if an older one is whole; open again
//   X   remove all files; open again
// A number before steps in parentheses repeats them: 3( S +4 E ).
#pragma once

#include <algorithm>
#include <functional>
#include <optional>

#include "tests/sim/Session.h"
#include "tests/support/SimCrash.h"
#include "tests/support/SimFiles.h"

namespace explore {

struct Step {
  char kind;
  int argument;
};
struct Workload {
  std::string name;  // the script itself, or "r" and a seed
  int slots = 2;
  bool keep = false;
  std::vector<Step> steps;
  // Nothing but power cuts and killed processes happens to the files.
  bool IsSound() const {
    return std::all_of(steps.begin(), steps.end(), [](const Step& step) {
      return step.kind != 'J' && step.kind != 'T' && step.kind != 'P' && step.kind != 'L' &&
             step.kind != 'N';
    });
  }
};
std::vector<Workload> Scripts();
Workload RandomWorkload(std::uint64_t seed);
Workload WorkloadByName(const std::string& name);

// What fails: one call, allocation or release, the n-th from the start, or everything from there
// on. A caller who gets a failure asks again, goes on with the next transaction, or opens the store
// again.
struct Plan {
  enum class Kind { Nothing, Call, Alloc, Free } kind = Kind::Nothing;
  std::uint64_t n = 0;
  sim::Fault fault = sim::Fault::Error;
  bool fromThenOn = false;
  enum class Then { AskAgain, GoOn, Reopen } then = Then::AskAgain;
};

// A call that fails must say so, one that says it succeeded has. Right after the failure, by a
// killed process and by power cuts, and at the end: the store recovers (ExpectRecovery) with what
// was acknowledged or was in doubt. In the end nothing is open and no memory is taken. Throws a
// Violation.
class Run {
 public:
  Run(const Workload& workload, const Plan& plan)
      : workload_(workload), plan_(plan), session_(workload.slots, workload.keep) {}

  void Go();
  // What the disk may hold at this moment; kept up to date for a watcher.
  const std::vector<Mask>& allowed() const { return allowed_; }
  bool failed() const;
  std::uint64_t allocations() const { return allocations_; }
  std::uint64_t releases() const { return releases_; }
  std::function<void(char)> afterStep = [](char) {};

 private:
  // What a pack holds, and for each commit where it starts in the journal and what the store held
  // before it.
  struct Commit {
    std::uint32_t start;
    Mask before;
  };
  struct Generation {
    int sequence = 0;
    Mask contents = 0;
    std::vector<Commit> commits = {};
  };

  void Arm(std::uint64_t n);
  void Heal();
  // Nothing may fail before something was made to.
  void Excuse(const char* call) const {
    if (!failed()) throw Violation{std::string(call) + " failed on a healthy machine"};
  }
  void ExpectSaidSo(const char* call) const;
  // A failed repack may close the store, which then shows nothing and takes no change.
  bool IsClosed() { return repackFailed_ && session_.List() == 0; }
  void ExpectShown();
  bool OpenOnce();
  bool Open();
  bool Do(const Step& step);
  void Change(const Step& step);
  bool End();
  bool Repack(bool isStopped);
  bool ReadAll();
  bool Damage(const Step& step);
  bool LoadAgain(const Step& step);
  void ExpectKept(bool isAtWork) const;
  static sim::Bytes Contents(const std::string& path);
  std::uint32_t JournalEnd() const;
  int CurrentSlot() const { return current_.sequence % workload_.slots; }
  void CheckDisk(sim::Disk disk, const char* when);
  void CheckMoment();

  const Workload& workload_;
  const Plan plan_;
  Session session_;
  std::vector<Mask> allowed_{0};
  Mask shown_ = 0, working_ = 0;  // what this process must see, and once it ends its transaction
  bool changed_ = false, repackFailed_ = false;
  bool inDoubt_ = false;             // a flush of a commit failed
  bool failed_ = false;              // before the plan was last armed
  bool erased_ = false;              // a load failed, and may have erased the store
  bool repackHasFailed_ = false;     // so where its records are is not known
  std::vector<sim::Bytes> damaged_;  // what must be kept
  long long transactionId_ = 0;
  int checked_ = 0;  // steps after which the disk was checked, from the failure on
  Generation current_;
  std::optional<Generation> older_;  // while it is whole
  std::uint64_t allocations_ = 0, releases_ = 0, refusedFrees_ = 0;
};

// The other direction: no end of a journal that was lost may pass for a commit that a power cut
// tore. A journal of many commits loses of its last transaction what the rules T1 to T5
// (pack/format/TornCommit.h) allow, and then often something else, which is damage. Throws a
// Violation. Returns how many of the tails fit a power cut.
unsigned TryLostTails(std::uint64_t seed, unsigned tails);

}  // namespace explore

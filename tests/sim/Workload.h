// What is done to a store: a script of steps, written by hand or at random,
// and its run on a healthy machine against a model.
//
// A script is the number of slots, a "k" where damaged files are kept, a
// colon and steps, blanks between them:
//   S   start a transaction          E   end it           R   repack
//   +n  store blob n                 *n  the same by BCPut, which finds the hash
//   -n  delete blob n                G   read everything and check
//   O   dispose and open again
//   K   the process is killed; open again
//   C   the power fails and what was not flushed is lost; open again
//   Jn  damage the n-th last transaction of the journal; open again
//   Tn  cut the journal off inside its n-th last transaction; open again
//   P   damage the newest pack, if an older one is whole; open again
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/sim/Session.h"

namespace explore {

struct Step {
  char kind;
  int argument;
};

struct Workload {
  std::string name;  // "s" and the number of a script, "r" and a seed, or the script itself
  int slots = 2;
  bool keepDamaged = false;
  std::vector<Step> steps;
};

int ScriptCount();
Workload Script(int number);
Workload RandomWorkload(std::uint64_t seed);
Workload ParseScript(const std::string& text);
Workload WorkloadByName(const std::string& name);

// The contents that a power cut may leave at this moment: those of the last
// acknowledged commit, those of the commit under way, and those of one that
// was under way when an earlier process ended. The same where there is none.
struct Allowed {
  Mask committed = 0;
  Mask inFlight = 0;
  Mask inDoubt = 0;
  static Allowed Only(Mask contents) { return {contents, contents, contents}; }
  bool Has(Mask contents) const { return contents == committed || contents == inFlight || contents == inDoubt; }
};

// Runs a workload step by step, and keeps the model beside the store. Throws
// a Violation when the store does anything but what it should.
class HealthyRun {
 public:
  explicit HealthyRun(const Workload& workload) : workload_(workload), session_(workload.slots, workload.keepDamaged) {}

  void Run();
  // Kept up to date during the run, for a watcher of the disk to read.
  const Allowed& allowed() const { return allowed_; }
  char step() const { return step_; }

  // Called before and after each step; null: nobody.
  void (*beforeStep)(void* context, const Step& step) = nullptr;
  void (*afterStep)(void* context, const Step& step) = nullptr;
  void* context = nullptr;

 private:
  // One committed transaction: where it starts in the journal, and what the
  // store held before it.
  struct Commit {
    std::uint32_t start;
    Mask before;
  };
  struct Generation {
    int sequence;
    Mask contents;  // of its pack
    std::vector<Commit> commits;
  };

  void Do(const Step& step);
  void DoEnd();
  void DoRepack();
  void Reopen();
  void CloseForDamage();
  void DamageJournal(int fromTheEnd, bool cut);
  void DamagePack();
  void ExpectContents();
  void Require(bool answer, const char* what) const;
  int CurrentSlot() const { return generations_.back().sequence % workload_.slots; }
  std::uint32_t JournalEnd() const;

  const Workload& workload_;
  Session session_;
  Allowed allowed_;
  Mask working_ = 0;
  bool changed_ = false;
  char step_ = ' ';
  long long transactionId_ = 0;
  std::vector<Generation> generations_{{0, 0, {}}};
  bool olderIsWhole_ = false;
};

}  // namespace explore

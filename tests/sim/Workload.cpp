#include "tests/sim/Workload.h"

#include <cctype>
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "tests/support/SimFiles.h"

namespace explore {

namespace {

constexpr const char* kScripts[] = {
    // Commits, deletions, a transaction of several sectors, an empty one.
    "2: S +4 E S +0 +1 +6 E S -4 +10 +2 E S E S -0 -1 E G O S +4 E",
    // Transactions left open: abandoned by the next, by closing, by a kill.
    "2: S +4 E S +6 -4 S +9 E S +11 O S +6 +11 E S -6 +5 K S -9 E S +17 +22 C S +22 E",
    // One slot: repacks of a little, of nothing, of more.
    "1: S +4 +6 +3 E R S +9 -4 E R O S +5 E R S -5 -6 -3 -9 E R S +4 E O R R S +6 E",
    // Two slots: files reused, old records of the same sizes under the new ones.
    "2: S +4 +6 E S +9 +11 E R S +14 E S +17 E R S -4 -6 E S +19 E R S -9 E R S +22 +24 E O S +27 E G",
    // Three slots, the same.
    "3: S +4 E S +6 E R S +9 E R S +11 -4 E R S +14 E S +17 E R S -6 E S +19 E R O S +22 E R S +24 E",
    // Stores emptied before a repack.
    "2: S +4 +6 E S -4 -6 E R S +9 E R S -9 E R R S +11 E O",
    "3: S +4 E R S -4 E R S +6 E R S -6 E R S +9 E",
    "1: S +4 +9 E S -4 -9 E R S +6 E R S -6 E R R S +11 E O",
    // A repack before anything was ever stored.
    "2: R S +4 E R R O S +6 E",
    "1: R R S +4 E R K S +6 E",
    // A damaged journal, what follows it, and its repack.
    "2: S +4 E S +6 E S +9 E J0 S +11 E S +14 E J1 S +17 E R S +19 E S +22 E T0 S +24 E",
    "1: S +4 E S +6 E J1 S +9 E R S +11 E S +14 E S +17 E",
    "3: R R S +4 E S +6 +8 E S +9 E S +6 E S +11 +10 E J0 K S +14 E",
    // Damage past the first sector, with whole transactions of the same size
    // after it that the header once counted.
    "2: S +4 E S +6 E S +9 E S +11 E S +13 E S +14 E J1 S +17 E",
    "1k: S +4 E S +6 E S +9 E S +11 E S +13 E S +14 E S +17 E J2 S +19 E R",
    // A damaged pack: the generation before it takes over.
    "2: S +4 +6 E R S +9 E P S +11 E R S +14 E G",
    "3: S +4 E S +6 E R S +9 E R S +11 E P S +14 E S +17 E R S +19 E R G",
    // Killed and reopened, then the power cut.
    "2: S +4 E K S +6 E K R K S +9 E K C S +11 E",
    // A long journal used again: commits blank a part of what lies ahead, and
    // that part is used up.
    "2: S +43 E R R S +4 E S +42 E S -42 +6 E S +42 E S +11 E",
    // A blob deleted and stored again, within and across transactions.
    "2: S +4 *2 E S -4 *4 E S -2 E S +2 -2 +2 E S +6 -6 E R S -4 E S +4 E O R G",
};

Workload Parse(const std::string& text, std::string name) {
  Workload workload;
  workload.name = std::move(name);
  std::istringstream in(text);
  char colon = 0;
  in >> workload.slots >> colon;
  workload.keepDamaged = colon == 'k';
  if (workload.keepDamaged) in >> colon;
  if (colon != ':' || workload.slots < 1 || workload.slots > 3) throw std::invalid_argument("script: " + text);
  for (std::string word; in >> word;) {
    const int argument = word.size() > 1 ? std::atoi(word.c_str() + 1) : 0;
    if (std::string("S+*-ERGOKCJTP").find(word[0]) == std::string::npos || argument < 0 || argument >= kAllBlobs)
      throw std::invalid_argument("script step: " + word);
    workload.steps.push_back({word[0], argument});
  }
  return workload;
}

}  // namespace

int ScriptCount() {
  return static_cast<int>(std::size(kScripts));
}

Workload Script(int number) {
  return Parse(kScripts[static_cast<std::size_t>(number)], std::string("s").append(std::to_string(number)));
}

Workload ParseScript(const std::string& text) {
  return Parse(text, text);
}

Workload RandomWorkload(std::uint64_t seed) {
  Random random(seed);
  Workload workload;
  workload.name = std::string("r").append(std::to_string(seed));
  workload.slots = 1 + static_cast<int>(random.Below(3));
  workload.keepDamaged = random.Below(2) == 0;
  const unsigned blobs = 4 + random.Below(kBlobCount - 4);
  const auto blob = [&] { return static_cast<int>(random.Below(blobs)); };
  const unsigned rounds = 3 + random.Below(8);
  for (unsigned round = 0; round < rounds; ++round) {
    workload.steps.push_back({'S', 0});
    for (unsigned changes = random.Below(5); changes > 0; --changes)
      workload.steps.push_back({"+++**---"[random.Below(8)], blob()});
    if (random.Below(8) != 0) workload.steps.push_back({'E', 0});
    switch (random.Below(16)) {
      case 0:
      case 1:
      case 2:
        if (workload.steps.back().kind == 'E') workload.steps.push_back({'R', 0});
        break;
      case 3:
        workload.steps.push_back({'O', 0});
        break;
      case 4:
        workload.steps.push_back({'K', 0});
        break;
      case 5:
        workload.steps.push_back({'C', 0});
        break;
      case 6:
        workload.steps.push_back({'J', static_cast<int>(random.Below(3))});
        break;
      case 7:
        workload.steps.push_back({'T', static_cast<int>(random.Below(3))});
        break;
      case 8:
        workload.steps.push_back({'P', 0});
        break;
      default:
        break;
    }
  }
  return workload;
}

Workload WorkloadByName(const std::string& name) {
  if (!name.empty() && name[0] == 's') {
    const int number = std::atoi(name.c_str() + 1);
    if (number >= 0 && number < ScriptCount()) return Script(number);
  }
  if (!name.empty() && name[0] == 'r') return RandomWorkload(std::strtoull(name.c_str() + 1, nullptr, 10));
  return ParseScript(name);
}

void HealthyRun::Require(bool answer, const char* what) const {
  if (!answer) throw Violation{std::string(what) + " failed on a healthy machine"};
}

void HealthyRun::Run() {
  session_.Open();
  ExpectContents();
  for (const Step& step : workload_.steps) {
    step_ = step.kind;
    if (beforeStep != nullptr) beforeStep(context, step);
    Do(step);
    if (afterStep != nullptr) afterStep(context, step);
  }
  step_ = 'O';
  session_.Dispose();
}

void HealthyRun::ExpectContents() {
  if (session_.List() != allowed_.committed) throw Violation{"the contents are not those of the last commit"};
}

void HealthyRun::Do(const Step& step) {
  switch (step.kind) {
    case 'S':
      // Ids repeat and go down now and then: nothing requires them to grow.
      transactionId_ = transactionId_ * 7 % 11 + 1;
      Require(session_.Start(transactionId_), "BCStartTransaction");
      working_ = allowed_.committed;
      changed_ = false;
      return;
    case '+':
    case '*':
      Require(step.kind == '+' ? session_.Store(step.argument) : session_.Put(step.argument), "BCStore or BCPut");
      changed_ = changed_ || (working_ & Bit(step.argument)) == 0;
      working_ |= Bit(step.argument);
      return;
    case '-':
      Require(session_.Delete(step.argument), "BCDelete");
      changed_ = changed_ || (working_ & Bit(step.argument)) != 0;
      working_ &= ~Bit(step.argument);
      return;
    case 'E':
      return DoEnd();
    case 'R':
      return DoRepack();
    case 'G':
      if (session_.ExpectSound() != allowed_.committed) throw Violation{"the contents are not those committed"};
      return;
    case 'O':
      session_.Dispose();
      return Reopen();
    case 'K':
    case 'C':
      if (step.kind == 'K')
        sim::Files().Kill();
      else
        sim::Files().CutPower();
      session_.Dispose();
      sim::Files().Restart();
      return Reopen();
    case 'J':
    case 'T':
      return DamageJournal(step.argument, step.kind == 'T');
    case 'P':
      return DamagePack();
    default:
      throw std::logic_error("no such step");
  }
}

std::uint32_t HealthyRun::JournalEnd() const {
  const sim::Disk& disk = sim::Files().disk;
  const sim::Bytes& bytes = disk.inode(disk.Lookup(JournalPath(CurrentSlot()))).visible;
  return bytes[20] | static_cast<std::uint32_t>(bytes[21]) << 8 | static_cast<std::uint32_t>(bytes[22]) << 16 |
         static_cast<std::uint32_t>(bytes[23]) << 24;
}

void HealthyRun::DoEnd() {
  const std::uint32_t start = JournalEnd();
  allowed_.inFlight = working_;
  Require(session_.End(transactionId_), "BCEndTransaction");
  if (changed_) generations_.back().commits.push_back({start, allowed_.committed});
  allowed_ = Allowed::Only(working_);
  changed_ = false;
  ExpectContents();
}

void HealthyRun::DoRepack() {
  if (changed_) {
    if (session_.Repack()) throw Violation{"BCRepack with changes pending returned 1"};
    return;
  }
  Require(session_.Repack(), "BCRepack");
  generations_.push_back({generations_.back().sequence + 1, allowed_.committed, {}});
  olderIsWhole_ = workload_.slots > 1;
  ExpectContents();
}

void HealthyRun::Reopen() {
  working_ = allowed_.committed;
  changed_ = false;
  session_.Open();
  ExpectContents();
}

void HealthyRun::CloseForDamage() {
  session_.Dispose();
  working_ = allowed_.committed;
}

void HealthyRun::DamageJournal(int fromTheEnd, bool cut) {
  Generation& generation = generations_.back();
  const std::size_t back = static_cast<std::size_t>(fromTheEnd) + 1;
  if (generation.commits.size() < back) return;
  const std::size_t at = generation.commits.size() - back;
  CloseForDamage();
  // Past the 16-byte op header and the 24-byte block of the start record:
  // inside the first record, which the digest covers.
  const std::uint32_t offset = generation.commits[at].start + 16 + 24 + 17;
  const std::string path = JournalPath(CurrentSlot());
  allowed_ = Allowed::Only(generation.commits[at].before);
  generation.commits.resize(at);
  if (cut)
    sim::Files().disk.CutOff(path, offset);
  else
    sim::Files().disk.FlipByte(path, offset);
  Reopen();
}

void HealthyRun::DamagePack() {
  const Mask contents = generations_.back().contents;
  if (!olderIsWhole_ || contents == 0) return;
  CloseForDamage();
  sim::Files().disk.FlipByte(PackPath(CurrentSlot()), 24 + 16 + 24 + 17);
  generations_.pop_back();
  olderIsWhole_ = false;
  allowed_ = Allowed::Only(contents);
  Reopen();
}

}  // namespace explore

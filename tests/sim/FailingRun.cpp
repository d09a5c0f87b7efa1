#include <algorithm>

#include "tests/sim/FaultRuns.h"
#include "tests/support/SimMemory.h"

namespace explore {

using sim::Files;
using sim::Memory;

FailingRun::FailingRun(const Workload& workload, const Plan& plan)
    : workload_(workload), plan_(plan), session_(workload.slots, plan.keep) {}

bool FailingRun::FailedNow() const {
  return Files().faults.Fired() || Memory().refusedAllocs() > 0 || Memory().refusedFrees() > 0;
}

void FailingRun::Arm(std::uint64_t n) {
  switch (plan_.kind) {
    case Plan::Kind::Call:
      return Files().faults.FailCall(n, plan_.fault, plan_.fromThenOn);
    case Plan::Kind::Alloc:
      return Memory().RefuseAlloc(n, plan_.fromThenOn);
    case Plan::Kind::Free:
      return Memory().RefuseFree(n, plan_.fromThenOn);
  }
}

// The machine works again; what failed until now is remembered.
void FailingRun::Mend() {
  failed_ = failed();
  refusedFrees_ += Memory().refusedFrees();
  Files().faults.Clear();
  Memory().RefuseAlloc(0);
  Memory().RefuseFree(0);
}

// ---- What the store may answer ------------------------------------------------

// Nothing may fail before something was made to.
void FailingRun::Excuse(const char* call) const {
  if (!failed()) throw Violation{std::string(call) + " failed on a healthy machine"};
}

// A flush that failed fails the call that asked for it.
void FailingRun::ExpectSaidSo(const char* call) const {
  if (Files().faults.FailedDuringOp(sim::Call::FlushFileBuffers))
    throw Violation{std::string(call) + " succeeded although a flush failed"};
}

void FailingRun::ExpectShown() {
  if (session_.List() != shown_) throw Violation{"the index does not show what was committed"};
}

bool FailingRun::Allows(Mask contents) const {
  return erased_ || std::find(allowed_.begin(), allowed_.end(), contents) != allowed_.end();
}

std::string FailingRun::Difference(Mask contents) const {
  std::string text = ": holds " + Names(contents) + ", not";
  for (const Mask allowed : allowed_) text.append(" ").append(Names(allowed));
  return text;
}

// ---- Opening --------------------------------------------------------------------

bool FailingRun::OpenOnce() {
  if (!session_.Initialize() && !session_.Initialize()) return false;
  for (int slot = 0; slot < workload_.slots; ++slot) {
    Files().faults.StartOp();
    if (session_.AddPackDir(slot)) {
      ExpectSaidSo("BCAddPackDir");
    } else {
      Excuse("BCAddPackDir");
      if (!session_.AddPackDir(slot)) return false;
    }
  }
  if (session_.Load()) return true;
  Excuse("BCLoad");
  // A store that keeps damaged files can be asked again.
  if (plan_.keep) return session_.Load();
  erased_ = true;
  return false;
}

// False: a machine on which everything fails from now on does not let it be
// opened.
bool FailingRun::OpenStore() {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (OpenOnce()) {
      shown_ = working_ = session_.List();
      changed_ = false;
      if (erased_) allowed_ = {shown_};
      if (!Allows(shown_))
        throw Violation{"opened again, the store does not hold what was acknowledged" + Difference(shown_)};
      return true;
    }
    Excuse("opening");
    session_.Dispose();
  }
  if (!plan_.fromThenOn) throw Violation{"the store cannot be opened after a failure that has passed"};
  return false;
}

bool FailingRun::Reopen() {
  session_.Dispose();
  return OpenStore();
}

// ---- The steps. False: the store cannot be opened any more ------------------------

bool FailingRun::Do(const Step& step) {
  Files().faults.StartOp();
  switch (step.kind) {
    case 'S':
      return DoStart();
    case '+':
    case '*':
    case '-':
      DoChange(step);
      return true;
    case 'E':
      return DoEnd();
    case 'R':
      return DoRepack();
    case 'G':
      return DoRead();
    case 'K':
    case 'C':
      if (step.kind == 'K')
        Files().Kill();
      else
        Files().CutPower();
      session_.Dispose();
      Files().Restart();
      return OpenStore();
    default:
      return Reopen();
  }
}

bool FailingRun::DoStart() {
  transactionId_ = transactionId_ * 7 % 11 + 1;
  if (!session_.Start(transactionId_)) {
    Excuse("BCStartTransaction");
    return Reopen();
  }
  working_ = shown_;
  changed_ = false;
  return true;
}

void FailingRun::DoChange(const Step& step) {
  const auto change = [&] {
    if (step.kind == '*') return session_.Put(step.argument);
    return step.kind == '+' ? session_.Store(step.argument) : session_.Delete(step.argument);
  };
  bool done = change();
  if (!done) Excuse("a change");
  if (!done && plan_.policy == Policy::AskAgain) done = change();
  if (!done) return;
  const bool present = (working_ & Bit(step.argument)) != 0;
  changed_ = changed_ || present == (step.kind == '-');
  if (step.kind == '-')
    working_ &= ~Bit(step.argument);
  else
    working_ |= Bit(step.argument);
}

void FailingRun::Committed() {
  shown_ = working_;
  // A transaction without a change writes nothing, and leaves a commit that
  // failed before it in doubt.
  if (changed_) allowed_ = {shown_};
  changed_ = false;
  ExpectShown();
}

bool FailingRun::DoEnd() {
  if (session_.End(transactionId_)) {
    ExpectSaidSo("BCEndTransaction");
    Committed();
    return true;
  }
  Excuse("BCEndTransaction");
  allowed_.push_back(working_);
  ExpectShown();
  if (plan_.policy == Policy::GoOn) return true;
  if (plan_.policy == Policy::AskAgain && session_.End(transactionId_)) {
    ExpectSaidSo("BCEndTransaction");
    Committed();
    return true;
  }
  return Reopen();
}

bool FailingRun::DoRepack() {
  if (session_.Repack()) {
    // A flush may have failed after the one that made the new generation
    // count: what it holds is checked on the disk.
    if (changed_) throw Violation{"BCRepack with changes pending returned 1"};
    ExpectShown();
    return true;
  }
  if (changed_) return true;
  Excuse("BCRepack");
  return Reopen();
}

bool FailingRun::DoRead() {
  ExpectShown();
  if (!session_.ReadAll(shown_)) {
    Excuse("BCGet");
    return Reopen();
  }
  Files().faults.StartOp();
  const Session::Check check = session_.Fsck();
  if (check != Session::Check::Sound) Excuse("BCFsck");
  // A read that failed once may have been tried again.
  if (plan_.fromThenOn && check == Session::Check::Sound && Files().faults.FailedDuringOp(sim::Call::ReadFile))
    throw Violation{"BCFsck passed a blob that could not be read"};
  return true;
}

// ---- The disk, whatever happens next ------------------------------------------------

// Opens the disk on a healthy machine. The machine at work stays as it is.
void FailingRun::CheckDisk(const sim::Image& image, const char* when) {
  sim::Disk disk = Files().disk;
  disk.Load(image);
  CheckDisk(disk, when);
}

void FailingRun::CheckDisk(const sim::Disk& disk, const char* when) {
  const sim::SimFiles saved = Files();
  Files().Kill();
  Files().Restart();
  Files().faults.Clear();
  Files().log = nullptr;
  Files().disk = disk;
  try {
    Session session(workload_.slots, plan_.keep);
    session.Open();
    Mask contents = session.ExpectSound();
    if (!Allows(contents)) throw Violation{"the disk does not hold what was acknowledged" + Difference(contents)};
    if (!session.Start(1) || !session.Store(kProbe) || !session.End(1)) throw Violation{"a new commit fails"};
    contents |= Bit(kProbe);
    Files().CutPower();
    session.Dispose();
    Files().Restart();
    session.Open();
    if (session.ExpectSound() != contents) throw Violation{"a new commit does not survive a power cut"};
    session.Dispose();
    if (Files().openHandles() != 0) throw Violation{"handles stay open"};
  } catch (const Violation& violation) {
    throw Violation{std::string(when) + ": " + violation.text};
  }
  Files() = saved;
}

// After the step that failed, and for two more: the process is killed, or the
// power cut and nothing, or some of what was not flushed, found.
void FailingRun::CheckMoment() {
  Mend();
  const sim::Disk disk = Files().disk;
  CheckDisk(disk, "killed after the failure");
  sim::Image image;
  sim::CrashStates states;
  states.Assign(disk);
  sim::Choices choices(states.units(), 0);
  Random random(plan_.n * 10 + static_cast<unsigned>(checked_));
  for (int sample = 0; sample < (checked_ == 0 ? 3 : 2); ++sample) {
    states.Build(choices, image);
    CheckDisk(image, "power cut after the failure");
    for (std::size_t unit = 0; unit < choices.size(); ++unit)
      choices[unit] = static_cast<std::uint16_t>(random.Below(states.versions(unit)));
    if (choices.empty()) break;
  }
  ++checked_;
  if (plan_.fromThenOn) Arm(1);
}

void FailingRun::Finish() {
  session_.Dispose();
  Mend();
  if (Files().openHandles() != 0) throw Violation{"handles stay open"};
  allocations_ = Memory().allocations() - allocations_;
  releases_ = Memory().releases() - releases_;
  if (Memory().liveBlocks() != memoryBefore_ + refusedFrees_) throw Violation{"memory stays taken"};
  sim::Image image;
  Files().disk.Visible(image);
  CheckDisk(image, "closed in the end");
}

void FailingRun::Run() {
  Mend();
  failed_ = false;
  refusedFrees_ = 0;
  std::vector<sim::Call>* const log = Files().log;
  FreshMachine();
  Files().log = log;
  memoryBefore_ = Memory().liveBlocks();
  allocations_ = Memory().allocations();
  releases_ = Memory().releases();
  Arm(plan_.n);
  bool open = OpenStore();
  for (std::size_t i = 0; open && i < workload_.steps.size(); ++i) {
    open = Do(workload_.steps[i]);
    if (checked_ < kCheckedSteps && failed()) CheckMoment();
  }
  Finish();
}

}  // namespace explore

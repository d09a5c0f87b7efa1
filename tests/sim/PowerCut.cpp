#include "tests/sim/PowerCut.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include "tests/support/SimMemory.h"

namespace explore {

namespace {

constexpr const char* kKilled = "killed";

std::string Text(const sim::Choices& choices) {
  std::string text;
  for (const std::uint16_t choice : choices) {
    if (!text.empty()) text += '.';
    text += std::to_string(choice);
  }
  return text.empty() ? "-" : text;
}

sim::Choices ParseChoices(const std::string& text) {
  sim::Choices choices;
  std::istringstream in(text);
  for (std::string number; std::getline(in, number, '.');)
    if (number != "-") choices.push_back(static_cast<std::uint16_t>(std::atoi(number.c_str())));
  return choices;
}

}  // namespace

bool HashSet::Insert(std::uint64_t hash) {
  if (hash == 0) hash = 1;
  if (count_ * 2 >= slots_.size()) {
    std::vector<std::uint64_t> old(slots_.size() * 2, 0);
    old.swap(slots_);
    count_ = 0;
    for (const std::uint64_t value : old)
      if (value != 0) Insert(value);
  }
  for (auto at = static_cast<std::size_t>(hash);; ++at) {
    std::uint64_t& slot = slots_[at & (slots_.size() - 1)];
    if (slot == hash) return false;
    if (slot != 0) continue;
    slot = hash;
    ++count_;
    return true;
  }
}

// ---- Watching a run: a snapshot at every moment ------------------------------

void PowerCut::AddMoment(Level& level) {
  if (level.count == level.moments.size()) level.moments.emplace_back();
  Moment& moment = level.moments[level.count++];
  moment.disk = sim::Files().disk;
  moment.allowed = level.run != nullptr ? level.run->allowed() : level.allowed;
  ++moments_;
}

void PowerCut::OnCall(void* context, sim::Call /*call*/) {
  auto* self = static_cast<PowerCut*>(context);
  self->AddMoment(self->levels_[self->watching_]);
}

void PowerCut::Watch(int level) {
  watching_ = level;
  levels_[level].count = 0;
  sim::Files().watcher = OnCall;
  sim::Files().watcherContext = this;
}

void PowerCut::BeforeStep(void* context, const Step& step) {
  const auto* self = static_cast<PowerCut*>(context);
  if (step.kind != self->breakage_.step) return;
  if (self->breakage_.lieAboutFlush > 0) sim::Files().LieAboutFlush(self->breakage_.lieAboutFlush);
  if (!self->breakage_.headerFirst.empty()) sim::Files().PutHeaderFirst(self->breakage_.headerFirst);
  if (!self->breakage_.neverFlush.empty()) sim::Files().NeverFlush(self->breakage_.neverFlush);
  if (!self->breakage_.loseZeros.empty()) sim::Files().LoseZeros(self->breakage_.loseZeros);
  if (self->breakage_.renameNotSynced) sim::Files().LeaveRenamesPending();
}

void PowerCut::AfterStep(void* context, const Step& step) {
  auto* self = static_cast<PowerCut*>(context);
  self->breakageReached_ = self->breakageReached_ || sim::Files().Misbehaved();
  sim::Files().BehaveAgain();
  // After an acknowledged commit nothing need follow for its loss to count.
  if (step.kind == 'E' || step.kind == 'R') self->AddMoment(self->levels_[0]);
}

void PowerCut::RunWatched(const Workload& workload) {
  FreshMachine();
  HealthyRun run(workload);
  run.beforeStep = BeforeStep;
  run.afterStep = AfterStep;
  run.context = this;
  levels_[0].run = &run;
  Watch(0);
  run.Run();
  AddMoment(levels_[0]);
  sim::Files().watcher = nullptr;
  levels_[0].run = nullptr;
}

void PowerCut::Explore(const Workload& workload) {
  workloadName_ = workload.name;
  slots_ = workload.slots;
  keepDamaged_ = workload.keepDamaged;
  current_ = -1;
  try {
    RunWatched(workload);
  } catch (const Violation& violation) {
    sim::Files().watcher = nullptr;
    levels_[0].run = nullptr;
    Report(-1, violation.text);
    return;
  }
  ExploreMoments(0);
}

// ---- Every disk of a moment ---------------------------------------------------

void PowerCut::ExploreMoments(int level) {
  Level& at = levels_[level];
  const std::size_t count = at.count;
  for (at.momentAt = 0; at.momentAt < count && !Full(); ++at.momentAt) ExploreMoment(level);
}

void PowerCut::ExploreMoment(int level) {
  Level& at = levels_[level];
  at.killed = false;
  at.states.Assign(at.moments[at.momentAt].disk);
  at.choices.assign(at.states.units(), 0);
  const std::uint64_t limit = level == 0 ? limits_.exhaustive : limits_.nestedExhaustive;
  if (at.states.Count(limit + 1) <= limit)
    ExploreAll(level);
  else
    ExploreSample(level);
  if (level == 0 && at.states.units() > 0) TryKilled(level);
}

void PowerCut::ExploreAll(int level) {
  Level& at = levels_[level];
  for (;;) {
    TryChoices(level);
    std::size_t unit = 0;
    while (unit < at.choices.size() && ++at.choices[unit] == at.states.versions(unit)) at.choices[unit++] = 0;
    if (unit == at.choices.size() || Full()) return;
  }
}

void PowerCut::ExploreSample(int level) {
  Level& at = levels_[level];
  const std::size_t units = at.choices.size();
  const auto last = [&at](std::size_t unit) { return static_cast<std::uint16_t>(at.states.versions(unit) - 1); };
  TryChoices(level);
  for (std::size_t unit = 0; unit < units; ++unit) {
    at.choices[unit] = last(unit);
    TryChoices(level);
    at.choices[unit] = 0;
  }
  for (std::size_t unit = 0; unit < units; ++unit) at.choices[unit] = last(unit);
  TryChoices(level);
  for (std::size_t unit = 0; unit < units; ++unit) {
    at.choices[unit] = 0;
    TryChoices(level);
    at.choices[unit] = last(unit);
  }
  Random random(seed_ ^ (at.momentAt * 1000003U) ^ std::hash<std::string>()(workloadName_));
  for (unsigned n = level == 0 ? limits_.sample : limits_.nestedSample; n > 0 && !Full(); --n) {
    for (std::size_t unit = 0; unit < units; ++unit)
      at.choices[unit] = static_cast<std::uint16_t>(random.Below(at.states.versions(unit)));
    TryChoices(level);
  }
}

void PowerCut::TryChoices(int level) {
  Level& at = levels_[level];
  if (Full()) return;
  at.states.Build(at.choices, at.image);
  const Allowed& allowed = at.moments[at.momentAt].allowed;
  const std::uint64_t hash =
      Random(sim::Hash(at.image) ^ Random(allowed.committed).Next() * 3 ^ Random(allowed.inFlight).Next() * 5 ^
             Random(allowed.inDoubt).Next() * 7 ^ static_cast<unsigned>(2 * slots_ + (keepDamaged_ ? 1 : 0)))
          .Next();
  if (!seen_.Insert(hash)) return;
  sim::Files().disk.Load(at.image);
  VerifyAndExplore(level, true, level == 0 && hash % limits_.followUpEvery == 0);
}

void PowerCut::TryKilled(int level) {
  Level& at = levels_[level];
  at.killed = true;
  sim::Files().disk = at.moments[at.momentAt].disk;
  VerifyAndExplore(level, true, true);
  at.killed = false;
}

// ---- One disk -------------------------------------------------------------------

void PowerCut::VerifyAndExplore(int level, bool watch, bool watchCommit) {
  const bool nested = level + 1 < kLevels;
  current_ = level;
  try {
    Verify(level, watch && nested, watchCommit && nested);
  } catch (const Violation& violation) {
    sim::Files().watcher = nullptr;
    Report(level, violation.text);
    return;
  }
  if (nested && watch) ExploreMoments(level + 1);
  current_ = level;
}

void PowerCut::Verify(int level, bool watch, bool watchCommit) {
  sim::SimFiles& files = sim::Files();
  files.Restart();
  const Allowed& allowed = levels_[level].moments[levels_[level].momentAt].allowed;
  const std::size_t memoryBefore = sim::Memory().liveBlocks();
  Level* next = watch ? &levels_[level + 1] : nullptr;
  if (next != nullptr) {
    next->allowed = allowed;
    Watch(level + 1);
  }
  Session session(slots_, keepDamaged_);
  session.Open();
  if (!watchCommit) files.watcher = nullptr;
  Mask contents = session.ExpectSound();
  if (!allowed.Has(contents))
    throw Violation{"holds " + Names(contents) + "; committed " + Names(allowed.committed) + ", under way " +
                    Names(allowed.inFlight)};

  const int probe = (contents & Bit(kProbe)) == 0 ? kProbe : kLaterProbe;
  if (!session.Start(1) || !session.Store(probe)) throw Violation{"a new transaction fails"};
  // What was shown after a process was killed, a power cut may still take
  // back, until the next commit is acknowledged.
  if (watchCommit)
    next->allowed = {contents, contents | Bit(probe),
                     contents == allowed.committed ? allowed.inFlight : allowed.committed};
  if (!session.End(1)) throw Violation{"a new commit fails"};
  contents |= Bit(probe);
  if (watchCommit) {
    next->allowed = Allowed::Only(contents);
    AddMoment(*next);
    files.watcher = nullptr;
  }

  files.CutPower();
  session.Dispose();
  files.Restart();
  session.Open();
  if (session.ExpectSound() != contents) throw Violation{"a new commit does not survive a power cut"};
  session.Dispose();
  if (files.openHandles() != 0) throw Violation{"handles stay open"};
  if (sim::Memory().liveBlocks() != memoryBefore) throw Violation{"memory stays taken"};
}

std::string PowerCut::Describe(int level) const {
  const Level& at = levels_[level];
  const Allowed& allowed = at.moments[at.momentAt].allowed;
  std::string text = "moment " + std::to_string(at.momentAt) + ": committed " + Names(allowed.committed) +
                     ", under way " + Names(allowed.inFlight) + ", in doubt " + Names(allowed.inDoubt) + "\n";
  sim::Image image;
  sim::Files().disk.Visible(image);
  for (std::size_t i = 0; i < image.count; ++i) {
    const sim::Bytes& bytes = image.files[i].bytes;
    text += "  " + image.files[i].path + ", " + std::to_string(bytes.size()) + " bytes, header";
    for (std::size_t at32 = 0; at32 + 4 <= bytes.size() && at32 < 24; at32 += 4)
      text.append(" ").append(std::to_string(bytes[at32] | bytes[at32 + 1] << 8 | bytes[at32 + 2] << 16 |
                                             static_cast<int>(std::uint32_t{bytes[at32 + 3]} << 24)));
    text += "\n";
  }
  return text;
}

// ---- Reports and replay -----------------------------------------------------------

std::string PowerCut::Token(int level) const {
  std::string token = "cut/" + workloadName_;
  for (int i = 0; i <= level; ++i) {
    token.append("/").append(std::to_string(levels_[i].momentAt)).append("/");
    token += levels_[i].killed ? kKilled : Text(levels_[i].choices);
  }
  return token;
}

std::string PowerCut::CurrentToken() const {
  return Token(current_);
}

void PowerCut::Report(int level, const std::string& text) {
  findings_.push_back({Token(level), text});
  // What the failed run left open and taken goes with a fresh machine; its
  // store stays registered and takes no part any more.
  sim::Files().Kill();
  sim::Files().Restart();
}

bool PowerCut::Replay(const std::string& token) {
  std::vector<std::string> parts;
  std::istringstream in(token);
  for (std::string part; std::getline(in, part, '/');) parts.push_back(part);
  if (parts.size() < 2 || parts[0] != "cut") return false;
  const Workload workload = WorkloadByName(parts[1]);
  workloadName_ = workload.name;
  slots_ = workload.slots;
  keepDamaged_ = workload.keepDamaged;
  int level = -1;
  try {
    RunWatched(workload);
    for (std::size_t i = 2; i + 1 < parts.size() && level + 1 < kLevels; i += 2) {
      Level& at = levels_[++level];
      at.momentAt = static_cast<std::size_t>(std::strtoull(parts[i].c_str(), nullptr, 10));
      if (at.momentAt >= at.count) return false;
      at.states.Assign(at.moments[at.momentAt].disk);
      at.killed = parts[i + 1] == kKilled;
      at.choices = ParseChoices(parts[i + 1]);
      if (at.killed) {
        sim::Files().disk = at.moments[at.momentAt].disk;
      } else {
        if (at.choices.size() != at.states.units()) return false;
        at.states.Build(at.choices, at.image);
        sim::Files().disk.Load(at.image);
      }
      description_ += Describe(level);
      Verify(level, level + 1 < kLevels, level + 1 < kLevels);
    }
  } catch (const Violation& violation) {
    Report(level, violation.text);
  }
  return true;
}

}  // namespace explore

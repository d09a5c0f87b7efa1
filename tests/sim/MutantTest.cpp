// The explorer is itself tried: on machines that make a sound store behave
// like a broken one. Each must be found out, and quickly.
#include <gtest/gtest.h>

#include <ostream>

#include "tests/sim/PowerCut.h"
#include "tests/support/SimDiagnostics.h"

namespace explore {
namespace {

struct Mutant {
  const char* what;
  const char* script;
  PowerCut::Breakage breakage;
};

std::ostream& operator<<(std::ostream& out, const Mutant& mutant) {
  return out << mutant.what;
}

constexpr char kCommits[] = "2: S +4 E S +6 E S +8 E";
// The files of a slot are used again, with records of the same sizes: what an
// earlier life left there reads as if it belonged.
constexpr char kJournalUsedAgain[] =
    "2: S +4 E S +6 E S +9 E S +11 E S +13 E R S -4 -6 -9 -11 -13 E R S +14 E S +17 E S +19 E S +22 E S +24 E";
constexpr char kPackUsedAgain[] = "2: S +4 +6 E R R R S -4 -6 +9 +14 E R S +17 E";
constexpr char kOneSlot[] = "1: S +4 E R S +6 -4 E R S +9 E R";

class BrokenStore : public testing::TestWithParam<Mutant> {};

TEST_P(BrokenStore, IsFoundOut) {
  const Mutant& mutant = GetParam();
  sim::Diagnostics().Record(false);
  PowerCut sound(1);
  sound.Explore(ParseScript(mutant.script));
  ASSERT_TRUE(sound.findings().empty()) << sound.findings()[0].text << " --replay " << sound.findings()[0].token;

  PowerCut broken(1);
  broken.Break(mutant.breakage);
  broken.Explore(ParseScript(mutant.script));
  EXPECT_TRUE(broken.BreakageReached());
  EXPECT_FALSE(broken.findings().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Commit, BrokenStore,
    testing::Values(
        Mutant{"the records are not flushed before the header", kJournalUsedAgain, {.step = 'E', .lieAboutFlush = 1}},
        Mutant{"records and header are not flushed before the answer", kCommits, {.step = 'E', .lieAboutFlush = 1}},
        Mutant{"the header is not flushed before the answer", kJournalUsedAgain, {.step = 'E', .lieAboutFlush = 2}},
        Mutant{"what lies ahead is not made blank", kJournalUsedAgain, {.step = 'E', .loseZeros = ".jrn"}},
        Mutant{"the header comes before the records", kJournalUsedAgain, {.step = 'E', .headerFirst = ".jrn"}}));

// A pack whose records alone are not flushed is no mutant: its one digest lies
// in the sector of the header, so that the pack is found whole or passed over.
INSTANTIATE_TEST_SUITE_P(
    Repack, BrokenStore,
    testing::Values(
        Mutant{"the new pack's header comes first", kPackUsedAgain, {.step = 'R', .headerFirst = ".pak"}},
        Mutant{"the next slot's journal is not emptied", kJournalUsedAgain, {.step = 'R', .neverFlush = ".jrn"}},
        Mutant{"the new pack is not flushed", kJournalUsedAgain, {.step = 'R', .neverFlush = ".pak"}},
        Mutant{"one slot: the pack beside is not flushed", kOneSlot, {.step = 'R', .neverFlush = ".new"}},
        Mutant{"one slot: the journal is emptied first", kOneSlot, {.step = 'R', .renameNotSynced = true}}));

}  // namespace
}  // namespace explore

// A little of what power_cut_explorer does at length, in every test run and
// under the sanitizers.
#include <gtest/gtest.h>

#include "tests/sim/FaultRuns.h"
#include "tests/sim/PowerCut.h"
#include "tests/support/SimDiagnostics.h"

namespace explore {
namespace {

void ExpectNone(const std::vector<Finding>& findings) {
  for (const Finding& finding : findings)
    ADD_FAILURE() << finding.text << "\n  power_cut_explorer --replay '" << finding.token << "'";
}

TEST(Explorer, NoPowerCutLosesACommit) {
  sim::Diagnostics().Record(true);  // formats every line that the store writes
  PowerCut::Limits limits;
  limits.exhaustive = 48;
  limits.sample = 12;
  limits.followUpEvery = 256;
  PowerCut cut(7, limits);
  for (int i = 0; i < ScriptCount(); ++i) {
    sim::Diagnostics().Clear();
    cut.Explore(Script(i));
  }
  ExpectNone(cut.findings());
  EXPECT_GT(cut.states(), 1000U);
}

TEST(Explorer, NoFailingCallLosesACommit) {
  sim::Diagnostics().Record(false);
  FaultRuns runs;
  for (const char* script : {"2: S +4 *6 E G R S -4 +8 E O S +9 E", "1: S +4 E R S +6 E G"})
    runs.Explore(ParseScript(script));
  ExpectNone(runs.findings());
  EXPECT_GT(runs.faults(), 500U);
  EXPECT_GT(runs.allocations(), 100U);
  EXPECT_GT(runs.releases(), 50U);
}

// A token names the state it was printed for: the same disk, the same answer.
TEST(Explorer, ReplaysWhatItFound) {
  sim::Diagnostics().Record(false);
  PowerCut broken(1);
  broken.Break({.step = 'E', .lieAboutFlush = 1});
  broken.Explore(ParseScript("2: S +4 E S +6 E"));
  ASSERT_FALSE(broken.findings().empty());
  const Finding& found = broken.findings()[0];
  PowerCut again(2);
  again.Break({.step = 'E', .lieAboutFlush = 1});
  ASSERT_TRUE(again.Replay(found.token));
  ASSERT_EQ(again.findings().size(), 1U);
  EXPECT_EQ(again.findings()[0].text, found.text);
  EXPECT_FALSE(again.Replay("cut/s0/100000/0"));
  EXPECT_FALSE(again.Replay("nonsense"));
}

}  // namespace
}  // namespace explore

// Tool runs and waits of a step, and the progress lines of a long wait.
#include "progress.h"

#include <qzfi/execpipe.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qzfi_host::CProgressWatch;
using qzfi_pdk_4_4::CFiExecPipeBase;
using qzfi_pdk_4_4::CFiExecPipePosix;
using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiExecSeamScope;
using ::testing::ElementsAre;
using Clock = CProgressWatch::Clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

class ProgressTest : public ::testing::Test {
 protected:
  CProgressWatch watch{[this](const std::string& line) { printed.push_back(line); }};
  std::vector<std::string> printed;
  Clock::time_point t0 = Clock::now();
};

TEST_F(ProgressTest, ToolRunsOfAStepAreCountedWithTheirTime) {
  watch.beginStepAt("initNode", t0);
  watch.startedAt(t0 + milliseconds(10));
  watch.finishedAt(t0 + milliseconds(13), 3000);
  watch.startedAt(t0 + milliseconds(14));
  watch.finishedAt(t0 + milliseconds(19), 5000);
  const CProgressWatch::Counts counts = watch.endStepAt(t0 + milliseconds(20));
  EXPECT_EQ(counts.toolRuns, 2u);
  EXPECT_DOUBLE_EQ(counts.toolSeconds, 0.008);
  EXPECT_DOUBLE_EQ(counts.waitedSeconds, 0);
}

TEST_F(ProgressTest, APauseBetweenToolRunsIsAWaitToldAtOnceAndThenEveryFiveSeconds) {
  watch.beginStepAt("importTreeNode", t0);
  watch.startedAt(t0);
  watch.finishedAt(t0 + milliseconds(5), 5000);
  EXPECT_FALSE(watch.poll(t0 + seconds(1)));
  EXPECT_EQ(*watch.poll(t0 + milliseconds(2005)),
            "  ... importTreeNode: waiting for disks to appear, 2 s so far (1 tool runs)");
  EXPECT_FALSE(watch.poll(t0 + seconds(4)));
  EXPECT_EQ(*watch.poll(t0 + milliseconds(7005)),
            "  ... importTreeNode: waiting for disks to appear, 7 s so far (1 tool runs)");
  watch.startedAt(t0 + milliseconds(10005));
  EXPECT_FALSE(watch.poll(t0 + seconds(11)));
  watch.finishedAt(t0 + milliseconds(10010), 5000);
  const CProgressWatch::Counts counts = watch.endStepAt(t0 + milliseconds(10020));
  EXPECT_EQ(counts.toolRuns, 2u);
  EXPECT_DOUBLE_EQ(counts.waitedSeconds, 10.0);
}

TEST_F(ProgressTest, NoWaitIsToldWhileAToolRuns) {
  watch.beginStepAt("importTreeNode", t0);
  watch.startedAt(t0);
  EXPECT_FALSE(watch.poll(t0 + seconds(30)));
  watch.finishedAt(t0 + seconds(30), 30000000);
  const CProgressWatch::Counts counts = watch.endStepAt(t0 + seconds(30));
  EXPECT_DOUBLE_EQ(counts.waitedSeconds, 0);
}

TEST_F(ProgressTest, ShortPausesAreNoWaits) {
  watch.beginStepAt("online", t0);
  for (int retry = 0; retry < 3; ++retry) {
    const auto at = t0 + seconds(retry);
    watch.startedAt(at);
    watch.finishedAt(at + milliseconds(2), 2000);
    EXPECT_FALSE(watch.poll(at + milliseconds(1500)));
  }
  EXPECT_DOUBLE_EQ(watch.endStepAt(t0 + milliseconds(2500)).waitedSeconds, 0);
}

TEST_F(ProgressTest, AWaitAtTheEndOfAStepCounts) {
  watch.beginStepAt("postDeport", t0);
  EXPECT_DOUBLE_EQ(watch.endStepAt(t0 + seconds(3)).waitedSeconds, 3.0);
}

TEST_F(ProgressTest, NothingIsToldOutsideAStep) {
  EXPECT_FALSE(watch.poll(t0 + seconds(60)));
  watch.beginStepAt("claim", t0);
  watch.endStepAt(t0);
  EXPECT_FALSE(watch.poll(t0 + seconds(60)));
}

TEST_F(ProgressTest, InstalledItSeesThePipeRunnerAndTheThreadTellsAWait) {
  CProgressWatch quick([this](const std::string& line) { printed.push_back(line); },
                       milliseconds(50), seconds(60));
  quick.install();
  CFiExecSeamScope seam;
  CFiExecSeam::answer("qzdisk scandisks", 0, {});
  CFiExecPipePosix pipe;
  std::vector<std::string> output;
  quick.beginStep("importTreeNode");
  pipe.Exec("qzdisk scandisks", output, "", 0, "", "", "");
  // The thread looks four times a second: a pause of a third of a second is
  // told once.
  std::this_thread::sleep_for(milliseconds(350));
  pipe.Exec("qzdisk scandisks", output, "", 0, "", "", "");
  const CProgressWatch::Counts counts = quick.endStep();
  EXPECT_EQ(counts.toolRuns, 2u);
  EXPECT_GE(counts.waitedSeconds, 0.3);
  EXPECT_THAT(printed, ElementsAre("  ... importTreeNode: waiting for disks to appear, 0 s so far "
                                   "(1 tool runs)"));
}

TEST(Progress, TheWatchPutsBackThePreviousObserverWhenItGoes) {
  CFiExecPipeBase::setObserver(nullptr);
  {
    CProgressWatch watch(nullptr);
    watch.install();
    CProgressWatch* installed = &watch;
    EXPECT_EQ(CFiExecPipeBase::setObserver(installed), installed);
  }
  EXPECT_EQ(CFiExecPipeBase::setObserver(nullptr), nullptr);
}

}  // namespace

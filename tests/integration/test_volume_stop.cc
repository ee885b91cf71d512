// Stopping volumes: a busy volume stopped after retries, one that stays busy,
// and a stop that needs a flush of the disk group first.
#include "sim_host_env.h"

namespace {

using qzvmfi_it::SimHostTest;

class VolumeStopTest : public SimHostTest {
 protected:
  void arrange() override {
    admin({"host", "add", "A"});
    addDisks(1, "A", 1);
    makeGroup("A", "dg1", {"qzarr0_0"});
    tool("A", "qzassist -g dg1 make vol1 10m");
    actAs("A");
  }
};

TEST_F(VolumeStopTest, BusyVolumeStopsOnTheThirdRetry) {
  admin({"fault", "busy", "--host", "A", "--tool", "qzvol", "--match", "stop", "--count", "3"});
  EXPECT_EQ(support().offlineVolume("dg1", "vol1"), 0);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{1, 1, 1}));
  EXPECT_TRUE(wasTraced("Retrying as the volume vol1 is busy."));
  EXPECT_TRUE(wasTraced("Offline retry [3/8]"));
  EXPECT_FALSE(support().isVolStarted("dg1", "vol1"));
}

TEST_F(VolumeStopTest, HeldVolumeFailsAfterEightRetries) {
  admin({"volume", "hold", "--host", "A", "dg1", "vol1"});
  EXPECT_EQ(support().offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(m_pauses, std::vector<unsigned>(8, 1));
  EXPECT_EQ(runsOf("A", "qzvol -g dg1 stop vol1"), 9u);
  EXPECT_TRUE(support().isVolStarted("dg1", "vol1"));

  admin({"volume", "release", "--host", "A", "dg1", "vol1"});
  EXPECT_EQ(support().stopDCOVols("dg1", {"vol1"}), 0);
  EXPECT_FALSE(support().isVolStarted("dg1", "vol1"));
}

TEST_F(VolumeStopTest, StopNeedingAFlushIsRetriedOnceAfterIt) {
  admin({"fault", "add", "--host", "A", "--tool", "qzvol", "--match", "stop", "--times", "1",
         "--status", "5", "--stderr",
         "QZVM qzvol ERROR Q-5-1-10128 Configuration daemon error 441"});
  EXPECT_EQ(support().offlineVolume("dg1", "vol1"), 0);
  EXPECT_TRUE(m_pauses.empty());
  EXPECT_EQ(runsOf("A", "qzdg flush dg1"), 1u);
  EXPECT_EQ(runsOf("A", "qzvol -g dg1 stop vol1"), 2u);
  EXPECT_TRUE(wasTraced("qzvol stop failed for [vol1], trying dg flush"));
}

TEST_F(VolumeStopTest, StoppedVolumesStartAgain) {
  EXPECT_EQ(support().onOffVolume("dg1", "vol1", " stop "), 0);
  EXPECT_FALSE(support().isVolStarted("dg1", "vol1"));
  EXPECT_EQ(support().onlineVolume("dg1", "vol1", "gen"), 1);
  EXPECT_EQ(support().onlineVolume("dg1", "vol1", "fsgen"), 0);
  EXPECT_TRUE(support().isVolStarted("dg1", "vol1"));
  EXPECT_TRUE(support().isVolume("/dev/qz/dsk/dg1/vol1"));
  EXPECT_FALSE(support().isVolume("/dev/qz/dsk/dg1/vol9"));
}

}  // namespace

// A disk group of three disks with two volumes (one with a DCO log volume)
// and a volume set, split to host B and rebuilt there from its private
// regions and its configuration dump: the data comes back unchanged.
#include "sim_host_env.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::parseDisks;
using qzvmfi_it::SimDisk;
using qzvmfi_it::SimHostTest;

class SplitReplayTest : public SimHostTest {
 protected:
  void arrange() override {
    admin({"host", "add", "A"});
    admin({"host", "add", "B"});
    addDisks(3, "A", 2, "128m");
    m_sourceDMs = makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1", "qzarr0_2"});
    // vol1 spans the first two disks; vol2 lives on the third.
    tool("A", "qzassist -g dg1 make vol1 120m logtype=dco");
    tool("A", "qzassist -g dg1 make vol2 20m " + m_sourceDMs[2]);
    tool("A", "qzvset -g dg1 make set1 vol2");
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "11"});
    admin({"volume", "write", "--host", "A", "dg1", "vol2", "--seed", "22"});
  }

  qztest::TempDir m_files;
  Lines m_sourceDMs;
};

TEST_F(SplitReplayTest, RebuiltGroupOnHostBHoldsTheSourceData) {
  // Host A: what the rebuild needs, taken from the running group.
  actAs("A");
  Lines sourceDisks;
  ASSERT_EQ(support().getDisksForDG("dg1", sourceDisks), 0);
  ASSERT_EQ(sourceDisks, (Lines{"qzarr0_0", "qzarr0_1", "qzarr0_2"}));
  Lines sourceDMs;
  ASSERT_EQ(support().getDMsFromDG("dg1", sourceDisks, sourceDMs), 0);
  ASSERT_EQ(sourceDMs, m_sourceDMs);
  std::vector<vol_pvt_info> records;
  ASSERT_EQ(support().getVolPrivInfo(sourceDisks, records), 0);
  ASSERT_EQ(records.size(), 3u);
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].vpi_da, sourceDisks[i]);
    EXPECT_EQ(records[i].vpi_dm, sourceDMs[i]);
    EXPECT_EQ(records[i].vpi_dgname, "dg1");
    EXPECT_EQ(records[i].vpi_da_type, "auto");
    EXPECT_EQ(records[i].vpi_format, "cdsdisk");
    EXPECT_EQ(records[i].vpi_priv_offset, "256");
    EXPECT_FALSE(records[i].vpi_pub_offset.empty());
    EXPECT_FALSE(records[i].vpi_error);
  }
  EXPECT_TRUE(support().isCDSDisk(records));
  const std::string dump = m_files.file("dg1.dump");
  ASSERT_EQ(support().getDGConfig("dg1", dump), 0);
  const std::string dumpText = qztest::readFile(dump);
  EXPECT_TRUE(holds(dumpText, "vset set1")) << dumpText;
  EXPECT_TRUE(holds(dumpText, "dco vol1_dco")) << dumpText;
  const std::string vol1Sum = checksum("A", "dg1", "vol1");
  const std::string vol2Sum = checksum("A", "dg1", "vol2");

  // The array's copies go to host B.
  const std::vector<SimDisk> copies =
      parseDisks(admin({"array", "split", "--disks", "qzarr0_0,qzarr0_1,qzarr0_2", "--from-host",
                        "A", "--to-host", "B"}));
  ASSERT_EQ(copies.size(), 3u);
  Lines copyOSDisks;
  for (const SimDisk& copy : copies) {
    copyOSDisks.push_back(copy.osNames[0]);
  }

  // Host B: find the copies, give them the source geometry, rebuild.
  actAs("B");
  Lines copyNodes;
  ASSERT_EQ(support().getQzVMDiskForOSDiskHandler_Waited(copyOSDisks, copyNodes), 0);
  ASSERT_EQ(copyNodes.size(), 3u);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10}));
  ASSERT_EQ(support().isDisksInQzVMDB(copyNodes, true), 0);
  ASSERT_EQ(support().defineDisksInQzVM(copyNodes, records), 0);
  ASSERT_EQ(support().initDisks(copyNodes, records, false), 0);
  std::vector<vol_pvt_info> copyRecords;
  ASSERT_EQ(support().getVolPrivInfo(copyNodes, copyRecords), 0);
  for (size_t i = 0; i < copyRecords.size(); ++i) {
    EXPECT_EQ(copyRecords[i].vpi_pub_offset, records[i].vpi_pub_offset);
    EXPECT_EQ(copyRecords[i].vpi_pub_len, records[i].vpi_pub_len);
    EXPECT_EQ(copyRecords[i].vpi_dgname, "");
  }

  std::string newDG;
  ASSERT_EQ(support().getNewDGName(newDG), 0);
  const std::string replay = m_files.file("dg1.replay");
  ASSERT_EQ(
      support().reconfig(dump, "dg1", newDG, sourceDisks, copyNodes, sourceDMs, sourceDMs, replay),
      0);
  const std::string replayText = qztest::readFile(replay);
  EXPECT_FALSE(holds(replayText, "guid=")) << replayText;
  // Each subdisk keeps its disk-media name and names the copy of its disk.
  for (size_t i = 0; i < sourceDisks.size(); ++i) {
    EXPECT_TRUE(holds(replayText, "\tdm_name=" + sourceDMs[i] + "\n\tda_name=" + copyNodes[i] +
                                      "\n\tpath=/dev/qz/dmp/" + copyNodes[i] + "s3\n"))
        << i << "\n"
        << replayText;
    EXPECT_FALSE(holds(replayText, "=" + sourceDisks[i] + "\n")) << i << "\n" << replayText;
  }
  ASSERT_EQ(support().createDG(newDG, copyNodes, sourceDMs, support().isCDSDisk(records)), 0);
  ASSERT_EQ(support().applyVolConfig(newDG, replay), 0);

  Lines vsets, volumes, dcoVolumes;
  ASSERT_EQ(support().getQzVMObjects(vsets, volumes, dcoVolumes, newDG, ""), 0);
  EXPECT_EQ(vsets, Lines{"set1"});
  EXPECT_EQ(volumes, (Lines{"vol1", "vol2"}));
  EXPECT_EQ(dcoVolumes, Lines{"vol1_dcl"});
  ASSERT_EQ(support().startDCOVols(newDG, dcoVolumes, ""), 0);
  ASSERT_EQ(support().startDCOVols(newDG, volumes, "fsgen"), 0);
  EXPECT_TRUE(support().isVolStarted(newDG, "vol1"));
  // The set came back with the group but is not started until asked.
  bool setOn = true;
  ASSERT_EQ(support().isVsetOn(newDG, "set1", setOn), 0);
  EXPECT_FALSE(setOn);
  tool("B", "qzvset -g " + newDG + " start set1");
  ASSERT_EQ(support().isVsetOn(newDG, "set1", setOn), 0);
  EXPECT_TRUE(setOn);
  EXPECT_FALSE(vol1Sum.empty());
  // The started volume is checked against the OS disks it was rebuilt on.
  EXPECT_EQ(support().ssodOnlineVolume(newDG, "vol1", copyOSDisks), 0);
  const Lines reversed(copyOSDisks.rbegin(), copyOSDisks.rend());
  EXPECT_EQ(support().ssodOnlineVolume(newDG, "vol1", reversed), 3);
  EXPECT_EQ(checksum("B", newDG, "vol1"), vol1Sum);
  EXPECT_EQ(checksum("B", newDG, "vol2"), vol2Sum);
}

}  // namespace

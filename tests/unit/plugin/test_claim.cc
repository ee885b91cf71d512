// Claim and node discovery through the entry points: which paths are
// claimed, whether nodes exist, and what a node is made of.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "exception_kinds.h"
#include "exports_env.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzvmfi_test::caughtMessages;
using qzvmfi_test::ExceptionKind;
using qzvmfi_test::forEachExceptionKind;
using qzvmfi_test::Lines;
using qzvmfi_test::OperationsTest;
using qzvmfi_test::out;
using qzvmfi_test::Pushed;
using qzvmfi_test::reportedFor;
using qzvmfi_test::TempDir;
using qzvmfi_test::TestNode;
using qzvmfi_test::TraceLine;

class ClaimTest : public OperationsTest {
 protected:
  int claimPath(const std::string& path, int& count, qzfi_objid**& secondary) {
    TestNode object(path);
    return qzvmfi_fi_pgn_claim(object.objid(), &secondary, &count);
  }

  // "qzprint -g DG": the group's objects, with a volume set when set is
  // given.
  void groupObjects(const std::string& set) {
    Lines rows = out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                      "dg  " + m_dg + "  " + m_dg + "  -  -  -  -  -  -",
                      "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -",
                      "pl  vol1-01  vol1  ENABLED  204800  -  ACTIVE  -  -"});
    if (!set.empty()) {
      rows.push_back("vt  " + set + "  " + m_dg + "  ENABLED  -  -  -  -  -\n");
    }
    answer("qzprint   -g " + m_dg, 0, rows);
  }

  // A device node of the volume in a scratch folder, owned by 1234:5678: a
  // path of the same shape as the volume manager's.
  std::string makeDeviceNode() {
    const std::string folder = m_scratch.path() + "/dsk/" + m_dg;
    std::filesystem::create_directories(folder);
    const std::string device = folder + "/vol1";
    qzvmfi_test::writeFile(device, "");
    EXPECT_EQ(0, chown(device.c_str(), 1234, 5678));
    return device;
  }

  // The tools' answers about vol1 of the test's group on its three disks.
  void volumeOnDisks(const std::vector<qzvmfi_test::TestDisk>& disks) {
    volumeObjects(m_dg, "vol1");
    groupRecords(m_dg, disks);
  }

  Lines initRuns(const std::vector<qzvmfi_test::TestDisk>& disks) {
    Lines lines = run({"qzprint   -g " + m_dg + "  vol1"});
    for (const std::string& line : recordingRuns(m_dg, disks)) {
      lines.push_back(line);
    }
    lines.push_back(qz("qzdisk   -g " + m_dg + "  list "));
    for (const auto& disk : disks) {
      lines.push_back(qz("qzdmpadm   getsubpaths  dmpnodename=" + disk.node));
    }
    return lines;
  }

  // The node initialised on its own object, through the entry point.
  static int initOwn(TestNode& node) {
    return qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid());
  }

  static Lines subObjectNames(const qfi_domain* node) {
    Lines names;
    for (const qzfi_objid* id : plugin().getSubObjects(node)) {
      names.push_back(id->name);
      EXPECT_EQ(3, id->kind);
    }
    return names;
  }

  TempDir m_scratch;
};

// ===== claim =====

TEST_F(ClaimTest, ClaimWithoutAnObjectReturns3AndLeavesTheCount) {
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(3, plugin().claim(nullptr, &secondary, &count));
  EXPECT_EQ(5, count);
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::claim invalid input"));
  EXPECT_TRUE(commands().empty());
}

TEST_F(ClaimTest, ClaimOfAVolumeReturns1AndNoSecondaryObjects) {
  volumeExists(m_dg, "vol1");
  int count = 5;
  qzfi_objid* unchanged[] = {nullptr};
  qzfi_objid** secondary = unchanged;
  EXPECT_EQ(1, claimPath(m_path, count, secondary));
  EXPECT_EQ(0, count);
  EXPECT_EQ(unchanged, secondary);
  EXPECT_EQ(run({"qzinfo   -g " + m_dg + " vol1"}), commands());
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::claimed as secondary object= " + m_path));
  EXPECT_TRUE(errors().empty());
}

TEST_F(ClaimTest, ClaimOfARawVolumePathReturns1) {
  volumeExists(m_dg, "vol1");
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(1, claimPath("/dev/qz/rdsk/" + m_dg + "/vol1", count, secondary));
  EXPECT_EQ(0, count);
}

TEST_F(ClaimTest, ClaimOfAVolumeSetReturns1) {
  volumeMissing(m_dg, "set1");
  groupObjects("set1");
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(1, claimPath("/dev/qz/dsk/" + m_dg + "/set1", count, secondary));
  EXPECT_EQ(run({"qzinfo   -g " + m_dg + " set1", "qzprint   -g " + m_dg}), commands());
}

TEST_F(ClaimTest, ClaimOutsideTheVolumeManagersFoldersReturns0WithoutACommand) {
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(0, claimPath("/dev/sdb", count, secondary));
  EXPECT_EQ(0, count);
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(
      wasTraced(3, "CQzVMPlugin::claim not valid path for ZOLK volumes.  object='/dev/sdb'"));
}

TEST_F(ClaimTest, ClaimOfAnObjectWithoutAPathNameReturns0) {
  qzfi_objid object{};
  qzfi_objid** secondary = nullptr;
  int count = 5;
  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(&object, &secondary, &count));
  EXPECT_EQ(0, count);
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::claim not valid path for ZOLK volumes.  object=''"));
}

TEST_F(ClaimTest, ClaimOfAPlexOrADiskReturns0) {
  for (const std::string& name : Lines{"vol1-01", m_dg + "d00"}) {
    volumeMissing(m_dg, name);
    groupObjects("");
    const std::string path = "/dev/qz/dsk/" + m_dg + "/" + name;
    int count = 5;
    qzfi_objid** secondary = nullptr;
    EXPECT_EQ(0, claimPath(path, count, secondary)) << name;
    EXPECT_EQ(0, count);
    EXPECT_TRUE(
        wasTraced(3, "CQzVMPlugin::claim not a volume or volume set. object='" + path + "'"))
        << name;
  }
}

// The prefix is compared as it stands: a folder that only begins like the
// volume manager's passes it, and the volume checks decide.
TEST_F(ClaimTest, ClaimComparesOnlyThePrefixOfThePath) {
  volumeExists(m_dg, "vol1");
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(1, claimPath("/dev/qz/dskx/" + m_dg + "/vol1", count, secondary));
  EXPECT_EQ(run({"qzinfo   -g " + m_dg + " vol1"}), commands());
}

TEST_F(ClaimTest, ClaimAfterAnExceptionReturns6) {
  toolsThrow([] { throw std::runtime_error("pipe broke"); });
  int count = 5;
  qzfi_objid** secondary = nullptr;
  EXPECT_EQ(6, claimPath(m_path, count, secondary));
  const auto messages = pushed();
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", messages[0].id);
  EXPECT_EQ("../plugin", messages[0].source);
  EXPECT_EQ("std::runtime_error", messages[0].args[0]);
  EXPECT_EQ("pipe broke", messages[0].args[1]);
  EXPECT_EQ("claim", messages[0].args[2]);
}

// ===== checkNodeExistence =====

TEST_F(ClaimTest, CheckNodeExistenceWithoutNodeObjectOrFlagReturns3) {
  int exists = 7;
  TestNode noObject;
  TestNode node(m_path);
  EXPECT_EQ(3, qzvmfi_fi_pgn_check_node_existence(&noObject.domain, &exists));
  EXPECT_EQ(3, qzvmfi_fi_pgn_check_node_existence(nullptr, &exists));
  EXPECT_EQ(3, qzvmfi_fi_pgn_check_node_existence(&node.domain, nullptr));
  EXPECT_EQ(7, exists);
  EXPECT_EQ(3u, traced("CQzVMPlugin::checkNodeExistence invalid input").size());
  EXPECT_TRUE(commands().empty());
}

TEST_F(ClaimTest, CheckNodeExistenceFindsAVolume) {
  volumeExists(m_dg, "vol1");
  TestNode node(m_path);
  int exists = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
  EXPECT_EQ(1, exists);
  EXPECT_EQ(run({"qzinfo   -g " + m_dg + " vol1"}), commands());
}

TEST_F(ClaimTest, CheckNodeExistenceFindsAVolumeSet) {
  volumeMissing(m_dg, "set1");
  groupObjects("set1");
  TestNode node("/dev/qz/dsk/" + m_dg + "/set1");
  int exists = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
  EXPECT_EQ(1, exists);
}

TEST_F(ClaimTest, CheckNodeExistenceOfADeportedGroupSaysNo) {
  volumeMissing(m_dg, "vol1");
  answer("qzprint   -g " + m_dg, 11,
         out({"QZVM qzprint ERROR Q-5-1-201 disk group " + m_dg + " not imported"}));
  TestNode node(m_path);
  int exists = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
  EXPECT_EQ(0, exists);
}

TEST_F(ClaimTest, CheckNodeExistenceAfterAnExceptionTracesAndReturns6) {
  toolsThrow([] { throw std::runtime_error("gone"); });
  TestNode node(m_path);
  int exists = 7;
  EXPECT_EQ(6, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::checkNodeExistence failed"));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("checkNodeExistence", pushed()[0].args[2]);
}

TEST_F(ClaimTest, CheckNodeExistenceAfterACommandLayerExceptionReturns6Silently) {
  toolsThrow([] { throw CQzVMCliException("stopped"); });
  TestNode node(m_path);
  int exists = 7;
  EXPECT_EQ(6, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
  EXPECT_FALSE(wasTraced(1, "CQzVMPlugin::checkNodeExistence failed"));
  EXPECT_TRUE(errors().empty());
}

// ===== initNode =====

TEST_F(ClaimTest, InitNodeWithoutANodeReturns3) {
  TestNode object(m_path);
  EXPECT_EQ(3, qzvmfi_fi_pgn_init_node(nullptr, nullptr, 0, object.objid()));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::initNode invalid input"));
  EXPECT_TRUE(commands().empty());
}

TEST_F(ClaimTest, InitNodeRecordsTheVolumeItsDisksAndTheDeviceNodesOwner) {
  const std::string device = makeDeviceNode();
  volumeOnDisks(m_disks);
  TestNode node(device);
  node.domain.type = 7;
  node.domain.state = 11;
  node.domain.stamp = 12;
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));

  EXPECT_EQ(0x1002u, node.domain.type);
  EXPECT_EQ(node.objid()->name, node.domain.name);  // the same buffer
  EXPECT_EQ(0u, node.domain.state);
  EXPECT_EQ(0u, node.domain.stamp);
  EXPECT_EQ(initRuns(m_disks), commands());

  CQzVMData* data = dataOf(&node.domain);
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(Lines{"vol1"}, data->vList());
  EXPECT_TRUE(data->vtList().empty());
  EXPECT_EQ(1234, data->getOwnerUid());
  EXPECT_EQ(5678, data->getOwnerGid());
  std::string dg;
  Lines config;
  ASSERT_EQ(0, data->getDGConfigFromPD(dg, config));
  EXPECT_EQ(m_dg, dg);
  EXPECT_EQ(dump(m_dg, m_disks), config);

  // One sub-object per OS disk, in the volume manager's order, and each
  // disk paired with its node both ways.
  EXPECT_EQ((Lines{"/dev/sdb", "/dev/sdc", "/dev/sdd"}), subObjectNames(&node.domain));
  for (const auto& disk : m_disks) {
    std::string node;
    data->getDiskDMPMap(disk.os, node);
    EXPECT_EQ(disk.node, node);
    std::string os;
    ASSERT_EQ(0, data->getDMPDiskMap(disk.node, os));
    EXPECT_EQ(disk.os, os);
    EXPECT_TRUE(wasTraced(6,
                          "CQzVMPlugin::storeDiskDMPMapInPrivateData - Setting primary DMP data as "
                          "[" +
                              disk.node + "] for [" + disk.os + "]."));
    std::vector<std::string> listing;
    EXPECT_EQ(0, data->getVolPrivInfoPerDiskFromFiid(disk.node, listing));
  }
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::AddSubObjects - number of subobjects = 3"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::AddSubObjects - successful."));
  EXPECT_TRUE(wasTraced(3, " CQzVMPlugin::initNode - successful."));
  EXPECT_TRUE(errors().empty());
}

// A node initialised again, as after a failed first attempt, lists each of
// its disks once.
TEST_F(ClaimTest, InitNodeTwiceListsEachDiskOnce) {
  const std::string device = makeDeviceNode();
  volumeOnDisks(m_disks);
  TestNode node(device);
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_EQ((Lines{"/dev/sdb", "/dev/sdc", "/dev/sdd"}), subObjectNames(&node.domain));
}

// A long-lived host frees a record's nodes when its part is done: the
// listings cached for them go with the plug-in's last node, the plug-in's
// and the engine's alike, and not before.
TEST_F(ClaimTest, TheLastNodeFreedEmptiesTheCachesOfListings) {
  volumeOnDisks(m_disks);
  TestNode first(makeDeviceNode());
  TestNode second(first.path());
  ASSERT_EQ(0, initOwn(first));
  EXPECT_EQ(initRuns(m_disks), commands());
  CFiExecSeam::clearCommands();
  ASSERT_EQ(0, initOwn(second));
  const Lines cached = commands();
  // The disks' listings and multipath paths came from the caches.
  EXPECT_LT(cached.size(), initRuns(m_disks).size());

  // Another node still held: the caches stay.
  EXPECT_EQ(0, qzvmfi_fi_pgn_deinit_node(&first.domain));
  CFiExecSeam::clearCommands();
  ASSERT_EQ(0, initOwn(first));
  EXPECT_EQ(cached, commands());

  // No node held: everything is read from the tools again.
  EXPECT_EQ(0, qzvmfi_fi_pgn_deinit_node(&first.domain));
  EXPECT_EQ(0, qzvmfi_fi_pgn_deinit_node(&second.domain));
  EXPECT_EQ(0u, CQzVMEngine::getInstance()->cachedEntries());
  CFiExecSeam::clearCommands();
  ASSERT_EQ(0, initOwn(first));
  EXPECT_EQ(initRuns(m_disks), commands());
}

TEST_F(ClaimTest, InitNodeWithoutADeviceNodeReturns18YetInitialisesTheNode) {
  volumeOnDisks(m_disks);
  TestNode node(m_path);
  EXPECT_EQ(18, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::initNode stat call failed for " + m_path));
  EXPECT_FALSE(wasTraced(3, " CQzVMPlugin::initNode - successful."));
  EXPECT_EQ(0x1002u, node.domain.type);
  CQzVMData* data = dataOf(&node.domain);
  ASSERT_NE(nullptr, data);
  std::string dg;
  Lines config;
  EXPECT_EQ(0, data->getDGConfigFromPD(dg, config));
  EXPECT_EQ(3u, subObjectNames(&node.domain).size());
  EXPECT_TRUE(data->hasRecordedDisks());
  EXPECT_EQ(0, data->getOwnerUid());
}

TEST_F(ClaimTest, InitNodeWhoseObjectsCannotBeListedReturns6) {
  answer("qzprint   -g " + m_dg + "  vol1", 11,
         out({"QZVM qzprint ERROR Q-5-1-201 disk group " + m_dg + " not imported"}));
  TestNode node(m_path);
  EXPECT_EQ(6, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_EQ(run({"qzprint   -g " + m_dg + "  vol1"}), commands());
  EXPECT_TRUE(wasTraced(
      1, " CQzVMPlugin::initNode - unable to get volumes or volume sets from object=" + m_path));
  EXPECT_TRUE(wasTraced(1, " CQzVMPlugin::initNode - could not initialize the node"));
  const auto messages = pushed();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(
      (Pushed{"MSG_ERROR_CANNOT_OBTAIN_OBJECTS_IN_DISKGROUP", "../plugin", {"initNode", m_path}}),
      messages.back());
  EXPECT_EQ(3, severities().back());
}

// A node whose configuration or sub-objects could not be recorded is still
// initialised: those failures are only traced.
TEST_F(ClaimTest, InitNodeSucceedsWhenSubObjectsCannotBeMade) {
  const std::string device = makeDeviceNode();
  volumeObjects(m_dg, "vol1");
  answer("qzdisk   -g " + m_dg + "  list ", 11, out({"QZVM qzdisk ERROR Q-5-1-201 no group"}));
  TestNode node(device);
  EXPECT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::AddSubObjects - Error in getting disks for volume"));
  EXPECT_TRUE(subObjectNames(&node.domain).empty());
  EXPECT_EQ(1234, dataOf(&node.domain)->getOwnerUid());
}

TEST_F(ClaimTest, InitNodeNamesTheNodeAfterTheObjectArgument) {
  const std::string device = makeDeviceNode();
  volumeOnDisks(m_disks);
  TestNode node(device);
  TestNode object(device);
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, object.objid()));
  EXPECT_EQ(object.objid()->name, node.domain.name);
}

// ===== AddSubObjects =====

TEST_F(ClaimTest, AVolumeOnNoDisksHasNoSubObjects) {
  const std::string device = makeDeviceNode();
  volumeOnDisks({});
  TestNode node(device);
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::AddSubObjects - number of subobjects = 0"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::AddSubObjects - successful."));
  EXPECT_TRUE(subObjectNames(&node.domain).empty());
  EXPECT_FALSE(dataOf(&node.domain)->hasRecordedDisks());
}

// The volume manager lists the disks in its own order, not the sorted one:
// the sub-objects follow that order, and each disk is paired once each way.
TEST_F(ClaimTest, AddSubObjectsKeepsTheListingsOrderAndPairsEachDiskOnce) {
  const std::vector<qzvmfi_test::TestDisk> unsorted = {m_disks[2], m_disks[0], m_disks[1]};
  groupDisks(m_dg, unsorted);
  for (const auto& disk : unsorted) {
    subpaths(disk);
  }
  TestNode node(m_path);
  ASSERT_EQ(0, restoreState(&node.domain, "fiid_v vol1"));
  CQzVMData* data = dataOf(&node.domain);
  ASSERT_NE(nullptr, data);
  ASSERT_EQ(0, plugin().AddSubObjects(&node.domain, data));
  EXPECT_EQ((Lines{"/dev/sdd", "/dev/sdb", "/dev/sdc"}), subObjectNames(&node.domain));
  EXPECT_EQ(6u, data->diskDMPMapEntries());
  for (const auto& disk : unsorted) {
    std::string os;
    ASSERT_EQ(0, data->getDMPDiskMap(disk.node, os));
    EXPECT_EQ(disk.os, os);
  }
  // Storing the map is an operation of its own, with its trace scope.
  EXPECT_TRUE(enteredScope("storeDiskDMPMapInPrivateData"));
  EXPECT_FALSE(traced("Exiting Function storeDiskDMPMapInPrivateData [").empty());
}

TEST_F(ClaimTest, AddSubObjectsWithoutNodeOrDataReturns3) {
  TestNode node(m_path);
  CQzVMData data(node.objid(), false);
  EXPECT_EQ(3, plugin().AddSubObjects(nullptr, &data));
  EXPECT_EQ(3, plugin().AddSubObjects(&node.domain, nullptr));
  EXPECT_EQ(2u, traced("CQzVMPlugin::AddSubObjects - invalid input.").size());
  EXPECT_TRUE(commands().empty());
}

TEST_F(ClaimTest, AddSubObjectsWhoseDisksCannotBeConvertedReturns6) {
  groupDisks(m_dg, m_disks);
  subpaths(m_disks[0]);
  answer("qzdmpadm   getsubpaths  dmpnodename=" + m_disks[1].node, 11,
         out({"QZVM qzdmpadm ERROR Q-5-1-401 no node"}));
  TestNode node(m_path);
  CQzVMData data(node.objid(), false);
  EXPECT_EQ(6, plugin().AddSubObjects(&node.domain, &data));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::AddSubObjects -   unable to convert dmp disk to os "
                        "namespace. object=" +
                            m_path));
  EXPECT_TRUE(subObjectNames(&node.domain).empty());
}

TEST_F(ClaimTest, AddSubObjectsForANodeWithoutPrivateDataCannotStoreTheMap) {
  groupDisks(m_dg, m_disks);
  for (const auto& disk : m_disks) {
    subpaths(disk);
  }
  TestNode node(m_path);
  CQzVMData data(node.objid(), false);
  EXPECT_EQ(6, plugin().AddSubObjects(&node.domain, &data));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::storeDiskDMPMapInPrivateData - null private data."));
  EXPECT_TRUE(wasTraced(
      1, "CQzVMPlugin::AddSubObjects - failed to store disk, dmp mapping in private data."));
  EXPECT_FALSE(data.hasRecordedDisks());
}

TEST_F(ClaimTest, AddSubObjectsAfterAnExceptionTracesAndReturns6) {
  toolsThrow([] { throw 42; });
  TestNode node(m_path);
  CQzVMData data(node.objid(), false);
  EXPECT_EQ(6, plugin().AddSubObjects(&node.domain, &data));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::AddSubObjects - failed."));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_INT_EXCEPTION", pushed()[0].id);
  EXPECT_EQ("42", pushed()[0].args[0]);
}

TEST_F(ClaimTest, AddSubObjectsAfterACommandLayerExceptionReturns6Silently) {
  toolsThrow([] { throw CQzVMCliException("stopped"); });
  TestNode node(m_path);
  CQzVMData data(node.objid(), false);
  EXPECT_EQ(6, plugin().AddSubObjects(&node.domain, &data));
  EXPECT_FALSE(wasTraced(1, "CQzVMPlugin::AddSubObjects - failed."));
  EXPECT_TRUE(errors().empty());
}

// ===== the exception kinds of each operation =====

// Each kind thrown by a tool run is caught by the operation that ran it:
// 6, and its message pushed under the operation's name.
TEST_F(ClaimTest, InitNodeCatchesEveryExceptionKind) {
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    TestNode node(m_path);
    EXPECT_EQ(6, qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()));
    EXPECT_EQ(reportedFor(kind, "initNode", "../plugin"), caughtMessages(pushed()));
  });
}

TEST_F(ClaimTest, AddSubObjectsCatchesEveryExceptionKind) {
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    TestNode node(m_path);
    CQzVMData data(node.objid(), false);
    EXPECT_EQ(6, plugin().AddSubObjects(&node.domain, &data));
    EXPECT_EQ(reportedFor(kind, "AddSubObjects", "../plugin"), caughtMessages(pushed()));
  });
}

TEST_F(ClaimTest, CheckNodeExistenceCatchesEveryExceptionKind) {
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    TestNode node(m_path);
    int exists = 7;
    EXPECT_EQ(6, qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists));
    EXPECT_EQ(reportedFor(kind, "checkNodeExistence", "../plugin"), caughtMessages(pushed()));
  });
}

}  // namespace

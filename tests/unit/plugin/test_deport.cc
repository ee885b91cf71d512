// Deport, access and disposition through the entry points: what is
// deported, taken offline, imported again, rescanned and deleted.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
using qzvmfi_test::TestNodeList;
using qzvmfi_test::TestObjids;

class DeportTest : public OperationsTest {
 protected:
  void SetUp() override {
    OperationsTest::SetUp();
    m_node = std::make_unique<TestNode>(m_path);
  }

  void TearDown() override {
    m_copy.reset();
    m_node.reset();
    OperationsTest::TearDown();
  }

  qfi_domain* node() { return &m_node->domain; }

  // The node's provider state: its disks recorded (the volume was split
  // from disks of this plug-in) or not, and the owner 1234:5678.
  void withDisks() { ASSERT_EQ(0, restoreState(node(), diskRecords() + "fiid_uigid 1234 5678")); }
  void withoutDisks() { ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_uigid 1234 5678")); }

  // --- the group's answers and the command lines that use them ---

  void groupPresent(const std::string& dg) {
    answer("qzdg   list " + dg, 0, out({"Group:   " + dg, "dgid:    17.9.A"}));
  }
  void groupAbsent(const std::string& dg) {
    answer("qzdg   list " + dg, 11, out({"QZVM qzdg ERROR Q-5-1-201 " + dg + " not imported"}));
  }
  // A group that goes with its disks: deported, then its disks out of the
  // volume manager's view. As the volume manager answers, it is listed
  // until its deport and not found after it.
  void groupDeports(const std::string& dg) {
    expect("qzdg   list " + dg, 0, out({"Group:   " + dg, "dgid:    17.9.A"}));
    groupAbsent(dg);
    groupDisks(dg, m_disks);
    answer("qzdg   deport " + dg, 0, {});
    for (const auto& disk : m_disks) {
      answer("qzdisk   rm " + disk.node, 0, {});
    }
  }
  Lines deportAndRemoveRuns(const std::string& dg) const {
    Lines lines =
        run({"qzdg   list " + dg, "qzdisk   -g " + dg + "  list ", "qzdg   deport " + dg});
    for (const auto& disk : m_disks) {
      lines.push_back(qz("qzdisk   rm " + disk.node));
    }
    return lines;
  }
  static Lines deportRuns(const std::string& dg) {
    return run({"qzdg   list " + dg, "qzdg   deport " + dg});
  }

  // The evidence that the group is the copy, read before the first change:
  // the group listed once more (ahead of what the change itself lists), its
  // disks (as groupDisks gives them) and its one volume vol1.
  void copyProven(const std::string& dg) {
    expect("qzdg   list " + dg, 0, out({"Group:   " + dg, "dgid:    17.9.A"}));
    answer("qzprint   -g " + dg, 0,
           out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
  }
  // Those reads, then the group id when the record has one.
  static Lines proofRuns(const std::string& dg, bool groupId = false) {
    Lines lines = run({"qzdg   list " + dg, "qzdisk   -g " + dg + " list ", "qzprint   -g " + dg});
    if (groupId) {
      lines.push_back(qz("qzdisk   -s  -g " + dg + " list "));
    }
    return lines;
  }
  // The last message pushed; an empty one when none was.
  Pushed lastPushed() const {
    const std::vector<Pushed> all = pushed();
    return all.empty() ? Pushed{} : all.back();
  }
  static Lines joined(Lines first, const Lines& then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
  }

  // A copy of the source's group: group copyDG() on the disks of the test
  // (its node records them), with the group id 17.9.C that the source's
  // provider state records for it.
  std::string copyDG() const { return m_dg + "_1"; }
  std::string copyPath() const { return "/dev/qz/dsk/" + copyDG() + "/vol1"; }
  void withCopyRecorded() {
    ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_dgid 17.9.C\nfiid_uigid 1234 5678"));
    m_copy = std::make_unique<TestNode>(copyPath());
    ASSERT_EQ(0, restoreState(&m_copy->domain, diskRecords() + "fiid_uigid 1234 5678"));
  }
  void copyGroupId(const std::string& dgid) {
    answer("qzdisk   -s  -g " + copyDG() + " list ", 0, out({"Disk:  x", "dgid:  " + dgid}));
  }
  qfi_splitnode copyTarget() {
    return qfi_splitnode{&m_copy->domain, m_copy->objid(), nullptr, 1, 0};
  }
  // The volume started or stopped by the engine.
  void volumeStarted(const std::string& dg) {
    volumeObjects(dg, "vol1");
    volumeExists(dg, "vol1");
  }
  static Lines startRuns(const std::string& dg) {
    return run({"qzprint   -g " + dg + "  vol1", "qzinfo   -g " + dg + " vol1"});
  }

  // A device node of the volume in a scratch folder, owned by root.
  std::string makeDeviceNode(const std::string& dg) {
    const std::string folder = m_scratch.path() + "/dsk/" + dg;
    std::filesystem::create_directories(folder);
    const std::string device = folder + "/vol1";
    qzvmfi_test::writeFile(device, "");
    EXPECT_EQ(0, chown(device.c_str(), 0, 0));
    return device;
  }
  static std::string ownerOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, stat(path.c_str(), &status));
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
  }

  std::unique_ptr<TestNode> m_node;
  std::unique_ptr<TestNode> m_copy;
  TempDir m_scratch;
};

// ===== deportTree =====

TEST_F(DeportTest, DeportTreeWithoutADispositionKeepsTheConfigurationAndNamesTheNode) {
  withDisks();
  groupRecords(m_dg, m_disks);
  TestNode copy("/dev/qz/dsk/" + m_dg + "_1/vol1");
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_NONE, 0};
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), &copy.domain, &access));
  // Nothing is deported, not even the alternate node's group.
  EXPECT_EQ(recordingRuns(m_dg, m_disks), commands());
  CQzVMData* data = dataOf(node());
  EXPECT_EQ(m_path, data->getAltVol());
  EXPECT_EQ(0, data->getDeported());
  std::string dg;
  Lines config;
  ASSERT_EQ(0, data->getDGConfigFromPD(dg, config));
  EXPECT_EQ(dump(m_dg, m_disks), config);
  ASSERT_NE(nullptr, m_node->access.objid);
  EXPECT_STREQ(m_path.c_str(), m_node->access.objid->name);
  EXPECT_EQ(3, m_node->access.objid->kind);
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::deportTree - successful with none disposition."));
}

// A node that lives across operations (the host's agent keeps it) is
// deported twice: the access record holds the second id, and the first is
// freed (the sanitizer build's leak check fails otherwise).
// The first id stays the framework's, which frees it.
TEST_F(DeportTest, DeportTreeTwiceOnOneNodeReplacesTheObjectIdOfTheFirst) {
  withDisks();
  groupRecords(m_dg, m_disks);
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_NONE, 0};
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  qzfi_objid* first = m_node->access.objid;
  ASSERT_NE(nullptr, first);
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  EXPECT_NE(first, m_node->access.objid);
  qzfi_free_objid(first);
  ASSERT_NE(nullptr, m_node->access.objid);
  EXPECT_STREQ(m_path.c_str(), m_node->access.objid->name);
  EXPECT_EQ(3, m_node->access.objid->kind);
}

TEST_F(DeportTest, DeportTreeWithAnAlternateNodeDeportsItsGroupAndSetsTheDeportedFlag) {
  withDisks();
  const std::string copyDG = m_dg + "_1";
  groupDeports(copyDG);
  copyProven(copyDG);
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_DEPORT, 0};
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), &copy.domain, &access));
  EXPECT_EQ(joined(proofRuns(copyDG), deportAndRemoveRuns(copyDG)), commands());
  CQzVMData* data = dataOf(node());
  EXPECT_EQ(1, data->getDeported());
  EXPECT_EQ(copy.path(), data->getAltVol());
  EXPECT_STREQ(m_path.c_str(), m_node->access.objid->name);
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::deportTree successful"));
  EXPECT_EQ("fiid_isqzvmdeported 1", savedState(node()).substr(0, 21));
}

TEST_F(DeportTest, DeportTreeWithADispositionAndNoAlternateNodeOnlyKeepsTheConfiguration) {
  withDisks();
  groupRecords(m_dg, m_disks);
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_KEEP, 0};
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  EXPECT_EQ(recordingRuns(m_dg, m_disks), commands());
  EXPECT_EQ(m_path, dataOf(node())->getAltVol());
  EXPECT_EQ(0, dataOf(node())->getDeported());
  EXPECT_TRUE(wasTraced(
      3, "CQzVMPlugin::deportTree - successful with null alternate node and disposition=2."));
}

TEST_F(DeportTest, DeportTreeWithoutNodeObjectOrAccessReturns3) {
  withDisks();
  TestNode noObject;
  qfi_accessnode access{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(nullptr, nullptr, &access));
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(&noObject.domain, nullptr, &access));
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), nullptr, nullptr));
  EXPECT_EQ(3u, traced("CQzVMPlugin::deportTree invalid inputs").size());
  EXPECT_EQ(3u, pushed().size());
  for (const Pushed& message : pushed()) {
    EXPECT_EQ((Pushed{"MSG_ERROR_NO_OBJECT_TO_DEPORT", "../plugin", {}}), message);
  }
  EXPECT_EQ((std::vector<int>{3, 3, 3}), severities());
  EXPECT_TRUE(commands().empty());
}

TEST_F(DeportTest, DeportTreeOfANodeWithoutProviderStateReturns3) {
  qfi_accessnode access{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  EXPECT_TRUE(
      wasTraced(1, "CQzVMPlugin::deportTree no providerdata available for object " + m_path));
  EXPECT_TRUE(errors().empty());
}

TEST_F(DeportTest, DeportTreeOfANodeWithoutAccessRecordReturns3) {
  withDisks();
  node()->access = nullptr;
  qfi_accessnode access{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::deportTree invalid inputs"));
  EXPECT_EQ((std::vector<Pushed>{{"MSG_ERROR_NO_OBJECT_TO_DEPORT", "../plugin", {}}}), pushed());
  EXPECT_EQ(std::vector<int>{3}, severities());
}

TEST_F(DeportTest, DeportTreeWithAnAlternateNodeWithoutObjectReturns3WithAWarning) {
  withDisks();
  TestNode copy;
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_DEPORT, 0};
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), &copy.domain, &access));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::deportTree invalid inputs"));
  EXPECT_EQ((std::vector<Pushed>{{"MSG_ERROR_NO_OBJECT_TO_DEPORT", "../plugin", {}}}), pushed());
  EXPECT_EQ(std::vector<int>{2}, severities());
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ(0, dataOf(node())->getDeported());
}

TEST_F(DeportTest, DeportTreeWhoseConfigurationCannotBeReadReturns6) {
  withDisks();
  answer("qzdisk   -g " + m_dg + "  list ", 11, out({"QZVM qzdisk ERROR Q-5-1-201 no group"}));
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_NONE, 0};
  EXPECT_EQ(6, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  EXPECT_TRUE(wasTraced(
      3,
      "CQzVMPlugin::deportTree - unable to get qzdg's configuration for object=" + m_path + "."));
  EXPECT_EQ("", dataOf(node())->getAltVol());
  // The framework takes the object id of each call.
  qzfi_free_objid(m_node->access.objid);
  m_node->access.objid = nullptr;
  access.disposition = QFI_DISP_KEEP;
  EXPECT_EQ(6, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
}

TEST_F(DeportTest, DeportTreeWhoseAlternateGroupWillNotDeportReturns6) {
  withDisks();
  const std::string copyDG = m_dg + "_1";
  groupDeports(copyDG);
  copyProven(copyDG);
  answer("qzdg   deport " + copyDG, 13, out({"QZVM qzdg ERROR Q-5-1-103 volume in use"}));
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_DEPORT, 0};
  EXPECT_EQ(6, qzvmfi_fi_pgn_deport_tree(node(), &copy.domain, &access));
  EXPECT_TRUE(wasTraced(1, "deportDGAndRemoveDisks() failed"));
  EXPECT_EQ(0, dataOf(node())->getDeported());
}

// The alternate node's group is deported only once proven the copy: one
// that is the source's own group, or whose group id is not the one that the
// record holds, is refused, and nothing is deported.
TEST_F(DeportTest, DeportTreeWithAnAlternateThatIsNotTheCopyDeportsNothing) {
  ASSERT_EQ(0, restoreState(node(), "fiid_dgid 17.9.C\n" + diskRecords() + "fiid_uigid 1234 5678"));
  groupDeports(m_dg);
  TestNode source(m_path);
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_DEPORT, 0};
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), &source.domain, &access));
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ((Pushed{"MSG_ERROR_NOT_THE_COPY",
                    "engine",
                    {"deportTree", m_dg, "it is the source's own group (" + m_path + ")"}}),
            lastPushed());
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::deportTree - the disk group '" + m_dg +
                               "' is not the copy that this backup made: it is the source's own "
                               "group (" +
                               m_path + "). Nothing was changed."));

  // The framework takes the object id of each call.
  qzfi_free_objid(m_node->access.objid);
  m_node->access.objid = nullptr;
  const std::string copyDG = m_dg + "_1";
  groupDeports(copyDG);
  copyProven(copyDG);
  answer("qzdisk   -s  -g " + copyDG + " list ", 0, out({"Disk:  x", "dgid:  17.9.X"}));
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  EXPECT_EQ(3, qzvmfi_fi_pgn_deport_tree(node(), &copy.domain, &access));
  EXPECT_EQ(proofRuns(copyDG, true), commands());
  EXPECT_EQ(
      (Pushed{"MSG_ERROR_NOT_THE_COPY",
              "engine",
              {"deportTree", copyDG, "its group id is [17.9.X], the import recorded [17.9.C]"}}),
      lastPushed());
  CQzVMData* data = dataOf(node());
  EXPECT_EQ(0, data->getDeported());
  EXPECT_EQ("", data->getAltVol());
}

// ===== postDeport =====

TEST_F(DeportTest, PostDeportRescansOnceInThePluginsLife) {
  answer("qzdisk   scandisks ", 0, {});
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(node(), nullptr));
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(node(), nullptr));
  TestNode other("/dev/qz/dsk/" + m_dg + "/vol2");
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(&other.domain, nullptr));
  EXPECT_EQ(run({"qzdisk   scandisks "}), commands());
  EXPECT_EQ(1u, traced("CQzVMPlugin::postDeport - start' qzdisk scandisks'").size());
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::postDeport - scanning complete."));
}

TEST_F(DeportTest, PostDeportSucceedsWhenTheRescanFails) {
  answer("qzdisk   scandisks ", 1, out({"QZVM qzdisk ERROR Q-5-1-1 scan failed"}));
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(node(), nullptr));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::postDeport - scanning complete."));
}

// ===== disableAccess =====

TEST_F(DeportTest, DisableAccessOfDisksAboutToBeMaskedButStillVisibleTakesTheOptimizedPath) {
  withDisks();
  TestNode second("/dev/qz/dsk/" + m_dg + "b/vol1");
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupPresent(m_dg);
  groupDisks(m_dg, m_disks);
  copyProven(m_dg);
  answer("qzdg   deport " + m_dg, 0, {});
  TestNodeList list;
  list.add(node());
  list.add(&second.domain);
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0x8400));
  // Only the first entry, proven the copy; its disks stay in the volume
  // manager's view.
  Lines expected = joined(proofRuns(m_dg), run({"qzvol   -g " + m_dg + " stop vol1"}));
  for (const std::string& line :
       run({"qzdg   list " + m_dg, "qzdg   list " + m_dg, "qzdg   deport " + m_dg})) {
    expected.push_back(line);
  }
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(wasTraced(6, "disableAccess - flags = [33792]"));
  EXPECT_TRUE(wasTraced(3,
                        "Disk is persistently available to the host. Calling optimized QzVM "
                        "disable operations"));
  EXPECT_TRUE(enteredScope("disableAccessOptimize"));
}

// The optimized path's failure is disableAccess's answer: the walk stops
// there, with its status.
TEST_F(DeportTest, DisableAccessOfDisksStillVisiblePassesOnTheOptimizedPathsFailure) {
  withDisks();
  TestNode second("/dev/qz/dsk/" + m_dg + "b/vol1");
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  answer("qzvol   -g " + m_dg + " stop vol1", 1, out({"QZVM qzvol ERROR Q-5-1-1 cannot stop"}));
  groupPresent(m_dg);
  groupDisks(m_dg, m_disks);
  copyProven(m_dg);
  TestNodeList list;
  list.add(node());
  list.add(&second.domain);
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0x8400));
  EXPECT_EQ(joined(proofRuns(m_dg), run({"qzvol   -g " + m_dg + " stop vol1"})), commands());
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_VOLUME_FOR_DISKGROUP",
                    "../plugin",
                    {"disableAccessOptimize", m_dg, "vol1"}}),
            pushed().back());

  CFiExecSeam::clearCommands();
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupPresent(m_dg);
  answer("qzdg   deport " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 volume in use"}));
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0x8400));
  EXPECT_EQ(qz("qzdg   deport " + m_dg), commands().back());
  EXPECT_EQ("MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP", pushed().back().id);
}

TEST_F(DeportTest, DisableAccessOfDisksToBeMaskedOfflinesThenDeportsAndRemovesDisks) {
  withDisks();
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupDeports(m_dg);
  copyProven(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0x8000));
  Lines expected = joined(proofRuns(m_dg), run({"qzvol   -g " + m_dg + " stop vol1"}));
  for (const std::string& line : deportAndRemoveRuns(m_dg)) {
    expected.push_back(line);
  }
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(wasTraced(3, "Offline of volume for ssod with disk to be masked."));
}

TEST_F(DeportTest, DisableAccessOfDisksThatStayVisibleDeportsWithoutRemovingDisks) {
  withDisks();
  groupDeports(m_dg);
  copyProven(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0x400));
  EXPECT_EQ(joined(proofRuns(m_dg), deportRuns(m_dg)), commands());
}

TEST_F(DeportTest, DisableAccessWithoutFlagsDeportsAndRemovesDisksOfEveryEntry) {
  withDisks();
  TestNode second("/dev/qz/dsk/" + m_dg + "b/vol1");
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  groupDeports(m_dg);
  copyProven(m_dg);
  groupAbsent(m_dg + "b");
  TestNodeList list;
  list.add(node());
  list.add(&second.domain);
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  Lines expected = joined(proofRuns(m_dg), deportAndRemoveRuns(m_dg));
  expected.push_back(qz("qzdg   list " + m_dg + "b"));  // no group to prove
  expected.push_back(qz("qzdg   list " + m_dg + "b"));  // that group is gone already
  expected.push_back(qz("qzdisk   list "));             // with no disk left under it
  EXPECT_EQ(expected, commands());
}

TEST_F(DeportTest, DisableAccessOfANodeWithoutRecordedDisksOnlyDeportsWhateverTheFlags) {
  for (long flags : {0L, 0x400L, 0x8000L, 0x8400L}) {
    CFiExecSeam::clearCommands();
    TestNode plain(m_path);
    TestNode related("/dev/qz/dsk/" + m_dg + "_src/vol1");
    ASSERT_EQ(0, restoreState(&plain.domain, "fiid_uigid 0 0"));
    plain.domain.related = &related.domain;
    groupPresent(m_dg);
    answer("qzdg   deport " + m_dg, 0, {});
    TestNodeList list;
    list.add(&plain.domain);
    EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), flags)) << flags;
    EXPECT_EQ(deportRuns(m_dg), commands()) << flags;
  }
}

TEST_F(DeportTest, DisableAccessWithoutAListOrPastAnEntryWithoutNodeDoesNothing) {
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(nullptr, 0));
  TestNode noObject;
  TestNodeList list;
  list.add(&noObject.domain);
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_TRUE(commands().empty());
}

TEST_F(DeportTest, DisableAccessOfANodeWithoutProviderStateStopsWithSuccess) {
  TestNode second(m_path);
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  TestNodeList list;
  list.add(node());
  list.add(&second.domain);
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_TRUE(wasTraced(3, "Got null provider state."));
  EXPECT_TRUE(commands().empty());
}

TEST_F(DeportTest, DisableAccessWhoseGroupWillNotDeportReportsAWarning) {
  ASSERT_EQ(0, restoreState(node(), "fiid_uigid 0 0"));
  groupPresent(m_dg);
  answer("qzdg   deport " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 volume in use"}));
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_TRUE(wasTraced(1, "Deport of diskgroup failed. dg=" + m_dg + " volume=vol1"));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", "../plugin", {"disableAccess", m_path}}),
            pushed().back());
  EXPECT_EQ(2, severities().back());
}

TEST_F(DeportTest, DisableAccessWhoseVolumeWillNotStopReportsAWarning) {
  withDisks();
  answer("qzvol   -g " + m_dg + " stop vol1", 1, out({"QZVM qzvol ERROR Q-5-1-1 cannot stop"}));
  groupPresent(m_dg);
  groupDisks(m_dg, m_disks);
  copyProven(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0x8000));
  EXPECT_EQ(joined(proofRuns(m_dg), run({"qzvol   -g " + m_dg + " stop vol1"})), commands());
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", "../plugin", {"disableAccess", m_path}}),
            pushed().back());
  EXPECT_EQ(2, severities().back());
}

TEST_F(DeportTest, DisableAccessWhoseDeportFailsStopsTheWalk) {
  withDisks();
  TestNode second("/dev/qz/dsk/" + m_dg + "/vol2");
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupDeports(m_dg);
  copyProven(m_dg);
  answer("qzdg   deport " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 volume in use"}));
  groupPresent(m_dg);  // the failed deport leaves it
  for (long flags : {0x8000L, 0L}) {
    CFiExecSeam::clearCommands();
    TestNodeList list;
    list.add(node());
    list.add(&second.domain);
    EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), flags)) << flags;
    EXPECT_EQ(qz("qzdg   deport " + m_dg), commands().back()) << flags;
  }
  EXPECT_EQ(2u, traced("deportDGAndRemoveDisks() failed").size());
  CFiExecSeam::clearCommands();
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0x400));
  EXPECT_TRUE(wasTraced(1, "deportDG() failed"));
  EXPECT_EQ(joined(proofRuns(m_dg), deportRuns(m_dg)), commands());
}

// ===== disableAccessOptimize =====

TEST_F(DeportTest, DisableAccessOptimizeOfAGroupAlreadyDeportedSucceeds) {
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupAbsent(m_dg);
  EXPECT_EQ(0, plugin().disableAccessOptimize(m_dg, "vol1"));
  EXPECT_TRUE(wasTraced(3, "diskgroup [" + m_dg + "] is already deported."));
  EXPECT_EQ(run({"qzvol   -g " + m_dg + " stop vol1", "qzdg   list " + m_dg}), commands());
}

TEST_F(DeportTest, DisableAccessOptimizeWhoseVolumeWillNotStopReportsAWarning) {
  answer("qzvol   -g " + m_dg + " stop vol1", 1, out({"QZVM qzvol ERROR Q-5-1-1 cannot stop"}));
  EXPECT_EQ(6, plugin().disableAccessOptimize(m_dg, "vol1"));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_VOLUME_FOR_DISKGROUP",
                    "../plugin",
                    {"disableAccessOptimize", m_dg, "vol1"}}),
            pushed().back());
  EXPECT_EQ(2, severities().back());
}

TEST_F(DeportTest, DisableAccessOptimizeWhoseGroupWillNotDeportReturns6) {
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  groupPresent(m_dg);
  answer("qzdg   deport " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 volume in use"}));
  EXPECT_EQ(6, plugin().disableAccessOptimize(m_dg, "vol1"));
  EXPECT_TRUE(wasTraced(1, "disableAccessOptimize failed to deport disk group [" + m_dg + "]."));
  EXPECT_EQ(
      (Pushed{
          "MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP", "../plugin", {"disableAccessOptimize", m_dg}}),
      pushed().back());
  EXPECT_EQ(3, severities().back());
}

// ===== enableAccess =====

TEST_F(DeportTest, EnableAccessWithOptionBit0OrWithoutAListDoesNothing) {
  withDisks();
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 1));
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 3));
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(nullptr, 0, 0, 0));
  EXPECT_TRUE(commands().empty());
}

TEST_F(DeportTest, EnableAccessOfAnEntryWithoutNodeReturns3) {
  TestNode noObject;
  TestNodeList list;
  list.add(&noObject.domain);
  EXPECT_EQ(3, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::enableAccess invalid input"));
}

TEST_F(DeportTest, EnableAccessOfANodeWithoutProviderStateStopsWithSuccess) {
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::enableAccess  got null provider state."));
  EXPECT_TRUE(commands().empty());
}

// The disks came back with the group still on them: the group is found and
// its volume started; the device node gets back its recorded owner.
TEST_F(DeportTest, EnableAccessOfRestoredDisksRecreatesTheGroupAndGivesBackTheOwner) {
  const std::string device = makeDeviceNode(m_dg);
  TestNode restored(device);
  ASSERT_EQ(0, restoreState(&restored.domain, diskRecords() + "fiid_uigid 1234 5678"));
  TestObjids subobjs({"/dev/sdb", "/dev/sdc", "/dev/sdd"});
  answer("qzdisk   scandisks  device=sdb,sdc,sdd", 0, {});
  answer("qzdisk   list " + m_disks[0].node, 0, diskListing(m_disks[0], m_dg, "17.9.A"));
  groupPresent(m_dg);
  answer("qzdg   list ", 0, out({"NAME  STATE  ID", m_dg + "  enabled,cds  17.9.A"}));
  groupDisks(m_dg, m_disks);
  answer("qzprint   -g " + m_dg + "  -v ", 0,
         out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
              "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
  // The group found is the re-creation's: the recorded disks under their
  // recorded disk-media names, and the volume.
  answer("qzprint   -g " + m_dg, 0,
         out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
              "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
  volumeStarted(m_dg);
  TestNodeList list;
  list.add(&restored.domain, &subobjs);
  ASSERT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  Lines expected = run(
      {"qzdisk   scandisks  device=sdb,sdc,sdd", "qzdisk   list " + m_disks[0].node,
       "qzdg   list " + m_dg, "qzdg   list ", "qzdisk   -g " + m_dg + "  list ", "qzdg   list ",
       "qzprint   -g " + m_dg + "  -v ", "qzdisk   -g " + m_dg + " list ", "qzprint   -g " + m_dg});
  for (const std::string& line : startRuns(m_dg)) {
    expected.push_back(line);
  }
  EXPECT_EQ(expected, commands());
  EXPECT_EQ("1234:5678", ownerOf(device));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::enableAccess - Calling setOwnerIds on [" + device +
                               "] with UID=[1234] and GID=[5678]"));
}

TEST_F(DeportTest, EnableAccessWhoseGroupCannotBeRecreatedReturns6) {
  withDisks();
  TestObjids subobjs({"/dev/sdb", "/dev/sdc", "/dev/sdd"});
  answer("qzdisk   scandisks  device=sdb,sdc,sdd", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestNodeList list;
  list.add(node(), &subobjs);
  EXPECT_EQ(6, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::enableAccess recreate dg on restored disks failed."));
  const auto messages = pushed();
  const auto created = std::find(messages.begin(), messages.end(),
                                 Pushed{"MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP", "../plugin", {}});
  ASSERT_NE(messages.end(), created);
  EXPECT_EQ(3, severities()[created - messages.begin()]);
}

// A failed re-creation undoes nothing and runs nothing more: a group of
// that name, made by it or there before the call, stays as it is, and the
// next call finds it on the disks.
TEST_F(DeportTest, EnableAccessWhoseRecreationFailsRunsNothingMore) {
  withDisks();
  TestObjids subobjs({"/dev/sdb", "/dev/sdc", "/dev/sdd"});
  answer("qzdisk   scandisks  device=sdb,sdc,sdd", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  answer("qzdisk   list sdb", 0, diskListing(m_disks[0], m_dg, "17.9.D"));
  answer("qzdisk   -s  -g " + m_dg + " list ", 0, out({"Disk:  x", "dgid:  17.9.D"}));
  answer("qzinfo   -g " + m_dg + " vol1", 0, out({"vol1  fsgen  Startable"}));
  groupDeports(m_dg);
  TestNode second("/dev/qz/dsk/" + m_dg + "/vol2");
  ASSERT_EQ(0, restoreState(&second.domain, diskRecords()));
  TestNodeList list;
  list.add(node(), &subobjs);
  list.add(&second.domain, &subobjs);
  EXPECT_EQ(6, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_EQ(run({"qzdisk   scandisks  device=sdb,sdc,sdd"}), commands());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::enableAccess recreate dg on restored disks failed."));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP", "../plugin", {}}), pushed().back());
  EXPECT_EQ(2u, pushed().size());  // the failed scan's, then the operation's
}

TEST_F(DeportTest, EnableAccessOfAGroupStillPresentOnlyStartsItsVolume) {
  withoutDisks();
  groupPresent(m_dg);
  volumeStarted(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  Lines expected = run({"qzdg   list " + m_dg});
  for (const std::string& line : startRuns(m_dg)) {
    expected.push_back(line);
  }
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(wasTraced(
      3, "CQzVMPlugin::enableAccess dg '" + m_dg + "' is already deported. Not importing again"));
  // The owner change of a device node that is not there is only traced.
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::enableAccess setOwnerIds call failed for " + m_path));
}

TEST_F(DeportTest, EnableAccessImportsADeportedGroupUnderItsOwnName) {
  withoutDisks();
  groupAbsent(m_dg);
  answer("qzdg   -C  import " + m_dg, 0, {});
  volumeStarted(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_EQ(qz("qzdg   -C  import " + m_dg), commands()[1]);
  EXPECT_EQ(qz("qzinfo   -g " + m_dg + " vol1"), commands().back());
}

TEST_F(DeportTest, EnableAccessWhoseImportFailsReturns6) {
  withoutDisks();
  groupAbsent(m_dg);
  answer("qzdg   -C  import " + m_dg, 20, out({"QZVM qzdg ERROR Q-5-1-203 a disk is missing"}));
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_TRUE(wasTraced(
      1, "CQzVMPlugin::enableAccess import of diskgroup failed. dg=" + m_dg + " volume=vol1"));
}

TEST_F(DeportTest, EnableAccessWhoseVolumeWillNotStartReturns6) {
  withoutDisks();
  groupPresent(m_dg);
  volumeObjects(m_dg, "vol1");
  answer("qzinfo   -g " + m_dg + " vol1", 0, out({"vol1  fsgen  Startable"}));
  answer("qzvol   -g " + m_dg + " start vol1", 15, out({"QZVM qzvol ERROR Q-5-1-305 no plex"}));
  TestNode second("/dev/qz/dsk/" + m_dg + "/vol2");
  TestNodeList list;
  list.add(node());
  list.add(&second.domain);
  EXPECT_EQ(6, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::onlineVolume - unable to online  object=" + m_path));
  EXPECT_TRUE(wasTraced(
      1, "CQzVMPlugin::enableAccess online of volume failed. dg=" + m_dg + " volume=vol1"));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_ONLINE_DEVICE", "../plugin", {"onlineVolume", m_path}}),
            pushed().back());
  EXPECT_FALSE(wasTraced(3, "CQzVMPlugin::enableAccess  got null provider state."));
}

// A node that was not split from disks of this plug-in takes its provider
// state, and the device whose owner is given back, from its related node.
TEST_F(DeportTest, EnableAccessOfANodeWithoutDisksUsesItsRelatedNode) {
  withoutDisks();
  const std::string device = makeDeviceNode(m_dg + "_src");
  TestNode related(device);
  ASSERT_EQ(0, restoreState(&related.domain, "fiid_v vol1\nfiid_uigid 1 2"));
  node()->related = &related.domain;
  groupPresent(m_dg);
  volumeStarted(m_dg);
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0));
  EXPECT_EQ("1234:5678", ownerOf(device));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::enableAccess - Calling setOwnerIds on [" + device +
                               "] with UID=[1234] and GID=[5678]"));
}

// ===== deportAndDestroyDG =====

TEST_F(DeportTest, DeportAndDestroyDGOfANodeWithoutObjectDoesNothing) {
  TestNode noObject;
  EXPECT_EQ(0, plugin().deportAndDestroyDG(nullptr));
  EXPECT_EQ(0, plugin().deportAndDestroyDG(&noObject.domain));
  EXPECT_TRUE(commands().empty());
}

// The group is deported first; the destroy that follows asks for it and,
// as the volume manager answers after a deport, does not find it: the
// group stays deported on its disks, not destroyed.
TEST_F(DeportTest, DeportAndDestroyDGDeportsTheGroupWhichIsThenNotThereToDestroy) {
  groupDeports(m_dg);
  answer("qzdg   destroy " + m_dg, 0, {});
  EXPECT_EQ(0, plugin().deportAndDestroyDG(node()));
  Lines expected = deportAndRemoveRuns(m_dg);
  expected.push_back(qz("qzdg   list " + m_dg));
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(wasTraced(
      3, "CQzVMPlugin::deportAndDestroyDG - Deporting and Destroying DG - [" + m_dg + "]"));
  EXPECT_TRUE(wasTraced(3, "dg '" + m_dg + "' is already destroyed."));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::deportAndDestroyDG() - successfully deported & "
                        "destroyed the DG - [" +
                            m_dg + "]."));
}

// A group found again after its deport (imported anew meanwhile) is
// destroyed; when that fails, the call still succeeds.
TEST_F(DeportTest, DeportAndDestroyDGThatCannotDestroyStillSucceeds) {
  groupDeports(m_dg);
  expect("qzdg   list " + m_dg, 0, out({"Group:   " + m_dg}));
  answer("qzdg   destroy " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 in use"}));
  EXPECT_EQ(0, plugin().deportAndDestroyDG(node()));
  EXPECT_EQ(qz("qzdg   destroy " + m_dg), commands().back());
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::deportAndDestroyDG() - Deported the DG, but failed to "
                        "destroy it, please destroy DG - [" +
                            m_dg + "] manually"));
}

TEST_F(DeportTest, DeportAndDestroyDGThatCannotDeportReturns6) {
  groupDeports(m_dg);
  answer("qzdg   deport " + m_dg, 13, out({"QZVM qzdg ERROR Q-5-1-103 in use"}));
  EXPECT_EQ(6, plugin().deportAndDestroyDG(node()));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::deportDGAndRemoveDisks() - failed to deport, please "
                        "deport and destroy manually DG - [" +
                            m_dg + "]"));
  EXPECT_EQ(qz("qzdg   deport " + m_dg), commands().back());
}

// ===== online =====

TEST_F(DeportTest, OnlineWithoutAnAlternateNodeReturns3) {
  TestNode noObject;
  EXPECT_EQ(3, qzvmfi_fi_pgn_online(node(), nullptr, 1, QFI_DISP_NONE));
  EXPECT_EQ(3, qzvmfi_fi_pgn_online(node(), &noObject.domain, 1, QFI_DISP_NONE));
  EXPECT_EQ(2u, traced("CQzVMPlugin::online - invalid input").size());
}

TEST_F(DeportTest, OnlineWith1StartsTheAlternateVolumeThenAppliesTheDisposition) {
  withDisks();
  const std::string copyDG = m_dg + "_1";
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  volumeStarted(copyDG);
  EXPECT_EQ(0, qzvmfi_fi_pgn_online(node(), &copy.domain, 1, QFI_DISP_NONE));
  EXPECT_EQ(startRuns(copyDG), commands());
  EXPECT_TRUE(enteredScope("onlineVolume"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::dispose - targetNode null."));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::online - successful"));
}

TEST_F(DeportTest, OnlineWith2StopsWhatTheNodeListsWhateverTheDisposition) {
  withoutDisks();
  const std::string copyDG = m_dg + "_1";
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  volumeExists(copyDG, "vol1");
  answer("qzvol   -g " + copyDG + " stop vol1", 0, {});
  for (qfi_disposition disposition : {QFI_DISP_NONE, QFI_DISP_DELETE, QFI_DISP_DEPORT}) {
    CFiExecSeam::clearCommands();
    EXPECT_EQ(0, qzvmfi_fi_pgn_online(node(), &copy.domain, 2, disposition));
    EXPECT_EQ(run({"qzinfo   -g " + copyDG + " vol1", "qzvol   -g " + copyDG + " stop vol1"}),
              commands());
  }
  EXPECT_TRUE(enteredScope("offlineResource"));
}

// Stopping the volume of a copy's node (it records the copy's disks) that
// names the source's own group is refused by the name alone, before any
// tool runs.
TEST_F(DeportTest, OnlineWith2OnTheSourcesGroupIsRefused) {
  withoutDisks();
  TestNode source(m_path);
  ASSERT_EQ(0, restoreState(&source.domain, diskRecords() + "fiid_uigid 1234 5678"));
  CFiExecSeam::clearCommands();
  volumeExists(m_dg, "vol1");
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  EXPECT_EQ(3, qzvmfi_fi_pgn_online(node(), &source.domain, 2, QFI_DISP_DELETE));
  EXPECT_TRUE(commands().empty());
  EXPECT_FALSE(enteredScope("offlineResource"));
  EXPECT_EQ((Pushed{"MSG_ERROR_NOT_THE_COPY",
                    "engine",
                    {"online", m_dg, "it is the source's own group (" + m_path + ")"}}),
            lastPushed());
  EXPECT_FALSE(wasTraced(3, "CQzVMPlugin::online - successful"));
}

TEST_F(DeportTest, OnlineSucceedsWhenTheVolumeWillNotChangeState) {
  withoutDisks();
  const std::string copyDG = m_dg + "_1";
  TestNode copy("/dev/qz/dsk/" + copyDG + "/vol1");
  answer("qzprint   -g " + copyDG + "  vol1", 11, out({"QZVM qzprint ERROR Q-5-1-201 gone"}));
  EXPECT_EQ(0, qzvmfi_fi_pgn_online(node(), &copy.domain, 1, QFI_DISP_NONE));
  EXPECT_TRUE(wasTraced(
      1, "CQzVMPlugin::onlineVolume - unable to online  object=" + std::string(copy.path())));
  EXPECT_EQ(
      (Pushed{"MSG_ERROR_UNABLE_TO_ONLINE_DEVICE", "../plugin", {"onlineVolume", copy.path()}}),
      pushed().back());

  volumeExists(copyDG, "vol1");
  answer("qzvol   -g " + copyDG + " stop vol1", 1, out({"QZVM qzvol ERROR Q-5-1-1 no"}));
  EXPECT_EQ(0, qzvmfi_fi_pgn_online(node(), &copy.domain, 2, QFI_DISP_NONE));
  EXPECT_TRUE(wasTraced(
      1, "CQzVMPlugin::offlineResource - unable to offline  object=" + std::string(copy.path())));
  EXPECT_EQ(
      (Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", "../plugin", {"offlineResource", copy.path()}}),
      pushed().back());
}

// ===== dispose =====

TEST_F(DeportTest, DisposeWithoutATargetOrWithoutDeletionDoesNothing) {
  qfi_splitnode target{node(), m_node->objid(), nullptr, 0, 0};
  EXPECT_EQ(0, qzvmfi_fi_pgn_dispose(node(), node(), nullptr, QFI_DISP_DELETE));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::dispose - targetNode null."));
  EXPECT_EQ(0, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_NONE));
  EXPECT_EQ(0, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_KEEP));
  EXPECT_TRUE(commands().empty());
}

TEST_F(DeportTest, DisposeOfATargetWithoutObjectReturns3) {
  qfi_splitnode target{node(), nullptr, nullptr, 1, 0};
  EXPECT_EQ(3, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::dispose - targetNode null."));
  EXPECT_TRUE(commands().empty());
}

// The copy, proven by its name, disks, volume and group id, is destroyed and
// its disks leave the volume manager's view.
TEST_F(DeportTest, DisposeWithDeletionRemovesTheSnapshotGroupAndItsDisks) {
  withCopyRecorded();
  groupDeports(copyDG());
  groupPresent(copyDG());  // nothing deports it
  copyProven(copyDG());
  copyGroupId("17.9.C");
  for (const auto& disk : m_disks) {
    subpaths(disk);
  }
  answer("qzdg   destroy " + copyDG(), 0, {});
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(0, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  Lines expected = joined(proofRuns(copyDG(), true),
                          run({"qzdg   list " + copyDG(), "qzdisk   -g " + copyDG() + "  list "}));
  for (const auto& disk : m_disks) {
    expected.push_back(qz("qzdmpadm   getsubpaths  dmpnodename=" + disk.node));
  }
  expected.push_back(qz("qzdg   list " + copyDG()));
  expected.push_back(qz("qzdg   destroy " + copyDG()));
  for (const auto& disk : m_disks) {
    expected.push_back(qz("qzdisk   rm " + disk.node));
  }
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(errors().empty());
}

TEST_F(DeportTest, DisposeWhoseGroupCannotBeDestroyedReturns6) {
  withCopyRecorded();
  groupDeports(copyDG());
  groupPresent(copyDG());  // nothing deports it
  copyProven(copyDG());
  copyGroupId("17.9.C");
  for (const auto& disk : m_disks) {
    subpaths(disk);
  }
  answer("qzdg   destroy " + copyDG(), 13, out({"QZVM qzdg ERROR Q-5-1-103 in use"}));
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(6, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::dispose - unable to dispose object =" + copyPath()));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::dispose - failed"));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_DELETE_OBJECT", "../plugin", {"dispose", copyPath()}}),
            pushed().back());
  EXPECT_EQ(3, severities().back());
}

TEST_F(DeportTest, DisposeAfterAnExceptionTracesItsFailure) {
  withCopyRecorded();
  toolsThrow([] { throw std::runtime_error("lost"); });
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(6, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::dispose - failed"));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("dispose", pushed()[0].args[2]);

  toolsThrow([] { throw CQzVMCliException("stopped"); });
  m_trace.clear();
  EXPECT_EQ(6, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_FALSE(wasTraced(1, "CQzVMPlugin::dispose - failed"));
  EXPECT_EQ(1u, pushed().size());
}

TEST_F(DeportTest, DisposeCatchesEveryExceptionKind) {
  withCopyRecorded();
  qfi_splitnode target = copyTarget();
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    EXPECT_EQ(6, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
    EXPECT_EQ(reportedFor(kind, "dispose", "../plugin"), caughtMessages(pushed()));
  });
}

// ===== the copy proven before dispose changes it =====

// A target that names the source's own group is refused before any tool
// runs.
TEST_F(DeportTest, DisposeOfATargetNamingTheSourcesGroupIsRefusedWithoutAnyCommand) {
  withCopyRecorded();
  TestNode source(m_path);
  ASSERT_EQ(0, restoreState(&source.domain, diskRecords() + "fiid_uigid 1234 5678"));
  groupDeports(m_dg);
  answer("qzdg   destroy " + m_dg, 0, {});
  qfi_splitnode target{&source.domain, source.objid(), nullptr, 1, 0};
  EXPECT_EQ(3, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ((Pushed{"MSG_ERROR_NOT_THE_COPY",
                    "engine",
                    {"dispose", m_dg, "it is the source's own group (" + m_path + ")"}}),
            lastPushed());
  EXPECT_TRUE(wasTraced(1, "CQzVMEngine::dispose - the disk group '" + m_dg +
                               "' is not the copy that this backup made: it is the source's own "
                               "group (" +
                               m_path + "). Nothing was changed."));
  EXPECT_FALSE(wasTraced(1, "CQzVMPlugin::dispose - failed"));
}

// A group of the copy's name that holds a disk the copy's node did not
// record is refused before the destroy.
TEST_F(DeportTest, DisposeOfAGroupWhoseDisksAreNotTheRecordedOnesIsRefusedBeforeTheDestroy) {
  withCopyRecorded();
  groupPresent(copyDG());
  std::vector<qzvmfi_test::TestDisk> other = m_disks;
  other[2] = {"qzarr" + m_number + "_9", "sdz", m_dg + "d02"};
  groupDisks(copyDG(), other);
  copyProven(copyDG());
  copyGroupId("17.9.C");
  answer("qzdg   destroy " + copyDG(), 0, {});
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(3, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_EQ(proofRuns(copyDG()), commands());
  const std::string disks = m_disks[0].node + " " + m_disks[1].node;
  EXPECT_EQ((Pushed{"MSG_ERROR_NOT_THE_COPY",
                    "engine",
                    {"dispose", copyDG(),
                     "it holds the disks [" + disks + " " + other[2].node +
                         "], the record's are [" + disks + " " + m_disks[2].node + "]"}}),
            lastPushed());
}

// A group of the copy's name with another group id than the one that the
// source's record holds is refused before the destroy.
TEST_F(DeportTest, DisposeOfAGroupWithAnotherGroupIdIsRefusedBeforeTheDestroy) {
  withCopyRecorded();
  groupPresent(copyDG());
  groupDisks(copyDG(), m_disks);
  copyProven(copyDG());
  copyGroupId("17.9.X");
  answer("qzdg   destroy " + copyDG(), 0, {});
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(3, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_EQ(proofRuns(copyDG(), true), commands());
  EXPECT_EQ(
      (Pushed{"MSG_ERROR_NOT_THE_COPY",
              "engine",
              {"dispose", copyDG(), "its group id is [17.9.X], the import recorded [17.9.C]"}}),
      lastPushed());
}

// The copy's group is gone (a removal stopped after its destroy): the disks
// that its node recorded leave the view only when none is in a group again;
// one in another group leaves everything as it is.
TEST_F(DeportTest, DisposeOfAGoneCopyWhoseRecordedDiskIsInAnotherGroupChangesNothing) {
  withCopyRecorded();
  groupAbsent(copyDG());
  for (const auto& disk : m_disks) {
    subpaths(disk);
    answer("qzdisk   rm " + disk.node, 0, {});
  }
  const std::string header = "DEVICE  TYPE  DISK  GROUP  STATUS";
  answer("qzdisk   list ", 0,
         out({header, m_disks[0].node + "  auto:cdsdisk  -  -  online",
              m_disks[1].node + "  auto:cdsdisk  p01  prod  online",
              m_disks[2].node + "  auto:cdsdisk  -  -  online"}));
  qfi_splitnode target = copyTarget();
  EXPECT_EQ(3, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_EQ(run({"qzdg   list " + copyDG(), "qzdisk   list "}), commands());
  EXPECT_EQ((Pushed{"MSG_ERROR_NOT_THE_COPY",
                    "../plugin",
                    {"dispose", copyDG(),
                     "its group is gone and the disk " + m_disks[1].node +
                         " that the copy recorded is in the disk group prod"}}),
            lastPushed());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::dispose - the disk " + m_disks[1].node +
                               " that the copy recorded is in the disk group prod: not the "
                               "copy's. Nothing was changed."));

  // None in a group: the recorded disks leave the view.
  CFiExecSeam::clearCommands();
  answer("qzdisk   list ", 0,
         out({header, m_disks[0].node + "  auto:cdsdisk  -  -  online",
              m_disks[1].node + "  auto:cdsdisk  -  -  online"}));
  EXPECT_EQ(0, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  const Lines ran = commands();
  EXPECT_NE(ran.end(), std::find(ran.begin(), ran.end(), qz("qzdisk   rm " + m_disks[1].node)));
}

}  // namespace

// Alternate tree construction through the entry points: the inputs checked,
// the disks mapped to their nodes, the new group's name chosen, the import
// or rebuild chosen, and the new volume given the primary volume's owner.
// The device nodes of the volume manager are not there in unit tests, so
// an owner change that succeeds is shown by the integration tests.
#include <unistd.h>

#include <functional>

#include <gtest/gtest.h>

#include "exception_kinds.h"
#include "exports_env.h"

namespace {

using qzvmfi_test::caughtMessages;
using qzvmfi_test::ExceptionKind;
using qzvmfi_test::forEachExceptionKind;
using qzvmfi_test::Lines;
using qzvmfi_test::OperationsTest;
using qzvmfi_test::out;
using qzvmfi_test::Pushed;
using qzvmfi_test::reportedFor;
using qzvmfi_test::TestDisk;
using qzvmfi_test::TestNode;
using qzvmfi_test::TestObjids;

class AltTreeTest : public OperationsTest {
 protected:
  void SetUp() override {
    OperationsTest::SetUp();
    m_node = std::make_unique<TestNode>(m_path);
    answer("qzdg   list ", 0, out({"NAME  STATE  ID", m_dg + "  enabled,cds  17.9.A"}));
  }

  void TearDown() override {
    qzfi_free_objid(m_out);
    m_node.reset();
    OperationsTest::TearDown();
  }

  qfi_domain* node() { return &m_node->domain; }

  // The source's provider state: the disks, the owner 1234:5678, and the
  // records that deportTree leaves.
  std::string sourceState() const {
    return "fiid_v vol1\nfiid_dgid 17.9.A\n" + diskRecords() + "fiid_uigid 1234 5678";
  }
  std::string keptState() const {
    return "fiid_v vol1\nfiid_altvol " + m_path + "\nfiid_dgid 17.9.A\n" + diskRecords() +
           "fiid_uigid 1234 5678";
  }
  std::string deportedState() const {
    return "fiid_isqzvmdeported 1\nfiid_v vol1\nfiid_altvol " + copyPath() +
           "\nfiid_dgid 17.9.B\n" + diskRecords() + "fiid_uigid 1234 5678";
  }

  std::string copyDG() const { return m_dg + "_1"; }
  std::string copyPath() const { return "/dev/qz/dsk/" + copyDG() + "/vol1"; }
  // The name getNewDGName gives a copy of group dg here.
  static std::string newName(const std::string& dg) { return dg + "_" + std::to_string(getpid()); }

  static Lines primaryPaths() { return {"/dev/sdb", "/dev/sdc", "/dev/sdd"}; }
  static Lines secondaryPaths() { return {"/dev/sde", "/dev/sdf", "/dev/sdg"}; }

  // The split disks where they appear: the volume manager's nodes of OS
  // disks sde, sdf and sdg, carrying group dg with id dgid.
  void splitDisksCarry(const std::string& dg, const std::string& dgid) {
    answer("qzdisk   scandisks  device=sde,sdf,sdg", 0, {});
    for (const TestDisk& disk : m_copies) {
      dmpNode(disk);
      subpaths(disk);
      answer("qzdisk   list " + disk.node, 0, diskListing(disk, dg, dgid));
    }
  }
  Lines splitDiskRuns() const {
    Lines lines = run({"qzdisk   scandisks  device=sde,sdf,sdg"});
    for (const TestDisk& disk : m_copies) {
      lines.push_back(qz("qzdmpadm   getdmpnode  nodename=" + disk.os));
    }
    for (const TestDisk& disk : m_copies) {
      lines.push_back(qz("qzdisk   list " + disk.node));
    }
    for (const TestDisk& disk : m_copies) {
      lines.push_back(qz("qzdmpadm   getsubpaths  dmpnodename=" + disk.node));
    }
    lines.push_back(qz("qzdisk   list " + m_copies[0].node));
    return lines;
  }

  // The split disks as a build of this record leaves them: each initialised
  // anew (a disk id of its own) under its primary's disk-media name, in
  // group dg with id dgid.
  std::vector<TestDisk> builtCopies() const {
    std::vector<TestDisk> built = m_copies;
    for (size_t i = 0; i < built.size(); ++i) {
      built[i].dm = m_disks[i].dm;
    }
    return built;
  }
  void splitDisksBuiltInto(const std::string& dg, const std::string& dgid) {
    splitDisksCarry(dg, dgid);
    const std::vector<TestDisk> built = builtCopies();
    for (size_t i = 0; i < built.size(); ++i) {
      Lines listing = diskListing(built[i], dg, dgid);
      listing[2] = "disk:      name=" + built[i].dm + " id=17.2.C" + std::to_string(i) + "\n";
      answer("qzdisk   list " + built[i].node, 0, listing);
    }
  }

  // The group that a build made on the split disks is there already, with
  // its volume: it only needs starting.
  void copyGroupPresent(const std::string& dg) {
    answer("qzdg   list " + dg, 0, out({"Group:   " + dg}));
    answer("qzdg   list ", 0,
           out({"NAME  STATE  ID", m_dg + "  enabled,cds  17.9.A", dg + "  enabled,cds  17.9.C"}));
    groupDisks(dg, builtCopies());
    answer("qzprint   -g " + dg + "  -v ", 0,
           out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
    // Its volumes, as the evidence lists them.
    answer("qzprint   -g " + dg, 0,
           out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
    volumeObjects(dg, "vol1");
    volumeExists(dg, "vol1");
    answer("qzdisk   -s  -g " + dg + " list ", 0, out({"Disk:  x", "dgid:  17.9.C"}));
  }

  int importTree(int count, TestObjids& primary, TestObjids& secondary) {
    return qzvmfi_fi_pgn_import_tree(node(), primary.get(), secondary.get(), count, &m_out);
  }

  std::unique_ptr<TestNode> m_node;
  qzfi_objid* m_out = nullptr;
  const std::vector<TestDisk> m_copies = {{"qzarr" + m_number + "_3", "sde", ""},
                                          {"qzarr" + m_number + "_4", "sdf", ""},
                                          {"qzarr" + m_number + "_5", "sdg", ""}};
};

// ===== initAltNode =====

TEST_F(AltTreeTest, InitAltNodeWithoutAnAlternateNodeReturns3) {
  EXPECT_EQ(3, qzvmfi_fi_pgn_init_altnode(node(), nullptr, nullptr, false));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::initAltNode invalid inputs."));
  EXPECT_TRUE(commands().empty());
}

TEST_F(AltTreeTest, InitAltNodeMakesTheCopyANodeWithItsDisksAsSubObjects) {
  TestNode copy(copyPath());
  groupDisks(copyDG(), m_copies);
  for (const TestDisk& disk : m_copies) {
    subpaths(disk);
  }
  ASSERT_EQ(0, qzvmfi_fi_pgn_init_altnode(node(), nullptr, &copy.domain, false));
  EXPECT_TRUE(wasTraced(6, "CQzVMPlugin:: initAltNode called for target " + copyPath()));
  EXPECT_EQ(0x1002u, copy.domain.type);
  EXPECT_EQ(copy.objid()->name, copy.domain.name);
  CQzVMData* data = dataOf(&copy.domain);
  ASSERT_NE(nullptr, data);
  EXPECT_TRUE(data->isAlternate());
  Lines names;
  for (const qzfi_objid* id : plugin().getSubObjects(&copy.domain)) {
    names.push_back(id->name);
  }
  EXPECT_EQ(secondaryPaths(), names);
  std::string dmp;
  data->getDiskDMPMap("sdf", dmp);
  EXPECT_EQ(m_copies[1].node, dmp);
}

TEST_F(AltTreeTest, InitAltNodeWhoseSubObjectsCannotBeMadeTakesTheNewGroupAway) {
  TestNode copy(copyPath());
  groupDisks(copyDG(), m_copies);
  answer("qzdmpadm   getsubpaths  dmpnodename=" + m_copies[0].node, 11,
         out({"QZVM qzdmpadm ERROR Q-5-1-401 no node"}));
  // As the volume manager answers: the group is listed until its deport.
  expect("qzdg   list " + copyDG(), 0, out({"Group:   " + copyDG()}));
  answer("qzdg   list " + copyDG(), 11, out({"QZVM qzdg ERROR Q-5-1-201 not imported"}));
  answer("qzdg   deport " + copyDG(), 0, {});
  for (const TestDisk& disk : m_copies) {
    answer("qzdisk   rm " + disk.node, 0, {});
  }
  answer("qzdg   destroy " + copyDG(), 0, {});
  EXPECT_EQ(6, qzvmfi_fi_pgn_init_altnode(node(), nullptr, &copy.domain, false));
  EXPECT_TRUE(enteredScope("deportAndDestroyDG"));
  // The group is deported and its disks leave the view; the destroy then
  // finds no group of that name here: it stays on the disks, deported.
  Lines expected = run({"qzdisk   -g " + copyDG() + "  list ",
                        "qzdmpadm   getsubpaths  dmpnodename=" + m_copies[0].node,
                        "qzdg   list " + copyDG(), "qzdg   deport " + copyDG()});
  for (const TestDisk& disk : m_copies) {
    expected.push_back(qz("qzdisk   rm " + disk.node));
  }
  expected.push_back(qz("qzdg   list " + copyDG()));
  EXPECT_EQ(expected, commands());
  EXPECT_TRUE(wasTraced(3, "dg '" + copyDG() + "' is already destroyed."));
}

// A plug-in whose sub-objects cannot be listed for an exception.
class ThrowingSubObjects : public CQzVMPlugin {
 public:
  explicit ThrowingSubObjects(std::function<void()> raise =
                                  [] { throw std::runtime_error("no disks"); })
      : m_raise(std::move(raise)) {}
  int AddSubObjects(qfi_domain*, CQzVMData*) override {
    m_raise();
    return 0;
  }

 private:
  std::function<void()> m_raise;
};

TEST_F(AltTreeTest, InitAltNodeAfterAnExceptionTakesTheNewGroupAway) {
  qzfi_pdk_4_4::CFiSmartPtr<ThrowingSubObjects> throwing(new ThrowingSubObjects());
  throwing->registerTraceLog(qzvmfi_ctx::TraceLog::instance());
  throwing->registerPrivateDataManager(qzvmfi_ctx::PrivateDataManager::instance());
  TestNode copy(copyPath());
  answer("qzdg   list " + copyDG(), 11, out({"QZVM qzdg ERROR Q-5-1-201 not imported"}));
  EXPECT_EQ(6, throwing->initAltNode(node(), nullptr, &copy.domain, false));
  EXPECT_TRUE(wasTraced(
      3, "CQzVMPlugin::deportAndDestroyDG - Deporting and Destroying DG - [" + copyDG() + "]"));
  // The disks a stopped deport may have left under the group are looked for.
  EXPECT_EQ(run({"qzdg   list " + copyDG(), "qzdisk   list ", "qzdg   list " + copyDG()}),
            commands());
  ASSERT_FALSE(pushed().empty());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", pushed().front().id);
  EXPECT_EQ("initAltNode", pushed().front().args[2]);
}

// ===== buildAltTree =====

TEST_F(AltTreeTest, BuildAltTreeWithoutAnOutputListReturns3AndSaysSo) {
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      3, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3, nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::buildAltTree - invalid inputs."));
  EXPECT_EQ(
      (std::vector<Pushed>{{"MSG_ERROR_NO_OBJECT_TO_RECREATE_STORAGE_STACK", "../plugin", {}}}),
      pushed());
  EXPECT_EQ(std::vector<int>{3}, severities());
}

TEST_F(AltTreeTest, BuildAltTreeWithoutPrimaryDisksReturns3Silently) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  TestObjids primary(primaryPaths());
  TestObjids none({});
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      3, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 0, &m_out));
  EXPECT_EQ(3, qzvmfi_fi_pgn_build_alttree(node(), nullptr, nullptr, secondary.get(), 3, &m_out));
  EXPECT_EQ(3,
            qzvmfi_fi_pgn_build_alttree(node(), nullptr, none.get(), secondary.get(), 3, &m_out));
  EXPECT_EQ(3u, traced("CQzVMPlugin::buildAltTree - invalid input.").size());
  EXPECT_TRUE(errors().empty());
  EXPECT_TRUE(commands().empty());
}

TEST_F(AltTreeTest, BuildAltTreeOfANodeWithoutPrivateDataReturns6) {
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3, &m_out));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::buildAltTree - null private data."));
}

TEST_F(AltTreeTest, BuildAltTreeOfANodeWithoutGroupOrVolumeStopsTheProcess) {
  TestNode bare("/dev/qz/dsk/" + m_dg);
  TestObjids primary(primaryPaths());
  EXPECT_DEATH(
      qzvmfi_fi_pgn_build_alttree(&bare.domain, nullptr, primary.get(), nullptr, 3, &m_out),
      "Assertion `dgName.length\\(\\) && vol.length\\(\\)' failed");
}

TEST_F(AltTreeTest, BuildAltTreeOfADiskNotRecordedStopsTheProcess) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  TestObjids primary({"/dev/sdz"});
  EXPECT_DEATH(qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), nullptr, 1, &m_out),
               "Assertion `!dmp.empty\\(\\)' failed");
}

TEST_F(AltTreeTest, BuildAltTreeReadsTheListsUpToCountOrTheirEnd) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  answer("qzdisk   -g " + m_dg + " list ", 11, out({"QZVM qzdisk ERROR Q-5-1-201 gone"}));
  TestObjids primary(primaryPaths());
  EXPECT_EQ(6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), nullptr, 2, &m_out));
  EXPECT_EQ(2u, traced("CQzVMPlugin::buildAltTree - Calling getDiskDMPMap for [").size());
  m_trace.clear();
  EXPECT_EQ(6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), nullptr, 7, &m_out));
  EXPECT_EQ(3u, traced("CQzVMPlugin::buildAltTree - Calling getDiskDMPMap for [").size());
  EXPECT_TRUE(wasTraced(3,
                        "CQzVMPlugin::buildAltTree - Calling CFiQzVMUtil::removeDevPrefix for "
                        "[/dev/sdb]."));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMPlugin::buildAltTree - got DMP as [" + m_disks[2].node + "] for [sdd]."));
}

// The secondary list is read as the primary one: up to count, or to its
// end when shorter. The engine scans the disks read.
TEST_F(AltTreeTest, BuildAltTreeReadsTheSecondaryListUpToCountOrItsEnd) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  groupRecords(m_dg, m_disks);
  answer("qzdisk   scandisks  device=sde,sdf", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 2, &m_out));
  EXPECT_EQ(qz("qzdisk   scandisks  device=sde,sdf"), commands().back());

  // Other disks: the volume manager is not asked to scan a disk twice.
  qzfi_pdk_4_4::CFiExecSeam::clearCommands();
  answer("qzdisk   scandisks  device=sdh,sdi", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids twoPrimary({"/dev/sdb", "/dev/sdc"});
  TestObjids shorter({"/dev/sdh", "/dev/sdi"});
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, twoPrimary.get(), shorter.get(), 7, &m_out));
  EXPECT_EQ(qz("qzdisk   scandisks  device=sdh,sdi"), commands().back());
}

TEST_F(AltTreeTest, BuildAltTreeWithoutDiskMediaNamesReturns6) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  answer("qzdisk   -g " + m_dg + " list ", 11, out({"QZVM qzdisk ERROR Q-5-1-201 gone"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3, &m_out));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::buildAltTree - unable to get dm for disk name."));
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_GET_DMNAME_FROM_DG", "../plugin", {}}), pushed().back());
  EXPECT_EQ(3, severities().back());
}

TEST_F(AltTreeTest, BuildAltTreeWithoutTheConfigurationReturns6) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  groupDisks(m_dg, m_disks);
  answer("qzdisk   -g " + m_dg + "  list ", 11, out({"QZVM qzdisk ERROR Q-5-1-201 gone"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3, &m_out));
  EXPECT_TRUE(wasTraced(
      1,
      "CQzVMPlugin::buildAltTree - unable to get qzdg's configuration for object=" + m_path + "."));
}

TEST_F(AltTreeTest, BuildAltTreeWhoseEngineFailsReturns6) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  groupRecords(m_dg, m_disks);
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(
      6, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3, &m_out));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::buildAltTree - building alternate tree failed."));
  EXPECT_EQ(qz("qzdisk   scandisks  device=sde,sdf,sdg"), commands().back());
}

// The copy is found on the split disks already (a second call), started,
// and given the owner: in a unit test its device nodes are not there.
TEST_F(AltTreeTest, BuildAltTreeGivesTheNewVolumeTheOwnerOrReturns1091) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  groupRecords(m_dg, m_disks);
  const std::string copy = newName(m_dg);
  splitDisksBuiltInto(copy, "17.9.C");
  copyGroupPresent(copy);
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(1091, qzvmfi_fi_pgn_build_alttree(node(), nullptr, primary.get(), secondary.get(), 3,
                                              &m_out));
  ASSERT_NE(nullptr, m_out);
  const std::string made = "/dev/qz/dsk/" + copy + "/vol1";
  EXPECT_EQ(made, m_out->name);
  EXPECT_EQ(2, m_out->kind);
  EXPECT_TRUE(
      wasTraced(3, "Calling setOwnerIds for [" + made + "] with UID=[1234] and GID=[5678]"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::buildAltTree setOwnerIds call failed for " + made));
  EXPECT_FALSE(wasTraced(3, "CQzVMPlugin::buildAltTree - successful."));
  EXPECT_EQ("17.9.C", dataOf(node())->getDGId());
}

// ===== importTreeNode =====

TEST_F(AltTreeTest, ImportTreeNodeWithoutACountReturns3WithAWarning) {
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(3, importTree(0, primary, secondary));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode - invalid input"));
  EXPECT_EQ(
      (std::vector<Pushed>{{"MSG_ERROR_NO_OBJECT_TO_RECREATE_STORAGE_STACK", "../plugin", {}}}),
      pushed());
  EXPECT_EQ(std::vector<int>{2}, severities());
}

TEST_F(AltTreeTest, ImportTreeNodeWithoutAnOutputListReturns3) {
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(3, qzvmfi_fi_pgn_import_tree(node(), primary.get(), secondary.get(), 3, nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode - invalid input"));
}

TEST_F(AltTreeTest, ImportTreeNodeWithoutDiskListsReturns3Silently) {
  TestObjids primary(primaryPaths());
  TestObjids none({});
  EXPECT_EQ(3, importTree(3, primary, none));
  EXPECT_EQ(3, importTree(3, none, primary));
  EXPECT_EQ(3, qzvmfi_fi_pgn_import_tree(node(), primary.get(), nullptr, 3, &m_out));
  EXPECT_EQ(3u, traced("CQzVMPlugin::importTreeNode - invalid input.").size());
  EXPECT_TRUE(errors().empty());
}

TEST_F(AltTreeTest, ImportTreeNodeOfANodeWithoutProviderStateReturns3) {
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(3, importTree(3, primary, secondary));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode  got null provider state."));
  EXPECT_TRUE(commands().empty());
}

// A group that deportTree left deported is imported by its id under a new
// name.
TEST_F(AltTreeTest, ImportTreeNodeOfADeportedGroupImportsItById) {
  ASSERT_EQ(0, restoreState(node(), deportedState()));
  splitDisksCarry(copyDG(), "17.9.B");
  answer("qzdg   list " + copyDG(), 11, out({"QZVM qzdg ERROR Q-5-1-201 not imported"}));
  const std::string copy = newName(copyDG());
  answer(
      "qzdisk   clearimport  " + m_copies[0].node + " " + m_copies[1].node + " " + m_copies[2].node,
      0, {});
  answer("qzdg   -C  -n " + copy + " import 17.9.B", 0, {});
  volumeObjects(copy, "vol1");
  volumeExists(copy, "vol1");
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(1091, importTree(3, primary, secondary));

  Lines expected = run({"qzdg   list "});
  for (const std::string& line : splitDiskRuns()) {
    expected.push_back(line);
  }
  for (const std::string& line :
       run({"qzdg   list " + copyDG(),
            "qzdisk   clearimport  " + m_copies[0].node + " " + m_copies[1].node + " " +
                m_copies[2].node,
            "qzdg   -C  -n " + copy + " import 17.9.B", "qzprint   -g " + copy + "  vol1",
            "qzinfo   -g " + copy + " vol1"})) {
    expected.push_back(line);
  }
  EXPECT_EQ(expected, commands());
  ASSERT_NE(nullptr, m_out);
  const std::string made = "/dev/qz/dsk/" + copy + "/vol1";
  EXPECT_EQ(made, m_out->name);
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode volPath=[" + copyPath() +
                               "] set, getting newDGName=[" + copy + "]"));
  EXPECT_TRUE(
      wasTraced(6, "CQzVMPlugin::importTreeNode - Getting primary DMP information for [sdc]"));
  EXPECT_TRUE(wasTraced(
      6, "CQzVMPlugin::importTreeNode - Got primary DMP information as [" + m_disks[1].node + "]"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::importTreeNode - Calling setOwnerIds on [" + made +
                               "] with UID=[1234] and GID=[5678]"));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::importTreeNode setOwnerIds call failed for " + made));
}

// Any other node is rebuilt from the recorded configuration.
TEST_F(AltTreeTest, ImportTreeNodeOfAKeptConfigurationRebuildsTheGroup) {
  ASSERT_EQ(0, restoreState(node(), keptState()));
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(6, importTree(3, primary, secondary));
  EXPECT_TRUE(enteredScope("buildAltTree"));
  EXPECT_FALSE(enteredScope("importQzVM"));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode volPath=[" + m_path +
                               "] set, getting newDGName=[" + newName(m_dg) + "]"));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode - qzvm import [ buildalttree ] failed."));
}

TEST_F(AltTreeTest, ImportTreeNodeWithoutARecordedVolumeTakesAUniqueName) {
  ASSERT_EQ(0, restoreState(node(), sourceState()));
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(6, importTree(3, primary, secondary));
  const auto lines =
      traced("CQzVMPlugin::importTreeNode volPath  not set, getting unique newDGName=[tpu_f");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(1, lines[0].level);
}

TEST_F(AltTreeTest, ImportTreeNodeWhoseImportFailsReturns6) {
  ASSERT_EQ(0, restoreState(node(), deportedState()));
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 0, {});
  for (const TestDisk& disk : m_copies) {
    dmpNode(disk);
    answer("qzdisk   list " + disk.node, 11, out({"QZVM qzdisk ERROR Q-5-1-101 not seen"}));
  }
  answer("qzdisk   scandisks ", 0, {});
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(6, importTree(3, primary, secondary));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::importTreeNode - qzvm import failed."));
}

TEST_F(AltTreeTest, ImportTreeNodeReadsTheListsUpToCountOrTheirEnd) {
  ASSERT_EQ(0, restoreState(node(), keptState()));
  answer("qzdisk   scandisks  device=sde,sdf", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary(primaryPaths());
  TestObjids secondary(secondaryPaths());
  EXPECT_EQ(6, importTree(2, primary, secondary));
  EXPECT_EQ(2u, traced("CQzVMPlugin::aStr=[").size());
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::aStr=[sdf], pStr=[sdc]"));
  // Lists of other lengths within the count do not pair: refused before any run.
  m_trace.clear();
  qzfi_pdk_4_4::CFiExecSeam::clearCommands();
  TestObjids two(Lines{"/dev/sde", "/dev/sdf"});
  EXPECT_EQ(3, importTree(5, primary, two));
  EXPECT_TRUE(traced("CQzVMPlugin::aStr=[").empty());
  EXPECT_TRUE(commands().empty());
}

TEST_F(AltTreeTest, ImportTreeNodeOfADiskNotRecordedStopsTheProcess) {
  ASSERT_EQ(0, restoreState(node(), keptState()));
  TestObjids primary({"/dev/sdz"});
  TestObjids secondary({"/dev/sde"});
  EXPECT_DEATH(importTree(1, primary, secondary), "Assertion `!dmp.empty\\(\\)' failed");
}

// Whatever kind of exception stops it, initAltNode reports it and takes
// the new group away.
TEST_F(AltTreeTest, InitAltNodeCatchesEveryExceptionKindAndTakesTheGroupAway) {
  answer("qzdg   list " + copyDG(), 11, out({"QZVM qzdg ERROR Q-5-1-201 not imported"}));
  forEachExceptionKind([&](const ExceptionKind& kind) {
    qzfi_pdk_4_4::CFiExecSeam::clearCommands();
    qzfi_pdk_4_4::CFiSmartPtr<ThrowingSubObjects> throwing(new ThrowingSubObjects(kind.raise));
    throwing->registerTraceLog(qzvmfi_ctx::TraceLog::instance());
    throwing->registerPrivateDataManager(qzvmfi_ctx::PrivateDataManager::instance());
    TestNode copy(copyPath());
    EXPECT_EQ(6, throwing->initAltNode(node(), nullptr, &copy.domain, false));
    EXPECT_EQ(reportedFor(kind, "initAltNode", "../plugin"), caughtMessages(pushed()));
    // deportAndDestroyDG asked for the group, and the disks for one it left.
    EXPECT_EQ(run({"qzdg   list " + copyDG(), "qzdisk   list ", "qzdg   list " + copyDG()}),
              commands());
  });
}

}  // namespace

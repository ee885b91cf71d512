// Resource formatting and onlining through the entry points: plain disks
// made into a group and volume, the group on disks found and brought
// online, disks recognised as the volume manager's, and made plain again.
#include <unistd.h>

#include <algorithm>
#include <regex>

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
using qzvmfi_test::reportedFor;
using qzvmfi_test::TestDisk;
using qzvmfi_test::TestPaths;
using qzvmfi_test::TestTextArray;

const int kPersistent = 0x200;

class ResourcesTest : public OperationsTest {
 protected:
  // The disks that appeared on the host: sde, sdf and sdg, whose nodes
  // carry the test's group, or nothing.
  void disksCarryTheGroup() {
    for (const TestDisk& disk : m_plain) {
      dmpNode(disk);
      subpaths(disk);
      answer("qzdisk   list " + disk.node, 0, diskListing(disk, m_dg, "17.9.A"));
      answer("qzdisk   rm " + disk.node, 0, {});
    }
    answer("qzdg   list ", 0, out({"NAME  STATE  ID", m_dg + "  enabled,cds  17.9.A"}));
    answer("qzdg   list " + m_dg, 0, out({"Group:   " + m_dg}));
    answer("qzdg   deport " + m_dg, 0, {});
    answer("qzdg   -C  import 17.9.A", 0, {});
    answer("qzdisk   scandisks ", 0, {});
    answer("qzprint   -g " + m_dg + "  -v ", 0,
           out({"TY  NAME  ASSOC  KSTATE  LENGTH  PLOFFS  STATE  TUTIL0  PUTIL0",
                "v  vol1  fsgen  ENABLED  204800  -  ACTIVE  -  -"}));
    volumeExists(m_dg, "vol1");
  }
  void disksArePlain() {
    for (const TestDisk& disk : m_plain) {
      dmpNode(disk);
      answer("qzdisk   list " + disk.node, 0,
             out({"Device:    " + disk.node, "type:      auto", "disk:      id=17.3.A",
                  "group:     -", "info:      format=none", "flags:     online invalid"}));
      answer("qzdisk   rm " + disk.node, 0, {});
    }
    answer("qzdisk   scandisks ", 0, {});
  }

  // Commands run whose line holds part.
  static size_t runsHolding(const std::string& part) {
    const Lines lines = commands();
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& l) {
      return l.find(part) != std::string::npos;
    }));
  }

  const std::vector<TestDisk> m_plain = {{"qzarr" + m_number + "_6", "sde", ""},
                                         {"qzarr" + m_number + "_7", "sdf", ""},
                                         {"qzarr" + m_number + "_8", "sdg", ""}};
};

// ===== isParentPgn =====

TEST_F(ResourcesTest, IsParentPgnOfANameOutsideDevSaysNoWithoutACommand) {
  char disk[] = "sde";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, 0));
  EXPECT_EQ(0, isParent);
  EXPECT_TRUE(wasTraced(3, "'sde' is not a disk."));
  EXPECT_TRUE(wasTraced(6, "isParentPgn - flag = [0]"));
  EXPECT_TRUE(commands().empty());
}

TEST_F(ResourcesTest, IsParentPgnWithoutDiskOrAnswerReturns3) {
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(3, qzvmfi_fi_pgn_is_parent_pgn(nullptr, &isParent, 0));
  EXPECT_EQ(3, qzvmfi_fi_pgn_is_parent_pgn(disk, nullptr, 0));
  EXPECT_EQ(2u, traced("CQzVMPlugin::isParentPgn - invalid inputs.").size());
}

TEST_F(ResourcesTest, IsParentPgnOfANewlyImportedDiskOfTheVolumeManagerSaysYes) {
  disksCarryTheGroup();
  char disk[] = " /dev/sde\n";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, 0));
  EXPECT_EQ(1, isParent);
  const std::string node = m_plain[0].node;
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde", "qzdisk   rm " + node,
                 "qzdisk   scandisks ", "qzdmpadm   getdmpnode  nodename=sde",
                 "qzdisk   list " + node, "qzdisk   list " + node, "qzdg   list " + m_dg,
                 "qzdg   deport " + m_dg, "qzdg   -C  import 17.9.A", "qzdisk   list " + node}),
            commands());
  EXPECT_TRUE(
      wasTraced(3, "Disk is newly imported to the host. Calling detailed QzVM operations."));
}

TEST_F(ResourcesTest, IsParentPgnOfAPlainDiskSaysNoAndTakesItOutOfTheView) {
  disksArePlain();
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, 0));
  EXPECT_EQ(0, isParent);
  EXPECT_EQ(2u, runsHolding("qzdisk   rm " + m_plain[0].node));
  EXPECT_EQ(qz("qzdisk   rm " + m_plain[0].node), commands().back());
}

TEST_F(ResourcesTest, IsParentPgnOfPersistentDisksRescansNothingAndRemovesNothing) {
  disksCarryTheGroup();
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, kPersistent));
  EXPECT_EQ(1, isParent);
  const std::string node = m_plain[0].node;
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde", "qzdisk   list " + node,
                 "qzdisk   list " + node}),
            commands());
  EXPECT_TRUE(wasTraced(
      3, "Disk is persistently available to the host. Calling optimized QzVM operations."));
  EXPECT_TRUE(
      wasTraced(3, "Disk is persistently available to the host. Getting DMP node directly."));
  EXPECT_TRUE(wasTraced(3, "Skiping device refresh as disks are not newly inported."));
  EXPECT_TRUE(enteredScope("isParentPgnOptimized"));

  disksArePlain();
  CFiExecSeam::clearCommands();
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, kPersistent));
  EXPECT_EQ(0, isParent);
  EXPECT_EQ(0u, runsHolding("qzdisk   rm "));
  EXPECT_EQ(0u, runsHolding("scandisks"));
}

TEST_F(ResourcesTest, IsParentPgnOfADiskWithoutNodeSaysNo) {
  answer("qzdmpadm   getdmpnode  nodename=sde", 11, out({"QZVM qzdmpadm ERROR Q-5-1-401 no"}));
  answer("qzdisk   scandisks  device=sde", 0, {});
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, 0));
  EXPECT_EQ(0, isParent);
  EXPECT_TRUE(wasTraced(2, "Unable to get dmp disk name for os disks."));
  // Each look-up waits for the disk four times.
  EXPECT_EQ(std::vector<unsigned>(8, 10), m_pauses);

  isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, kPersistent));
  EXPECT_EQ(0, isParent);
  EXPECT_TRUE(wasTraced(2, "isParentPgnOptimized - Unable to get dmp disk name for os disks."));
}

// A look-up that succeeds without naming a node answers "not a parent" at
// once: nothing more is asked of the volume manager.
TEST_F(ResourcesTest, IsParentPgnOptimizedWithAnEmptyAnswerAsksNothingMore) {
  answer("qzdmpadm   getdmpnode  nodename=sde", 0,
         out({"NAME  STATE  ENCLR-TYPE  PATHS  ENBL  DSBL  ENCLR-NAME",
              "=============================================================="}));
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(0, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, kPersistent));
  EXPECT_EQ(0, isParent);
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde"}), commands());
  EXPECT_TRUE(wasTraced(2, "isParentPgnOptimized - Unable to get dmp disk name for os disks."));
  EXPECT_TRUE(wasTraced(3, "Skiping device refresh as disks are not newly inported."));
}

TEST_F(ResourcesTest, IsParentPgnOfADiskTheVolumeManagerDoesNotSeeReturns6) {
  dmpNode(m_plain[0]);
  answer("qzdisk   rm " + m_plain[0].node, 0, {});
  answer("qzdisk   scandisks ", 0, {});
  answer("qzdisk   list " + m_plain[0].node, 11, out({"QZVM qzdisk ERROR Q-5-1-101 not seen"}));
  char disk[] = "/dev/sde";
  int isParent = 7;
  EXPECT_EQ(6, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, kPersistent));
  EXPECT_EQ(0, isParent);
  EXPECT_TRUE(wasTraced(2, "Disk failed to come under qzvm database."));
  isParent = 7;
  EXPECT_EQ(6, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, 0));
  EXPECT_EQ(7, isParent);
  EXPECT_TRUE(wasTraced(2, "Disk failed to come in qzvm db."));
}

TEST_F(ResourcesTest, IsParentPgnPassesOnTheStatusOfTheDiskCheck) {
  disksCarryTheGroup();
  const std::string listing = "qzdisk   list " + m_plain[0].node;
  for (int flags : {0, kPersistent}) {
    expect(listing, 0, {});  // seen by the volume manager
    expect(listing, 11, out({"QZVM qzdisk ERROR Q-5-1-101 gone"}));
    char disk[] = "/dev/sde";
    int isParent = 7;
    EXPECT_EQ(1, qzvmfi_fi_pgn_is_parent_pgn(disk, &isParent, flags)) << flags;
  }
  EXPECT_EQ(2u, traced("check disk for qzvm or other lvm.").size());
}

// ===== unformat =====

TEST_F(ResourcesTest, UnformatWithoutDisksReturns3WithOnlineResourcesMessage) {
  TestTextArray disks({"/dev/sde"});
  char* withNull[] = {nullptr};
  EXPECT_EQ(3, qzvmfi_fi_pgn_unformat(nullptr, 1, 0));
  EXPECT_EQ(3, qzvmfi_fi_pgn_unformat(disks.get(), 0, 0));
  EXPECT_EQ(3, qzvmfi_fi_pgn_unformat(withNull, 1, 0));
  EXPECT_EQ(3u, traced("CQzVMPlugin::onlineResource - invalid input.").size());
  EXPECT_TRUE(commands().empty());
}

// Whether the disks carry the volume manager is asked of the first one
// only: all three are deleted.
TEST_F(ResourcesTest, UnformatDeletesEveryDiskWhenTheFirstCarriesTheVolumeManager) {
  disksCarryTheGroup();
  answer("qzdg   destroy " + m_dg, 0, {});
  for (const TestDisk& disk : m_plain) {
    CFiExecSeam::answer("/usr/lib/qzvm/bin/qzdiskunsetup   -C " + disk.node, 0, {});
  }
  TestTextArray disks({"/dev/sde", "/dev/sdf", "/dev/sdg"});
  EXPECT_EQ(0, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), 0));
  Lines unset;
  for (const std::string& line : commands()) {
    if (line.find("qzdiskunsetup") != std::string::npos) {
      unset.push_back(line);
    }
  }
  Lines expected;
  for (const TestDisk& disk : m_plain) {
    expected.push_back("/usr/lib/qzvm/bin/qzdiskunsetup   -C " + disk.node);
  }
  EXPECT_EQ(expected, unset);
  // The first disk is cleaned and asked about once; it is read by that
  // question, once more after the cleaning, and by its deletion, which
  // needs no read of its own before.
  EXPECT_EQ(1u, runsHolding("qzdg   -C  import 17.9.A"));
  EXPECT_EQ(3u, runsHolding("qzdisk   list " + m_plain[0].node));
  EXPECT_EQ(3u, runsHolding("qzdg   destroy " + m_dg));
  EXPECT_EQ(1u, runsHolding("qzdisk   scandisks "));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::unformat - successful."));
}

// Deleting the first disk destroyed the group on all its disks: the others
// lose their private regions and leave the view.
TEST_F(ResourcesTest, UnformatClearsDisksWhoseGroupIsGoneAlready) {
  disksCarryTheGroup();
  answer("qzdg   destroy " + m_dg, 0, {});
  const TestDisk& second = m_plain[1];
  expect("qzdisk   list " + second.node, 0,
         out({"Device:    " + second.node, "type:      auto", "disk:      id=17.3.A",
              "group:     -", "info:      format=cdsdisk"}));
  for (const TestDisk& disk : m_plain) {
    CFiExecSeam::answer("/usr/lib/qzvm/bin/qzdiskunsetup   -C " + disk.node, 0, {});
  }
  TestTextArray disks({"/dev/sde", "/dev/sdf"});
  EXPECT_EQ(0, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
  EXPECT_EQ(1u, runsHolding("qzdg   destroy " + m_dg));
  EXPECT_EQ(1u, runsHolding("qzdiskunsetup   -C " + second.node));
  EXPECT_EQ(qz("qzdisk   rm " + second.node), commands().back());
  EXPECT_TRUE(wasTraced(
      3, "CQzVMPlugin::unformat - disk '" + second.node + "' is in no disk group any more."));
}

// An unformat killed after its group's destroy leaves each disk it had not
// cleared with a private region and no group, the first one too: run again,
// it finds the first disk no QzVM disk and clears every such disk.
TEST_F(ResourcesTest, UnformatRunAgainClearsThePrivateRegionsAStoppedOneLeft) {
  for (const TestDisk& disk : m_plain) {
    dmpNode(disk);
    answer("qzdisk   list " + disk.node, 0,
           out({"Device:    " + disk.node, "type:      auto", "disk:      id=17.3.A",
                "group:     -", "info:      format=cdsdisk"}));
    answer("qzdisk   rm " + disk.node, 0, {});
    CFiExecSeam::answer("/usr/lib/qzvm/bin/qzdiskunsetup   -C " + disk.node, 0, {});
  }
  TestTextArray disks({"/dev/sde", "/dev/sdf"});
  EXPECT_EQ(0, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
  EXPECT_EQ(1u, runsHolding("qzdiskunsetup   -C " + m_plain[0].node));
  EXPECT_EQ(1u, runsHolding("qzdiskunsetup   -C " + m_plain[1].node));
  EXPECT_EQ(1u, runsHolding("qzdisk   rm " + m_plain[1].node));
  EXPECT_EQ(0u, runsHolding("qzdg   destroy"));
}

TEST_F(ResourcesTest, UnformatOfPersistentDisksNeitherWaitsNorRefreshes) {
  disksArePlain();
  TestTextArray disks({"/dev/sde", "/dev/sdf"});
  EXPECT_EQ(0, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
  // Each disk is then asked whether a stopped unformat left it a private
  // region without a group.
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde", "qzdmpadm   getdmpnode  nodename=sdf",
                 "qzdisk   list " + m_plain[0].node, "qzdisk   list " + m_plain[0].node,
                 "qzdisk   list " + m_plain[1].node}),
            commands());
  EXPECT_TRUE(
      wasTraced(3, "Disk is persistently available to the host. Getting DMP node directly."));
  EXPECT_TRUE(wasTraced(3, "Skiping device refresh as disks are not newly imported."));
}

TEST_F(ResourcesTest, UnformatWhoseDisksHaveNoNodeReturns6) {
  answer("qzdmpadm   getdmpnode  nodename=sde", 11, out({"QZVM qzdmpadm ERROR Q-5-1-401 no"}));
  TestTextArray disks({"/dev/sde"});
  EXPECT_EQ(6, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
  EXPECT_TRUE(
      wasTraced(1, "CQzVMPlugin::unformat - getQzVMDiskForOSDiskHandler(_Waited)() failed"));
}

TEST_F(ResourcesTest, UnformatPassesOnTheStatusOfTheDiskCheck) {
  dmpNode(m_plain[0]);
  answer("qzdisk   list " + m_plain[0].node, 11, out({"QZVM qzdisk ERROR Q-5-1-101 gone"}));
  TestTextArray disks({"/dev/sde"});
  EXPECT_EQ(1, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
}

TEST_F(ResourcesTest, UnformatWhoseDiskCannotBeDeletedReturns6) {
  disksCarryTheGroup();
  answer("qzdg   destroy " + m_dg, 0, {});
  CFiExecSeam::answer("/usr/lib/qzvm/bin/qzdiskunsetup   -C " + m_plain[0].node, 13,
                      out({"QZVM qzdiskunsetup ERROR Q-5-1-103 in use"}));
  TestTextArray disks({"/dev/sde"});
  EXPECT_EQ(6, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), kPersistent));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::unformat - deleteQzVMDisk() failed"));
}

// ===== onlineResource =====

TEST_F(ResourcesTest, OnlineResourceWithoutDisksOrOutputsReturns3) {
  TestTextArray disks({"/dev/sde"});
  char* withNull[] = {nullptr};
  TestPaths paths;
  EXPECT_EQ(3, qzvmfi_fi_pgn_online_resource(nullptr, 1, nullptr, nullptr, nullptr, nullptr, 0,
                                             paths.paths(), paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_online_resource(disks.get(), 0, nullptr, nullptr, nullptr, nullptr, 0,
                                             paths.paths(), paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_online_resource(disks.get(), 1, nullptr, nullptr, nullptr, nullptr, 0,
                                             nullptr, paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_online_resource(disks.get(), 1, nullptr, nullptr, nullptr, nullptr, 0,
                                             paths.paths(), nullptr));
  EXPECT_EQ(3, qzvmfi_fi_pgn_online_resource(withNull, 1, nullptr, nullptr, nullptr, nullptr, 0,
                                             paths.paths(), paths.count()));
  EXPECT_EQ(5u, traced("CQzVMPlugin::onlineResource - invalid input.").size());
  EXPECT_TRUE(commands().empty());
}

TEST_F(ResourcesTest, OnlineResourceBringsTheGroupOnTheDisksOnlineAndGivesItsPath) {
  disksCarryTheGroup();
  TestTextArray disks({"/dev/sde", "/dev/sdf"});
  TestPaths paths;
  ASSERT_EQ(0, qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                             nullptr, 0, paths.paths(), paths.count()));
  EXPECT_EQ(Lines{"/dev/qz/dsk/" + m_dg + "/vol1"}, paths.texts());
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde", "qzdmpadm   getdmpnode  nodename=sdf",
                 "qzdisk   list " + m_plain[0].node, "qzdg   list ", "qzdg   list ",
                 "qzprint   -g " + m_dg + "  -v ", "qzinfo   -g " + m_dg + " vol1"}),
            commands());
  EXPECT_TRUE(wasTraced(6, "onlineResource - flags = [0]"));
  EXPECT_TRUE(wasTraced(
      3, "onlineResource - Disk is newly imported to the host. Calling detailed QzVM operations."));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::onlineResource - successful."));
}

TEST_F(ResourcesTest, OnlineResourceOfPersistentDisksTakesTheShortcut) {
  disksCarryTheGroup();
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  ASSERT_EQ(0, qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                             nullptr, kPersistent, paths.paths(), paths.count()));
  EXPECT_EQ(Lines{"/dev/qz/dsk/" + m_dg + "/vol1"}, paths.texts());
  EXPECT_TRUE(wasTraced(3,
                        "onlineResource - Disk is persistently available to the host. Calling "
                        "optimized QzVM operations."));
  EXPECT_TRUE(wasTraced(3, "onlineResourceOptimized - successful."));
  EXPECT_TRUE(enteredScope("onlineResourceOptimized"));
  EXPECT_TRUE(enteredScope("allocBuffer"));
}

TEST_F(ResourcesTest, OnlineResourceWhoseShortcutFindsNoDeviceFailsWithoutTheDetailedPath) {
  answer("qzdmpadm   getdmpnode  nodename=sde", 11, out({"QZVM qzdmpadm ERROR Q-5-1-401 no"}));
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  EXPECT_EQ(6, qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                             nullptr, kPersistent, paths.paths(), paths.count()));
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde"}), commands());
  EXPECT_TRUE(m_pauses.empty());
  EXPECT_TRUE(wasTraced(1, "onlineResourceOptimized - unable to get dmp disk name for os disks."));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::onlineResource - Optimized onlining of stack failed."));
  EXPECT_TRUE(paths.texts().empty());
}

// A shortcut that succeeds without a device: the plug-in's own operation
// replaced.
class NoDeviceShortcut : public CQzVMPlugin {
 public:
  int onlineResourceOptimized(std::vector<std::string>, std::vector<std::string>&) override {
    return 0;
  }
};

TEST_F(ResourcesTest, OnlineResourceWhoseShortcutGivesNoDeviceFails) {
  qzfi_pdk_4_4::CFiSmartPtr<NoDeviceShortcut> shortcut(new NoDeviceShortcut());
  shortcut->registerTraceLog(qzvmfi_ctx::TraceLog::instance());
  char disk[] = "/dev/sde";
  char* disks[] = {disk, nullptr};
  TestPaths paths;
  EXPECT_EQ(6, shortcut->onlineResource(disks, 1, nullptr, nullptr, nullptr, nullptr, kPersistent,
                                        paths.paths(), paths.count()));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::onlineResource - Optimized onlining of stack did not return "
                        "any valid device."));
}

TEST_F(ResourcesTest, OnlineResourceOptimizedFailuresAreTraced) {
  std::vector<std::string> paths;
  dmpNode(m_plain[0]);
  const std::string listing = "qzdisk   list " + m_plain[0].node;
  answer(listing, 11, out({"QZVM qzdisk ERROR Q-5-1-101 gone"}));
  EXPECT_EQ(6, plugin().onlineResourceOptimized({"sde"}, paths));
  EXPECT_TRUE(
      wasTraced(1, "onlineResourceOptimized - unable to find qzvm dg and volume from given disk."));
  // The failed listing is reported by the runner; the shortcut adds nothing.
  EXPECT_EQ(run({"qzdmpadm   getdmpnode  nodename=sde", listing}), commands());
  const auto failed = pushed();
  ASSERT_EQ(1u, failed.size());
  EXPECT_EQ("MSG_ERROR_COMMAND_FAILED", failed[0].id);
  EXPECT_EQ((Lines{"executeCommand", qz(listing)}),
            Lines(failed[0].args.begin(), failed[0].args.begin() + 2));
  qzvmfi_ctx::ErrorManager::instance()->clear();

  disksCarryTheGroup();
  answer("qzinfo   -g " + m_dg + " vol1", 0, out({"vol1  fsgen  Startable"}));
  answer("qzvol   -g " + m_dg + " start vol1", 15, out({"QZVM qzvol ERROR Q-5-1-305 no plex"}));
  EXPECT_EQ(6, plugin().onlineResourceOptimized({"sde"}, paths));
  EXPECT_TRUE(wasTraced(1, "onlineResourceOptimized - unable to start qzvm dg '" + m_dg + "'."));
  EXPECT_TRUE(paths.empty());
  ASSERT_FALSE(pushed().empty());
  EXPECT_EQ("MSG_ERROR_COMMAND_FAILED", pushed().back().id);
  EXPECT_EQ(qz("qzvol   -g " + m_dg + " start vol1"), pushed().back().args[1]);
  qzvmfi_ctx::ErrorManager::instance()->clear();

  // A command-layer exception is traced and posts nothing; the others post
  // their message under the operation's name.
  toolsThrow([] { throw CQzVMCliException("stopped"); });
  EXPECT_EQ(6, plugin().onlineResourceOptimized({"sde"}, paths));
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMPlugin::onlineResourceOptimized - Exception occured in "
                        "onlineResourceOptimized."));
  EXPECT_TRUE(pushed().empty());
  toolsThrow([] { throw std::runtime_error("lost"); });
  EXPECT_EQ(6, plugin().onlineResourceOptimized({"sde"}, paths));
  const auto thrown = pushed();
  ASSERT_EQ(1u, thrown.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", thrown[0].id);
  EXPECT_EQ((Lines{"std::runtime_error", "lost", "onlineResourceOptimized"}),
            Lines(thrown[0].args.begin(), thrown[0].args.begin() + 3));
}

TEST_F(ResourcesTest, OnlineResourceDetailedFailuresAreTraced) {
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  const auto online = [&] {
    return qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                         nullptr, 0, paths.paths(), paths.count());
  };
  answer("qzdmpadm   getdmpnode  nodename=sde", 11, out({"QZVM qzdmpadm ERROR Q-5-1-401 no"}));
  answer("qzdisk   scandisks  device=sde", 0, {});
  EXPECT_EQ(6, online());
  EXPECT_TRUE(
      wasTraced(1, "CQzVMEngine::onlineResource - unable to get dmp disk name for os disks."));

  dmpNode(m_plain[0]);
  answer("qzdisk   list " + m_plain[0].node, 11, out({"QZVM qzdisk ERROR Q-5-1-101 gone"}));
  EXPECT_EQ(6, online());
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMEngine::onlineResource - unable to recreate qzvm dg and volume from "
                        "given disk."));

  disksCarryTheGroup();
  answer("qzinfo   -g " + m_dg + " vol1", 0, out({"vol1  fsgen  Startable"}));
  answer("qzvol   -g " + m_dg + " start vol1", 15, out({"QZVM qzvol ERROR Q-5-1-305 no plex"}));
  EXPECT_EQ(6, online());
  EXPECT_TRUE(
      wasTraced(1, "CQzVMEngine::onlineResource - unable to start qzvm dg '" + m_dg + "'."));
  EXPECT_TRUE(paths.texts().empty());
  EXPECT_FALSE(wasTraced(1, "CQzVMPlugin::onlineResource - failed."));
}

TEST_F(ResourcesTest, OnlineResourceAfterAnExceptionTracesItsFailure) {
  toolsThrow([] { throw std::runtime_error("lost"); });
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  EXPECT_EQ(6, qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                             nullptr, 0, paths.paths(), paths.count()));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::onlineResource - failed."));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("onlineResource", pushed()[0].args[2]);
}

// ===== format =====

class FormatTest : public ResourcesTest {
 protected:
  // The tools as a fresh group and volume on plain disks meet them; every
  // other line of the group's making succeeds without output.
  void toolsMakeGroups(const Lines& groups) {
    disksArePlain();
    Lines rows = out({"NAME  STATE  ID"});
    for (const std::string& group : groups) {
      rows.push_back(group + "  enabled  17.1.A\n");
    }
    answer("qzdg   list ", 0, rows);
    CFiExecSeam::setResponder([](const std::string& command, CFiExecSeam::Answer& answer) {
      answer.status = 0;
      answer.output.clear();
      if (command.find("maxsize") != std::string::npos) {
        answer.output.push_back("204800\n");
      }
      return command.find("qzdg   init ") != std::string::npos ||
             command.find("adddisk") != std::string::npos ||
             command.find("qzassist") != std::string::npos ||
             command.find("parted") != std::string::npos ||
             command.find("qzdisksetup") != std::string::npos;
    });
  }

  int format(TestTextArray& disks, char* name, char* options, int flags, TestPaths& paths) {
    return qzvmfi_fi_pgn_format(disks.get(), disks.count(), name, nullptr, options, flags,
                                paths.paths(), paths.count());
  }

  // "/dev/sde" made a volume "data" of the test's group.
  int formatData() {
    TestTextArray disks({"/dev/sde"});
    TestPaths paths;
    char name[] = "data";
    std::string options = "diskGroup=" + m_dg;
    return format(disks, name, &options[0], 0x1, paths);
  }
};

TEST_F(FormatTest, FormatWithoutNamesMakesAGroupOfItsOwnWithTheDefaultVolume) {
  toolsMakeGroups({});
  TestTextArray disks({"/dev/sde", "/dev/sdf"});
  TestPaths paths;
  ASSERT_EQ(0, format(disks, nullptr, nullptr, 0x1, paths));
  ASSERT_EQ(1u, paths.texts().size());
  const std::string made = paths.texts()[0];
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(
      made, parts,
      std::regex("/dev/qz/dsk/(tpu_f[^/]*_" + std::to_string(getpid()) + ")/ssod_vol")))
      << made;
  const std::string dg = parts[1];
  EXPECT_EQ(1u, runsHolding("qzdg   init " + dg + " " + m_plain[0].node));
  EXPECT_EQ(1u, runsHolding("qzdg   -g " + dg + " adddisk " + m_plain[1].node));
  EXPECT_EQ(1u, runsHolding("qzassist  -g " + dg + "  make  ssod_vol 204800"));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMPlugin::format diskgroup name not specified. creating own dgName."));
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::format - successful."));
  EXPECT_TRUE(enteredScope("createPathAndAllocBuffer"));
}

TEST_F(FormatTest, FormatWithAGroupOptionAndANameUsesThem) {
  toolsMakeGroups({m_dg});
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  char name[] = "data";
  std::string options = "diskGroup=" + m_dg + "new";
  ASSERT_EQ(0, format(disks, name, &options[0], 0x1, paths));
  EXPECT_EQ(Lines{"/dev/qz/dsk/" + m_dg + "new/data"}, paths.texts());
  EXPECT_EQ(1u, runsHolding("qzassist  -g " + m_dg + "new  make  data 204800"));
}

TEST_F(FormatTest, FormatWithAGroupNameInUseFailsAndMakesNothing) {
  toolsMakeGroups({m_dg});
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  std::string options = "diskGroup=" + m_dg;
  EXPECT_EQ(6, format(disks, nullptr, &options[0], 0x1, paths));
  // The group is not one that a stopped format left on these disks.
  EXPECT_EQ(run({"qzdg   list ", "qzdisk   -g " + m_dg + "  list "}), commands());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - unable to get unique dg name."));
  EXPECT_TRUE(paths.texts().empty());
}

TEST_F(FormatTest, FormatWhoseGroupCannotBeMadeReturns6) {
  toolsMakeGroups({});
  CFiExecSeam::setResponder([](const std::string& command, CFiExecSeam::Answer& answer) {
    answer.status = command.find("qzdg   init") != std::string::npos ? 12 : 0;
    answer.output.clear();
    return true;
  });
  EXPECT_EQ(6, formatData());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - unable to create fresh dg '" + m_dg +
                               "' and volume 'data' on disks."));
}

// The group made for the volume holds nothing yet when the volume cannot
// be made: it is destroyed, and the disks are free for the next attempt.
TEST_F(FormatTest, FormatWhoseVolumeCannotBeMadeDestroysTheNewGroup) {
  toolsMakeGroups({});
  CFiExecSeam::setResponder([](const std::string& command, CFiExecSeam::Answer& answer) {
    answer.status = command.find(" make ") != std::string::npos ? 14 : 0;
    answer.output.clear();
    if (command.find("maxsize") != std::string::npos) {
      answer.output.push_back("204800\n");
    }
    return true;
  });
  EXPECT_EQ(6, formatData());
  const Lines runs = commands();
  ASSERT_GE(runs.size(), 2u);
  EXPECT_EQ((Lines{qz("qzdg   list " + m_dg), qz("qzdg   destroy " + m_dg)}),
            Lines(runs.end() - 2, runs.end()));
}

TEST_F(FormatTest, FormatWith2BringsTheExistingVolumeOnline) {
  disksCarryTheGroup();
  groupDisks(m_dg, m_plain);
  for (const TestDisk& disk : m_plain) {
    subpaths(disk);
  }
  TestTextArray disks({"/dev/sde", "/dev/sdf", "/dev/sdg"});
  TestPaths paths;
  char name[] = "vol1";
  std::string options = "diskGroup=" + m_dg;
  ASSERT_EQ(0, format(disks, name, &options[0], 0x2, paths));
  EXPECT_EQ(Lines{"/dev/qz/dsk/" + m_dg + "/vol1"}, paths.texts());

  // Disks that are not the volume's.
  TestTextArray other({"/dev/sde"});
  EXPECT_EQ(6, format(other, name, &options[0], 0x2, paths));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - unable to bring dg '" + m_dg +
                               "' and volume 'vol1' online on disks."));
}

TEST_F(FormatTest, FormatWithoutDisksOrOutputsReturns3) {
  TestTextArray disks({"/dev/sde"});
  char* withNull[] = {nullptr};
  TestPaths paths;
  EXPECT_EQ(3, qzvmfi_fi_pgn_format(nullptr, 1, nullptr, nullptr, nullptr, 1, paths.paths(),
                                    paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_format(disks.get(), 0, nullptr, nullptr, nullptr, 1, paths.paths(),
                                    paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_format(disks.get(), 1, nullptr, nullptr, nullptr, 1, nullptr,
                                    paths.count()));
  EXPECT_EQ(3, qzvmfi_fi_pgn_format(disks.get(), 1, nullptr, nullptr, nullptr, 1, paths.paths(),
                                    nullptr));
  EXPECT_EQ(4u, traced("CQzVMPlugin::format - invalid inputs.").size());
  EXPECT_EQ(3, qzvmfi_fi_pgn_format(withNull, 1, nullptr, nullptr, nullptr, 1, paths.paths(),
                                    paths.count()));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - invalid input."));
  EXPECT_TRUE(commands().empty());
}

// Option text that cannot be read is refused, not taken for no options:
// no group is made under a name of the plug-in's choosing.
TEST_F(FormatTest, FormatWithUnreadableOptionsReturns3AndNamesThem) {
  toolsMakeGroups({});
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  char options[] = "=";
  EXPECT_EQ(3, format(disks, nullptr, options, 0x1, paths));
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(paths.texts().empty());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - unable to read the format options '='."));
  EXPECT_EQ((std::vector<qzvmfi_test::Pushed>{
                {"MSG_ERROR_INVALID_FORMAT_OPTIONS", "../plugin", {"format", "="}}}),
            pushed());
  EXPECT_EQ(std::vector<int>{3}, severities());
}

// Asked to do nothing, format has no volume to name.
TEST_F(FormatTest, FormatWithoutAFlagHasNoPathToGive) {
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  EXPECT_EQ(6, format(disks, nullptr, nullptr, 0, paths));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - unable to create path for dg '' and volume ''."));
  EXPECT_TRUE(commands().empty());
}

TEST_F(FormatTest, FormatAfterAnExceptionTracesItsFailure) {
  toolsThrow([] { throw std::runtime_error("lost"); });
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  EXPECT_EQ(6, format(disks, nullptr, nullptr, 0x1, paths));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::format - failed."));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("format", pushed()[0].args[2]);
}

// ===== the exception kinds of each operation =====

TEST_F(ResourcesTest, OnlineResourceCatchesEveryExceptionKind) {
  TestTextArray disks({"/dev/sde"});
  TestPaths paths;
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    EXPECT_EQ(6, qzvmfi_fi_pgn_online_resource(disks.get(), disks.count(), nullptr, nullptr,
                                               nullptr, nullptr, 0, paths.paths(), paths.count()));
    EXPECT_EQ(reportedFor(kind, "onlineResource", "../plugin"), caughtMessages(pushed()));
  });
}

TEST_F(ResourcesTest, OnlineResourceOptimizedCatchesEveryExceptionKind) {
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    std::vector<std::string> paths;
    EXPECT_EQ(6, plugin().onlineResourceOptimized({"sde"}, paths));
    EXPECT_EQ(reportedFor(kind, "onlineResourceOptimized", "../plugin"), caughtMessages(pushed()));
  });
}

TEST_F(ResourcesTest, UnformatCatchesEveryExceptionKind) {
  TestTextArray disks({"/dev/sde"});
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    EXPECT_EQ(6, qzvmfi_fi_pgn_unformat(disks.get(), disks.count(), 0));
    EXPECT_EQ(reportedFor(kind, "unformat", "../plugin"), caughtMessages(pushed()));
  });
}

TEST_F(FormatTest, FormatCatchesEveryExceptionKind) {
  TestTextArray disks({"/dev/sde"});
  forEachExceptionKind([&](const ExceptionKind& kind) {
    toolsThrow(kind.raise);
    TestPaths paths;
    EXPECT_EQ(6, format(disks, nullptr, nullptr, 0x1, paths));
    EXPECT_EQ(reportedFor(kind, "format", "../plugin"), caughtMessages(pushed()));
  });
}

}  // namespace

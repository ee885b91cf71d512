// A group listing that fails with another status than "not found" (11)
// leaves the group taken for present: each operation that asks then runs the
// real command or fails in the open, and never reports a step it skipped as
// done.
#include <gtest/gtest.h>

#include "exports_env.h"

namespace {

using qzvmfi_test::Lines;
using qzvmfi_test::OperationsTest;
using qzvmfi_test::out;
using qzvmfi_test::Pushed;
using qzvmfi_test::TestDisk;
using qzvmfi_test::TestNode;
using qzvmfi_test::TestNodeList;
using qzvmfi_test::TestObjids;

const int kListingLost = 20;

class DGPresenceTest : public OperationsTest {
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

  // The listing of group dg fails, neither saying the group is there nor
  // that it is not.
  static void listingFails(const std::string& dg) {
    answer("qzdg   list " + dg, kListingLost,
           out({"QZVM qzdg ERROR Q-5-1-99 lost the configuration daemon"}));
  }
  // Command lines run that hold part.
  static size_t runsHolding(const std::string& part) {
    size_t count = 0;
    for (const std::string& line : commands()) {
      count += line.find(part) != std::string::npos ? 1 : 0;
    }
    return count;
  }

  // A copy of the source's group, as the copy's node records it.
  std::string copyDG() const { return m_dg + "_1"; }
  std::string copyPath() const { return "/dev/qz/dsk/" + copyDG() + "/vol1"; }
  void withCopyRecorded() {
    ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_dgid 17.9.C\nfiid_uigid 1234 5678"));
    m_copy = std::make_unique<TestNode>(copyPath());
    ASSERT_EQ(0, restoreState(&m_copy->domain, diskRecords() + "fiid_uigid 1234 5678"));
  }

  std::unique_ptr<TestNode> m_node;
  std::unique_ptr<TestNode> m_copy;
  const std::vector<TestDisk> m_copies = {{"qzarr" + m_number + "_3", "sde", ""},
                                          {"qzarr" + m_number + "_4", "sdf", ""},
                                          {"qzarr" + m_number + "_5", "sdg", ""}};
};

// ===== disableAccess =====

// A node without recorded disks has its group deported: the deport runs,
// and its failure is disableAccess's.
TEST_F(DGPresenceTest, DisableAccessOfANodeWithoutDisksRunsTheDeportWhenTheListingFails) {
  ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_uigid 1234 5678"));
  listingFails(m_dg);
  answer("qzdg   deport " + m_dg, kListingLost, out({"QZVM qzdg ERROR Q-5-1-99 lost"}));
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_EQ(run({"qzdg   list " + m_dg, "qzdg   deport " + m_dg}), commands());
  EXPECT_FALSE(wasTraced(3, "dg '" + m_dg + "' is already deported."));
  ASSERT_FALSE(pushed().empty());
  EXPECT_EQ((Pushed{"MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", "../plugin", {"disableAccess", m_path}}),
            pushed().back());
}

TEST_F(DGPresenceTest, DisableAccessOfANodeWithoutDisksDeportsTheGroupWhenTheListingFails) {
  ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_uigid 1234 5678"));
  listingFails(m_dg);
  answer("qzdg   deport " + m_dg, 0, {});
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(0, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_EQ(1u, runsHolding("qzdg   deport " + m_dg));
}

// A copy's node: the evidence that the group is the copy cannot be read,
// and nothing is changed.
TEST_F(DGPresenceTest, DisableAccessOfACopyFailsWithNothingChangedWhenTheListingFails) {
  withCopyRecorded();
  listingFails(copyDG());
  TestNodeList list;
  list.add(&m_copy->domain);
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0));
  EXPECT_EQ(0u, runsHolding("qzdg   deport"));
  EXPECT_EQ(0u, runsHolding("qzdisk   rm"));
  EXPECT_EQ(0u, runsHolding("qzvol"));
}

// The optimized path stops the volume, then deports a group it cannot see
// to be gone: the deport runs, and its failure is reported.
TEST_F(DGPresenceTest, DisableAccessOptimizedRunsTheDeportWhenTheListingFails) {
  ASSERT_EQ(0, restoreState(node(), diskRecords() + "fiid_dgconfig " + m_dg + " 1\ndg " + m_dg +
                                        "\nfiid_uigid 1234 5678"));
  listingFails(m_dg);
  answer("qzvol   -g " + m_dg + " stop vol1", 0, {});
  answer("qzdg   deport " + m_dg, kListingLost, out({"QZVM qzdg ERROR Q-5-1-99 lost"}));
  TestNodeList list;
  list.add(node());
  EXPECT_EQ(6, qzvmfi_fi_pgn_disable_access(list.get(), 0x8400));
  EXPECT_EQ(1u, runsHolding("qzdg   deport " + m_dg));
  EXPECT_FALSE(wasTraced(3, "diskgroup [" + m_dg + "] is already deported."));
  ASSERT_FALSE(pushed().empty());
  EXPECT_EQ("MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP", pushed().back().id);
}

// ===== dispose =====

// The copy's group may still stand: it is not taken for removed already,
// the evidence cannot be read, and nothing is destroyed.
TEST_F(DGPresenceTest, DisposeFailsWithNothingDestroyedWhenTheListingFails) {
  withCopyRecorded();
  listingFails(copyDG());
  qfi_splitnode target{&m_copy->domain, m_copy->objid(), nullptr, 1, 0};
  EXPECT_EQ(6, qzvmfi_fi_pgn_dispose(node(), node(), &target, QFI_DISP_DELETE));
  EXPECT_FALSE(wasTraced(3, " snapshot dg of '" + copyPath() + "' is already removed."));
  EXPECT_EQ(0u, runsHolding("qzdg   destroy"));
  EXPECT_EQ(0u, runsHolding("qzdisk   rm"));
}

// ===== deportAndDestroyDG (initAltNode's clean-up) =====

// The group is deported and destroyed for real; their failures are the
// clean-up's.
TEST_F(DGPresenceTest, DeportAndDestroyRunsTheDeportWhenTheListingFails) {
  listingFails(m_dg);
  groupDisks(m_dg, m_disks);
  answer("qzdg   deport " + m_dg, kListingLost, out({"QZVM qzdg ERROR Q-5-1-99 lost"}));
  EXPECT_EQ(6, plugin().deportAndDestroyDG(node()));
  EXPECT_EQ(
      run({"qzdg   list " + m_dg, "qzdisk   -g " + m_dg + "  list ", "qzdg   deport " + m_dg}),
      commands());
}

// ===== the engine's clean-up of a stopped build =====

// The split disks carry a group that a build of this record made (each disk
// initialised anew under its primary's disk-media name). Its listing, and
// the listing of all groups, fail: the group may stand, and may be the
// copy. The build does not go on over it as if it had been cleaned away:
// it fails, with no disk or group changed.
TEST_F(DGPresenceTest, ABuildOverAGroupItCannotListFailsWithNothingChanged) {
  ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_altvol " + m_path + "\nfiid_dgid 17.9.A\n" +
                                        diskRecords() + "fiid_uigid 1234 5678"));
  const std::string left = m_dg + "_7";
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 0, {});
  for (size_t i = 0; i < m_copies.size(); ++i) {
    TestDisk built = m_copies[i];
    built.dm = m_disks[i].dm;
    dmpNode(built);
    subpaths(built);
    Lines listing = diskListing(built, left, "17.2.C");
    listing[2] = "disk:      name=" + built.dm + " id=17.2.C" + std::to_string(i) + "\n";
    answer("qzdisk   list " + built.node, 0, listing);
  }
  answer("qzdg   list ", kListingLost, out({"QZVM qzdg ERROR Q-5-1-99 lost"}));
  listingFails(left);
  TestObjids primary({"/dev/sdb", "/dev/sdc", "/dev/sdd"});
  TestObjids secondary({"/dev/sde", "/dev/sdf", "/dev/sdg"});
  qzfi_objid* made = nullptr;
  EXPECT_EQ(6, qzvmfi_fi_pgn_import_tree(node(), primary.get(), secondary.get(), 3, &made));
  EXPECT_FALSE(pushed().empty());
  EXPECT_EQ(nullptr, made);
  qzfi_free_objid(made);
  for (const char* change :
       {"qzdg   deport", "qzdg   destroy", "qzdg   init", "adddisk", "qzdisk   init", "qzdisksetup",
        "qzdiskunsetup", "qzdisk   rm", "qzmake", "import"}) {
    EXPECT_EQ(0u, runsHolding(change)) << change;
  }
}

}  // namespace

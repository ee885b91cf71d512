// Points where the plug-in settles what the framework and the engine need:
// the object ids it hands the framework stay the framework's, and an import
// of a node that names no deported object builds the node's own volume.
#include <gtest/gtest.h>

#include "exports_env.h"

namespace {

using qzvmfi_test::OperationsTest;
using qzvmfi_test::out;
using qzvmfi_test::TestNode;
using qzvmfi_test::TestObjids;

class DeparturesTest : public OperationsTest {
 protected:
  void SetUp() override {
    OperationsTest::SetUp();
    m_node = std::make_unique<TestNode>(m_path);
  }

  void TearDown() override {
    m_node.reset();
    OperationsTest::TearDown();
  }

  qfi_domain* node() { return &m_node->domain; }

  std::unique_ptr<TestNode> m_node;
};

// A node kept across operations is deported twice: the second id replaces
// the first in the access record, and the first, which the framework may
// still hold, is left whole for the framework to free.
TEST_F(DeparturesTest, DeportTreeLeavesTheEarlierObjectIdToTheFramework) {
  ASSERT_EQ(0, restoreState(node(), diskRecords() + "fiid_uigid 1234 5678"));
  groupRecords(m_dg, m_disks);
  qfi_accessnode access{node(), m_node->objid(), QFI_DISP_NONE, 0};
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  qzfi_objid* first = m_node->access.objid;
  ASSERT_NE(nullptr, first);
  ASSERT_EQ(0, qzvmfi_fi_pgn_deport_tree(node(), nullptr, &access));
  ASSERT_NE(nullptr, m_node->access.objid);
  EXPECT_NE(first, m_node->access.objid);
  // The framework's copy is still readable, and the framework frees it.
  EXPECT_STREQ(m_path.c_str(), first->name);
  EXPECT_EQ(3, first->kind);
  qzfi_free_objid(first);
}

// Without a deported-object name the rebuild is of the node's own volume:
// the engine takes the volume's name from that path (an empty path names no
// volume to start and hand back).
TEST_F(DeparturesTest, ImportTreeNodeWithoutADeportedObjectBuildsTheNodesOwnVolume) {
  answer("qzdg   list ", 0, out({"NAME  STATE  ID", m_dg + "  enabled,cds  17.9.A"}));
  ASSERT_EQ(0, restoreState(node(), "fiid_v vol1\nfiid_dgid 17.9.A\n" + diskRecords() +
                                        "fiid_uigid 1234 5678"));
  answer("qzdisk   scandisks  device=sde,sdf,sdg", 1, out({"QZVM qzdisk ERROR Q-5-1-1 no"}));
  TestObjids primary({"/dev/sdb", "/dev/sdc", "/dev/sdd"});
  TestObjids secondary({"/dev/sde", "/dev/sdf", "/dev/sdg"});
  qzfi_objid* made = nullptr;
  EXPECT_EQ(6, qzvmfi_fi_pgn_import_tree(node(), primary.get(), secondary.get(), 3, &made));
  qzfi_free_objid(made);
  EXPECT_TRUE(enteredScope("buildAltTree"));
  EXPECT_TRUE(wasTraced(
      6, "CQzVMSupport::extractDGAndVol DBG - Extracted DG = [" + m_dg + "] Volume = [vol1]"));
  EXPECT_FALSE(wasTraced(1, "CQzVMSupport::extractDGAndVol ERROR - invalid volume path []"));
}

}  // namespace

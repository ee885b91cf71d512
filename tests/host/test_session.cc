// Snapshot sessions and their manager.
#include <gtest/gtest.h>
#include <qzfi/session.h>

#include <string>

using namespace qzfi_pdk_4_4;

namespace {

qzfi_objid objid(std::string& name) {
  return qzfi_objid{name.data(), QZFI_OBJID_SUBOBJ, static_cast<int32_t>(name.size() + 1)};
}

void freeIds(qzfi_objid** ids, int count) {
  for (int i = 0; i < count; ++i) {
    qzfi_free_objid(ids[i]);
  }
  qzfi_free_buf(ids, count * sizeof(qzfi_objid*));
}

TEST(SessionManager, KeepsOneSessionUntilItEnds) {
  CFiSessionManager manager;
  CFiSessionPtr first = manager.getSession();
  ASSERT_TRUE(first);
  EXPECT_FALSE(first->getId().empty());
  EXPECT_EQ(first, manager.getSession());

  manager.endSession();
  CFiSessionPtr second = manager.getSession();
  EXPECT_NE(first, second);
  EXPECT_NE(first->getId(), second->getId());
}

TEST(Session, AddNodesSkipsNullEntries) {
  CFiSession session("s1");
  EXPECT_EQ("s1", session.getId());
  qfi_splitnode a{};
  qfi_splitnode b{};
  qfi_splitnode* nodes[] = {&a, nullptr, &b};
  session.addNodes(nodes, 3);
  session.addNodes(nullptr, 5);
  ASSERT_EQ(2u, session.nodes().size());
  EXPECT_EQ(&a, session.nodes()[0]);
  EXPECT_EQ(&b, session.nodes()[1]);
}

TEST(Session, ExportsOneSnapshotIdentityPerSplitNode) {
  std::string splitName = "/dev/qz/dsk/snapdg/vol";
  std::string nodeName = "/dev/qz/dsk/dg/vol2";
  qzfi_objid splitId = objid(splitName);
  qzfi_objid nodeId = objid(nodeName);
  qfi_domain domain{};
  domain.objid = &nodeId;
  qfi_splitnode withObject{};
  withObject.objid = &splitId;
  qfi_splitnode withNode{};
  withNode.node = &domain;
  qfi_splitnode* nodes[] = {&withObject, &withNode};

  CFiSession session;
  qzfi_objid** ids = nullptr;
  int count = -1;
  ASSERT_EQ(0, session.exportSnapshotList(nodes, 2, &ids, &count));
  ASSERT_EQ(2, count);
  EXPECT_STREQ(splitName.c_str(), ids[0]->name);
  EXPECT_EQ(QZFI_OBJID_SNAPSHOT, ids[0]->kind);
  EXPECT_EQ(static_cast<int32_t>(splitName.size() + 1), ids[0]->len);
  EXPECT_STREQ(nodeName.c_str(), ids[1]->name);
  EXPECT_NE(splitId.name, ids[0]->name);
  freeIds(ids, count);
}

TEST(Session, ExportOfNoNodesIsEmpty) {
  CFiSession session;
  qzfi_objid** ids = reinterpret_cast<qzfi_objid**>(&session);
  int count = 9;
  EXPECT_EQ(0, session.exportSnapshotList(nullptr, 0, &ids, &count));
  EXPECT_EQ(nullptr, ids);
  EXPECT_EQ(0, count);
}

TEST(Session, ExportFailsWithoutANameAndKeepsNothing) {
  std::string name = "/dev/qz/dsk/dg/vol";
  qzfi_objid id = objid(name);
  qfi_splitnode named{};
  named.objid = &id;
  qfi_splitnode nameless{};
  qfi_splitnode* nodes[] = {&named, &nameless};

  CFiSession session;
  qzfi_objid** ids = nullptr;
  int count = 0;
  EXPECT_EQ(QFI_E_NOOBJID, session.exportSnapshotList(nodes, 2, &ids, &count));
  EXPECT_EQ(nullptr, ids);
  EXPECT_EQ(0, count);
}

TEST(Session, ExportRejectsMissingOutputs) {
  CFiSession session;
  qzfi_objid** ids = nullptr;
  int count = 0;
  EXPECT_EQ(3, session.exportSnapshotList(nullptr, 0, nullptr, &count));
  EXPECT_EQ(3, session.exportSnapshotList(nullptr, 0, &ids, nullptr));
  EXPECT_EQ(3, session.exportSnapshotList(nullptr, 1, &ids, &count));
}

}  // namespace

// The framework's records that qzfi hands to a plug-in.
#include "nodes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using qzfi_host::CNode;
using qzfi_host::CNodeSubobjList;
using qzfi_host::CObjidList;
using qzfi_host::CPluginLibrary;
using qzfi_host::CTextArray;
using qzfi_host::rawDevicePath;

// A library that is never loaded: records only.
CPluginLibrary& unloaded() {
  static CPluginLibrary library("/nowhere/libnone.so");
  return library;
}

TEST(Nodes, ANodeNamesItsObjectAndStartsWithoutAccess) {
  CNode node(unloaded(), "/dev/qz/dsk/dg1/vol1");
  qfi_domain* domain = node.domain();
  ASSERT_NE(domain->objid, nullptr);
  EXPECT_STREQ(domain->objid->name, "/dev/qz/dsk/dg1/vol1");
  EXPECT_EQ(domain->objid->len, 21);
  EXPECT_EQ(domain->objid->kind, QZFI_OBJID_SUBOBJ);
  ASSERT_NE(domain->access, nullptr);
  EXPECT_EQ(domain->access->type, QFI_ACCESS_NONE);
  EXPECT_EQ(domain->pvt, nullptr);
  EXPECT_EQ(domain->related, nullptr);
  EXPECT_EQ(node.accessObject(), "");
}

TEST(Nodes, TheObjectIdAPluginLeavesInTheAccessRecordIsReadAndFreed) {
  CNode node(unloaded(), "/dev/qz/dsk/dg1/vol1");
  node.domain()->access->objid = qzfi_get_objid("/dev/qz/dsk/dg1/vol1", 21, QZFI_OBJID_SUBOBJ);
  EXPECT_EQ(node.accessObject(), "/dev/qz/dsk/dg1/vol1");
}

// A node kept across operations is deported twice: the plug-in leaves the
// first id to the host, which frees it once the second has replaced it (the
// sanitizer build's leak check fails otherwise), and the last with the node.
TEST(Nodes, AnObjectIdReplacedInTheAccessRecordIsFreedByTheHost) {
  CNode node(unloaded(), "/dev/qz/dsk/dg1/vol1");
  node.domain()->access->objid = qzfi_get_objid("/dev/qz/dsk/dg1/vol1", 21, QZFI_OBJID_SUBOBJ);
  qfi_domain* again = node.domain();
  again->access->objid = qzfi_get_objid("/dev/qz/dsk/dg1_7/vol1", 23, QZFI_OBJID_SUBOBJ);
  EXPECT_EQ(node.accessObject(), "/dev/qz/dsk/dg1_7/vol1");
  node.domain();
  EXPECT_EQ(node.accessObject(), "/dev/qz/dsk/dg1_7/vol1");
}

TEST(Nodes, ObjectIdListsEndWithANullEntry) {
  CObjidList list({"/dev/sdb", "/dev/sdd"});
  EXPECT_EQ(list.count(), 2);
  qzfi_objid** ids = list.get();
  EXPECT_STREQ(ids[0]->name, "/dev/sdb");
  EXPECT_STREQ(ids[1]->name, "/dev/sdd");
  EXPECT_EQ(ids[2], nullptr);
  CObjidList empty({});
  EXPECT_EQ(empty.count(), 0);
  EXPECT_EQ(empty.get()[0], nullptr);
}

TEST(Nodes, ANodeSubobjectListHoldsOneEntry) {
  CNode node(unloaded(), "/dev/qz/dsk/dg1/vol1");
  CNodeSubobjList list(node, {"/dev/sdb", "/dev/sdd"});
  qfi_node_subobj_list* entry = list.get();
  EXPECT_EQ(entry->node, node.domain());
  EXPECT_EQ(entry->nsubobjs, 2);
  EXPECT_STREQ(entry->subobjs[1]->name, "/dev/sdd");
  EXPECT_EQ(entry->next, nullptr);
}

TEST(Nodes, TextArraysAreWritableAndNullTerminated) {
  CTextArray texts({"/dev/sdb", "/dev/sdc"});
  EXPECT_EQ(texts.count(), 2);
  EXPECT_STREQ(texts.get()[1], "/dev/sdc");
  EXPECT_EQ(texts.get()[2], nullptr);
}

TEST(Nodes, TheRawPathOfABlockPath) {
  EXPECT_EQ(rawDevicePath("/dev/qz/dsk/dg1_1/vol1"), "/dev/qz/rdsk/dg1_1/vol1");
  EXPECT_EQ(rawDevicePath("/dev/qz/rdsk/dg1/vol1"), "/dev/qz/rdsk/dg1/vol1");
  EXPECT_EQ(rawDevicePath("/dev/sdb"), "/dev/sdb");
}

}  // namespace

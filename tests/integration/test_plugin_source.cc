// The source host's flows through the loaded plug-in library, as the
// framework calls them: claim, node initialisation, provider state, deport
// and rescan, access taken away and given back, online and disposition.
#include "plugin_library.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::linesOf;
using qzvmfi_it::PluginHostTest;
using qzvmfi_it::SimDisk;
using qzvmfi_it::TestNode;
using qzvmfi_it::TestNodeList;
using qzvmfi_it::TestObjids;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

class PluginSourceTest : public PluginHostTest {
 protected:
  void arrange() override {
    admin({"host", "add", "A"});
    m_disks = addDisks(3, "A", 2, "128m");
    ASSERT_EQ(m_disks.size(), 3u);
    m_dms = makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1", "qzarr0_2"});
    // vol1 spans the first two disks, with a DCO log; set1 holds vol2.
    tool("A", "qzassist -g dg1 make vol1 120m logtype=dco");
    tool("A", "qzassist -g dg1 make vol2 20m " + m_dms[2]);
    tool("A", "qzvset -g dg1 make set1 vol2");
    admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "11"});
    // The device node of vol1 belongs to an application's user.
    setOwner("A", kVol1, "1001", "1002");
  }

  void setOwner(const std::string& host, const std::string& path, const std::string& uid,
                const std::string& gid) {
    admin({"node", "set", "--host", host, path, "--uid", uid, "--gid", gid});
  }

  int claim(const std::string& path) {
    TestNode object(path);
    qzfi_objid** secondary = nullptr;
    int count = 5;
    const int status = plugin().claim(object.objid(), &secondary, &count);
    EXPECT_EQ(0, count) << path;
    return status;
  }

  // The OS disk of each disk of the group, as its first path names it.
  Lines osDisks() const {
    Lines paths;
    for (const SimDisk& disk : m_disks) {
      paths.push_back("/dev/" + disk.osNames[0]);
    }
    return paths;
  }

  // Rescans of every disk on host A so far.
  size_t fullRescans() {
    size_t count = 0;
    for (const std::string& line : linesOf(admin({"log", "--host", "A"}))) {
      const std::string trimmed = line.substr(0, line.find_last_not_of(' ') + 1);
      count +=
          trimmed.size() >= 16 && trimmed.compare(trimmed.size() - 16, 16, "qzdisk scandisks") == 0
              ? 1
              : 0;
    }
    return count;
  }

  // vol1's node initialised, and the list of it with its disks that access
  // operations take.
  void initVol1WithItsDisks() {
    m_node = std::make_unique<TestNode>(kVol1);
    ASSERT_EQ(0, plugin().init_node(&m_node->domain, nullptr, 0, m_node->objid()));
    m_subObjects = std::make_unique<TestObjids>(plugin().subObjects(&m_node->domain));
    m_list.add(&m_node->domain, m_subObjects.get());
  }

  bool groupImported(const std::string& host, const std::string& dg) {
    return qzsim::simTool(root(), host, "qzdg list " + dg).status == 0;
  }

  std::vector<SimDisk> m_disks;
  Lines m_dms;
  std::unique_ptr<TestNode> m_node;
  std::unique_ptr<TestObjids> m_subObjects;
  TestNodeList m_list;
};

TEST_F(PluginSourceTest, ClaimsBlockAndRawVolumePathsAndAVolumeSet) {
  startPluginAs("A");
  EXPECT_EQ(1, claim(kVol1));
  EXPECT_EQ(1, claim("/dev/qz/rdsk/dg1/vol1"));
  EXPECT_EQ(1, claim("/dev/qz/dsk/dg1/set1"));
  EXPECT_EQ(0, claim("/dev/qz/dsk/dg1/vol1-01"));
  EXPECT_EQ(0, claim("/dev/qz/dsk/dg1/" + m_dms[0]));
  EXPECT_EQ(0, claim("/dev/sdb"));
  EXPECT_TRUE(pluginTraced("CQzVMPlugin::claimed as secondary object= /dev/qz/dsk/dg1/set1"));
  EXPECT_TRUE(qzvmfi_it::libraryPauses().empty());
}

TEST_F(PluginSourceTest, InitNodeRecordsTheVolumeItsDisksAndItsDeviceOwner) {
  startPluginAs("A");
  TestNode node(kVol1);
  ASSERT_EQ(0, plugin().init_node(&node.domain, nullptr, 0, node.objid()));
  EXPECT_EQ(0x1002u, node.domain.type);
  // The sub-objects are the OS disks under the volume's group, in order.
  EXPECT_EQ(osDisks(), plugin().subObjects(&node.domain));

  const std::string state = plugin().savedState(&node.domain);
  EXPECT_TRUE(holds(state, "fiid_v vol1 vol1_dcl\n")) << state;
  for (size_t i = 0; i < m_disks.size(); ++i) {
    // Each OS disk with its disk-media name, its node and its private region.
    EXPECT_TRUE(holds(state, "fiid_volpriv " + m_disks[i].osNames[0] + " " + m_dms[i] + " " +
                                 m_disks[i].node + " "))
        << state;
    EXPECT_TRUE(holds(state, "Device:    " + m_disks[i].node + "\n")) << state;
  }
  EXPECT_TRUE(holds(state, "private:   slice=3 offset=256 len=65536")) << state;
  EXPECT_TRUE(holds(state, "fiid_dgconfig dg1 ")) << state;
  EXPECT_TRUE(holds(state, "\ndg dg1\n")) << state;
  EXPECT_TRUE(holds(state, "\nvol vol1\n")) << state;
  EXPECT_TRUE(holds(state, "\ndco vol1_dco\n")) << state;
  EXPECT_TRUE(holds(state, "\nfiid_uigid 1001 1002")) << state;

  int exists = 0;
  EXPECT_EQ(0, plugin().check_node_existence(&node.domain, &exists));
  EXPECT_EQ(1, exists);
  EXPECT_TRUE(plugin().lastErrors().empty());
}

TEST_F(PluginSourceTest, InitNodeOfARawPathOrAVolumeSetTakesThatDevicesOwner) {
  setOwner("A", "/dev/qz/rdsk/dg1/vol1", "1003", "1004");
  setOwner("A", "/dev/qz/dsk/dg1/set1", "1005", "1006");
  startPluginAs("A");
  TestNode raw("/dev/qz/rdsk/dg1/vol1");
  ASSERT_EQ(0, plugin().init_node(&raw.domain, nullptr, 0, raw.objid()));
  EXPECT_TRUE(holds(plugin().savedState(&raw.domain), "\nfiid_uigid 1003 1004"));
  TestNode set("/dev/qz/dsk/dg1/set1");
  ASSERT_EQ(0, plugin().init_node(&set.domain, nullptr, 0, set.objid()));
  const std::string state = plugin().savedState(&set.domain);
  EXPECT_TRUE(holds(state, "fiid_vt set1\nfiid_v vol2\n")) << state;
  EXPECT_TRUE(holds(state, "\nfiid_uigid 1005 1006")) << state;
}

// What the framework carries between processes comes back whole in a
// plug-in started afresh.
TEST_F(PluginSourceTest, ProviderStateIsRestoredWholeInAFreshPlugin) {
  startPluginAs("A");
  std::string saved;
  {
    TestNode node(kVol1);
    ASSERT_EQ(0, plugin().init_node(&node.domain, nullptr, 0, node.objid()));
    qfi_accessnode access{&node.domain, node.objid(), QFI_DISP_NONE, 0};
    ASSERT_EQ(0, plugin().deport_tree(&node.domain, nullptr, &access));
    saved = plugin().savedState(&node.domain);
  }
  startPluginAs("A");
  TestNode node(kVol1);
  ASSERT_EQ(0, plugin().restoreState(&node.domain, saved));
  EXPECT_EQ(saved, plugin().savedState(&node.domain));
  EXPECT_TRUE(holds(saved, "fiid_altvol " + kVol1 + "\n")) << saved;
}

// The split leaves the configuration to keep: nothing is deported, the
// node's own object is named, and the first deport rescans the disks once.
TEST_F(PluginSourceTest, DeportTreeKeepsTheConfigurationAndPostDeportRescansOnce) {
  const std::string before = checksum("A", "dg1", "vol1");
  startPluginAs("A");
  TestNode vol1(kVol1);
  TestNode set1("/dev/qz/dsk/dg1/set1");
  const size_t rescans = fullRescans();
  for (TestNode* node : {&vol1, &set1}) {
    ASSERT_EQ(0, plugin().init_node(&node->domain, nullptr, 0, node->objid()));
    qfi_accessnode access{&node->domain, node->objid(), QFI_DISP_NONE, 0};
    ASSERT_EQ(0, plugin().deport_tree(&node->domain, nullptr, &access));
    ASSERT_NE(nullptr, node->access.objid);
    EXPECT_STREQ(node->path(), node->access.objid->name);
    EXPECT_TRUE(holds(plugin().savedState(&node->domain),
                      std::string("fiid_altvol ") + node->path() + "\n"));
  }
  for (TestNode* node : {&vol1, &set1, &vol1}) {
    EXPECT_EQ(0, plugin().post_deport(&node->domain, nullptr));
  }
  EXPECT_EQ(rescans + 1, fullRescans());
  EXPECT_TRUE(groupImported("A", "dg1"));
  EXPECT_EQ(before, checksum("A", "dg1", "vol1"));
}

// The volume taken out of use and brought back on the same host: its group
// is made again from what the node recorded, with the data and the owner.
TEST_F(PluginSourceTest, DisableThenEnableAccessBringsTheVolumeBackWithDataAndOwner) {
  const std::string before = checksum("A", "dg1", "vol1");
  startPluginAs("A");
  initVol1WithItsDisks();
  TestNode& node = *m_node;
  qfi_node_subobj_list* list = m_list.get();

  // The node's owner changes after the node was initialised; the simulator
  // would give a node made again that owner: the plug-in gives back the
  // one it recorded.
  setOwner("A", kVol1, "7", "8");
  ASSERT_EQ(0, plugin().disable_access(list, 0));
  EXPECT_FALSE(groupImported("A", "dg1"));
  int exists = 1;
  EXPECT_EQ(0, plugin().check_node_existence(&node.domain, &exists));
  EXPECT_EQ(0, exists);

  ASSERT_EQ(0, plugin().enable_access(list, 0, 0, 0));
  EXPECT_TRUE(groupImported("A", "dg1"));
  EXPECT_EQ(before, checksum("A", "dg1", "vol1"));
  EXPECT_EQ("1001:1002", ownerOf(kVol1));
  EXPECT_TRUE(pluginTraced("CQzVMPlugin::enableAccess - Calling setOwnerIds on [" + kVol1 +
                           "] with UID=[1001] and GID=[1002]"));
  EXPECT_EQ(0, plugin().check_node_existence(&node.domain, &exists));
  EXPECT_EQ(1, exists);
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

TEST_F(PluginSourceTest, OnlineStopsAndStartsTheVolumeWithAndWithoutADisposition) {
  startPluginAs("A");
  TestNode node(kVol1);
  ASSERT_EQ(0, plugin().init_node(&node.domain, nullptr, 0, node.objid()));
  TestNode copy(kVol1);
  const auto started = [&] { return holds(tool("A", "qzinfo -g dg1 vol1"), "Started"); };
  ASSERT_TRUE(started());
  EXPECT_EQ(0, plugin().online(&node.domain, &copy.domain, 2, QFI_DISP_NONE));
  EXPECT_FALSE(started());
  EXPECT_EQ(0, plugin().online(&node.domain, &copy.domain, 1, QFI_DISP_NONE));
  EXPECT_TRUE(started());
  EXPECT_EQ(0, plugin().online(&node.domain, &copy.domain, 2, QFI_DISP_KEEP));
  EXPECT_FALSE(started());
  // A deletion is dispose's to do, with its target: nothing goes here.
  EXPECT_EQ(0, plugin().online(&node.domain, &copy.domain, 1, QFI_DISP_DELETE));
  EXPECT_TRUE(started());
  EXPECT_TRUE(groupImported("A", "dg1"));
  EXPECT_TRUE(pluginTraced("CQzVMPlugin::dispose - targetNode null."));
}

// A snapshot group of its own disks, deleted with its disks and OS devices.
TEST_F(PluginSourceTest, DisposeWithDeletionRemovesTheSnapshotObject) {
  const std::vector<SimDisk> snapDisks = addDisks(2, "A", 1, "64m");
  makeGroup("A", "snap1", {snapDisks[0].node, snapDisks[1].node});
  tool("A", "qzassist -g snap1 make vol1 40m");
  startPluginAs("A");
  TestNode node(kVol1);
  TestNode snapshot("/dev/qz/dsk/snap1/vol1");
  qfi_splitnode target{&snapshot.domain, snapshot.objid(), nullptr, QFI_DISP_DELETE, 0};
  EXPECT_EQ(0, plugin().dispose(&node.domain, &snapshot.domain, &target, QFI_DISP_NONE));
  EXPECT_TRUE(groupImported("A", "snap1"));
  ASSERT_EQ(0, plugin().dispose(&node.domain, &snapshot.domain, &target, QFI_DISP_DELETE));
  EXPECT_FALSE(groupImported("A", "snap1"));
  tool("A", "qzdisk scandisks");
  const std::string listing = tool("A", "qzdisk list");
  for (const SimDisk& disk : snapDisks) {
    EXPECT_FALSE(holds(listing, disk.node)) << listing;
  }
  EXPECT_TRUE(groupImported("A", "dg1"));
  // A second deletion finds nothing left to do.
  EXPECT_EQ(0, plugin().dispose(&node.domain, &snapshot.domain, &target, QFI_DISP_DELETE));
}

}  // namespace

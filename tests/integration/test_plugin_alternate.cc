// The copy of a volume made usable where its split disks appear, through the
// loaded plug-in library as the framework calls it: the group rebuilt on
// another host, the intact copy moved on to a third, the copy beside its
// source on the same host, volume sets and DCO logs, and a device node
// whose owner cannot be set. Each copy holds the source's data as it was at
// the split, and its device nodes the source's owner.
#include <unistd.h>

#include <map>

#include "plugin_library.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::Lines;
using qzvmfi_it::parseDisks;
using qzvmfi_it::PluginHostTest;
using qzvmfi_it::SimDisk;
using qzvmfi_it::TestNode;
using qzvmfi_it::TestObjids;

const std::string kVol1 = "/dev/qz/dsk/dg1/vol1";

// What the framework carries from the source host to the copy's: the
// node's provider state, its sub-objects and the split disks as the copy's
// host names them, in the same order.
struct Split {
  std::string state;
  Lines subObjects;
  std::vector<SimDisk> copies;
  // The copies' OS disks on the host they are presented to.
  Lines secondary() const {
    Lines paths;
    for (const SimDisk& copy : copies) {
      paths.push_back("/dev/" + copy.osNames[0]);
    }
    return paths;
  }
};

class PluginAlternateTest : public PluginHostTest {
 protected:
  void arrange() override {
    for (const char* host : {"A", "B", "C"}) {
      admin({"host", "add", host});
    }
    addDisks(3, "A", 2, "128m");
    m_dms = makeGroup("A", "dg1", {"qzarr0_0", "qzarr0_1", "qzarr0_2"});
    // vol1 spans the first two disks; the third holds a volume with a DCO
    // log and a volume set of two volumes.
    tool("A", "qzassist -g dg1 make vol1 120m");
    tool("A", "qzassist -g dg1 make vold 20m logtype=dco " + m_dms[2]);
    tool("A", "qzassist -g dg1 make vol2 10m " + m_dms[2]);
    tool("A", "qzassist -g dg1 make vol3 10m " + m_dms[2]);
    tool("A", "qzvset -g dg1 make set1 vol2 vol3");
    int seed = 11;
    for (const char* volume : {"vol1", "vold", "vol2", "vol3"}) {
      admin({"volume", "write", "--host", "A", "dg1", volume, "--seed", std::to_string(seed++)});
    }
    for (const char* object : {"vol1", "vold", "set1"}) {
      for (const char* kind : {"dsk", "rdsk"}) {
        admin({"node", "set", "--host", "A", std::string("/dev/qz/") + kind + "/dg1/" + object,
               "--uid", "1001", "--gid", "1002"});
      }
    }
  }

  // Source host: the node of path initialised, the configuration kept at the
  // split, the disks rescanned, the provider state saved; the array copies
  // the group's disks to host to; the source's data then moves on, so that
  // only a copy made at the split matches the checksums taken then.
  Split splitFromA(const std::string& path, const std::string& to, const Lines& volumes) {
    Split split;
    startPluginAs("A");
    TestNode node(path);
    EXPECT_EQ(0, plugin().init_node(&node.domain, nullptr, 0, node.objid()));
    split.subObjects = plugin().subObjects(&node.domain);
    qfi_accessnode access{&node.domain, node.objid(), QFI_DISP_NONE, 0};
    EXPECT_EQ(0, plugin().deport_tree(&node.domain, nullptr, &access));
    EXPECT_EQ(0, plugin().post_deport(&node.domain, nullptr));
    split.state = plugin().savedState(&node.domain);
    for (const std::string& volume : volumes) {
      m_atSplit[volume] = checksum("A", "dg1", volume);
    }
    split.copies = parseDisks(admin({"array", "split", "--disks", "qzarr0_0,qzarr0_1,qzarr0_2",
                                     "--from-host", "A", "--to-host", to}));
    EXPECT_EQ(3u, split.copies.size());
    for (const std::string& volume : volumes) {
      admin({"volume", "write", "--host", "A", "dg1", volume, "--seed", "99"});
    }
    return split;
  }

  // The copy's host: a plug-in started afresh restores the node from the
  // blob, imports or builds the copy on the split disks and initialises
  // the copy's node. The new volume's path, or empty.
  std::string importOn(const std::string& host, const std::string& path, const Split& split,
                       const Lines& secondary, int expected = 0) {
    const std::string copy = buildOn(host, path, split, secondary, expected);
    if (copy.empty()) {
      return copy;
    }
    EXPECT_EQ(0, plugin().init_altnode(&m_node->domain, nullptr, &m_copy->domain, false));
    EXPECT_EQ(secondary, plugin().subObjects(&m_copy->domain));
    return copy;
  }

  // importOn up to the copy made, its node not yet initialised.
  std::string buildOn(const std::string& host, const std::string& path, const Split& split,
                      const Lines& secondary, int expected) {
    startPluginAs(host);
    m_node = std::make_unique<TestNode>(path);
    EXPECT_EQ(0, plugin().restoreState(&m_node->domain, split.state));
    TestObjids primary(split.subObjects);
    TestObjids copies(secondary);
    qzfi_objid* made = nullptr;
    EXPECT_EQ(expected, plugin().import_tree(&m_node->domain, primary.get(), copies.get(),
                                             primary.count(), &made));
    if (made == nullptr) {
      return "";
    }
    const std::string copy = made->name;
    qzfi_free_objid(made);
    m_copy = std::make_unique<TestNode>(copy);
    return copy;
  }

  // The GROUP and LOCK columns of the array's listing of lun.
  Lines groupAndLockOf(const std::string& lun) {
    for (const std::string& line : qzvmfi_it::linesOf(admin({"disk", "list"}))) {
      const Lines fields = qzvmfi_it::words(line);
      if (fields.size() > 5 && fields[0] == lun) {
        return {fields[4], fields[5]};
      }
    }
    return {};
  }

  static std::string groupOf(const std::string& path) {
    const size_t end = path.rfind('/');
    const size_t start = path.rfind('/', end - 1) + 1;
    return path.substr(start, end - start);
  }

  static std::string rawOf(const std::string& block) {
    return std::string(block).replace(0, 11, "/dev/qz/rdsk");
  }

  void expectCopyOf(const std::string& host, const std::string& dg, const Lines& volumes) {
    for (const std::string& volume : volumes) {
      EXPECT_TRUE(holds(tool(host, "qzinfo -g " + dg + " " + volume), "Started")) << volume;
      EXPECT_EQ(m_atSplit[volume], checksum(host, dg, volume)) << host << " " << volume;
    }
  }

  // Both device nodes of the copy have the source's owner and group.
  void expectSourceOwner(const std::string& copy) {
    EXPECT_EQ("1001:1002", ownerOf(copy)) << copy;
    EXPECT_EQ("1001:1002", ownerOf(rawOf(copy))) << rawOf(copy);
  }

  bool groupImported(const std::string& host, const std::string& dg) {
    return qzsim::simTool(root(), host, "qzdg list " + dg).status == 0;
  }

  static std::string newName(const std::string& dg) { return dg + "_" + std::to_string(getpid()); }

  Lines m_dms;
  std::map<std::string, std::string> m_atSplit;
  std::unique_ptr<TestNode> m_node;
  std::unique_ptr<TestNode> m_copy;
};

// 1. The group is rebuilt on host B under a new name from what the node
// recorded; the source stays imported on host A.
TEST_F(PluginAlternateTest, RebuildsTheGroupOnAnotherHostUnderANewName) {
  const Split split = splitFromA(kVol1, "B", {"vol1"});
  const std::string copy = importOn("B", kVol1, split, split.secondary());
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vol1", copy);
  expectCopyOf("B", dg, {"vol1"});
  expectSourceOwner(copy);
  // Built from the recorded configuration, not imported.
  EXPECT_EQ(1u, runsOf("B", "qzmake -g " + dg + " -d "));
  EXPECT_EQ(0u, runsOf("B", " import "));
  EXPECT_TRUE(groupImported("A", "dg1"));
  EXPECT_FALSE(groupImported("B", "dg1"));
  EXPECT_TRUE(pluginTraced("CQzVMPlugin::importTreeNode volPath=[" + kVol1 +
                           "] set, getting newDGName=[" + dg + "]"));
  // Only the tool runs that found nothing, as checks do, were reported.
  for (const std::string& message : plugin().lastErrors()) {
    EXPECT_EQ(0u, message.find("MSG_ERROR_COMMAND_FAILED ")) << message;
  }
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

// A raw path is handed back raw: only that node is given the owner.
TEST_F(PluginAlternateTest, RebuildOfARawPathSetsTheOwnerOfTheRawNodeOnly) {
  const std::string raw = "/dev/qz/rdsk/dg1/vol1";
  const Split split = splitFromA(raw, "B", {"vol1"});
  const std::string copy = importOn("B", raw, split, split.secondary());
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/rdsk/" + dg + "/vol1", copy);
  EXPECT_EQ("1001:1002", ownerOf(copy));
  EXPECT_EQ("0:0", ownerOf("/dev/qz/dsk/" + dg + "/vol1"));
  expectCopyOf("B", dg, {"vol1"});
}

// 2. After the rebuild on B the intact copy is deported there, its disks
// leave B's view, and host C imports it by its id under a new name.
TEST_F(PluginAlternateTest, MovesTheIntactCopyOnToAThirdHost) {
  const Split split = splitFromA(kVol1, "B", {"vol1"});
  const std::string onB = importOn("B", kVol1, split, split.secondary());
  ASSERT_FALSE(onB.empty());
  const std::string dgOnB = groupOf(onB);
  qfi_accessnode access{&m_copy->domain, m_copy->objid(), QFI_DISP_DEPORT, 0};
  ASSERT_EQ(0, plugin().deport_tree(&m_node->domain, &m_copy->domain, &access));
  Split moved = split;
  moved.state = plugin().savedState(&m_node->domain);
  EXPECT_EQ(0u, moved.state.find("fiid_isqzvmdeported 1\n")) << moved.state;
  EXPECT_TRUE(holds(moved.state, "\nfiid_altvol " + onB + "\n")) << moved.state;
  EXPECT_FALSE(groupImported("B", dgOnB));
  const std::string viewOnB = tool("B", "qzdisk list");
  for (const SimDisk& copy : split.copies) {
    EXPECT_FALSE(holds(viewOnB, copy.node + " ")) << viewOnB;
  }

  // The array presents the copies to host C instead.
  std::vector<SimDisk> onC;
  for (const SimDisk& copy : split.copies) {
    admin({"disk", "detach", copy.lun, "--host", "B"});
    const std::vector<SimDisk> attached =
        parseDisks(admin({"disk", "attach", copy.lun, "--host", "C"}));
    ASSERT_EQ(1u, attached.size());
    onC.push_back(attached[0]);
  }
  moved.copies = onC;
  const std::string copy = importOn("C", kVol1, moved, moved.secondary());
  const std::string dg = newName(dgOnB);
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vol1", copy);
  EXPECT_TRUE(pluginTraced("CQzVMPlugin::importTreeNode volPath=[" + onB +
                           "] set, getting newDGName=[" + dg + "]"));
  // Imported by the id of the group built on B, not built again.
  const std::string dgid = moved.state.substr(moved.state.find("\nfiid_dgid ") + 11, 64);
  EXPECT_EQ(1u, runsOf("C", "qzdg -C -n " + dg + " import " + dgid.substr(0, dgid.find('\n'))));
  EXPECT_EQ(0u, runsOf("C", "qzmake"));
  expectCopyOf("C", dg, {"vol1"});
  expectSourceOwner(copy);
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

// 3. The copies appear on host A beside the source group, which keeps its
// disks and data.
TEST_F(PluginAlternateTest, RebuildsTheCopyBesideItsSourceOnTheSameHost) {
  const Split split = splitFromA(kVol1, "A", {"vol1"});
  const std::string sourceNow = checksum("A", "dg1", "vol1");
  const std::string copy = importOn("A", kVol1, split, split.secondary());
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vol1", copy);
  expectCopyOf("A", dg, {"vol1"});
  expectSourceOwner(copy);
  EXPECT_EQ(sourceNow, checksum("A", "dg1", "vol1"));
  EXPECT_TRUE(holds(tool("A", "qzinfo -g dg1 vol1"), "Started"));
  Lines sourceDisks;
  for (const std::string& line : qzvmfi_it::linesOf(tool("A", "qzdisk -g dg1 list"))) {
    sourceDisks.push_back(qzvmfi_it::words(line)[0]);
  }
  EXPECT_EQ((Lines{"DEVICE", "qzarr0_0", "qzarr0_1", "qzarr0_2"}), sourceDisks);
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

// 4. A volume set of two volumes, and a volume with a DCO log.
TEST_F(PluginAlternateTest, RebuildsAVolumeSetWithItsTwoVolumes) {
  const std::string set = "/dev/qz/dsk/dg1/set1";
  const Split split = splitFromA(set, "B", {"vol2", "vol3"});
  const std::string copy = importOn("B", set, split, split.secondary());
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/set1", copy);
  expectCopyOf("B", dg, {"vol2", "vol3"});
  EXPECT_TRUE(holds(tool("B", "qzvset -g " + dg + " list"), "set1"));
  EXPECT_TRUE(holds(tool("B", "qzvset -g " + dg + " list"), "ENABLED"));
  expectSourceOwner(copy);
}

TEST_F(PluginAlternateTest, RebuildsAVolumeWithItsDCOLog) {
  const std::string vold = "/dev/qz/dsk/dg1/vold";
  const Split split = splitFromA(vold, "B", {"vold"});
  const std::string copy = importOn("B", vold, split, split.secondary());
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vold", copy);
  expectCopyOf("B", dg, {"vold"});
  EXPECT_TRUE(holds(tool("B", "qzinfo -g " + dg + " vold_dcl"), "Started"));
  EXPECT_TRUE(holds(tool("B", "qzprint -g " + dg + " vold"), "vold_dco"));
  expectSourceOwner(copy);
}

// 6. The owner of the copy's raw node cannot be set: 1091, and the copy
// stays, started.
TEST_F(PluginAlternateTest, AnOwnerThatCannotBeSetGives1091AndLeavesTheCopyStarted) {
  const Split split = splitFromA(kVol1, "B", {"vol1"});
  const std::string dg = newName("dg1");
  qzvmfi_it::refuseOwnerChange("/dev/qz/rdsk/" + dg + "/vol1");
  const std::string copy = importOn("B", kVol1, split, split.secondary(), 1091);
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vol1", copy);
  expectCopyOf("B", dg, {"vol1"});
  EXPECT_EQ("1001:1002", ownerOf(copy));
  EXPECT_EQ("0:0", ownerOf(rawOf(copy)));
  EXPECT_TRUE(
      pluginTraced("CQzVMPlugin::importTreeNode setOwnerIds call failed for " + rawOf(copy)));
  EXPECT_TRUE(groupImported("B", dg));
}

// 7. The copy's node cannot list its sub-objects: init_altnode takes the
// group it was built for away. The group is deported and its disks leave
// B's view; the destroy that follows finds no group of that name on B, so
// the group stays on the disks, deported, not destroyed.
TEST_F(PluginAlternateTest, AnAlternateNodeWithoutSubObjectsLeavesItsGroupDeportedOnTheDisks) {
  const Split split = splitFromA(kVol1, "B", {"vol1"});
  const std::string copy = buildOn("B", kVol1, split, split.secondary(), 0);
  const std::string dg = newName("dg1");
  ASSERT_EQ("/dev/qz/dsk/" + dg + "/vol1", copy);
  admin({"fault", "add", "--host", "B", "--tool", "qzdmpadm", "--match", "getsubpaths", "--status",
         "11", "--stderr", "QZVM qzdmpadm ERROR Q-5-1-401 no node"});
  EXPECT_EQ(6, plugin().init_altnode(&m_node->domain, nullptr, &m_copy->domain, false));
  admin({"fault", "clear"});
  EXPECT_FALSE(groupImported("B", dg));
  EXPECT_EQ(1u, runsOf("B", "qzdg deport " + dg));
  EXPECT_EQ(0u, runsOf("B", " destroy "));
  EXPECT_TRUE(pluginTraced("dg '" + dg + "' is already destroyed."));
  for (const SimDisk& disk : split.copies) {
    EXPECT_EQ((Lines{dg, "-"}), groupAndLockOf(disk.lun)) << disk.lun;
  }
  EXPECT_TRUE(groupImported("A", "dg1"));
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

}  // namespace

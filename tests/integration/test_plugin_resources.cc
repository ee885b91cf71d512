// Plain disks as resources through the loaded plug-in library: formatted
// into a new group with one volume, brought online from the disks again,
// recognised as the volume manager's, and made plain again.
#include <unistd.h>

#include <regex>

#include "plugin_library.h"

namespace {

using qzvmfi_it::holds;
using qzvmfi_it::PluginHostTest;
using qzvmfi_it::SimDisk;
using qzvmfi_test::TestPaths;
using qzvmfi_test::TestTextArray;

class PluginResourcesTest : public PluginHostTest {
 protected:
  void arrange() override {
    admin({"host", "add", "A"});
    m_disks = addDisks(2, "A", 2, "128m");
    ASSERT_EQ(2u, m_disks.size());
  }

  int isParent(const std::string& disk) {
    std::string name = disk;
    int answer = -1;
    EXPECT_EQ(0, plugin().is_parent_pgn(&name[0], &answer, 0)) << disk;
    return answer;
  }

  std::vector<SimDisk> m_disks;
};

TEST_F(PluginResourcesTest, PlainDisksBecomeAVolumeComeOnlineAndArePlainAgain) {
  const std::string first = "/dev/" + m_disks[0].osNames[0];
  const std::string second = "/dev/" + m_disks[1].osNames[0];
  startPluginAs("A");
  EXPECT_EQ(0, isParent(first));

  TestTextArray disks({first, second});
  TestPaths made;
  ASSERT_EQ(0, plugin().format(disks.get(), disks.count(), nullptr, nullptr, nullptr, 0x1,
                               made.paths(), made.count()));
  ASSERT_EQ(1u, made.texts().size());
  const std::string path = made.texts()[0];
  std::smatch parts;
  ASSERT_TRUE(std::regex_match(
      path, parts,
      std::regex("/dev/qz/dsk/(tpu_f[^/]*_" + std::to_string(getpid()) + ")/ssod_vol")))
      << path;
  const std::string dg = parts[1];
  EXPECT_TRUE(holds(tool("A", "qzinfo -g " + dg + " ssod_vol"), "Started"));
  EXPECT_EQ("0:0", ownerOf(path));
  EXPECT_EQ("0:0", ownerOf("/dev/qz/rdsk/" + dg + "/ssod_vol"));
  const std::string groupDisks = tool("A", "qzdisk -g " + dg + " list");
  EXPECT_TRUE(holds(groupDisks, m_disks[0].node) && holds(groupDisks, m_disks[1].node))
      << groupDisks;
  admin({"volume", "write", "--host", "A", dg, "ssod_vol", "--seed", "5"});
  const std::string written = checksum("A", dg, "ssod_vol");

  // The group leaves the host; onlining the disks finds it on them again.
  tool("A", "qzdg deport " + dg);
  TestPaths onlined;
  ASSERT_EQ(0, plugin().online_resource(disks.get(), disks.count(), nullptr, nullptr, nullptr,
                                        nullptr, 0, onlined.paths(), onlined.count()));
  EXPECT_EQ(made.texts(), onlined.texts());
  EXPECT_TRUE(holds(tool("A", "qzinfo -g " + dg + " ssod_vol"), "Started"));
  EXPECT_EQ(written, checksum("A", dg, "ssod_vol"));
  EXPECT_EQ(1, isParent(first));

  ASSERT_EQ(0, plugin().unformat(disks.get(), disks.count(), 0));
  EXPECT_NE(0, qzsim::simTool(root(), "A", "qzdg list " + dg).status);
  tool("A", "qzdisk scandisks");
  for (const SimDisk& disk : m_disks) {
    EXPECT_TRUE(holds(tool("A", "qzdisk list " + disk.node), "info:      format=none"))
        << disk.node;
  }
  EXPECT_EQ(0, isParent(first));
  EXPECT_EQ(0, isParent(second));
  EXPECT_EQ(std::string("OK"), admin({"check"}).substr(0, 2));
}

}  // namespace

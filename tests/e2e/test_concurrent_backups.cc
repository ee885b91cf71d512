// Backups at the same time: two groups of host A backed up to host B
// together, round after round, each with its own record. Both copies come
// out right, under new group names of their own, and the simulation stays
// consistent.
#include <thread>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;

// One source group: its disks and the checksum of its volume vol1.
struct Source {
  std::string group;
  std::vector<SimDisk> disks;
  std::string sum;
};

// What one round of one backup gave: the copy's device path, or why not.
struct Copy {
  std::string device;
  std::string failure;
  std::string sum;
};

class ConcurrentBackupsTest : public QzfiTest {
 protected:
  Source makeGroup(const std::string& group, int seed) {
    Source source{group,
                  qzfi_e2e::parseDisks(admin({"disk", "add", "--count", "2", "--hosts", "A",
                                              "--paths", "2", "--size", "64m"})),
                  ""};
    tool("A", "qzdisk scandisks");
    std::string members;
    for (const SimDisk& disk : source.disks) {
      tool("A", "qzdisk -f init " + disk.node + " type=auto format=cdsdisk");
      members += " " + disk.node;
    }
    tool("A", "qzdg init " + group + members);
    tool("A", "qzassist -g " + group + " make vol1 16m logtype=dco");
    admin({"volume", "write", "--host", "A", group, "vol1", "--seed", std::to_string(seed)});
    source.sum = checksum("A", group, "vol1");
    // Each backup's commands may change its own copy and the other's (the
    // other runs at the same time), never either source.
    declareSource(group, source.disks);
    return source;
  }

  // The QzVM node of a sub-object path of source.
  static std::string nodeOf(const Source& source, const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    for (const SimDisk& disk : source.disks) {
      for (const std::string& os : disk.osNames) {
        if (os == name) {
          return disk.node;
        }
      }
    }
    return std::string();
  }

  // A whole backup of source to host B with its own record: prepare, the
  // array's split, deport, import, the copy's checksum, release.
  Copy backUp(const Source& source, int round) {
    const std::string file = root() + "/" + source.group + "-" + std::to_string(round) + ".json";
    const auto fail = [](const std::string& step, const QzfiRun& run) {
      std::ostringstream why;
      why << step << ": " << run;
      return Copy{"", why.str(), ""};
    };
    const QzfiRun prepared =
        qzfi("A", {"prepare", "/dev/qz/dsk/" + source.group + "/vol1", "--record", file});
    if (prepared.status != 0) {
      return fail("prepare", prepared);
    }
    std::string nodes;
    const Json record = Json::parse(qztest::readFile(file));
    for (const Json& path : record["sub_objects"]) {
      nodes += (nodes.empty() ? "" : ",") + nodeOf(source, path.get<std::string>());
    }
    const std::vector<SimDisk> copies = qzfi_e2e::parseDisks(
        admin({"array", "split", "--disks", nodes, "--from-host", "A", "--to-host", "B"}));
    declareCopies(copies);
    const std::string secondary = osPathsOf(copies);
    const QzfiRun deported = qzfi("A", {"deport", "--record", file});
    if (deported.status != 0) {
      return fail("deport", deported);
    }
    const QzfiRun imported =
        qzfi("B", {"--quiet", "import", "--record", file, "--secondary", secondary});
    if (imported.status != 0) {
      return fail("import", imported);
    }
    Copy copy{qzfi_e2e::linesOf(imported.out).at(0), "", ""};
    const auto [group, volume] = groupAndVolume(copy.device);
    copy.sum = checksum("B", group, volume);
    const QzfiRun released = qzfi("B", {"release", "--record", file});
    if (released.status != 0) {
      return fail("release", released);
    }
    return copy;
  }
};

TEST_F(ConcurrentBackupsTest, TwoGroupsBackedUpTogetherEightTimesComeOutRight) {
  const Source first = makeGroup("dg1", 7);
  const Source second = makeGroup("dg2", 9);
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Copy copyOfSecond;
    std::thread other([&] { copyOfSecond = backUp(second, round); });
    const Copy copyOfFirst = backUp(first, round);
    other.join();
    ASSERT_EQ(copyOfFirst.failure, "");
    ASSERT_EQ(copyOfSecond.failure, "");
    EXPECT_EQ(copyOfFirst.sum, first.sum);
    EXPECT_EQ(copyOfSecond.sum, second.sum);
    EXPECT_NE(groupAndVolume(copyOfFirst.device).first, groupAndVolume(copyOfSecond.device).first);
    EXPECT_TRUE(groups("B").empty());
  }
  expectConsistent();
}

}  // namespace

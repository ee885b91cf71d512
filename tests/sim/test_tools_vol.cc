#include <algorithm>

#include "sim_test.h"

namespace qzsim {

class QzvolTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
  }
};

TEST_F(QzvolTest, StartStopAndInfo) {
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo  -g dg1 vol1")),
            (std::vector<std::string>{"vol1", "fsgen", "Started"}));
  ok("A", "qzvol  -g dg1 stop vol1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo  -g dg1 vol1"))[2], "Startable");
  ok("A", "qzvol  -g dg1 start vol1");
  ok("A", "qzvol  -g dg1  stopall ");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1_dcl"))[2], "Startable");
  ok("A", "qzvol  -g dg1  startall ");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1_dcl"))[2], "Started");
  EXPECT_EQ(tool("A", "qzinfo -g dg1 novol").status, 11);
}

TEST_F(QzvolTest, UsageTypeMustMatch) {
  ok("A", "qzvol -g dg1 stopall");
  ok("A", "qzvol  -g dg1  -U gen  start vol1_dcl");
  CommandResult r = tool("A", "qzvol  -g dg1  -U gen  start vol1");
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-306 ")) << r.err;
}

TEST_F(QzvolTest, BusyVolumeStopsWithStatus31) {
  adminOk({"volume", "hold", "--host", "A", "dg1", "vol1"});
  CommandResult r = tool("A", "qzvol  -g dg1 stop vol1");
  EXPECT_EQ(r.status, 31);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-304 ")) << r.err;
  adminOk({"volume", "release", "--host", "A", "dg1", "vol1"});
  ok("A", "qzvol  -g dg1 stop vol1");
}

// A process in the host's sandbox that holds a node of the volume open
// (here the shell that runs the tools) makes it busy, as a real kernel does.
TEST_F(QzvolTest, OpenDeviceNodeMakesTheVolumeBusy) {
  ok("A", "qzvset -g dg1 make set1 vol1");
  CommandResult r = admin(
      {"host", "A", "--", "sh", "-c",
       "exec 3</dev/qz/rdsk/dg1/vol1; qzvol -g dg1 stop vol1; echo stop=$?; "
       "qzvset -g dg1 stop set1; echo set=$?; exec 3<&-; exec 4</dev/qz/dsk/dg1/set1; "
       "qzvset -g dg1 stop set1; echo set=$?; exec 4<&-; qzvset -g dg1 stop set1 && echo free"});
  EXPECT_EQ(r.out, "stop=31\nset=31\nset=31\nfree\n");
  EXPECT_EQ(r.err,
            "QZVM qzvol ERROR Q-5-1-304 Volume vol1 in disk group dg1 is busy\n"
            "QZVM qzvset ERROR Q-5-1-304 Volume vol1 in disk group dg1 is busy\n"
            "QZVM qzvset ERROR Q-5-1-304 Volume set set1 in disk group dg1 is busy\n");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
}

// Another host's nodes of a group of the same name are other files.
TEST_F(QzvolTest, OpenNodeOfAnotherHostDoesNotCount) {
  addDisks(1, "B");
  makeGroup("B", "dg1", {"qzarr0_2"});
  ok("B", "qzassist -g dg1 make vol1 1m");
  CommandResult r = admin({"host", "B", "--", "sh", "-c",
                           "exec 3</dev/qz/dsk/dg1/vol1; " + simBinary() +
                               " run --host A qzvol -g dg1 stop vol1 && echo stopped"});
  EXPECT_EQ(r.out, "stopped\n") << r.err;
}

// A file open under /sys/block is no node of a volume: looking for holders
// never asks the host's /sys/block server, which may be waiting for the
// same tool's transaction (here it is stopped).
TEST_F(QzvolTest, LookingForHoldersLeavesSysBlockAlone) {
  // The bracket keeps the pattern from matching the shell that carries it.
  const std::string server = "[q]zsim-sysblock " + root + " A ";
  CommandResult r =
      admin({"host", "A", "--", "sh", "-c",
             "server=$(pgrep -f '" + server +
                 "') || exit 9; sleep 60 3>/sys/block/sdb/device/delete & "
                 "holder=$!; until [ -L /proc/$holder/fd/3 ]; do :; done; kill -STOP $server; "
                 "timeout -s KILL 20 qzvol -g dg1 stop vol1; echo stop=$?; "
                 "kill -CONT $server; kill $holder"});
  EXPECT_EQ(r.out, "stop=0\n") << r.err;
}

TEST_F(QzvolTest, VolumeWithoutItsDisksCannotStart) {
  ok("A", "qzvol -g dg1 stop vol1");
  adminOk({"disk", "detach", "lun2", "--host", "A"});
  EXPECT_EQ(tool("A", "qzvol -g dg1 start vol1").status, 15);
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Unstartable");
}

TEST_F(QzvolTest, MaxsizeIsABareNumberAndMakeUsesIt) {
  std::string out = ok("A", "qzassist  -g dg1   -p  maxsize ");
  uint64_t size = 0;
  ASSERT_TRUE(parseUint(trim(out), &size)) << out;
  EXPECT_EQ(size, 2u * 65280 - 81920 - 1024);
  ok("A", "qzassist  -g dg1   make   big " + std::to_string(size));
  EXPECT_EQ(tool("A", "qzassist -g dg1 -p maxsize").status, 14);
  EXPECT_EQ(tool("A", "qzassist -g dg1 make more 1").status, 14);
}

TEST_F(QzvolTest, MirrorsUseSeparateDisks) {
  adminOk({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"});
  makeGroup("A", "dg2", {"qzarr0_2", "qzarr0_3"});
  ok("A", "qzassist -g dg2 make m 10m nmirror=2");
  auto rows = lines(ok("A", "qzprint -g dg2 m"));
  ASSERT_EQ(rows.size(), 6u);
  EXPECT_NE(splitBlanks(rows[3])[1].substr(0, 8), splitBlanks(rows[5])[1].substr(0, 8));
  EXPECT_EQ(tool("A", "qzassist -g dg2 make m2 40m nmirror=2").status, 14);
}

TEST_F(QzvolTest, VolumeSets) {
  ok("A", "qzvset -g dg1 make set1 vol1");
  ok("A", "qzvset  -g dg1  stop set1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
  ok("A", "qzvset  -g dg1  start set1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");
  EXPECT_EQ(tool("A", "qzvset -g dg1 start noset").status, 11);
}

TEST_F(QzvolTest, DeviceNodesFollowTheGroup) {
  std::string dev = root + "/hosts/A/dev_qz";
  std::string text;
  EXPECT_TRUE(readFile(dev + "/dsk/dg1/vol1", &text));
  EXPECT_TRUE(readFile(dev + "/rdsk/dg1/vol1_dcl", &text));
  ok("A", "qzdg deport dg1");
  EXPECT_FALSE(readFile(dev + "/dsk/dg1/vol1", &text));
}

}  // namespace qzsim

#include "config.h"

namespace qzsim {

// dg1's volume records replayed into dg2, whose disk media have dg1's names
// on other disks: the dump rewritten for dg2's disks, as the plug-in does.
class QzmakeTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
    addDisks(2, "A", 1);
    ok("A", "qzdisk scandisks");
    ok("A", "qzdisk -f init qzarr0_2 type=auto");
    ok("A", "qzdisk -f init qzarr0_3 type=auto");
    ok("A", "qzdg init dg2 qzarr0_0=qzarr0_2 qzarr0_1=qzarr0_3");
    for (auto& r : parseDump(ok("A", "qzprint -vpsc -g dg1 -m"))) {
      if (r.kind == "dg" || r.kind == "dm")
        continue;
      std::vector<std::pair<std::string, std::string>> attrs;
      for (auto& kv : r.attrs) {
        if (kv.first == "guid")
          continue;
        for (const auto& move :
             {std::make_pair("qzarr0_0", "qzarr0_2"), std::make_pair("qzarr0_1", "qzarr0_3")})
          if (kv.first == "da_name" || kv.first == "path")
            kv.second = replaced(kv.second, move.first, move.second);
        attrs.push_back(kv);
      }
      r.attrs = attrs;
      records.push_back(r);
    }
  }
  static std::string replaced(std::string text, const std::string& from, const std::string& to) {
    size_t at = text.find(from);
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
  }
  DumpRecord& record(const std::string& name) {
    for (auto& r : records)
      if (r.name == name)
        return r;
    ADD_FAILURE() << "no record " << name;
    return records[0];
  }
  void set(const std::string& name, const std::string& key, const std::string& value) {
    for (auto& kv : record(name).attrs)
      if (kv.first == key)
        kv.second = value;
  }
  CommandResult make() {
    std::string text;
    for (const auto& r : records) {
      text += r.kind + " " + r.name + "\n";
      for (const auto& kv : r.attrs) text += "\t" + kv.first + "=" + kv.second + "\n";
    }
    writeFile(root + "/replay", text);
    return tool("A", "qzmake -g dg2 -d " + root + "/replay");
  }
  void expectRefused(int status, const std::string& err) {
    CommandResult r = make();
    EXPECT_EQ(r.status, status);
    EXPECT_EQ(r.err, err);
    EXPECT_EQ(lines(ok("A", "qzprint -g dg2 -v")).size(), 1u);  // nothing half made
  }
  std::vector<DumpRecord> records;
};

TEST_F(QzmakeTest, DumpRewrittenForTheGroupsDisksIsMade) {
  EXPECT_EQ(record("qzarr0_0-01").get("path"), "/dev/qz/dmp/qzarr0_2s3");
  CommandResult r = make();
  ASSERT_EQ(r.status, 0) << r.err;
  ok("A", "qzvol -g dg2 start vol1");
  EXPECT_NE(ok("A", "qzprint -vpsc -g dg2 -m").find("\tda_name=qzarr0_3\n"), std::string::npos);
}

TEST_F(QzmakeTest, DaNameOfADiskOutsideTheGroupIsRefused) {
  set("qzarr0_0-01", "da_name", "qzarr0_0");
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Subdisk qzarr0_0-01: da_name=qzarr0_0 is not the disk "
                "of disk media qzarr0_0 in disk group dg2 (that is qzarr0_2).\n");
  // Without dm_name the subdisk is placed by da_name, which must name a disk
  // of the group.
  auto& attrs = record("qzarr0_0-01").attrs;
  attrs.erase(attrs.begin() + 1);  // dm_name
  expectRefused(11,
                "QZVM qzmake ERROR Q-5-1-101 Subdisk qzarr0_0-01: disk qzarr0_0 is not a disk of "
                "disk group dg2\n");
}

TEST_F(QzmakeTest, DiskMediaOutsideTheGroupIsRefused) {
  set("qzarr0_1-01", "dm_name", "qzarr0_9");
  expectRefused(11,
                "QZVM qzmake ERROR Q-5-1-101 Subdisk qzarr0_1-01: disk media qzarr0_9 not found in "
                "disk group dg2\n");
}

TEST_F(QzmakeTest, PathOfAnotherDiskIsRefused) {
  set("qzarr0_1-01", "path", "/dev/qz/dmp/qzarr0_1s3");
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Subdisk qzarr0_1-01: path=/dev/qz/dmp/qzarr0_1s3 is "
                "not the path of disk media qzarr0_1 (that is /dev/qz/dmp/qzarr0_3s3).\n");
}

TEST_F(QzmakeTest, PlexThatDoesNotCoverItsVolumeIsRefused) {
  // vol1 (81920 sectors) lies on both disks: 65280 sectors, then 16640.
  set("qzarr0_1-01", "pl_offset", "65300");
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01 does not cover volume vol1: nothing maps "
                "sectors from 65280.\n");
  set("qzarr0_1-01", "pl_offset", "65280");
  set("vol1-01", "len", "81000");
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01 does not cover volume vol1: its length "
                "is 81000, the volume's 81920.\n");
  set("vol1-01", "len", "81920");
  records.erase(records.begin() + (&record("qzarr0_1-01") - records.data()));
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01 does not cover volume vol1: its "
                "subdisks map 65280 of 81920 sectors.\n");
}

TEST_F(QzmakeTest, UnknownAttributesAndPlexesWithoutLengthAreRefused) {
  record("vol1-01").attrs.emplace_back("ncolumn", "2");
  expectRefused(16, "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01: unknown attribute ncolumn=2.\n");
  record("vol1-01").attrs.pop_back();
  set("vol1-01", "layout", "STRIPE");
  expectRefused(16,
                "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01: layout=STRIPE is not a layout this "
                "host makes.\n");
  set("vol1-01", "layout", "CONCAT");
  auto& attrs = record("vol1-01").attrs;
  attrs.erase(std::remove_if(
                  attrs.begin(), attrs.end(),
                  [](const std::pair<std::string, std::string>& kv) { return kv.first == "len"; }),
              attrs.end());
  expectRefused(16, "QZVM qzmake ERROR Q-5-1-307 Plex vol1-01 has no length.\n");
  set("vol1", "len", "0");
  expectRefused(16, "QZVM qzmake ERROR Q-5-1-307 Volume vol1 has no length.\n");
}

TEST_F(QzmakeTest, NumbersAndNamesOfRecordsAreChecked) {
  set("qzarr0_0-01", "len", "lots");
  expectRefused(16, "QZVM qzmake ERROR Q-5-1-307 Subdisk qzarr0_0-01: len=lots is not a number.\n");
  set("qzarr0_0-01", "len", "65280");
  record("vol1").name = std::string(32, 'v');
  expectRefused(1, "QZVM qzmake ERROR Q-5-1-8 Volume name '" + std::string(32, 'v') +
                       "' is longer than 31 characters.\n");
}

}  // namespace qzsim

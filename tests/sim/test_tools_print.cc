#include <set>

#include "config.h"
#include "sim_test.h"

namespace qzsim {

class QzprintTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
    ok("A", "qzassist -g dg1 make vol2 2m");
    ok("A", "qzvset -g dg1 make set1 vol2");
  }
};

TEST_F(QzprintTest, VolumeListingStartsWithTheHeader) {
  auto rows = lines(ok("A", "qzprint  -g dg1  vol1"));
  ASSERT_GE(rows.size(), 2u);
  EXPECT_EQ(splitBlanks(rows[0])[0], "TY");
  std::vector<std::string> kinds;
  for (size_t i = 1; i < rows.size(); ++i) kinds.push_back(splitBlanks(rows[i])[0]);
  EXPECT_EQ(kinds, (std::vector<std::string>{"v", "pl", "sd", "sd", "dc", "v", "pl", "sd"}));
  EXPECT_EQ(splitBlanks(rows[1]), (std::vector<std::string>{"v", "vol1", "fsgen", "ENABLED",
                                                            "81920", "-", "ACTIVE", "-", "-"}));
  EXPECT_EQ(splitBlanks(rows[6])[2], "gen");
}

TEST_F(QzprintTest, TypeOptionsSelectRecords) {
  auto vols = lines(ok("A", "qzprint  -g dg1  -v "));
  ASSERT_EQ(vols.size(), 4u);
  for (size_t i = 1; i < vols.size(); ++i) EXPECT_EQ(splitBlanks(vols[i])[0], "v");
  auto sets = lines(ok("A", "qzprint  -g dg1  -x "));
  ASSERT_EQ(sets.size(), 2u);
  EXPECT_EQ(splitBlanks(sets[1]), (std::vector<std::string>{"vt", "set1", "-", "ENABLED", "4096",
                                                            "-", "ACTIVE", "-", "-"}));
  auto set = lines(ok("A", "qzprint  -g dg1 set1"));
  EXPECT_EQ(splitBlanks(set[1])[0], "vt");
  ok("A", "qzvset  -g dg1  stop set1");
  EXPECT_EQ(splitBlanks(lines(ok("A", "qzprint -g dg1 set1"))[1])[3], "DISABLED");
}

TEST_F(QzprintTest, UnknownObjectIsAnError) {
  CommandResult r = tool("A", "qzprint -g dg1 novol");
  EXPECT_EQ(r.status, 11);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzprint ERROR Q-5-1-301 ")) << r.err;
  EXPECT_EQ(tool("A", "qzprint -g nodg -v").status, 11);
}

TEST_F(QzprintTest, DumpHoldsEveryKindOfRecordWithGuids) {
  std::string dump = ok("A", "qzprint  -vxpsc  -g dg1  -m ");
  std::set<std::string> kinds;
  for (const auto& r : parseDump(dump)) {
    kinds.insert(r.kind);
    EXPECT_FALSE(r.get("guid").empty()) << r.kind << " " << r.name;
  }
  EXPECT_EQ(kinds, (std::set<std::string>{"dg", "dm", "vol", "plex", "sd", "dco", "vset"}));
  EXPECT_NE(dump.find("\tdm_name=qzarr0_0\n\tda_name=qzarr0_0\n\tpath=/dev/qz/dmp/qzarr0_0s3\n"),
            std::string::npos);
  EXPECT_EQ(dump.find("=,"), std::string::npos);
  EXPECT_EQ(dump.find("= "), std::string::npos);
  std::string noSets = ok("A", "qzprint  -vpsc  -g dg1  -m ");
  EXPECT_EQ(noSets.find("vset "), std::string::npos);
}

// What the plug-in replays: the volume records without dg, dm and guid lines,
// with the disk names (da_name and the path made from it) moved to the disks
// given in renames.
std::string replayOf(const std::string& dump,
                     const std::vector<std::pair<std::string, std::string>>& renames = {}) {
  std::string out;
  bool skip = false;
  for (const auto& l : splitChar(dump, '\n')) {
    if (startsWith(l, "dg ") || startsWith(l, "dm "))
      skip = true;
    else if (!l.empty() && l[0] != '\t')
      skip = false;
    if (skip || trim(l).rfind("guid=", 0) == 0 || l.empty())
      continue;
    std::string line = l;
    for (const auto& r : renames) {
      if (line == "\tda_name=" + r.first)
        line = "\tda_name=" + r.second;
      if (startsWith(line, "\tpath=/dev/qz/dmp/" + r.first + "s"))
        line = "\tpath=/dev/qz/dmp/" + r.second + line.substr(18 + r.first.size());
    }
    out += line + "\n";
  }
  return out;
}

TEST_F(QzprintTest, QzmakeRecreatesObjectsInAnotherGroup) {
  adminOk({"disk", "add", "--count", "2", "--hosts", "A", "--size", "64m"});
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_2 type=auto");
  ok("A", "qzdisk -f init qzarr0_3 type=auto");
  ok("A", "qzdg init dg2 qzarr0_0=qzarr0_2 qzarr0_1=qzarr0_3");
  std::string file = root + "/replay";
  writeFile(file, replayOf(ok("A", "qzprint -vxpsc -g dg1 -m"),
                           {{"qzarr0_0", "qzarr0_2"}, {"qzarr0_1", "qzarr0_3"}}));
  ok("A", "qzmake  -g dg2  -d " + file);
  auto rows = lines(ok("A", "qzprint -g dg2 vol1"));
  EXPECT_EQ(splitBlanks(rows[1])[3], "DISABLED");  // made, not started
  ok("A", "qzvol -g dg2 start vol1");
  ok("A", "qzvol -g dg2 -U gen start vol1_dcl");
  EXPECT_EQ(lines(ok("A", "qzprint -g dg2 -x")).size(), 2u);
  std::string dump2 = ok("A", "qzprint -vxpsc -g dg2 -m");
  EXPECT_NE(dump2.find("da_name=qzarr0_2"), std::string::npos);
  // A second replay clashes with the names now there.
  EXPECT_EQ(tool("A", "qzmake -g dg2 -d " + file).status, 12);
}

TEST_F(QzprintTest, QzmakeRejectsADiskNotInTheGroup) {
  adminOk({"disk", "add", "--hosts", "A", "--size", "64m"});
  ok("A", "qzdisk scandisks");
  ok("A", "qzdisk -f init qzarr0_2 type=auto");
  ok("A", "qzdg init dg2 qzarr0_2");
  std::string file = root + "/replay";
  writeFile(file, replayOf(ok("A", "qzprint -vpsc -g dg1 -m")));
  CommandResult r = tool("A", "qzmake -g dg2 -d " + file);
  EXPECT_EQ(r.status, 11);
  EXPECT_NE(r.err.find("disk media qzarr0_0 not found"), std::string::npos) << r.err;
  EXPECT_EQ(lines(ok("A", "qzprint -g dg2 -v")).size(), 1u);  // nothing half made
}

}  // namespace qzsim

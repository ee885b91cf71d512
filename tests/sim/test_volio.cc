#include "config.h"
#include "sim_test.h"

namespace qzsim {

// A copy of a group's disks, taken by the array and rebuilt on host B from
// the source's private regions and dump, holds the data of the split.
class DataTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
    adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "5"});
    atSplit = checksum("A", "dg1");
    dump = ok("A", "qzprint  -vpsc  -g dg1  -m ");
    for (const char* d : {"qzarr0_0", "qzarr0_1"})
      listings.push_back(ok("A", std::string("qzdisk list ") + d));
    for (const auto& line :
         splitChar(trim(adminOk({"array", "split", "--disks", "qzarr0_0,qzarr0_1", "--from-host",
                                 "A", "--to-host", "B"})),
                   '\n'))
      copies.push_back(splitBlanks(line)[1]);
    adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "6"});
  }

  std::string checksum(const std::string& host, const std::string& dg) {
    return trim(adminOk({"volume", "checksum", "--host", host, dg, "vol1"}));
  }

  // qzdisk init arguments that repeat a listing's geometry; a shift moves the
  // public region down into a shorter private region.
  static std::string geometry(const std::string& listing, int64_t pubShift) {
    auto sub = [&](const std::string& key, const std::string& name) {
      for (const auto& w : splitBlanks(keyValue(listing, key))) {
        std::string k, v;
        if (splitKeyValue(w, &k, &v) && k == name)
          return v;
      }
      return std::string();
    };
    int64_t puboffset = std::stoll(sub("public:", "offset")) + pubShift;
    return " type=" + keyValue(listing, "type:") +
           " format=cdsdisk privoffset=" + sub("private:", "offset") +
           " privlen=" + std::to_string(std::stoll(sub("private:", "len")) + pubShift) +
           " puboffset=" + std::to_string(puboffset) + " publen=" + sub("public:", "len") +
           " configlen=" + sub("configs:", "len") + " loglen=" + sub("logs:", "len") +
           " nconfig=" + sub("configs:", "count") + " nlog=" + sub("logs:", "count");
  }

  // The dump without dg and dm records and guids, naming the copies.
  std::string replay() {
    std::string out;
    bool skip = false;
    for (const auto& l : splitChar(dump, '\n')) {
      if (startsWith(l, "dg ") || startsWith(l, "dm "))
        skip = true;
      else if (!l.empty() && l[0] != '\t')
        skip = false;
      if (skip || l.empty() || startsWith(trim(l), "guid="))
        continue;
      std::string line = l;
      if (startsWith(trim(l), "da_name=") || startsWith(trim(l), "path="))
        for (int i = 0; i < 2; ++i) {
          std::string from = i ? "qzarr0_1" : "qzarr0_0";
          size_t at = line.find(from);
          if (at != std::string::npos) {
            line.replace(at, from.size(), copies[i]);
            break;
          }
        }
      out += line + "\n";
    }
    return out;
  }

  std::string rebuild(int64_t pubShift) {
    ok("B", "qzdisk  scandisks ");
    for (int i = 0; i < 2; ++i) {
      ok("B", "qzdisk  rm " + copies[i]);
      ok("B", "qzdisk  -f  init " + copies[i] + geometry(listings[i], pubShift));
    }
    ok("B", "qzdg  init dgB qzarr0_0=" + copies[0] + " qzarr0_1=" + copies[1]);
    std::string file = root + "/replay";
    writeFile(file, replay());
    ok("B", "qzmake  -g dgB  -d " + file);
    ok("B", "qzvol  -g dgB  -U gen  start vol1_dcl");
    ok("B", "qzvol  -g dgB  start vol1");
    return checksum("B", "dgB");
  }

  std::string atSplit, dump;
  std::vector<std::string> listings, copies;
};

TEST_F(DataTest, SourceChangedAfterTheSplit) {
  EXPECT_NE(checksum("A", "dg1"), atSplit);
}

TEST_F(DataTest, CopiesAreInvisibleUntilAScan) {
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 1u);
  ok("B", "qzdisk scandisks");
  auto rows = lines(ok("B", "qzdisk list"));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1])[3], "(dg1)");
}

TEST_F(DataTest, RebuiltGroupHoldsTheDataOfTheSplit) {
  EXPECT_EQ(rebuild(0), atSplit);
}

TEST_F(DataTest, WrongPublicOffsetShowsOtherData) {
  EXPECT_NE(rebuild(-4096), atSplit);
}

TEST_F(DataTest, ImportOfTheCopyHoldsTheDataToo) {
  ok("B", "qzdisk scandisks");
  std::string dgid = keyValue(ok("A", "qzdisk -s -g dg1 list"), "dgid:");
  EXPECT_EQ(tool("B", "qzdg import " + dgid).status, 20);  // A's lock is on the copies
  ok("B", "qzdisk  clearimport " + join(copies, " "));
  ok("B", "qzdg  -C  -n  dgI  import " + dgid);
  ok("B", "qzvol -g dgI startall");
  EXPECT_EQ(checksum("B", "dgI"), atSplit);
  EXPECT_EQ(trim(adminOk({"check"})).substr(0, 2), "OK");
}

TEST_F(DataTest, ReadReturnsWhatWasWritten) {
  std::string before = adminOk(
      {"volume", "read", "--host", "A", "dg1", "vol1", "--offset", "65000", "--length", "500"});
  adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "9", "--offset", "65000",
           "--length", "500"});
  std::string a = adminOk(
      {"volume", "read", "--host", "A", "dg1", "vol1", "--offset", "65000", "--length", "500"});
  EXPECT_EQ(a.size(), 500u * 512);
  EXPECT_NE(a, before);
  adminOk({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "9", "--offset", "65000",
           "--length", "500"});
  EXPECT_EQ(adminOk({"volume", "read", "--host", "A", "dg1", "vol1", "--offset", "65000",
                     "--length", "500"}),
            a);
}

}  // namespace qzsim

#include <gtest/gtest.h>

#include "config.h"

namespace qzsim {

namespace {

GroupConfig sample() {
  GroupConfig c;
  c.dg = {"dg1", "170.1.A", "{g}", true, 4};
  c.dms = {{"d1", "170.2.A", "{m1}"}};
  c.vols = {{"vol1", "fsgen", "{v}", 100}, {"vol1_dcl", "gen", "{l}", 10}};
  c.plexes = {{"vol1-01", "vol1", "{p}", 100}, {"vol1_dcl-01", "vol1_dcl", "{q}", 10}};
  c.sds = {{"d1-01", "vol1-01", "d1", "{s}", 0, 0, 100},
           {"d1-02", "vol1_dcl-01", "d1", "{t}", 100, 0, 10}};
  c.dcos = {{"vol1_dco", "vol1", "vol1_dcl", "{d}"}};
  c.vsets = {{"set1", "{x}", {"vol1"}}};
  return c;
}

}  // namespace

TEST(Config, DumpRoundTrips) {
  std::string text = writeDump(sample(), DumpView(), DumpSelect());
  GroupConfig back;
  std::string error;
  ASSERT_TRUE(configFromDump(text, &back, &error)) << error;
  EXPECT_EQ(writeDump(back, DumpView(), DumpSelect()), text);
  EXPECT_EQ(back.sds[1].dmOffset, 100u);
  EXPECT_EQ(back.vsets[0].vols, std::vector<std::string>{"vol1"});
}

TEST(Config, EveryRecordHasAGuidAndVolumeSetsComeLast) {
  std::string text = writeDump(sample(), DumpView(), DumpSelect());
  auto recs = parseDump(text);
  ASSERT_EQ(recs.back().kind, "vset");
  for (const auto& r : recs) EXPECT_FALSE(r.get("guid").empty()) << r.kind << " " << r.name;
}

TEST(Config, ViewAddsHostNamesAndPaths) {
  DumpView view;
  view.daName = [](const std::string&) { return std::string("qzarr0_3"); };
  view.path = [](const std::string&) { return std::string("/dev/qz/dmp/qzarr0_3s3"); };
  std::string text = writeDump(sample(), view, DumpSelect());
  EXPECT_NE(text.find("\tda_name=qzarr0_3\n\tpath=/dev/qz/dmp/qzarr0_3s3\n"), std::string::npos);
}

TEST(Config, SelectionLeavesKindsOut) {
  DumpSelect sel;
  sel.vsets = false;
  std::string text = writeDump(sample(), DumpView(), sel);
  EXPECT_EQ(text.find("vset "), std::string::npos);
  EXPECT_NE(text.find("dm d1"), std::string::npos);
}

TEST(Config, DumpWithoutGroupIsRejected) {
  GroupConfig c;
  std::string error;
  EXPECT_FALSE(configFromDump("vol v\n\tlen=1\n", &c, &error));
}

}  // namespace qzsim

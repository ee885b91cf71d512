#include <gtest/gtest.h>

#include "text.h"

namespace qzsim {

TEST(Text, SplitsOnAnyRunOfBlanks) {
  EXPECT_EQ(splitBlanks("qzdisk   -f  init\tsdb \n"),
            (std::vector<std::string>{"qzdisk", "-f", "init", "sdb"}));
  EXPECT_TRUE(splitBlanks("   ").empty());
}

TEST(Text, LengthsAreSectorsUnlessScaled) {
  uint64_t v = 0;
  ASSERT_TRUE(parseLength("2048", &v));
  EXPECT_EQ(v, 2048u);
  ASSERT_TRUE(parseLength("1m", &v));
  EXPECT_EQ(v, 2048u);
  ASSERT_TRUE(parseLength("1G", &v));
  EXPECT_EQ(v, 2048u * 1024);
  EXPECT_FALSE(parseLength("12x", &v));
  EXPECT_FALSE(parseLength("", &v));
}

TEST(Text, NumbersStayWithinWhatTheDatabaseKeeps) {
  uint64_t v = 0;
  ASSERT_TRUE(parseUint("9223372036854775807", &v));
  EXPECT_EQ(v, 9223372036854775807ull);
  EXPECT_FALSE(parseUint("9223372036854775808", &v));
  EXPECT_FALSE(parseUint("9999999999999999999", &v));
  EXPECT_FALSE(parseLength("9999999999999999t", &v));
  EXPECT_FALSE(parseLength("4611686018427387904k", &v));
  ASSERT_TRUE(parseLength("4611686018427387903k", &v));
}

TEST(Text, NamesFollowTheVolumeManagersRules) {
  EXPECT_EQ(nameProblem("dg1"), "");
  EXPECT_EQ(nameProblem("tpu_fiAb3xYz_12"), "");
  EXPECT_EQ(nameProblem("qzarr0_0-01"), "");
  EXPECT_EQ(nameProblem("1700000039.3.A"), "");
  EXPECT_EQ(nameProblem(std::string(31, 'a')), "");
  EXPECT_EQ(nameProblem(std::string(32, 'a')), "is longer than 31 characters");
  EXPECT_EQ(nameProblem(""), "is empty");
  EXPECT_EQ(nameProblem("../../../../escape"), "begins with '.'");
  EXPECT_EQ(nameProblem("-x"), "begins with '-'");
  for (const char* bad : {"a/b", "a b", "a\tb", "dg$", "d\xc3\xa9"})
    EXPECT_EQ(nameProblem(bad), "holds a character other than letters, digits, '_', '-' and '.'")
        << bad;
}

TEST(Text, BlankRunsSqueezeToOne) {
  EXPECT_EQ(squeezeBlanks("  qzdisk   list\t sdb "), "qzdisk list sdb");
}

TEST(Text, TablesSeparateColumnsByAtLeastTwoBlanks) {
  std::string t = formatTable({{"NAME", "STATE"}, {"averylongname", "enabled"}});
  EXPECT_EQ(t, "NAME           STATE\naverylongname  enabled\n");
}

TEST(Text, KeyLinesPadTheKey) {
  EXPECT_EQ(keyLine("disk", "name=a id=b"), "disk:      name=a id=b\n");
}

}  // namespace qzsim

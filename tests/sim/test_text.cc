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

TEST(Text, TablesSeparateColumnsByAtLeastTwoBlanks) {
  std::string t = formatTable({{"NAME", "STATE"}, {"averylongname", "enabled"}});
  EXPECT_EQ(t, "NAME           STATE\naverylongname  enabled\n");
}

TEST(Text, KeyLinesPadTheKey) {
  EXPECT_EQ(keyLine("disk", "name=a id=b"), "disk:      name=a id=b\n");
}

}  // namespace qzsim

// The caches of tool listings stay bounded in a long-lived process that
// meets new group and disk names with every backup.
#include "support/qzvm_support.h"

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, CachesOfNewNamesStayBoundedAndCanBeCleared) {
  qzvmfi_ctx::TraceLog::instance()->setLevel(1);
  const size_t names = 3 * CQzVMSupport::kMaxCachedEntries;
  size_t most = 0;
  Lines lines;
  for (size_t i = 0; i < names; ++i) {
    const std::string n = std::to_string(i);
    m_support->qzvmScanDisks(Lines{"sd" + n});
    m_support->getDisksForDG(("dg" + n).c_str(), lines);
    m_support->getDGConfigInVector("dg" + n, lines);
    m_support->getVolPrivInfoPerDisk("disk" + n, lines);
    most = std::max(most, m_support->cachedEntries());
  }
  // Each of the four caches holds at most its bound, whatever came through.
  EXPECT_LE(most, 4 * CQzVMSupport::kMaxCachedEntries);
  EXPECT_GT(most, 0u);
  m_support->clearCaches();
  EXPECT_EQ(0u, m_support->cachedEntries());
}

TEST_F(SupportOpsTest, AClearedCacheIsReadFromTheToolsAgain) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  Lines disks;
  EXPECT_EQ(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_EQ(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_EQ(commands().size(), 1u);
  m_support->clearCaches();
  Lines again;
  EXPECT_EQ(m_support->getDisksForDG("dg1", again), 0);
  EXPECT_EQ(again, (Lines{"qzarr0_1", "qzarr0_2"}));
  EXPECT_EQ(commands().size(), 2u);
}

}  // namespace
}  // namespace qzvmfi_support_test

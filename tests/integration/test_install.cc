// Installation probes on hosts with and without the package and its optional
// tools.
#include "sim_host_env.h"

namespace {

using qzvmfi_it::SimHostTest;

class InstallTest : public SimHostTest {};

TEST_F(InstallTest, FullHostHasThePackageAndEveryOptionalTool) {
  admin({"host", "add", "A"});
  actAs("A");
  EXPECT_TRUE(support().isInstalled());
  EXPECT_TRUE(support().isQzDMPInstalled());
  EXPECT_TRUE(support().isVSetAvailable());
  EXPECT_TRUE(support().isCDSSupported());
  EXPECT_TRUE(qzvmfi_ctx::ErrorManager::instance()->errors().empty());
}

TEST_F(InstallTest, HostWithoutOptionalToolsHasOnlyThePackage) {
  admin({"host", "add", "B", "--no-dmp", "--no-vset", "--no-cds"});
  actAs("B");
  EXPECT_TRUE(support().isInstalled());
  EXPECT_FALSE(support().isQzDMPInstalled());
  EXPECT_FALSE(support().isVSetAvailable());
  EXPECT_FALSE(support().isCDSSupported());
}

TEST_F(InstallTest, HostWithoutThePackageReportsTheRpmListing) {
  admin({"host", "add", "C", "--not-installed"});
  actAs("C");
  EXPECT_FALSE(support().isInstalled());
  EXPECT_FALSE(support().isQzDMPInstalled());
  EXPECT_TRUE(wasTraced("CFiQzVMUtil::isInstalled - qzvm not installed."));
  const auto errors = qzvmfi_ctx::ErrorManager::instance()->errors();
  ASSERT_EQ(errors.size(), 1u);
}

TEST_F(InstallTest, EachHostSeesItsOwnTools) {
  admin({"host", "add", "A"});
  admin({"host", "add", "B", "--no-dmp"});
  actAs("A");
  EXPECT_TRUE(support().isQzDMPInstalled());
  actAs("B");
  EXPECT_FALSE(support().isQzDMPInstalled());
  EXPECT_TRUE(support().isVSetAvailable());
  actAs("A");
  EXPECT_TRUE(support().isQzDMPInstalled());
}

}  // namespace

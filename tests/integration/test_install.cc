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
  // rpm itself works: only the probe reports, with rpm's whole listing.
  const auto errors = qzvmfi_ctx::ErrorManager::instance()->errors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0]->getIdentifier(), "MSG_ERROR_COMMAND_FAILED");
  ASSERT_EQ(errors[0]->getArguments().size(), 3u);
  EXPECT_EQ(errors[0]->argumentText(0), "isInstalled");
  EXPECT_EQ(errors[0]->argumentText(1), "/bin/rpm -qa ");
  const std::string listing = tool("C", "rpm -qa");
  EXPECT_FALSE(listing.empty());
  EXPECT_EQ(errors[0]->argumentText(2), listing);
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

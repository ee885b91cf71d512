// Installation probes on hosts with and without the package and its optional
// tools.
#include "plugin/exports.h"
#include "sim_host_env.h"

namespace {

using qzvmfi_it::SimHostTest;

class InstallTest : public SimHostTest {};

// The plug-in started through its entry points, as a framework starts it.
class PluginStartTest : public SimHostTest {
 protected:
  void TearDown() override {
    qzvmfi_fi_pgn_fini();
    SimHostTest::TearDown();
  }
};

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

TEST_F(PluginStartTest, PluginStartsOnAHostWithThePackage) {
  admin({"host", "add", "A"});
  actAs("A");
  qfi_version version{};
  EXPECT_EQ(0, qzvmfi_fi_pgn_init(nullptr, &version, "qzfi"));
  EXPECT_EQ(7, version.major);
  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  EXPECT_EQ(nullptr, list);
}

// A missing installation pushes nothing of the plug-in's own: the one
// message is the install probe's, with rpm's listing.
TEST_F(PluginStartTest, PluginDoesNotStartOnAHostWithoutThePackage) {
  admin({"host", "add", "C", "--not-installed"});
  actAs("C");
  qfi_version version{};
  EXPECT_EQ(30, qzvmfi_fi_pgn_init(nullptr, &version, "qzfi"));
  EXPECT_EQ(7, version.major);
  EXPECT_TRUE(wasTraced("CQzVMPlugin::init QzVM not installed."));

  const std::string listing = tool("C", "rpm -qa");
  EXPECT_EQ(std::string::npos, listing.find("ZOLKqzvm"));
  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("MSG_ERROR_COMMAND_FAILED", list->id);
  EXPECT_STREQ("osutil", list->source);
  EXPECT_EQ(3, list->severity);
  ASSERT_EQ(3, list->nargs);
  EXPECT_STREQ("isInstalled", list->args[0]);
  EXPECT_STREQ("/bin/rpm -qa ", list->args[1]);
  EXPECT_EQ(listing, list->args[2]);
  EXPECT_EQ("isInstalled: a volume manager command failed: /bin/rpm -qa  Output: " + listing,
            list->text);
  EXPECT_EQ(nullptr, list->next);
  qzvmfi_fi_pgn_del_last_error(&list);
}

}  // namespace

// Folders of the framework's installation, found from the library's location:
// the build folder is laid out as an installed tree.
#include <gtest/gtest.h>
#include <qzfi/folders.h>

#include "tempdir.h"

#include <filesystem>
#include <string>

using namespace qzfi_pdk_4_4;
namespace fs = std::filesystem;

TEST(InstallFolderTest, LibraryFolderHoldsTheFrameworkLibrary) {
  std::string library = getInstallFolder(CFiInstallFolder::library);
  ASSERT_FALSE(library.empty());
  EXPECT_TRUE(fs::path(library).is_absolute()) << library;
  EXPECT_TRUE(fs::exists(library + "/libqzfi_pdk.so.1")) << library;
}

TEST(InstallFolderTest, CatalogueFolderIsTheOneTheBuildWrote) {
  EXPECT_EQ(fs::canonical(QZ_CATALOG_DIR).string(), getInstallFolder(CFiInstallFolder::catalogs));
}

TEST(InstallFolderTest, PluginFolderLiesUnderTheLibraryFolder) {
  EXPECT_EQ(getInstallFolder(CFiInstallFolder::library) + "/qzfi/plugins",
            getInstallFolder(CFiInstallFolder::plugins));
}

// ===== configuration and trace folders =====

TEST(InstallFolderTest, TheVariablesNameTheConfigurationAndTraceFolders) {
  qztest::TempDir dir;
  qztest::ScopedEnv config(kConfigFolderVariable, dir.path() + "/config");
  qztest::ScopedEnv logs(kLogFolderVariable, dir.path() + "/logs");
  EXPECT_EQ(dir.path() + "/config", getInstallFolder(CFiInstallFolder::config));
  EXPECT_EQ(dir.path() + "/logs", getInstallFolder(CFiInstallFolder::logs));
}

TEST(InstallFolderTest, TheMachinesFolderWinsWhenItExistsOrTheTreeHasNone) {
  qztest::TempDir machine;
  qztest::TempDir tree;
  EXPECT_EQ(machine.path(), chooseFolder(machine.path(), tree.path()));
  EXPECT_EQ(machine.path() + "/absent", chooseFolder(machine.path() + "/absent", ""));
  EXPECT_EQ(tree.path(), chooseFolder(machine.path() + "/absent", tree.path()));
}

// The build folder is a tree with folders of its own: without the
// machine's, its programs configure and trace inside it.
TEST(InstallFolderTest, ABuildTreeUsesItsOwnFoldersWhereTheMachineHasNone) {
  qztest::ScopedEnv config(kConfigFolderVariable, std::nullopt);
  qztest::ScopedEnv logs(kLogFolderVariable, std::nullopt);
  const fs::path build = fs::canonical(fs::path(QZ_CATALOG_DIR) / "../../..");
  const std::string expectedConfig =
      fs::is_directory(kMachineConfigFolder) ? kMachineConfigFolder : (build / "etc/qzfi").string();
  const std::string expectedLogs =
      fs::is_directory(kMachineLogFolder) ? kMachineLogFolder : (build / "var/log/qzfi").string();
  EXPECT_EQ(expectedConfig, getInstallFolder(CFiInstallFolder::config));
  EXPECT_EQ(expectedLogs, getInstallFolder(CFiInstallFolder::logs));
}

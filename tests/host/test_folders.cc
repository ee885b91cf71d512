// Folders of the framework's installation, found from the library's location:
// the build folder is laid out as an installed tree.
#include <gtest/gtest.h>
#include <qzfi/folders.h>

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

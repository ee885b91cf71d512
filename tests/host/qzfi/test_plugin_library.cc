// A plug-in loaded by file and entry-point names, as qzfi loads one: the
// built qzvmfi plug-in, started with its tool runs answered by the seam.
#include "plugin_library.h"

#include <qzfi/execpipe.h>
#include <qzfi/folders.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../tempdir.h"
#include "nodes.h"

namespace {

using qzfi_host::CNode;
using qzfi_host::CPluginLibrary;
using qzfi_host::PluginLoadError;
using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiExecSeamScope;
using ::testing::HasSubstr;

const char kRpm[] = "/bin/rpm -qa ";

std::string loadRefusal(const std::string& nameOrFile) {
  try {
    CPluginLibrary library(nameOrFile);
    library.load();
  } catch (const PluginLoadError& error) {
    return error.what();
  }
  return "loaded";
}

// The plug-in's configuration and trace go to a folder of the test.
class PluginLibraryTest : public ::testing::Test {
 protected:
  qztest::TempDir dir;
  qztest::ScopedEnv config{"QZFI_CONFIG_DIR", dir.path()};
  qztest::ScopedEnv log{"QZFI_LOG_DIR", dir.path()};
  CFiExecSeamScope seam;
};

TEST(PluginLibrary, ANameIsLookedUpInTheFrameworksPluginFolder) {
  EXPECT_EQ(
      CPluginLibrary::libraryFile("qzvmfi"),
      qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::plugins) + "/libqzvmfi.so");
  EXPECT_EQ(CPluginLibrary::libraryFile("./libqzvmfi.so"), "./libqzvmfi.so");
}

TEST(PluginLibrary, ThePluginsNameComesFromItsFileName) {
  EXPECT_EQ(CPluginLibrary::pluginNameOf("/opt/x/libqzvmfi.so"), "qzvmfi");
  EXPECT_EQ(CPluginLibrary::pluginNameOf("libtinyfi.so.1"), "tinyfi");
  for (const char* file : {"/opt/qzvmfi.so", "/opt/lib.so", "/opt/libqzvmfi.sox", "/opt/libx"}) {
    EXPECT_THROW(CPluginLibrary::pluginNameOf(file), PluginLoadError) << file;
  }
}

TEST(PluginLibrary, AMissingPluginIsNamedWithWhereItWasLookedFor) {
  EXPECT_EQ(loadRefusal("/nowhere/libqzvmfi.so"), "no plug-in qzvmfi at /nowhere/libqzvmfi.so");
}

TEST(PluginLibrary, ALibraryWithoutTheEntryPointsIsNoPlugin) {
  const std::string framework =
      qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::library) + "/libqzfi_pdk.so";
  EXPECT_EQ(loadRefusal(framework),
            framework +
                " is not a plug-in of this framework: it has no entry point "
                "qzfi_pdk_fi_pgn_init");
}

TEST(PluginLibrary, AFileThatIsNoLibraryCannotBeLoaded) {
  qztest::TempDir dir;
  const std::string file = dir.file("libbroken.so");
  std::ofstream(file) << "not an ELF file";
  EXPECT_THAT(loadRefusal(file), HasSubstr("cannot load the plug-in " + file + ": "));
}

TEST_F(PluginLibraryTest, TheBuiltPluginLoadsStartsAndAnswers) {
  CFiExecSeam::answer(kRpm, 0, {"glibc-2.36\n", "ZOLKqzvm-8.0.1\n"});
  CPluginLibrary plugin(QZVMFI_LIBRARY);
  plugin.load();
  EXPECT_EQ(plugin.name(), "qzvmfi");
  EXPECT_EQ(plugin.releaseText(), "Brovik_" QZVMFI_VERSION);
  ASSERT_EQ(plugin.start(), 0);
  EXPECT_TRUE(plugin.started());
  const qfi_version& version = plugin.interfaceVersion();
  EXPECT_EQ(version.major, 7);
  EXPECT_EQ(version.minor, 0);

  // A path outside the volume manager's folders is not claimed, and no
  // tool runs for it.
  CFiExecSeam::clearCommands();
  CNode node(plugin, "/dev/sdb");
  qzfi_objid** secondary = nullptr;
  int count = -1;
  EXPECT_EQ(plugin.call().claim(node.objid(), &secondary, &count), 0);
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  EXPECT_TRUE(plugin.takeMessages().empty());
}

TEST_F(PluginLibraryTest, APluginWithoutItsVolumeManagerDoesNotStart) {
  CFiExecSeam::answer(kRpm, 0, {"glibc-2.36\n"});
  CPluginLibrary plugin(QZVMFI_LIBRARY);
  plugin.load();
  EXPECT_EQ(plugin.start(), 30);
  // The version is written back all the same.
  EXPECT_EQ(plugin.interfaceVersion().major, 7);
}

}  // namespace

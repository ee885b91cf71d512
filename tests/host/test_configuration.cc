// Configuration files: INI text in an ACE heap, and where they live.
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>

#include "qzfi/configuration.h"
#include "tempdir.h"

using namespace qzfi_pdk_4_4;

namespace {

ACE_TString readValue(CFiConfiguration& config, const char* section, const char* name) {
  ACE_Configuration_Section_Key key;
  ACE_TString value;
  if (config.openSection(section, 0, key) != 0 || config.getStringValue(key, name, value) != 0) {
    return ACE_TString("<missing>");
  }
  return value;
}

TEST(Configuration, SectionAndKeyAreWrittenAndReadBack) {
  qztest::TempDir dir;
  std::string path = dir.file("qzvmfi.conf");
  {
    CFiConfiguration config;
    ACE_Configuration_Section_Key key;
    ASSERT_EQ(config.openSection("CLI_TOOL_INFO", 1, key), 0);
    ASSERT_EQ(config.setStringValue(key, "FILEPATH_QzVM", "/usr/sbin/"), 0);
    ASSERT_EQ(config.exportConfig(path), 0);
  }
  std::string text = qztest::readFile(path);
  EXPECT_NE(text.find("[CLI_TOOL_INFO]"), std::string::npos) << text;
  EXPECT_NE(text.find("FILEPATH_QzVM"), std::string::npos) << text;

  CFiConfiguration reread;
  ASSERT_EQ(reread.importConfig(path), 0);
  EXPECT_EQ(reread.getConfigPath(), path);
  EXPECT_EQ(readValue(reread, "CLI_TOOL_INFO", "FILEPATH_QzVM"), ACE_TString("/usr/sbin/"));
}

TEST(Configuration, HandWrittenIniIsRead) {
  qztest::TempDir dir;
  std::string path = dir.file("tools.conf");
  std::ofstream(path) << "[CLI_TOOL_INFO]\nFILEPATH_QzVM=/opt/qzvm/bin\n";
  CFiConfiguration config;
  ASSERT_EQ(config.importConfig(path), 0);
  EXPECT_EQ(readValue(config, "CLI_TOOL_INFO", "FILEPATH_QzVM"), ACE_TString("/opt/qzvm/bin"));
  EXPECT_EQ(readValue(config, "CLI_TOOL_INFO", "OTHER"), ACE_TString("<missing>"));
  EXPECT_EQ(readValue(config, "NO_SECTION", "FILEPATH_QzVM"), ACE_TString("<missing>"));
}

TEST(Configuration, MissingFileFailsAndItsPathIsWhereExportWrites) {
  qztest::TempDir dir;
  std::string path = dir.file("qzvmfi.conf");
  CFiConfiguration config;
  EXPECT_NE(config.importConfig(path), 0);
  ACE_Configuration_Section_Key key;
  ASSERT_EQ(config.openSection("CLI_TOOL_INFO", 1, key), 0);
  ASSERT_EQ(config.setStringValue(key, "FILEPATH_QzVM", "/usr/sbin/"), 0);
  ASSERT_EQ(config.exportConfig(), 0);

  CFiConfiguration reread;
  ASSERT_EQ(reread.importConfig(path), 0);
  EXPECT_EQ(readValue(reread, "CLI_TOOL_INFO", "FILEPATH_QzVM"), ACE_TString("/usr/sbin/"));
}

TEST(Configuration, ExportWithoutAnyPathFails) {
  CFiConfiguration config;
  EXPECT_NE(config.exportConfig(), 0);
}

TEST(Configuration, ExportIntoAMissingFolderFails) {
  qztest::TempDir dir;
  CFiConfiguration config;
  EXPECT_NE(config.exportConfig(dir.file("no/such/folder.conf")), 0);
}

TEST(Configuration, OpeningAMissingSectionWithoutCreateFails) {
  CFiConfiguration config;
  ACE_Configuration_Section_Key key;
  EXPECT_NE(config.openSection("CLI_TOOL_INFO", 0, key), 0);
}

TEST(ConfigurationPathTool, PathComesFromTheConfigFolder) {
  qztest::TempDir dir;
  qztest::ScopedEnv folderEnv("QZFI_CONFIG_DIR", dir.path());
  tstring path;
  tstring folder;
  EXPECT_EQ(CFiConfigurationPathTool::getConfigFileInfo("qzvmfi", path, folder), 0);
  EXPECT_EQ(folder, dir.path());
  EXPECT_EQ(path, dir.file("qzvmfi.conf"));
}

TEST(ConfigurationPathTool, MissingFolderIsReportedAndNotCreated) {
  qztest::TempDir dir;
  std::string missing = dir.file("absent");
  qztest::ScopedEnv folderEnv("QZFI_CONFIG_DIR", missing);
  tstring path;
  tstring folder;
  EXPECT_NE(CFiConfigurationPathTool::getConfigFileInfo("qzvmfi", path, folder), 0);
  EXPECT_EQ(path, missing + "/qzvmfi.conf");
  struct stat info {};
  EXPECT_NE(stat(missing.c_str(), &info), 0);
}

}  // namespace

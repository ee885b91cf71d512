#include "configuration.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "plugin_env.h"

namespace {

using qzfi_pdk_4_4::CFiConfiguration;
using qzfi_pdk_4_4::CFiError;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::readFile;
using qzvmfi_test::writeFile;

class ConfigurationTest : public PluginEnv {
 protected:
  // A configuration file written by the framework with the given key value.
  void writeCommandDir(const std::string& value) {
    CFiConfiguration file;
    ACE_Configuration_Section_Key key;
    ASSERT_EQ(0, file.openSection("CLI_TOOL_INFO", 1, key));
    ASSERT_EQ(0, file.setStringValue(key, "FILEPATH_QzVM", value.c_str()));
    ASSERT_EQ(0, file.exportConfig(configFile()));
  }

  SQzVMCliPath importedPaths(int createIfMissing = 0) {
    CQzVMConfiguration configuration;
    configuration.checkConfigFile(createIfMissing);
    SQzVMCliPath path;
    configuration.importCliPathInfo(path);
    return path;
  }
};

TEST_F(ConfigurationTest, CheckWithCreateWritesTheDefaultFile) {
  ASSERT_FALSE(std::filesystem::exists(configFile()));
  CQzVMConfiguration configuration;
  EXPECT_EQ(0, configuration.checkConfigFile(1));
  ASSERT_TRUE(std::filesystem::exists(configFile()));
  EXPECT_TRUE(wasTraced(1, "Creating default config file."));

  const std::string text = readFile(configFile());
  EXPECT_NE(std::string::npos, text.find("[CLI_TOOL_INFO]")) << text;
  EXPECT_NE(std::string::npos, text.find("FILEPATH_QzVM")) << text;

  CFiConfiguration reread;
  ASSERT_EQ(0, reread.importConfig(configFile()));
  ACE_Configuration_Section_Key key;
  ASSERT_EQ(0, reread.openSection("CLI_TOOL_INFO", 0, key));
  ACE_TString value;
  ASSERT_EQ(0, reread.getStringValue(key, "FILEPATH_QzVM", value));
  EXPECT_STREQ("/usr/sbin/", value.c_str());
}

TEST_F(ConfigurationTest, CheckWithoutCreateLeavesAMissingFileMissing) {
  CQzVMConfiguration configuration;
  EXPECT_NE(0, configuration.checkConfigFile(0));
  EXPECT_FALSE(std::filesystem::exists(configFile()));
}

TEST_F(ConfigurationTest, CheckKeepsAnExistingFile) {
  writeCommandDir("/opt/qz/sbin/");
  CQzVMConfiguration configuration;
  EXPECT_EQ(0, configuration.checkConfigFile(1));
  EXPECT_FALSE(wasTraced(1, "Creating default config file."));
  EXPECT_EQ("/opt/qz/sbin/", importedPaths().commandDir);
}

TEST_F(ConfigurationTest, CheckIsATracedScope) {
  CQzVMConfiguration configuration;
  configuration.checkConfigFile(1);
  const auto entering = traced("Entering Function checkConfigFile [");
  ASSERT_EQ(1u, entering.size());
  EXPECT_EQ(6, entering[0].level);
  EXPECT_NE(std::string::npos, entering[0].text.find(", configuration]"));
  EXPECT_EQ(1u, traced("Exiting Function checkConfigFile [").size());
}

TEST_F(ConfigurationTest, UndeterminableFolderIsAFrameworkError) {
  setenv("QZFI_CONFIG_DIR", (configDir() + "/absent").c_str(), 1);
  CQzVMConfiguration configuration;
  try {
    configuration.checkConfigFile(1);
    FAIL() << "no error raised";
  } catch (const CFiError& error) {
    EXPECT_EQ(
        "Serious error, the directory for the config file could not be determined or doesn't "
        "exist.",
        error.getText());
    EXPECT_NE(std::string::npos, error.getWhere().find("../configuration"));
    EXPECT_NE(std::string::npos, error.getWhere().find("checkConfigFile"));
  }
}

TEST_F(ConfigurationTest, ValueWithoutTrailingSlashGetsOne) {
  writeCommandDir("/opt/qz/sbin");
  EXPECT_EQ("/opt/qz/sbin/", importedPaths().commandDir);
}

TEST_F(ConfigurationTest, ValueWithTrailingSlashIsKept) {
  writeCommandDir("/opt/qz/sbin/");
  const SQzVMCliPath path = importedPaths();
  EXPECT_EQ("/opt/qz/sbin/", path.commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", path.supportDir);
  EXPECT_EQ("", path.otherDir);
}

TEST_F(ConfigurationTest, FileWithoutTheSectionGivesTheDefaults) {
  writeFile(configFile(), "[OTHER]\nFILEPATH_QzVM=/elsewhere/\n");
  const SQzVMCliPath path = importedPaths();
  EXPECT_EQ("/usr/sbin/", path.commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", path.supportDir);
  EXPECT_EQ("", path.otherDir);
  EXPECT_TRUE(wasTraced(3,
                        "CQzVMConfiguration::importCliPathInfo failed at getStringValue hence "
                        "seting default"));
}

TEST_F(ConfigurationTest, ImportTracesTheOpenedSection) {
  writeCommandDir("/opt/qz/sbin/");
  importedPaths();
  EXPECT_TRUE(wasTraced(3, "CQzVMConfiguration::importCliPathInfo inside IF after openSection\n"));
  EXPECT_FALSE(wasTraced(3,
                         "CQzVMConfiguration::importCliPathInfo failed at getStringValue hence "
                         "seting default"));
}

TEST_F(ConfigurationTest, ImportWithoutAnyFileGivesTheDefaults) {
  SQzVMCliPath path;
  path.commandDir = "stale";
  path.otherDir = "kept";
  CQzVMConfiguration().importCliPathInfo(path);
  EXPECT_EQ("/usr/sbin/", path.commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", path.supportDir);
  EXPECT_EQ("kept", path.otherDir);
}

}  // namespace

// The support object itself: construction, configuration and trace log.
#include "support/qzvm_support.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

class SupportTest : public PluginEnv {};

class SupportWithRunner : public CQzVMSupport {
 public:
  const CQzVMCliTool& runner() const { return m_cliTool; }
};

TEST_F(SupportTest, ConstructionWritesTheDefaultFileAndReadsIt) {
  CQzVMSupport support;
  EXPECT_TRUE(std::filesystem::exists(configFile()));
  EXPECT_EQ("/usr/sbin/", support.cliPath().commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", support.cliPath().supportDir);
}

TEST_F(SupportTest, ConstructionReadsTheConfiguredDirectory) {
  writeFile(configFile(), "[CLI_TOOL_INFO]\nFILEPATH_QzVM=/opt/qz\n");
  CQzVMSupport support;
  EXPECT_EQ("/opt/qz/", support.cliPath().commandDir);
}

TEST_F(SupportTest, RegisteredLogReachesTheRunner) {
  SupportWithRunner support;
  EXPECT_TRUE(support.getTraceLog());
  EXPECT_EQ(support.getTraceLog(), support.runner().getTraceLog());
  support.registerTraceLog(qzfi_pdk_4_4::CFiTraceLogPtr());
  EXPECT_FALSE(support.runner().getTraceLog());
}

TEST_F(SupportOpsTest, DefaultCommandDirectoryComesFromTheConfiguration) {
  TestableSupport fresh;
  EXPECT_EQ(fresh.cliPath().commandDir, "/usr/sbin/");
  EXPECT_EQ(fresh.cliPath().supportDir, "/usr/lib/qzvm/bin/");
  answer("/usr/sbin/qzdg   list dg1", 0);
  EXPECT_TRUE(fresh.isDGPresent("dg1"));
}

}  // namespace
}  // namespace qzvmfi_support_test

// Device-name conversions, the installation probe and the replaceable sleep.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "../host/tempdir.h"
#include "context.h"
#include "osutil.h"

using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiExecSeamScope;

namespace {

// The configuration folder is the test's own and the variable naming it is
// restored afterwards; the plug-in's trace log and error stack live only
// inside one test.
class OsUtilTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(m_folder.path().empty());
    qzvmfi_ctx::TraceLog::instance()->setLevel(9);
    qzvmfi_ctx::TraceLog::instance()->setSink([this](int level, const std::string& text) {
      m_traces.push_back({level, text});
    });
    qzvmfi_ctx::ErrorManager::instance()->clear();
  }
  void TearDown() override {
    qzvmfi_ctx::ErrorManager::instance(true);
    qzvmfi_ctx::TraceLog::instance(true);
  }
  bool traced(int level, const std::string& text) const {
    for (const auto& entry : m_traces) {
      if (entry.first == level && entry.second.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

  qztest::TempDir m_folder;
  qztest::ScopedEnv m_configEnv{"QZFI_CONFIG_DIR", m_folder.path()};
  std::vector<std::pair<int, std::string>> m_traces;
};

std::string devPrefixRemoved(std::string name) {
  CFiQzVMUtil::removeDevPrefix(name);
  return name;
}

std::string sliceRemoved(std::string name) {
  CFiQzVMUtil::removeSliceFromDisk(name);
  return name;
}

std::string blockToRaw(const std::string& block) {
  std::vector<char> raw(block.size() + 2, 'x');
  convertBlockToRaw(block.c_str(), raw.data());
  return raw.data();
}

TEST_F(OsUtilTest, RemoveDevPrefixStripsOnlyALeadingDevFolder) {
  EXPECT_EQ(devPrefixRemoved("/dev/sda"), "sda");
  EXPECT_EQ(devPrefixRemoved("sda"), "sda");
  EXPECT_EQ(devPrefixRemoved("/devices"), "/devices");
}

TEST_F(OsUtilTest, MakeCompleteDevNameAlwaysPrefixes) {
  EXPECT_EQ(CFiQzVMUtil::makeCompleteDevName("sdb"), "/dev/sdb");
  EXPECT_EQ(CFiQzVMUtil::makeCompleteDevName("/dev/sdb"), "/dev//dev/sdb");
}

TEST_F(OsUtilTest, RemoveSliceFromDiskCutsTrailingDigits) {
  EXPECT_EQ(sliceRemoved("sda1"), "sda");
  EXPECT_EQ(sliceRemoved("sdb12"), "sdb");
  EXPECT_EQ(sliceRemoved("1234"), "1234");
  EXPECT_EQ(sliceRemoved("sda"), "sda");
  EXPECT_EQ(sliceRemoved("7"), "7");
  EXPECT_EQ(sliceRemoved(""), "");
}

TEST_F(OsUtilTest, RemoveSliceFromDiskTracesItsScope) {
  sliceRemoved("sda1");
  EXPECT_TRUE(traced(6, "Entering Function removeSliceFromDisk"));
  EXPECT_TRUE(traced(6, "Exiting Function removeSliceFromDisk"));
}

TEST_F(OsUtilTest, CleanupOtherLVMOnDiskHasNothingToDo) {
  EXPECT_EQ(CFiQzVMUtil::cleanupOtherLVMOnDisk("sdb"), 0);
}

TEST_F(OsUtilTest, MakeBlockToRawPathKeepsTheName) {
  std::string raw;
  makeBlockToRawPath("/dev/sdb", raw);
  EXPECT_EQ(raw, "/dev/sdb");
  makeBlockToRawPath("sdb", raw);
  EXPECT_EQ(raw, "sdb");
  makeBlockToRawPath("x/dev/sdb", raw);
  EXPECT_EQ(raw, "/dev//sdb");
}

TEST_F(OsUtilTest, ConvertBlockToRawInsertsRAfterTheEighthCharacter) {
  EXPECT_EQ(blockToRaw("/dev/qz/dsk/dg1/vol1"), "/dev/qz/rdsk/dg1/vol1");
  EXPECT_EQ(blockToRaw("/dev/qz/dsk/a/b"), "/dev/qz/rdsk/a/b");
  EXPECT_EQ(blockToRaw("/abcdefgXYZ"), "/abcdefgrXYZ");
  EXPECT_TRUE(traced(3, "Entering convertBlockToRaw with [/dev/qz/dsk/a/b]\n"));
  EXPECT_TRUE(
      traced(3, "convertBlockToRaw Done: [/dev/qz/dsk/a/b] converted to [/dev/qz/rdsk/a/b]\n"));
}

TEST_F(OsUtilTest, IsInstalledFindsThePackage) {
  CFiExecSeamScope seam;
  CFiExecSeam::answer("/bin/rpm -qa ", 0, {"bash-5.1\n", "ZOLKqzvm-8.0\n"});
  EXPECT_TRUE(CFiQzVMUtil::isInstalled());
  EXPECT_EQ(CFiExecSeam::commands(), std::vector<std::string>{"/bin/rpm -qa "});
  EXPECT_EQ(qzvmfi_ctx::ErrorManager::instance()->count(), 0u);
  EXPECT_TRUE(traced(6, "Entering Function isInstalled [20, osutil]"));
  EXPECT_TRUE(traced(6, "Exiting Function isInstalled [20, osutil]"));
}

TEST_F(OsUtilTest, IsInstalledReportsAMissingPackageEvenWhenRpmSucceeds) {
  CFiExecSeamScope seam;
  CFiExecSeam::answer("/bin/rpm -qa ", 0, {"bash-5.1\n", "coreutils\n"});
  EXPECT_FALSE(CFiQzVMUtil::isInstalled());
  auto errors = qzvmfi_ctx::ErrorManager::instance()->errors();
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0]->getIdentifier(), "MSG_ERROR_COMMAND_FAILED");
  ASSERT_EQ(errors[0]->getArguments().size(), 3u);
  EXPECT_EQ(errors[0]->argumentText(0), "isInstalled");
  EXPECT_EQ(errors[0]->argumentText(1), "/bin/rpm -qa ");
  EXPECT_EQ(errors[0]->argumentText(2), "bash-5.1\ncoreutils\n");
  EXPECT_EQ(errors[0]->getSeverity(), 3);
  EXPECT_TRUE(traced(3, "CFiQzVMUtil::isInstalled - qzvm not installed."));
}

TEST_F(OsUtilTest, IsInstalledIsFalseWhenRpmFails) {
  CFiExecSeamScope seam;
  CFiExecSeam::answer("/bin/rpm -qa ", 127, {});
  EXPECT_FALSE(CFiQzVMUtil::isInstalled());
  // The runner reports the failed command, then the probe the missing
  // package.
  auto errors = qzvmfi_ctx::ErrorManager::instance()->errors();
  ASSERT_EQ(errors.size(), 2u);
  for (const auto& error : errors) {
    EXPECT_EQ(error->getIdentifier(), "MSG_ERROR_COMMAND_FAILED");
    EXPECT_EQ(error->argumentText(1), "/bin/rpm -qa ");
    EXPECT_EQ(error->argumentText(2), "");
  }
  EXPECT_EQ(errors[0]->argumentText(0), "executeCommand");
  EXPECT_EQ(errors[1]->argumentText(0), "isInstalled");
}

TEST_F(OsUtilTest, SleepGoesThroughTheReplacement) {
  std::vector<unsigned> pauses;
  QzVMSleepFunction previous = setQzVMSleep([&pauses](unsigned s) { pauses.push_back(s); });
  qzvmSleep(10);
  qzvmSleep(1);
  setQzVMSleep(previous);
  EXPECT_EQ(pauses, (std::vector<unsigned>{10, 1}));
}

TEST_F(OsUtilTest, SysPathsFollowTheRoot) {
  EXPECT_EQ(qzvmSysPath("/sys/block/sdb/device/delete"), "/sys/block/sdb/device/delete");
  setQzVMSysRoot(m_folder.path());
  const std::string underRoot = qzvmSysPath("/sys/block/sdb/device/delete");
  setQzVMSysRoot("");
  EXPECT_EQ(underRoot, m_folder.path() + "/sys/block/sdb/device/delete");
  EXPECT_EQ(qzvmSysPath("/sys/block/sdb/device/delete"), "/sys/block/sdb/device/delete");
}

}  // namespace

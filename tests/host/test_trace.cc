// The trace log: its file, its line format, level filtering and scopes.
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "qzfi/trace.h"
#include "tempdir.h"

using namespace qzfi_pdk_4_4;

namespace {

class TraceLogTest : public ::testing::Test {
 protected:
  qztest::TempDir dir;
  qztest::ScopedEnv logDir{"QZFI_LOG_DIR", dir.path()};
  qztest::ScopedEnv noLevel{"QZFI_TRACE_LEVEL", std::nullopt};

  CFiTraceLogPtr openLog(int level) {
    CFiTraceLogPtr log(new CFiTraceLog());
    EXPECT_EQ(log->initialize("qzvmfi", "", "", level, true), 0);
    return log;
  }
  std::string logText() { return qztest::readFile(dir.file("qzvmfi.log")); }
};

TEST_F(TraceLogTest, FileIsNamedAfterTheProviderInTheLogFolder) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  EXPECT_EQ(log->getFileName(), dir.file("qzvmfi.log"));
  EXPECT_EQ(log->getName(), "qzvmfi");
  EXPECT_EQ(log->getLevel(), QZFI_TRACE_INFO);
}

TEST_F(TraceLogTest, ExplicitFolderAndFileWin) {
  qztest::TempDir other;
  CFiTraceLogPtr log(new CFiTraceLog());
  ASSERT_EQ(log->initialize("qzvmfi", other.path() + "/sub", "custom.trc", 3, true), 0);
  EXPECT_EQ(log->getFileName(), other.path() + "/sub/custom.trc");
  log->trace(QZFI_TRACE_ERROR, "into the custom file");
  EXPECT_NE(qztest::readFile(other.path() + "/sub/custom.trc").find("into the custom file"),
            std::string::npos);
}

TEST_F(TraceLogTest, EachLineHoldsTimePidLevelAndText) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  log->trace(QZFI_TRACE_WARNING, "CQzVMPlugin::init %s %d", "value", 7);
  std::string text = logText();
  EXPECT_NE(text.find("[" + std::to_string(getpid()) + "] 2 CQzVMPlugin::init value 7\n"),
            std::string::npos)
      << text;
  // "YYYY-MM-DD hh:mm:ss.mmm " leads the line.
  ASSERT_GT(text.size(), 24u);
  EXPECT_EQ(text[4], '-');
  EXPECT_EQ(text[10], ' ');
  EXPECT_EQ(text[13], ':');
  EXPECT_EQ(text[19], '.');
}

TEST_F(TraceLogTest, LevelsAboveTheThresholdAreDropped) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  log->trace(QZFI_TRACE_ERROR, "error line");
  log->trace(QZFI_TRACE_INFO, "info line");
  log->trace(QZFI_TRACE_DETAIL, "detail line");
  std::string text = logText();
  EXPECT_NE(text.find("error line"), std::string::npos);
  EXPECT_NE(text.find("info line"), std::string::npos);
  EXPECT_EQ(text.find("detail line"), std::string::npos);
}

TEST_F(TraceLogTest, EnvironmentLevelOverridesTheCallersLevel) {
  qztest::ScopedEnv level("QZFI_TRACE_LEVEL", std::string("1"));
  CFiTraceLogPtr log = openLog(QZFI_TRACE_DETAIL);
  EXPECT_EQ(log->getLevel(), 1);
  log->trace(QZFI_TRACE_WARNING, "warning line");
  log->trace(QZFI_TRACE_ERROR, "error line");
  std::string text = logText();
  EXPECT_EQ(text.find("warning line"), std::string::npos);
  EXPECT_NE(text.find("error line"), std::string::npos);
}

TEST_F(TraceLogTest, TruncateStartsAfreshAndAppendKeeps) {
  openLog(QZFI_TRACE_INFO)->trace(QZFI_TRACE_ERROR, "first run");
  CFiTraceLogPtr appending(new CFiTraceLog());
  ASSERT_EQ(appending->initialize("qzvmfi", "", "", QZFI_TRACE_INFO, false), 0);
  appending->trace(QZFI_TRACE_ERROR, "second run");
  std::string text = logText();
  size_t first = text.find("first run");
  size_t second = text.find("second run");
  ASSERT_NE(first, std::string::npos) << text;
  ASSERT_NE(second, std::string::npos) << text;
  EXPECT_LT(first, second);
  openLog(QZFI_TRACE_INFO);
  EXPECT_EQ(logText(), "");
}

TEST_F(TraceLogTest, FunctionScopeWritesEnteringAndExiting) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_DETAIL);
  {
    CFiTraceLogFunction scope(log, "supportsFiType", 120, "../plugin");
    log->trace(QZFI_TRACE_INFO, "inside");
  }
  std::string text = logText();
  size_t entering = text.find("6 Entering Function supportsFiType [120, ../plugin]\n");
  size_t inside = text.find("3 inside\n");
  size_t exiting = text.find("6 Exiting Function supportsFiType [120, ../plugin]\n");
  ASSERT_NE(entering, std::string::npos) << text;
  ASSERT_NE(inside, std::string::npos) << text;
  ASSERT_NE(exiting, std::string::npos) << text;
  EXPECT_LT(entering, inside);
  EXPECT_LT(inside, exiting);
}

TEST_F(TraceLogTest, FunctionScopeIsFilteredByItsLevel) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  { CFiTraceLogFunction scope(log, "quiet", 1, "file"); }
  { CFiTraceLogFunction scope(log, "loud", 2, "file", QZFI_TRACE_INFO); }
  std::string text = logText();
  EXPECT_EQ(text.find("quiet"), std::string::npos);
  EXPECT_NE(text.find("Entering Function loud [2, file]"), std::string::npos);
  EXPECT_NE(text.find("Exiting Function loud [2, file]"), std::string::npos);
}

TEST_F(TraceLogTest, NullLogScopeWritesNothing) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_DETAIL);
  { CFiTraceLogFunction scope(CFiTraceLogPtr(), "nothing", 1, "file"); }
  EXPECT_EQ(logText(), "");
}

TEST_F(TraceLogTest, SinkReceivesTheLinesThatPassTheFilter) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  std::vector<std::pair<int, tstring>> seen;
  log->setSink([&seen](int level, const tstring& text) { seen.emplace_back(level, text); });
  log->trace(QZFI_TRACE_INFO, "kept %d", 1);
  log->trace(QZFI_TRACE_DETAIL, "dropped");
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].first, QZFI_TRACE_INFO);
  EXPECT_EQ(seen[0].second, "kept 1");
}

TEST_F(TraceLogTest, TextWithItsOwnLineFeedGetsNoSecond) {
  CFiTraceLogPtr log = openLog(QZFI_TRACE_INFO);
  log->trace(QZFI_TRACE_INFO, "ends in a line feed\n");
  std::string text = logText();
  EXPECT_NE(text.find("ends in a line feed\n"), std::string::npos);
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
}

TEST_F(TraceLogTest, UnopenableFileIsReportedAndTheSinkStillWorks) {
  std::string notAFolder = dir.file("plain_file");
  { std::ofstream(notAFolder) << "x"; }
  CFiTraceLogPtr log(new CFiTraceLog());
  EXPECT_NE(log->initialize("qzvmfi", notAFolder + "/sub", "", 3, true), 0);
  tstring last;
  log->setSink([&last](int, const tstring& text) { last = text; });
  log->trace(QZFI_TRACE_ERROR, "still seen");
  EXPECT_EQ(last, "still seen");
}

}  // namespace

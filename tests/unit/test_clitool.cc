#include "clitool.h"

#include <gtest/gtest.h>

#include "plugin_env.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::EFiExecPipe;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::TraceLine;

const char kCommand[] = "/usr/sbin/qzdg  list  dg1";

class CliToolTest : public PluginEnv {
 protected:
  // The runner's own lines, without those of the pipe it uses.
  std::vector<TraceLine> runnerTrace() const {
    std::vector<TraceLine> lines = traced("CQzVMCliTool::executeCommand");
    for (const TraceLine& line : traced("Warning - ")) {
      lines.push_back(line);
    }
    return lines;
  }
};

TEST_F(CliToolTest, SuccessWithoutOutputTracesOnlyTheCommand) {
  CFiExecSeam::expect(kCommand, 0, {});
  std::vector<std::string> output{"stale\n"};
  EXPECT_EQ(0, CQzVMCliTool().executeCommand(kCommand, output));
  EXPECT_TRUE(output.empty());
  EXPECT_EQ((std::vector<TraceLine>{
                {3, "CQzVMCliTool::executeCommand command: /usr/sbin/qzdg  list  dg1"}}),
            runnerTrace());
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(std::vector<std::string>{kCommand}, CFiExecSeam::commands());
}

TEST_F(CliToolTest, SuccessWithOutputTracesItJoined) {
  CFiExecSeam::expect(kCommand, 0, {"a\n", "b\n"});
  std::vector<std::string> output;
  EXPECT_EQ(0, CQzVMCliTool().executeCommand(kCommand, output));
  EXPECT_EQ((std::vector<std::string>{"a\n", "b\n"}), output);
  EXPECT_EQ((std::vector<TraceLine>{
                {3, "CQzVMCliTool::executeCommand command: /usr/sbin/qzdg  list  dg1"},
                {6, "CQzVMCliTool::executeCommand passed with output 'a\nb\n'"}}),
            runnerTrace());
  EXPECT_TRUE(errors().empty());
}

TEST_F(CliToolTest, FailurePushesTheCommandAndItsOutputJoinedWithNothingBetween) {
  CFiExecSeam::expect(kCommand, 3, {"a", "b"});
  std::vector<std::string> output{"stale\n"};
  EXPECT_EQ(3, CQzVMCliTool().executeCommand(kCommand, output));
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), output);

  const auto pushed = errors();
  ASSERT_EQ(1u, pushed.size());
  EXPECT_EQ("MSG_ERROR_COMMAND_FAILED", pushed[0]->getIdentifier());
  EXPECT_EQ("clitool", pushed[0]->getSourceFile());
  EXPECT_EQ(51, pushed[0]->getLine());
  EXPECT_EQ(3, pushed[0]->getSeverity());
  ASSERT_EQ(3u, pushed[0]->getArguments().size());
  EXPECT_EQ("executeCommand", pushed[0]->argumentText(0));
  EXPECT_EQ(kCommand, pushed[0]->argumentText(1));
  EXPECT_EQ("ab", pushed[0]->argumentText(2));

  EXPECT_EQ((std::vector<TraceLine>{
                {3, "CQzVMCliTool::executeCommand command: /usr/sbin/qzdg  list  dg1"},
                {2, "Warning - failed with message='ab' and error no '3'."}}),
            runnerTrace());
}

TEST_F(CliToolTest, FailureWithoutOutputPushesAnEmptyText) {
  CFiExecSeam::expect(kCommand, 1, {});
  std::vector<std::string> output;
  EXPECT_EQ(1, CQzVMCliTool().executeCommand(kCommand, output));
  const auto pushed = errors();
  ASSERT_EQ(1u, pushed.size());
  EXPECT_EQ("", pushed[0]->argumentText(2));
  EXPECT_TRUE(wasTraced(2, "Warning - failed with message='' and error no '1'."));
}

TEST_F(CliToolTest, PipeThatCannotStartGivesOneAndPushesNothing) {
  CFiExecSeam::setResponder(
      [](const std::string&, CFiExecSeam::Answer&) -> bool { throw EFiExecPipe("cannot start"); });
  std::vector<std::string> output{"stale\n"};
  EXPECT_EQ(1, CQzVMCliTool().executeCommand(kCommand, output));
  EXPECT_TRUE(output.empty());
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ((std::vector<TraceLine>{
                {3, "CQzVMCliTool::executeCommand command: /usr/sbin/qzdg  list  dg1"},
                {1, "CQzVMCliTool::executeCommand - exception thrown in command execution."}}),
            runnerTrace());
}

TEST_F(CliToolTest, WithoutATraceLogNothingIsTraced) {
  CFiExecSeam::expect(kCommand, 2, {"x\n"});
  CQzVMCliTool tool;
  tool.registerTraceLog(qzfi_pdk_4_4::CFiTraceLogPtr());
  std::vector<std::string> output;
  EXPECT_EQ(2, tool.executeCommand(kCommand, output));
  EXPECT_TRUE(runnerTrace().empty());
  EXPECT_TRUE(traced("CFiExecPipe").empty());
  EXPECT_EQ(1u, errors().size());
}

TEST_F(CliToolTest, RunnerHoldsTheDefaultToolDirectories) {
  CQzVMCliTool tool;
  EXPECT_EQ("/usr/sbin/", tool.cliPath().commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", tool.cliPath().supportDir);
  EXPECT_EQ("", tool.cliPath().otherDir);
}

class TempFileTest : public PluginEnv {
 private:
  // tempnam prefers TMPDIR to the folder it is given.
  qzvmfi_test::ScopedEnv m_tmpdir{"TMPDIR", std::nullopt};
};

TEST_F(TempFileTest, NamesAreFreshInTmpWithThePrefix) {
  CFiMyTempFile files;
  const std::string first = files.getTmpFile();
  const std::string second = files.getTmpFile();
  // The C library keeps at most five characters of the prefix "tpu_fi".
  EXPECT_EQ(0u, first.rfind("/tmp/tpu_f", 0)) << first;
  EXPECT_EQ(0u, second.rfind("/tmp/tpu_f", 0)) << second;
  EXPECT_NE(first, second);
  EXPECT_EQ((std::vector<std::string>{first, second}), files.files());
}

TEST_F(TempFileTest, DestructorRemovesEveryNameWithOneCommand) {
  std::string first;
  std::string second;
  {
    CFiMyTempFile files;
    first = files.getTmpFile();
    second = files.getTmpFile();
    EXPECT_TRUE(CFiExecSeam::commands().empty());
  }
  EXPECT_EQ(std::vector<std::string>{"/bin/rm   " + first + " " + second}, CFiExecSeam::commands());
  const auto entering = traced("Entering Function ~CFiMyTempFile [");
  ASSERT_EQ(1u, entering.size());
  EXPECT_EQ(6, entering[0].level);
}

TEST_F(TempFileTest, DestructorWithNoNameRunsNoCommand) {
  { CFiMyTempFile files; }
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  EXPECT_EQ(1u, traced("Entering Function ~CFiMyTempFile [").size());
}

TEST_F(TempFileTest, FailedRemovalIsNotRetried) {
  std::string name;
  {
    CFiMyTempFile files;
    name = files.getTmpFile();
    CFiExecSeam::expect("/bin/rm   " + name, 1, {"rm: busy\n"});
  }
  EXPECT_EQ(1u, CFiExecSeam::commands().size());
}

}  // namespace

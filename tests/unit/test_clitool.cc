#include "clitool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "plugin_env.h"
#include "support/qzvm_support.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::EFiExecPipe;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::Pushed;
using qzvmfi_test::readFile;
using qzvmfi_test::TempDir;
using qzvmfi_test::TraceLine;
using qzvmfi_test::writeFile;
using Lines = std::vector<std::string>;

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

TEST(CommandLine, PiecesFollowTheToolAsTheyStand) {
  CQzVMCommandLine line("/usr/sbin/", "qzdg  ");
  EXPECT_EQ(line.text(), "/usr/sbin/qzdg  ");
  EXPECT_EQ(line.toolPath(), "/usr/sbin/qzdg");
  const std::string dg = "dg1";
  line.add(" -g ", dg, " adddisk ", " ", std::string("disk01"), "=", std::string("sdb"));
  EXPECT_EQ(line.text(), "/usr/sbin/qzdg   -g dg1 adddisk  disk01=sdb");
  EXPECT_EQ(line.refusal(), nullptr);
  CQzVMCommandLine sized("", "qzassist ");
  sized.add(" make ", 18446744073709551615ull);
  EXPECT_EQ(sized.text(), "qzassist  make 18446744073709551615");
}

TEST(CommandLine, NamesOfTheVolumeManagerPass) {
  for (const char* name : {"dg1", "qzarr0_3", "disk-01", "a.b", "1700000039.3.A", "_x", "9999",
                           "fsgen", "abcdefghijklmnopqrstuvwxyz01234"}) {
    EXPECT_EQ(qzvmNameFault(name), nullptr) << name;
  }
}

TEST(CommandLine, EveryOtherNameIsRefusedWithItsReason) {
  const std::string letters = "letters, digits, '_', '-' and '.'";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"", "it is empty"},
      {std::string(32, 'a'), "it is longer than 31 characters"},
      {std::string(300, 'a'), "it is longer than 31 characters"},
      {"-rf", "it begins with '-' or '.'"},
      {"..", "it begins with '-' or '.'"},
      {".hidden", "it begins with '-' or '.'"},
      {"dg;reboot", "it holds a character other than " + letters},
      {"$(reboot)", "it holds a character other than " + letters},
      {"`reboot`", "it holds a character other than " + letters},
      {"dg 1", "it holds a character other than " + letters},
      {"dg\n1", "it holds a character other than " + letters},
      {"dg\t1", "it holds a character other than " + letters},
      {"dg'1", "it holds a character other than " + letters},
      {"dg\"1", "it holds a character other than " + letters},
      {"a/b", "it holds a character other than " + letters},
      {"dg*", "it holds a character other than " + letters},
      {std::string("dg\0x", 4), "it holds a character other than " + letters},
      {"d\xc3\xa9", "it holds a character other than " + letters},
  };
  for (const auto& [name, reason] : cases) {
    const char* fault = qzvmNameFault(name);
    ASSERT_NE(fault, nullptr) << name;
    EXPECT_EQ(reason, fault) << name;
  }
}

TEST(CommandLine, PathsOfTheirOwnAreAbsoluteAndMadeOfNames) {
  EXPECT_EQ(qzvmPathFault("/tmp/tpu_fiAb3xZ9"), nullptr);
  EXPECT_EQ(qzvmPathFault("/tmp/qzfi_host_Ab3xZ9/" + std::string(40, 'a')), nullptr);
  EXPECT_STREQ(qzvmPathFault("tmp/x"), "it is not an absolute path");
  EXPECT_STREQ(qzvmPathFault(""), "it is not an absolute path");
  EXPECT_STREQ(qzvmPathFault("/tmp/../etc/passwd"), "it begins with '-' or '.'");
  EXPECT_STREQ(qzvmPathFault("/tmp//x"), "it is empty");
  EXPECT_STREQ(qzvmPathFault("/tmp/"), "it is empty");
  EXPECT_STREQ(qzvmPathFault("/tmp/x y"),
               "it holds a character other than letters, digits, '_', '-' and '.'");
  EXPECT_STREQ(qzvmPathFault("/" + std::string(4095, 'a')), "it is longer than 4095 characters");
}

TEST(CommandLine, ARefusedNameNeverEntersTheText) {
  CQzVMCommandLine line("/usr/sbin/", "qzdg  ");
  line.add(" -g ", std::string("dg;reboot"), " adddisk ", std::string("$(x)"));
  EXPECT_EQ(line.text(), "/usr/sbin/qzdg   -g  adddisk ");
  EXPECT_STREQ(line.refusal(), "it holds a character other than letters, digits, '_', '-' and '.'");
  // The first refused name is the one reported.
  EXPECT_EQ(line.refusedName(), "dg;reboot");
  const std::string file = "/tmp/a b";
  CQzVMCommandLine withFile("/usr/sbin/", "qzmake  ");
  withFile.add(" -d ", CQzVMCommandLine::File{file});
  EXPECT_EQ(withFile.refusedName(), "/tmp/a b");
}

TEST_F(CliToolTest, ARefusedLineIsNotRunAndIsReported) {
  CQzVMCliTool tool;
  CQzVMCommandLine line("/usr/sbin/", "qzdg  ");
  line.add(" list ", std::string("$(reboot)"));
  Lines output{"stale\n"};
  EXPECT_EQ(1, tool.run(line, output));
  EXPECT_TRUE(output.empty());
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  const std::string why = "it holds a character other than letters, digits, '_', '-' and '.'";
  EXPECT_EQ(
      (std::vector<Pushed>{
          {"MSG_ERROR_INVALID_NAME", "clitool", {"run", "$(reboot)", why, "/usr/sbin/qzdg"}}}),
      pushed());
  EXPECT_EQ((std::vector<TraceLine>{{1, "CQzVMCliTool::run - refused the name '$(reboot)' (" + why +
                                            "); /usr/sbin/qzdg was left alone."}}),
            traced("CQzVMCliTool::run"));
}

TEST_F(CliToolTest, AnAcceptedLineRunsAsItStands) {
  CFiExecSeam::expect(kCommand, 0, {"a\n"});
  CQzVMCommandLine line("/usr/sbin/", "qzdg  ");
  line.add("list  ", std::string("dg1"));
  ASSERT_EQ(line.text(), kCommand);
  Lines output;
  EXPECT_EQ(0, CQzVMCliTool().run(line, output));
  EXPECT_EQ(Lines{"a\n"}, output);
  EXPECT_EQ(Lines{kCommand}, CFiExecSeam::commands());
}

class TempFileTest : public PluginEnv {
 protected:
  // A file of the test's own, outside the temporary folder, that a planted
  // link points at.
  void SetUp() override {
    PluginEnv::SetUp();
    m_victim = m_scratch.file("victim");
    writeFile(m_victim, "precious\n");
  }

  static struct stat statOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(0, lstat(path.c_str(), &status)) << path;
    return status;
  }

  TempDir m_scratch;
  std::string m_victim;
};

TEST_F(TempFileTest, EachFileIsCreatedPrivateUnderAFreshNameWithThePrefix) {
  CFiMyTempFile files;
  const std::string first = files.getTmpFile();
  const std::string second = files.getTmpFile();
  for (const std::string& name : {first, second}) {
    ASSERT_EQ(0u, name.rfind(tmpFolder() + "tpu_fi", 0)) << name;
    EXPECT_EQ(tmpFolder().size() + 12, name.size()) << name;
    const struct stat status = statOf(name);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(0600u, status.st_mode & 07777);
    EXPECT_EQ(geteuid(), status.st_uid);
    EXPECT_EQ(0, status.st_size);
    EXPECT_EQ(nullptr, qzvmPathFault(name));
  }
  EXPECT_NE(first, second);
  EXPECT_EQ((Lines{first, second}), files.files());
}

TEST(TempFileFolder, IsTmp) {
  EXPECT_EQ("/tmp/", CFiMyTempFile::folder());
}

TEST_F(TempFileTest, InTmpTheFileIsMadeAndRemovedForReal) {
  const std::string mine = CFiMyTempFile::setFolder("/tmp/");
  CFiExecSeam::disable();
  std::string name;
  {
    CFiMyTempFile files;
    name = files.getTmpFile();
    ASSERT_EQ(0u, name.rfind("/tmp/tpu_fi", 0)) << name;
    EXPECT_TRUE(std::filesystem::is_regular_file(name));
  }
  CFiMyTempFile::setFolder(mine);
  EXPECT_FALSE(std::filesystem::exists(name));
}

TEST_F(TempFileTest, AFolderThatCannotHoldItGivesAnEmptyNameAndTheReason) {
  const std::string old = CFiMyTempFile::setFolder(m_scratch.file("missing") + "/");
  {
    CFiMyTempFile files;
    EXPECT_EQ("", files.getTmpFile());
    EXPECT_EQ("No such file or directory", files.lastError());
    EXPECT_EQ(Lines{""}, files.files());
  }
  CFiMyTempFile::setFolder(old);
  // Nothing was made, so nothing is removed.
  EXPECT_TRUE(CFiExecSeam::commands().empty());
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
  EXPECT_EQ(Lines{"/bin/rm   " + first + " " + second}, CFiExecSeam::commands());
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

TEST_F(TempFileTest, ALinkPlantedAtTheNameCannotRedirectTheWrite) {
  CFiMyTempFile files;
  const std::string name = files.getTmpFile();
  // Another user who could replace the file with a link to ours.
  ASSERT_EQ(0, unlink(name.c_str()));
  ASSERT_EQ(0, symlink(m_victim.c_str(), name.c_str()));
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({"dg dg1\n"}, name));
  EXPECT_EQ(nullptr, CFiMyTempFile::openForWriting(name));
  EXPECT_EQ(ELOOP, errno);
  EXPECT_EQ(nullptr, CFiMyTempFile::openForReading(name));
  EXPECT_EQ("precious\n", readFile(m_victim));
}

TEST_F(TempFileTest, AHardLinkPlantedAtTheNameCannotRedirectTheWrite) {
  CFiMyTempFile files;
  const std::string name = files.getTmpFile();
  ASSERT_EQ(0, unlink(name.c_str()));
  ASSERT_EQ(0, link(m_victim.c_str(), name.c_str()));
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({"dg dg1\n"}, name));
  EXPECT_EQ(EPERM, errno);
  EXPECT_EQ("precious\n", readFile(m_victim));
}

TEST_F(TempFileTest, TheFileItselfIsWrittenAndReadBack) {
  CFiMyTempFile files;
  const std::string name = files.getTmpFile();
  EXPECT_EQ(0, CQzVMSupport::putVectorInFile({"dg dg1\n", "vol v1\n"}, name));
  EXPECT_EQ("dg dg1\nvol v1\n", readFile(name));
  EXPECT_EQ(0600u, statOf(name).st_mode & 07777);
  // Written again, it holds only the new lines.
  EXPECT_EQ(0, CQzVMSupport::putVectorInFile({"x\n"}, name));
  EXPECT_EQ("x\n", readFile(name));
}

}  // namespace

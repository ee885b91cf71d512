// The pipe runner and its test seam.
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qzfi/execpipe.h"
#include "tempdir.h"

using namespace qzfi_pdk_4_4;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

using Lines = std::vector<tstring>;

int runCommand(const tstring& command, Lines& output, const tstring& input = tstring(),
               int limitSeconds = 0, const tstring& directory = tstring(),
               const tstring& environment = tstring()) {
  CFiExecPipePosix pipe(1);
  return pipe.Exec(command, output, input, limitSeconds, directory, environment, tstring());
}

TEST(ExecPipe, ExitStatusComesBackUnchanged) {
  Lines output;
  EXPECT_EQ(runCommand("exit 31", output), 31);
  EXPECT_TRUE(output.empty());
  EXPECT_EQ(runCommand("true", output), 0);
}

TEST(ExecPipe, DeathBySignalIs128PlusTheSignal) {
  Lines output;
  EXPECT_EQ(runCommand("kill -9 $$", output), 128 + 9);
}

TEST(ExecPipe, EachLineKeepsItsLineFeed) {
  Lines output{"earlier\n"};
  EXPECT_EQ(runCommand("printf 'one\\ntwo\\n\\nlast'", output), 0);
  EXPECT_THAT(output, ElementsAre("earlier\n", "one\n", "two\n", "\n", "last"));
}

TEST(ExecPipe, StandardErrorFollowsTheOutputOfAFailingCommand) {
  Lines output;
  EXPECT_EQ(runCommand("echo out; echo 'qzdg: no such group' >&2; echo more; exit 3", output), 3);
  EXPECT_THAT(output, ElementsAre("out\n", "more\n", "qzdg: no such group\n"));
}

TEST(ExecPipe, StandardErrorOfASucceedingCommandIsOnlyTraced) {
  CFiTraceLogPtr log(new CFiTraceLog());
  log->setLevel(QZFI_TRACE_DETAIL);
  std::vector<tstring> traced;
  log->setSink([&traced](int, const tstring& text) { traced.push_back(text); });
  CFiExecPipePosix pipe(1);
  pipe.registerTraceLog(log);

  Lines output;
  EXPECT_EQ(pipe.Exec("echo row; echo 'warning: cache stale' >&2", output, "", 0, "", "", ""), 0);
  EXPECT_THAT(output, ElementsAre("row\n"));
  EXPECT_THAT(traced, testing::Contains(HasSubstr("warning: cache stale")));
}

TEST(ExecPipe, EveryRunIsTracedWithCommandStatusAndDuration) {
  CFiTraceLogPtr log(new CFiTraceLog());
  log->setLevel(QZFI_TRACE_DETAIL);
  std::vector<std::pair<int, tstring>> traced;
  log->setSink([&traced](int level, const tstring& text) { traced.emplace_back(level, text); });
  CFiExecPipePosix pipe(1);
  pipe.registerTraceLog(log);

  Lines output;
  pipe.Exec("exit 5", output, "", 0, "", "", "");
  ASSERT_EQ(traced.size(), 1u);
  EXPECT_EQ(traced[0].first, QZFI_TRACE_DETAIL);
  EXPECT_THAT(traced[0].second, HasSubstr("command: exit 5 status: 5 duration: "));
  EXPECT_THAT(traced[0].second, HasSubstr(" ms"));
}

TEST(ExecPipe, ChildRunsWithTheCLocale) {
  qztest::ScopedEnv locale("LC_ALL", std::string("de_DE.UTF-8"));
  Lines output;
  EXPECT_EQ(runCommand("echo \"$LC_ALL\"", output), 0);
  EXPECT_THAT(output, ElementsAre("C\n"));
}

TEST(ExecPipe, ExtraEnvironmentSettingsReachTheChild) {
  Lines output;
  EXPECT_EQ(runCommand("echo \"$QZ_A-$QZ_B\"", output, "", 0, "", "QZ_A=1;QZ_B=two words"), 0);
  EXPECT_THAT(output, ElementsAre("1-two words\n"));
}

TEST(ExecPipe, InputIsFedToTheCommand) {
  Lines output;
  EXPECT_EQ(runCommand("cat", output, "first\nsecond\n"), 0);
  EXPECT_THAT(output, ElementsAre("first\n", "second\n"));
}

TEST(ExecPipe, InputTheCommandNeverReadsDoesNotHurtTheHost) {
  Lines output;
  EXPECT_EQ(runCommand("exit 0", output, std::string(1 << 20, 'x')), 0);
}

TEST(ExecPipe, RunsInTheGivenDirectory) {
  qztest::TempDir dir;
  Lines output;
  EXPECT_EQ(runCommand("pwd -P", output, "", 0, dir.path()), 0);
  char resolved[4096];
  ASSERT_NE(realpath(dir.path().c_str(), resolved), nullptr);
  EXPECT_THAT(output, ElementsAre(std::string(resolved) + "\n"));
}

// A command that cannot start: its working directory does not exist.
TEST(ExecPipe, CommandThatCannotStartThrows) {
  qztest::TempDir dir;
  Lines output;
  EXPECT_THROW(runCommand("true", output, "", 0, dir.file("missing")), EFiExecPipe);
  EXPECT_TRUE(output.empty());
}

TEST(ExecPipe, UnknownPipeModeThrows) {
  CFiExecPipePosix pipe(7);
  Lines output;
  EXPECT_THROW(pipe.Exec("true", output, "", 0, "", "", ""), EFiExecPipe);
}

TEST(ExecPipe, LargeOutputOnBothStreamsDoesNotDeadlock) {
  Lines output;
  int status =
      runCommand("yes 0123456789abcdef | head -n 100000; yes errtext | head -n 100000 >&2; exit 1",
                 output, "", 30);
  EXPECT_EQ(status, 1);
  ASSERT_EQ(output.size(), 200000u);
  EXPECT_EQ(output.front(), "0123456789abcdef\n");
  EXPECT_EQ(output.back(), "errtext\n");
}

// SIGKILL reaches the group's other members asynchronously, so the test
// waits (bounded, returning at once when it happens) for the process to end.
bool processEnds(pid_t pid, int withinMs) {
  int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0) {
    return errno == ESRCH;
  }
  pollfd exited{fd, POLLIN, 0};
  bool ended = poll(&exited, 1, withinMs) == 1;
  close(fd);
  return ended;
}

// The child sleeps; the test does not: it waits only for the 1-second limit.
TEST(ExecPipe, LimitKillsTheWholeProcessGroup) {
  Lines output;
  auto started = std::chrono::steady_clock::now();
  int status = runCommand("sleep 30 & echo $!; wait", output, "", 1);
  auto elapsed = std::chrono::steady_clock::now() - started;
  EXPECT_EQ(status, 124);
  EXPECT_LT(elapsed, std::chrono::seconds(10));
  ASSERT_EQ(output.size(), 1u);
  pid_t grandchild = static_cast<pid_t>(std::stol(output[0]));
  EXPECT_TRUE(processEnds(grandchild, 5000)) << grandchild;
}

TEST(ExecPipe, LimitAppliesToASilentCommand) {
  Lines output;
  EXPECT_EQ(runCommand("exec >&- 2>&-; sleep 30", output, "", 1), 124);
}

// A descriptor the host opened without close-on-exec stays out of the child.
TEST(ExecPipe, HostDescriptorsAreNotInherited) {
  qztest::TempDir dir;
  int leaky = open(dir.file("host.txt").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(leaky, 0);
  int probe = 9;  // the shell's redirections take single-digit numbers
  ASSERT_EQ(fcntl(probe, F_GETFD), -1) << "descriptor 9 is already in use";
  ASSERT_EQ(dup2(leaky, probe), probe);
  Lines output;
  EXPECT_NE(runCommand("echo leaked >&9", output), 0);
  close(probe);
  close(leaky);
  EXPECT_EQ(qztest::readFile(dir.file("host.txt")), "");
}

class ExecSeamTest : public ::testing::Test {
 protected:
  CFiExecSeamScope seam;
};

TEST_F(ExecSeamTest, ScriptedAnswerAndRecordedLines) {
  CFiExecSeam::expect("/usr/sbin/qzdisk  list ", 0, {"DEVICE TYPE\n", "qzdmp0 auto\n"});
  Lines output;
  EXPECT_EQ(runCommand("/usr/sbin/qzdisk  list ", output), 0);
  EXPECT_THAT(output, ElementsAre("DEVICE TYPE\n", "qzdmp0 auto\n"));
  EXPECT_THAT(CFiExecSeam::commands(), ElementsAre("/usr/sbin/qzdisk  list "));
}

TEST_F(ExecSeamTest, NothingIsSpawned) {
  qztest::TempDir dir;
  std::string marker = dir.file("ran");
  CFiExecSeam::answer("touch " + marker, 0, {});
  Lines output;
  EXPECT_EQ(runCommand("touch " + marker, output), 0);
  EXPECT_NE(access(marker.c_str(), F_OK), 0);
}

TEST_F(ExecSeamTest, QueuedAnswersComeFirstThenTheStandingOne) {
  CFiExecSeam::answer("qzdg list", 0, {"standing\n"});
  CFiExecSeam::expect("qzdg list", 1, {"first\n"});
  CFiExecSeam::expect("qzdg list", 2, {"second\n"});
  Lines a;
  Lines b;
  Lines c;
  Lines d;
  EXPECT_EQ(runCommand("qzdg list", a), 1);
  EXPECT_EQ(runCommand("qzdg list", b), 2);
  EXPECT_EQ(runCommand("qzdg list", c), 0);
  EXPECT_EQ(runCommand("qzdg list", d), 0);
  EXPECT_THAT(a, ElementsAre("first\n"));
  EXPECT_THAT(b, ElementsAre("second\n"));
  EXPECT_THAT(c, ElementsAre("standing\n"));
  EXPECT_THAT(d, ElementsAre("standing\n"));
  EXPECT_EQ(CFiExecSeam::commands().size(), 4u);
}

TEST_F(ExecSeamTest, ResponderAnswersWhatTheScriptDoesNot) {
  CFiExecSeam::setResponder([](const tstring& command, CFiExecSeam::Answer& answer) {
    if (command.rfind("qzvol", 0) != 0) {
      return false;
    }
    answer.status = 0;
    answer.output = {"volume\n"};
    return true;
  });
  Lines output;
  EXPECT_EQ(runCommand("qzvol -g dg1 start vol1", output), 0);
  EXPECT_THAT(output, ElementsAre("volume\n"));
  Lines declined;
  EXPECT_EQ(runCommand("qzprint -m", declined), 127);
  EXPECT_THAT(declined, ElementsAre("qzfi exec seam: no answer for qzprint -m\n"));
}

TEST_F(ExecSeamTest, UnansweredLineGets127) {
  Lines output;
  EXPECT_EQ(runCommand("qzinfo", output), 127);
  EXPECT_THAT(output, ElementsAre("qzfi exec seam: no answer for qzinfo\n"));
  CFiExecSeam::Answer answer = CFiExecSeam::unanswered("x");
  EXPECT_EQ(answer.status, 127);
}

TEST_F(ExecSeamTest, ClearCommandsForgetsTheLinesOnly) {
  CFiExecSeam::answer("a", 0, {"kept\n"});
  Lines output;
  runCommand("a", output);
  CFiExecSeam::clearCommands();
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  runCommand("a", output);
  EXPECT_THAT(output, ElementsAre("kept\n", "kept\n"));
}

TEST(ExecSeam, DisableForgetsTheScriptAndRunsForReal) {
  CFiExecSeam::enable();
  EXPECT_TRUE(CFiExecSeam::isEnabled());
  CFiExecSeam::answer("echo real", 0, {"scripted\n"});
  Lines output;
  runCommand("echo real", output);
  CFiExecSeam::disable();
  EXPECT_FALSE(CFiExecSeam::isEnabled());
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  runCommand("echo real", output);
  EXPECT_THAT(output, ElementsAre("scripted\n", "real\n"));

  CFiExecSeam::enable();
  Lines again;
  EXPECT_EQ(runCommand("echo real", again), 127);
  CFiExecSeam::disable();
}

TEST(ExecSeam, RealRunsAreRecordedAndReplayedExactly) {
  qztest::TempDir dir;
  std::string file = dir.file("runs.rec");
  CFiExecSeam::recordTo(file);
  Lines first;
  Lines second;
  Lines third;
  runCommand("printf 'a b\\n\\nno feed'", first);
  runCommand("echo 'line\\n with escapes'; echo fail >&2; exit 4", second);
  runCommand("printf 'a b\\n\\nno feed'", third);
  CFiExecSeam::recordTo("");
  Lines unrecorded;
  runCommand("true", unrecorded);

  CFiExecSeamScope seam;
  ASSERT_EQ(CFiExecSeam::replayFrom(file), 3);
  Lines replayedFirst;
  Lines replayedSecond;
  EXPECT_EQ(runCommand("printf 'a b\\n\\nno feed'", replayedFirst), 0);
  EXPECT_EQ(replayedFirst, first);
  EXPECT_EQ(runCommand("echo 'line\\n with escapes'; echo fail >&2; exit 4", replayedSecond), 4);
  EXPECT_EQ(replayedSecond, second);
  Lines unknown;
  EXPECT_EQ(runCommand("true", unknown), 127);
}

TEST(ExecSeam, ReplayOfAMissingOrDamagedFileFails) {
  qztest::TempDir dir;
  EXPECT_EQ(CFiExecSeam::replayFrom(dir.file("absent.rec")), -1);
  std::ofstream(dir.file("bad.rec")) << "run 0 100 0\nshort\n";
  EXPECT_EQ(CFiExecSeam::replayFrom(dir.file("bad.rec")), -1);
}

// Records what the observer is told, one line per call.
class RecordingObserver : public CFiExecObserver {
 public:
  void started(const tstring& command) override { calls.push_back("started " + command); }
  void finished(const tstring& command, int status, long long microseconds) override {
    calls.push_back("finished " + command + " " + std::to_string(status));
    durations.push_back(microseconds);
  }
  Lines calls;
  std::vector<long long> durations;
};

// Installs an observer for one test.
class ObservedScope {
 public:
  explicit ObservedScope(CFiExecObserver* observer)
      : m_previous(CFiExecPipeBase::setObserver(observer)) {}
  ~ObservedScope() { CFiExecPipeBase::setObserver(m_previous); }
  ObservedScope(const ObservedScope&) = delete;
  ObservedScope& operator=(const ObservedScope&) = delete;

 private:
  CFiExecObserver* m_previous;
};

TEST(ExecObserver, SeesEachRealRunStartAndFinishWithItsStatusAndDuration) {
  RecordingObserver observer;
  ObservedScope scope(&observer);
  Lines output;
  runCommand("sleep 0.02; exit 3", output);
  runCommand("true", output);
  EXPECT_THAT(observer.calls,
              ElementsAre("started sleep 0.02; exit 3", "finished sleep 0.02; exit 3 3",
                          "started true", "finished true 0"));
  ASSERT_EQ(observer.durations.size(), 2u);
  EXPECT_GE(observer.durations[0], 20000);
}

TEST(ExecObserver, SeesScriptedRunsToo) {
  RecordingObserver observer;
  ObservedScope scope(&observer);
  CFiExecSeamScope seam;
  CFiExecSeam::answer("qzdg list", 11, {});
  Lines output;
  runCommand("qzdg list", output);
  EXPECT_THAT(observer.calls, ElementsAre("started qzdg list", "finished qzdg list 11"));
}

TEST(ExecObserver, ARunThatCannotStartFinishesWithStatusMinusOne) {
  RecordingObserver observer;
  ObservedScope scope(&observer);
  CFiExecPipePosix pipe(2);
  Lines output;
  EXPECT_THROW(pipe.Exec("true", output, "", 0, "", "", ""), EFiExecPipe);
  EXPECT_THAT(observer.calls, ElementsAre("started true", "finished true -1"));
}

TEST(ExecObserver, SetObserverHandsBackThePreviousOne) {
  RecordingObserver first;
  RecordingObserver second;
  CFiExecObserver* before = CFiExecPipeBase::setObserver(&first);
  EXPECT_EQ(CFiExecPipeBase::setObserver(&second), &first);
  EXPECT_EQ(CFiExecPipeBase::setObserver(before), &second);
}

TEST(ExecObserver, EveryRunCountsWithOrWithoutAnObserver) {
  const unsigned long before = CFiExecPipeBase::getRunCount();
  Lines output;
  runCommand("true", output);
  {
    CFiExecSeamScope seam;
    CFiExecSeam::answer("scripted", 0, {});
    runCommand("scripted", output);
  }
  EXPECT_EQ(CFiExecPipeBase::getRunCount(), before + 2);
}

}  // namespace

#include "sim_test.h"

namespace qzsim {

class FaultsTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    standardLayout();
  }
};

TEST_F(FaultsTest, NthMatchingCommandFails) {
  adminOk({"fault", "add", "--host", "A", "--tool", "qzdg", "--match", "list", "--nth", "2",
           "--status", "7", "--stdout", "partial\n", "--stderr",
           "QZVM qzdg ERROR Q-5-1-10128 Configuration daemon error 441\n"});
  ok("A", "qzdg list");
  ok("A", "qzdg flush dg1");  // does not match
  CommandResult r = tool("A", "qzdg  list");
  EXPECT_EQ(r.status, 7);
  EXPECT_EQ(r.out, "partial\n");
  EXPECT_EQ(r.err, "QZVM qzdg ERROR Q-5-1-10128 Configuration daemon error 441\n");
  ok("A", "qzdg list");
  ok("B", "qzdg list");
  EXPECT_NE(adminOk({"fault", "list"}).find("'list'"), std::string::npos);
}

TEST_F(FaultsTest, BusyKTimes) {
  adminOk({"fault", "busy", "--host", "A", "--match", "vol1", "--count", "2"});
  EXPECT_EQ(tool("A", "qzvol -g dg1 stop vol1").status, 31);
  CommandResult r = tool("A", "qzvol -g dg1 stop vol1");
  EXPECT_EQ(r.status, 31);
  EXPECT_TRUE(startsWith(r.err, "QZVM qzvol ERROR Q-5-1-304 ")) << r.err;
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");  // nothing changed
  ok("A", "qzvol -g dg1 stop vol1");
}

// "after": the run makes its change, then fails with the fault's text.
TEST_F(FaultsTest, AfterKindFailsOnceTheChangeIsMade) {
  adminOk({"fault", "add", "--host", "A", "--match", "stop", "--kind", "after", "--status", "9",
           "--stdout", "half\n", "--stderr", "QZVM qzvol ERROR Q-5-1-99 lost\n"});
  CommandResult r = tool("A", "qzvol -g dg1 stop vol1");
  EXPECT_EQ(r.status, 9);
  EXPECT_EQ(r.out, "half\n");
  EXPECT_EQ(r.err, "QZVM qzvol ERROR Q-5-1-99 lost\n");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
  EXPECT_NE(adminOk({"fault", "list"}).find(" after "), std::string::npos);
  // A busy volume whose stop went through all the same.
  ok("A", "qzvol -g dg1 start vol1");
  adminOk({"fault", "busy", "--host", "A", "--kind", "after", "--count", "1"});
  r = tool("A", "qzvol -g dg1 stop vol1");
  EXPECT_EQ(r.status, 31);
  EXPECT_EQ(r.err, "QZVM qzvol ERROR Q-5-1-304 Volume is busy\n");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
}

// "partial": the run prints the first half of its lines, changes nothing,
// and fails.
TEST_F(FaultsTest, PartialKindPrintsHalfTheOutputAndChangesNothing) {
  const std::vector<std::string> full = lines(ok("A", "qzprint -g dg1 vol1"));
  adminOk({"fault", "add", "--host", "A", "--tool", "qzprint", "--kind", "partial", "--status", "4",
           "--stderr", "QZVM qzprint ERROR Q-5-1-99 cut\n"});
  CommandResult r = tool("A", "qzprint -g dg1 vol1");
  EXPECT_EQ(r.status, 4);
  ASSERT_EQ(full.size(), 9u);  // the header, then 8 records: the first 5 lines are printed
  EXPECT_EQ(r.out, join(std::vector<std::string>(full.begin(), full.begin() + 5), "\n") + "\n");
  EXPECT_EQ(r.err, "QZVM qzprint ERROR Q-5-1-99 cut\n");
  // One line is printed whole; a change is undone.
  adminOk({"fault", "add", "--host", "A", "--kind", "partial"});
  r = tool("A", "qzassist -g dg1 -p maxsize");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, ok("A", "qzassist -g dg1 -p maxsize"));
  adminOk({"fault", "add", "--host", "A", "--kind", "partial"});
  EXPECT_EQ(tool("A", "qzvol -g dg1 stop vol1").status, 1);
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");
}

TEST_F(FaultsTest, KindsAreNamed) {
  CommandResult r = admin({"fault", "add", "--kind", "later"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "qzsim: --kind takes fail|after|partial|hang|kill.\n");
  adminOk({"fault", "add", "--kind", "hang", "--match", "nothing"});
  EXPECT_EQ(splitBlanks(lines(adminOk({"fault", "list"}))[1])[4], "hang");
}

// The log keeps which runs printed and which changed the model, so that a
// sweep can fail just those.
TEST_F(FaultsTest, LogSelectsRunsThatPrintedOrChanged) {
  ok("A", "qzdg list");
  ok("A", "qzdg flush dg1");
  tool("A", "qzdg list nosuch");
  auto commands = [&](const std::string& flag) {
    std::vector<std::string> out;
    auto rows = lines(adminOk({"log", "--host", "A", flag}));
    for (size_t i = rows.size() - std::min<size_t>(rows.size(), 3); i < rows.size(); ++i) {
      auto f = splitBlanks(rows[i]);
      out.push_back(join(std::vector<std::string>(f.begin() + 4, f.end()), " "));
    }
    return out;
  };
  EXPECT_EQ(commands("--printed").back(), "qzdg list");
  EXPECT_EQ(commands("--changed").back(), "qzdg flush dg1");
}

TEST_F(FaultsTest, NewDisksStayInvisibleForKScans) {
  adminOk({"disk", "add", "--hosts", "B", "--size", "64m"});
  adminOk({"fault", "hide-scans", "--host", "B", "--count", "2"});
  ok("B", "qzdisk scandisks");
  ok("B", "qzdisk -f scandisks new");
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 1u);
  ok("B", "qzdisk scandisks");
  EXPECT_EQ(lines(ok("B", "qzdisk list")).size(), 2u);
}

TEST_F(FaultsTest, LogListsEveryRun) {
  tool("A", "qzdg  list   nosuch");
  std::string log = adminOk({"log", "--host", "A", "--tool", "qzdg"});
  auto rows = lines(log);
  ASSERT_GE(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[0]),
            (std::vector<std::string>{"ID", "HOST", "STATUS", "USEC", "COMMAND"}));
  auto last = splitBlanks(rows.back());
  EXPECT_EQ(last[1], "A");
  EXPECT_EQ(last[2], "11");
  EXPECT_EQ(std::vector<std::string>(last.begin() + 4, last.end()),
            (std::vector<std::string>{"qzdg", "list", "nosuch"}));
  uint64_t usec = 0;
  EXPECT_TRUE(parseUint(last[3], &usec));
  // Set-up ran five tools; the failed list is the sixth run.
  EXPECT_EQ(trim(adminOk({"log", "--total"})), "6");
}

}  // namespace qzsim

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qzsim {

TEST_F(FaultsTest, EachFaultCountsItsOwnMatchingRuns) {
  adminOk({"fault", "add", "--host", "A", "--tool", "qzdg", "--match", "list", "--status", "7"});
  adminOk({"fault", "add", "--host", "A", "--match", "qzdg", "--nth", "2", "--status", "8"});
  EXPECT_EQ(tool("A", "qzdg list").status, 7);  // the first fault fires; the second counts it
  EXPECT_EQ(tool("A", "qzdg list").status, 8);  // the second's second matching run
  ok("A", "qzdg list");
  auto rows = lines(adminOk({"fault", "list"}));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(splitBlanks(rows[1]),
            (std::vector<std::string>{"1", "A", "qzdg", "'list'", "fail", "1", "0", "7", "3"}));
  EXPECT_EQ(splitBlanks(rows[2]),
            (std::vector<std::string>{"2", "A", "*", "'qzdg'", "fail", "2", "0", "8", "3"}));
}

TEST_F(FaultsTest, FaultsDueTogetherFireOneAfterTheOther) {
  adminOk({"fault", "add", "--match", "list", "--status", "7"});
  adminOk({"fault", "add", "--match", "list", "--status", "8"});
  EXPECT_EQ(tool("A", "qzdg list").status, 7);
  EXPECT_EQ(tool("A", "qzdg list").status, 8);
  ok("A", "qzdg list");
}

TEST_F(FaultsTest, MatchIsTheCommandLineWithBlankRunsAsOne) {
  adminOk({"fault", "add", "--match", "qzdisk  list  qzarr0_1", "--status", "9"});
  ok("A", "qzdisk   list   qzarr0_0");
  EXPECT_EQ(tool("A", "qzdisk   list   qzarr0_1 ").status, 9);
  EXPECT_NE(adminOk({"fault", "list"}).find("'qzdisk list qzarr0_1'"), std::string::npos);
}

TEST_F(FaultsTest, HangingToolWaitsUntilItIsKilled) {
  adminOk({"fault", "hang", "--host", "A", "--tool", "qzvol", "--match", "stop", "--stdout",
           "stopping\n"});
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(out[1], 1);
    setenv("QZSIM_ROOT", root.c_str(), 1);
    setenv("QZSIM_HOST", "A", 1);
    execl(simBinary().c_str(), "qzvol", "-g", "dg1", "stop", "vol1", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string got;
  char buf[64];
  ssize_t n;
  while (got.find('\n') == std::string::npos && (n = read(out[0], buf, sizeof buf)) > 0)
    got.append(buf, static_cast<size_t>(n));
  EXPECT_EQ(got, "stopping\n");
  // The hanging run holds no lock: other tools go on, and it changed nothing.
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Started");
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, WNOHANG), 0);  // still there
  kill(pid, SIGKILL);
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFSIGNALED(status));
  close(out[0]);
  auto log = lines(adminOk({"log", "--tool", "qzvol"}));
  EXPECT_EQ(splitBlanks(log.back())[2], "hung");
  ok("A", "qzvol -g dg1 stop vol1");  // the fault was for one run
}

// A caller that runs the tool as a pipe runner does, in a process group of
// its own, and waits for it; its wait status.
int statusOfCallerRunning(const std::string& root, const std::vector<std::string>& command) {
  pid_t caller = fork();
  if (caller == 0) {
    pid_t child = fork();
    if (child == 0) {
      setpgid(0, 0);
      setenv("QZSIM_ROOT", root.c_str(), 1);
      setenv("QZSIM_HOST", "A", 1);
      std::vector<char*> argv;
      for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
      argv.push_back(nullptr);
      execv(simBinary().c_str(), argv.data());
      _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 100);
  }
  int status = 0;
  waitpid(caller, &status, 0);
  return status;
}

TEST_F(FaultsTest, AKillFaultMakesTheRunAndKillsTheProgramThatRanIt) {
  adminOk({"fault", "kill", "--host", "A", "--tool", "qzvol", "--nth", "2"});
  ok("A", "qzvol -g dg1 start vol1");  // the first matching run: not due yet
  const int status = statusOfCallerRunning(root, {"qzvol", "-g", "dg1", "stop", "vol1"});
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
  // The run was made and logged before its caller died.
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
  const auto log = lines(adminOk({"log", "--tool", "qzvol"}));
  EXPECT_EQ(splitBlanks(log.back())[2], "0");
  EXPECT_NE(adminOk({"fault", "list"}).find("kill"), std::string::npos);
  // The fault was for one run.
  EXPECT_EQ(statusOfCallerRunning(root, {"qzvol", "-g", "dg1", "start", "vol1"}), 0);
}

TEST_F(FaultsTest, AKillFaultSparesACallerThatSharesTheToolsProcessGroup) {
  adminOk({"fault", "kill", "--host", "A", "--tool", "qzvol"});
  // This test program runs the tool in its own process group: it lives on.
  ok("A", "qzvol -g dg1 stop vol1");
  EXPECT_EQ(splitBlanks(ok("A", "qzinfo -g dg1 vol1"))[2], "Startable");
}

TEST_F(FaultsTest, EveryToolRefusesNamesOutsideTheRules) {
  const std::string file = root + "/dump";
  for (const std::string& bad :
       {std::string(45, 'n'), std::string("../../../../escape"), std::string("dg$1")}) {
    writeFile(file, "vol " + bad + "\n\tlen=2048\n");
    for (const std::string& cmd : {
             "qzdg list " + bad,
             "qzdg -g " + bad + " adddisk qzarr0_0",
             "qzdg init " + bad + " qzarr0_0",
             "qzdg deport " + bad,
             "qzdg -C -n " + bad + " import dg1",
             "qzdisk list " + bad,
             "qzdisk -g " + bad + " list",
             "qzdisk scandisks device=" + bad,
             "qzdisk -f init " + bad + " type=auto",
             "qzdisk rm " + bad,
             "qzprint -g " + bad,
             "qzprint -g dg1 " + bad,
             "qzvol -g " + bad + " start vol1",
             "qzvol -g dg1 start " + bad,
             "qzvol -g dg1 -U " + bad + " start vol1",
             "qzinfo -g dg1 " + bad,
             "qzassist -g dg1 make " + bad + " 1m",
             "qzassist -g dg1 make v9 1m usetype=" + bad,
             "qzassist -g dg1 make v9 1m " + bad,
             "qzvset -g dg1 make " + bad + " vol1",
             "qzvset -g dg1 start " + bad,
             "qzmake -g dg1 -d " + file,
             "qzdmpadm getdmpnode nodename=" + bad,
             "qzdmpadm getsubpaths dmpnodename=" + bad,
             "qzdmpadm -f disable path=" + bad,
             "qzdisksetup -i " + bad,
             "qzdiskunsetup -C " + bad,
             "qzcdsconvert -g " + bad,
         }) {
      CommandResult r = tool("A", cmd);
      std::string toolName = splitBlanks(cmd)[0];
      EXPECT_EQ(r.status, 1) << cmd << ": " << r.err;
      EXPECT_TRUE(startsWith(r.err, "QZVM " + toolName + " ERROR Q-5-1-8 "))
          << cmd << ": " << r.err;
    }
  }
  EXPECT_TRUE(startsWith(adminOk({"check"}), "OK ")) << adminOk({"check"});
}

}  // namespace qzsim

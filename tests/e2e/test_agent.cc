// Backups through the hosts' agents (qzfi serve on A and B, qzfi --agent as
// the client): the copy as the one-shot form makes it, the nodes kept in
// the agents between commands, the record carried across an agent's
// restart, and the socket's safety: refused peers, malformed requests,
// SIGTERM during a command, a client that goes away, a second agent on the
// same socket, clients turned away at the stop, answers that are not an
// agent's, and slow clients beside fast ones.
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <chrono>
#include <thread>

#include "agent_client_raw.h"
#include "agent_process.h"
#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::CAgentProcess;
using qzfi_e2e::Json;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::RawReply;
using qzfi_e2e::viaAgent;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kSource = "/dev/qz/dsk/dg1/vol1";

// A client whose output the test reads as it comes.
class CStreamingClient {
 public:
  explicit CStreamingClient(const std::vector<std::string>& argv) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    if (posix_spawn(&m_pid, argv[0].c_str(), &actions, nullptr, args.data(), environ) != 0) {
      m_pid = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    m_out = out[0];
  }
  ~CStreamingClient() {
    if (m_out >= 0) {
      close(m_out);
    }
    if (m_pid > 0) {
      wait();
    }
  }

  // Reads until text has come (true) or the output ends (false).
  bool readUntil(const std::string& text) {
    char c = 0;
    while (m_text.find(text) == std::string::npos) {
      if (read(m_out, &c, 1) != 1) {
        return false;
      }
      m_text += c;
    }
    return true;
  }
  // The rest of the output, and the client's exit status.
  int finish() {
    readUntil(std::string(1, '\0'));
    return wait();
  }
  void kill(int sig) { ::kill(m_pid, sig); }
  int wait() {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  const std::string& text() const { return m_text; }

 private:
  pid_t m_pid = -1;
  int m_out = -1;
  std::string m_text;
};

class AgentTest : public QzfiTest {
 protected:
  void SetUp() override {
    QzfiTest::SetUp();
    m_run = root() + "/run";
    ASSERT_EQ(0, mkdir(m_run.c_str(), 0700));
  }

  // A command sent to an agent, then the blast-radius check of the runs
  // the agent made for it.
  QzfiRun agent(const CAgentProcess& to, const std::vector<std::string>& args) {
    return checked("", args, [&] { return viaAgent(to, args); });
  }

  std::unique_ptr<CAgentProcess> startAgent(const std::string& host) {
    auto agent = std::make_unique<CAgentProcess>(root(), host, m_run);
    EXPECT_EQ("", agent->error());
    return agent;
  }

  // The source prepared and deported through agent, split to A, and an
  // import of the copy sent to agent: its client once the first step line
  // has come, while the copy is still being built.
  std::unique_ptr<CStreamingClient> importUnderWay(const CAgentProcess& to) {
    makeSource();
    EXPECT_EQ(0, agent(to, {"prepare", kSource, "--record", record()}).status);
    const std::string secondary = splitTo("A");
    EXPECT_EQ(0, agent(to, {"deport", "--record", record()}).status);
    m_import = {"import", "--record", record(), "--secondary", secondary};
    m_importMark = blastMark("A", m_import);
    std::vector<std::string> argv = {QZFI_BINARY, "--agent", to.socket()};
    argv.insert(argv.end(), m_import.begin(), m_import.end());
    auto client = std::make_unique<CStreamingClient>(argv);
    EXPECT_TRUE(client->readUntil("  init ")) << client->text();
    return client;
  }

  long runsOf(const std::string& host, const std::string& tool) {
    return std::stol(admin({"log", "--host", host, "--tool", tool, "--total"}));
  }

  static std::vector<std::string> stepNames(const Json& document) {
    std::vector<std::string> names;
    for (const Json& step : document["steps"]) {
      names.push_back(step["step"].get<std::string>());
    }
    return names;
  }

  std::string m_run;
  // The import that importUnderWay started, and where it started in the log.
  std::vector<std::string> m_import;
  long m_importMark = 0;
};

// The agent knows a record by its real file: a command that names it by
// a symbolic link takes back the node that the command before it kept.
TEST_F(AgentTest, ARecordNamedByALinkIsTheSameRecordToTheAgent) {
  makeSource();
  auto a = startAgent("A");
  ASSERT_EQ(0, agent(*a, {"prepare", kSource, "--record", record()}).status);
  const std::string link = root() + "/link.json";
  ASSERT_EQ(0, symlink(record().c_str(), link.c_str()));
  splitTo("B");
  const QzfiRun deported = agent(*a, {"--json", "deport", "--record", link});
  ASSERT_EQ(0, deported.status) << deported;
  EXPECT_THAT(stepNames(deported.json()),
              ElementsAre("init", "node", "deportTree", "postDeport", "processProviderState"));
  EXPECT_EQ("deported", readRecord()["step"]);
  struct stat info {};
  ASSERT_EQ(0, lstat(link.c_str(), &info));
  EXPECT_TRUE(S_ISLNK(info.st_mode));
  EXPECT_EQ(0, a->stop()) << a->log();
}

TEST_F(AgentTest, ABackupThroughAgentsOnAAndBMakesTheCopyAndKeepsTheNodes) {
  makeSource();
  auto a = startAgent("A");
  auto b = startAgent("B");
  ASSERT_THAT(a->readyLine(), HasSubstr("qzvmfi started; serving on " + a->socket()));
  struct stat socket {};
  ASSERT_EQ(0, stat(a->socket().c_str(), &socket));
  EXPECT_EQ(0600u, socket.st_mode & 07777);

  const QzfiRun prepared = agent(*a, {"prepare", kSource, "--record", record()});
  ASSERT_EQ(0, prepared.status) << prepared;
  EXPECT_THAT(prepared.out, HasSubstr("once, by the agent (pid " + std::to_string(a->pid())));
  const std::string secondary = splitTo("B");
  const QzfiRun deported = agent(*a, {"--json", "deport", "--record", record()});
  ASSERT_EQ(0, deported.status) << deported;
  const Json deport = deported.json();
  EXPECT_EQ("done", deport["result"]);
  // The node prepare made is the one deport works on: nothing restored.
  EXPECT_THAT(stepNames(deport),
              ElementsAre("init", "node", "deportTree", "postDeport", "processProviderState"));
  EXPECT_EQ("deported", readRecord()["step"]);

  const QzfiRun imported =
      agent(*b, {"--quiet", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(0, imported.status) << imported;
  const std::string copy = qzfi_e2e::linesOf(imported.out).at(0);
  const auto [group, volume] = groupAndVolume(copy);
  EXPECT_EQ(m_sourceSum, checksum("B", group, volume));
  EXPECT_EQ("1001:1002", ownerOf("B", copy));
  EXPECT_EQ("1001:1002", ownerOf("B", "/dev/qz/rdsk/" + group + "/" + volume));

  const QzfiRun released = agent(*b, {"release", "--record", record()});
  ASSERT_EQ(0, released.status) << released;
  EXPECT_THAT(released.out, HasSubstr("provider state of the copy kept by the agent"));
  EXPECT_THAT(groups("B"), IsEmpty());
  EXPECT_EQ("released", readRecord()["step"]);
  // Each agent probed the installation once, when it started.
  EXPECT_EQ(1, runsOf("A", "rpm"));
  EXPECT_EQ(1, runsOf("B", "rpm"));
  EXPECT_EQ(0, a->stop()) << a->log();
  EXPECT_EQ(0, b->stop()) << b->log();
  EXPECT_THAT(a->log(), HasSubstr("deport --record " + record() + ": exit 0"));
  // Each agent forgot the record's nodes when its host's part was done:
  // A after deport, B after release.
  EXPECT_THAT(a->log(), HasSubstr("prepare " + kSource + " --record " + record() +
                                  ": exit 0; 1 node(s) kept"));
  EXPECT_THAT(a->log(), HasSubstr("deport --record " + record() + ": exit 0; 0 node(s) kept"));
  EXPECT_THAT(b->log(), HasSubstr("release --record " + record() + ": exit 0; 0 node(s) kept"));
  expectConsistent();
}

TEST_F(AgentTest, AnAgentRestartedBetweenDeportAndImportCarriesOnFromTheRecord) {
  makeSource();
  auto a = startAgent("A");
  ASSERT_EQ(0, agent(*a, {"prepare", kSource, "--record", record()}).status);
  const std::string secondary = splitTo("A");
  ASSERT_EQ(0, agent(*a, {"deport", "--record", record()}).status);
  EXPECT_EQ(0, a->stop()) << a->log();

  a = startAgent("A");
  const QzfiRun imported =
      agent(*a, {"--json", "import", "--record", record(), "--secondary", secondary});
  ASSERT_EQ(0, imported.status) << imported;
  const Json import = imported.json();
  // The new agent has no node of the record: it restores it from the record.
  EXPECT_EQ("processProviderState", stepNames(import).at(1));
  const std::string copy = import["device"].get<std::string>();
  const auto [group, volume] = groupAndVolume(copy);
  EXPECT_EQ(m_sourceSum, checksum("A", group, volume));
  // The one-shot form carries on from what the agent wrote.
  const QzfiRun released = qzfi("A", {"release", "--record", record()});
  ASSERT_EQ(0, released.status) << released;
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_EQ(0, a->stop()) << a->log();
  expectConsistent();
}

TEST_F(AgentTest, OutputAndExitCodesAreTheOneShotFormsOnesForRefusalsToo) {
  auto a = startAgent("A");
  const QzfiRun usage = agent(*a, {"deport"});
  EXPECT_EQ(2, usage.status);
  EXPECT_EQ("qzfi: deport: --record FILE is required\n(qzfi help lists the commands)\n", usage.err);
  const QzfiRun missing = agent(*a, {"deport", "--record", "missing.json"});
  const QzfiRun alone = qzfi("A", {"deport", "--record", "missing.json"});
  EXPECT_EQ(3, missing.status);
  EXPECT_EQ(alone.status, missing.status);
  EXPECT_EQ(alone.err, missing.err);
  const QzfiRun serve = agent(*a, {"serve"});
  EXPECT_EQ(2, serve.status);
  const QzfiRun other = agent(*a, {"--plugin", "other", "info"});
  EXPECT_EQ(4, other.status);
  EXPECT_THAT(other.err, HasSubstr("the agent serves the plug-in qzvmfi"));
  const QzfiRun help = agent(*a, {"help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(qzfi("A", {"help"}).out, help.out);
  EXPECT_EQ(0, a->stop());
}

TEST_F(AgentTest, APeerThatIsNeitherRootNorTheOwnerIsRefusedAndTheAgentGoesOn) {
  auto a = startAgent("A");
  // Folder and socket keep other users out; a process of another uid that
  // may override file permissions still meets the peer check.
  int answer[2];
  ASSERT_EQ(0, pipe(answer));
  const pid_t child = fork();
  if (child == 0) {
    close(answer[0]);
    prctl(PR_SET_KEEPCAPS, 1);
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) {
      _exit(90);
    }
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct caps[2] = {};
    caps[0].effective = caps[0].permitted = 1u << CAP_DAC_OVERRIDE;
    if (syscall(SYS_capset, &header, caps) != 0) {
      _exit(91);
    }
    const RawReply reply = qzfi_e2e::exchange(a->socket(), qzfi_e2e::request("/", {"version"}));
    const std::string text = std::to_string(reply.code) + "\n" + reply.err + reply.out;
    if (write(answer[1], text.data(), text.size()) < 0) {
      _exit(92);
    }
    _exit(reply.connected ? 0 : 93);
  }
  close(answer[1]);
  std::string text;
  char buffer[512];
  for (ssize_t n; (n = read(answer[0], buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<size_t>(n));
  }
  close(answer[0]);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  ASSERT_EQ(0, WEXITSTATUS(status)) << text;
  EXPECT_EQ(
      "7\nqzfi: the agent refused the request: uid 65534 is neither root nor the agent's owner "
      "(uid 0)\n",
      text);
  EXPECT_THAT(a->log(), HasSubstr("refused a client of uid 65534"));
  const QzfiRun version = agent(*a, {"version"});
  EXPECT_EQ(0, version.status) << version;
  EXPECT_EQ(0, a->stop());
}

TEST_F(AgentTest, ASocketFolderOpenToOthersOrOfAnotherOwnerIsRefused) {
  const std::string open = root() + "/open";
  ASSERT_EQ(0, mkdir(open.c_str(), 0700));
  ASSERT_EQ(0, chmod(open.c_str(), 0755));
  CAgentProcess wide(root(), "A", open);
  EXPECT_THAT(wide.error(), HasSubstr("has the mode 0755: others may enter it"));
  EXPECT_EQ(7, wide.wait());
  ASSERT_EQ(0, chmod(open.c_str(), 0700));
  ASSERT_EQ(0, chown(open.c_str(), 65534, 65534));
  CAgentProcess foreign(root(), "A", open);
  EXPECT_THAT(foreign.error(), HasSubstr("belongs to uid 65534, not to the agent's owner (uid 0)"));
  EXPECT_EQ(7, foreign.wait());
  // A missing folder is made, the owner's only.
  CAgentProcess made(root(), "A", root() + "/made");
  ASSERT_EQ("", made.error());
  struct stat folder {};
  ASSERT_EQ(0, stat((root() + "/made").c_str(), &folder));
  EXPECT_EQ(0700u, folder.st_mode & 07777);
  EXPECT_EQ(0, made.stop());
}

TEST_F(AgentTest, MalformedAndOversizedRequestsGetAnErrorReplyAndTheAgentGoesOn) {
  auto a = startAgent("A");
  const RawReply empty = qzfi_e2e::exchange(a->socket(), qzfi_e2e::frame('Q', ""));
  EXPECT_EQ(7, empty.code);
  const std::string huge = std::string(1, 'Q') + std::string("\x00\x10\x00\x00", 4);
  const RawReply tooLarge = qzfi_e2e::exchange(a->socket(), huge);
  EXPECT_EQ(7, tooLarge.code);
  EXPECT_EQ(
      "qzfi: the agent refused the request: a request of 1048576 bytes is larger than the "
      "65536 an agent takes\n",
      tooLarge.err);
  const RawReply wrongKind = qzfi_e2e::exchange(a->socket(), qzfi_e2e::frame('Z', "x"));
  EXPECT_EQ(7, wrongKind.code);
  EXPECT_EQ(
      "qzfi: the agent refused the request: malformed request: a frame of kind 'Z' where a "
      "request was due\n",
      wrongKind.err);
  const RawReply controlKind = qzfi_e2e::exchange(a->socket(), qzfi_e2e::frame('\x01', "x"));
  EXPECT_THAT(controlKind.err, HasSubstr("a frame of kind 0x01 where a request was due"));
  const RawReply wrongVersion = qzfi_e2e::exchange(
      a->socket(), qzfi_e2e::frame('Q', std::string("qzfi-agent/9\0/\0version\0", 23)));
  EXPECT_EQ(7, wrongVersion.code);
  EXPECT_EQ(
      "qzfi: the agent refused the request: malformed request: not a request of qzfi-agent/1\n",
      wrongVersion.err);
  const RawReply relative = qzfi_e2e::exchange(a->socket(), qzfi_e2e::request("here", {"version"}));
  EXPECT_THAT(relative.err, HasSubstr("working folder is not an absolute path"));
  const RawReply unended = qzfi_e2e::exchange(
      a->socket(), qzfi_e2e::frame('Q', std::string("qzfi-agent/1\0/\0version", 22)));
  EXPECT_THAT(unended.err, HasSubstr("the request's last field has no end"));
  const RawReply nothing = qzfi_e2e::exchange(a->socket(), "");
  EXPECT_EQ(7, nothing.code);
  // A well-formed request is served as before.
  const RawReply version = qzfi_e2e::exchange(a->socket(), qzfi_e2e::request("/", {"version"}));
  EXPECT_EQ(0, version.code);
  EXPECT_THAT(version.out, HasSubstr("qzfi "));
  EXPECT_EQ(0, a->stop());
}

TEST_F(AgentTest, SigtermDuringACommandLetsItEndThenTheAgentExits0) {
  auto a = startAgent("A");
  // The step lines come as the command goes.
  const auto client = importUnderWay(*a);
  EXPECT_THAT(client->text(), Not(HasSubstr("import: done")));
  kill(a->pid(), SIGTERM);
  EXPECT_EQ(0, client->finish()) << client->text();
  EXPECT_THAT(client->text(), HasSubstr("import: done"));
  expectWithinBlastRadius(m_importMark, m_import);
  EXPECT_EQ(0, a->wait()) << a->log();
  EXPECT_THAT(a->log(), HasSubstr("Terminated: the plug-in is finalised and the agent ends"));
  EXPECT_EQ("imported", readRecord()["step"]);
  const auto [group, volume] = groupAndVolume(readRecord()["alternate"]["object"]);
  EXPECT_EQ(m_sourceSum, checksum("A", group, volume));
  struct stat gone {};
  EXPECT_NE(0, stat(a->socket().c_str(), &gone));
}

TEST_F(AgentTest, AClientThatGoesAwayMidCommandStopsNeitherTheCommandNorTheAgent) {
  auto a = startAgent("A");
  importUnderWay(*a)->kill(SIGKILL);
  // The agent takes the next command once the import has ended.
  const QzfiRun released = agent(*a, {"release", "--record", record()});
  ASSERT_EQ(0, released.status) << released << a->log();
  // The import that went on without its client, and the release.
  expectWithinBlastRadius(m_importMark, m_import);
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_THAT(a->log(), HasSubstr("exit 0 (the client had gone)"));
  EXPECT_EQ(0, a->stop());
  expectConsistent();
}

// A fake agent on socket: it takes one connection, reads the request and
// answers bytes.
class CFakeAgent {
 public:
  CFakeAgent(const std::string& socket, const std::string& bytes) {
    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
    unlink(socket.c_str());
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_fd, 4) != 0) {
      return;
    }
    m_thread = std::thread([this, bytes] {
      const int client = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) {
        return;
      }
      char header[5];
      if (recv(client, header, sizeof header, MSG_WAITALL) == sizeof header) {
        send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      }
      close(client);
    });
  }
  ~CFakeAgent() {
    shutdown(m_fd, SHUT_RDWR);
    if (m_thread.joinable()) {
      m_thread.join();
    }
    close(m_fd);
  }

 private:
  int m_fd = -1;
  std::thread m_thread;
};

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A second agent on a socket that one serves on is refused at once, before
// its plug-in starts: no tool runs, and the first agent serves on.
TEST_F(AgentTest, ASecondAgentOnTheSameSocketIsRefusedBeforeItsPlugInStarts) {
  auto first = startAgent("A");
  const long runs = toolRuns();
  CAgentProcess second(root(), "A", m_run);
  EXPECT_THAT(second.error(),
              HasSubstr("an agent serves on " + first->socket() + " already (pid " +
                        std::to_string(first->pid()) + "): it holds " + first->socket() + ".lock"));
  EXPECT_EQ(7, second.wait());
  EXPECT_EQ(runs, toolRuns());
  const QzfiRun version = agent(*first, {"version"});
  EXPECT_EQ(0, version.status) << version;
  EXPECT_EQ(0, first->stop());
  // Once the first has ended, another takes the socket.
  auto third = startAgent("A");
  EXPECT_EQ(0, agent(*third, {"version"}).status);
  EXPECT_EQ(0, third->stop());
}

// An agent removes its socket at its end only while it is the one it bound:
// a socket put in its place stays.
TEST_F(AgentTest, AnAgentLeavesASocketThatReplacedItsOwn) {
  auto a = startAgent("A");
  ASSERT_EQ(0, unlink(a->socket().c_str()));
  const int other = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, a->socket().c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(other, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  EXPECT_EQ(0, a->stop());
  struct stat kept {};
  EXPECT_EQ(0, lstat(a->socket().c_str(), &kept));
  EXPECT_TRUE(S_ISSOCK(kept.st_mode));
  close(other);
}

// Clients whose commands the agent does not run because it stops are told
// so, with exit code 8: nothing ran.
TEST_F(AgentTest, ClientsQueuedAtTheStopAreToldNothingRan) {
  auto a = startAgent("A");
  const auto importing = importUnderWay(*a);
  // Connected while the import runs: one with its whole request, one that
  // has sent half of it.
  const int queued = qzfi_e2e::connectRaw(a->socket());
  ASSERT_GE(queued, 0);
  const std::string whole = qzfi_e2e::request("/", {"version"});
  ASSERT_EQ(static_cast<ssize_t>(whole.size()),
            send(queued, whole.data(), whole.size(), MSG_NOSIGNAL));
  const int half = qzfi_e2e::connectRaw(a->socket());
  ASSERT_GE(half, 0);
  ASSERT_EQ(3, send(half, whole.data(), 3, MSG_NOSIGNAL));
  kill(a->pid(), SIGTERM);
  EXPECT_EQ(0, importing->finish()) << importing->text();
  expectWithinBlastRadius(m_importMark, m_import);
  for (const int fd : {queued, half}) {
    const RawReply reply = qzfi_e2e::readReply(fd);
    EXPECT_EQ(8, reply.code);
    EXPECT_EQ("qzfi: the agent is stopping: the command did not run, nothing was changed\n",
              reply.err);
    EXPECT_EQ("", reply.out);
  }
  EXPECT_EQ(0, a->wait()) << a->log();
  EXPECT_THAT(a->log(), HasSubstr("2 client(s) turned away"));
  // qzfi --agent says so with exit code 8.
  CFakeAgent fake(m_run + "/fake.sock",
                  qzfi_e2e::frame('E', "qzfi: the agent is stopping: the command did not run\n") +
                      qzfi_e2e::frame('X', "8"));
  const qzsim::CommandResult run =
      qzsim::runCommand({QZFI_BINARY, "--agent", m_run + "/fake.sock", "version"});
  EXPECT_EQ(8, run.status);
  EXPECT_EQ("qzfi: the agent is stopping: the command did not run\n", run.err);
}

// The client takes an exit code only as a number from 0 to 255, and asks
// no socket of a user other than root and itself.
TEST_F(AgentTest, TheClientRefusesAnAnswerThatIsNotAnAgentsAndASocketOfAnotherUser) {
  const std::string socket = m_run + "/fake.sock";
  for (const std::string& code : {std::string(), std::string("abc"), std::string("300"),
                                  std::string("-1"), std::string(" 0"), std::string("0x")}) {
    CFakeAgent fake(socket, qzfi_e2e::frame('O', "out\n") + qzfi_e2e::frame('X', code));
    const qzsim::CommandResult run = qzsim::runCommand({QZFI_BINARY, "--agent", socket, "version"});
    EXPECT_EQ(7, run.status) << code;
    EXPECT_EQ("out\n", run.out);
    EXPECT_THAT(run.err, HasSubstr("qzfi: bad answer from the agent: an exit code of")) << code;
  }
  {
    CFakeAgent fake(socket, qzfi_e2e::frame('\x01', "?"));
    const qzsim::CommandResult run = qzsim::runCommand({QZFI_BINARY, "--agent", socket, "version"});
    EXPECT_EQ(7, run.status);
    EXPECT_EQ("qzfi: bad answer from the agent: a frame of unknown kind 0x01\n", run.err);
  }
  {
    CFakeAgent fake(socket, qzfi_e2e::frame('X', "0"));
    EXPECT_EQ(0, qzsim::runCommand({QZFI_BINARY, "--agent", socket, "version"}).status);
  }
  CFakeAgent fake(socket, qzfi_e2e::frame('X', "0"));
  ASSERT_EQ(0, chown(socket.c_str(), 65534, 65534));
  const qzsim::CommandResult run = qzsim::runCommand({QZFI_BINARY, "--agent", socket, "version"});
  EXPECT_EQ(7, run.status);
  EXPECT_EQ("qzfi: the socket " + socket +
                " belongs to uid 65534, neither root nor this user (uid 0): not asked\n",
            run.err);
  // The fake agent gets no connection: its thread ends with its socket.
}

// A client that sends its request a byte at a time delays no other client
// and no stop, and the whole request has one deadline from its connection.
TEST_F(AgentTest, ASlowClientDelaysNeitherAnotherClientNorTheStop) {
  CAgentProcess a(root(), "A", m_run, {"QZFI_AGENT_REQUEST_SECONDS=2"});
  ASSERT_EQ("", a.error());
  const std::string whole = qzfi_e2e::request("/", {"version"});
  // A byte every 0.4 s: never a pause as long as the deadline.
  const int slow = qzfi_e2e::connectRaw(a.socket());
  ASSERT_GE(slow, 0);
  const auto connected = std::chrono::steady_clock::now();
  std::thread trickle([&] {
    for (size_t i = 0; i < whole.size() - 1; ++i) {
      if (send(slow, whole.data() + i, 1, MSG_NOSIGNAL) != 1) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  auto start = std::chrono::steady_clock::now();
  const RawReply fast = qzfi_e2e::exchange(a.socket(), whole);
  EXPECT_LT(secondsSince(start), 0.5);
  EXPECT_EQ(0, fast.code);
  EXPECT_THAT(fast.out, HasSubstr("qzfi "));
  const RawReply late = qzfi_e2e::readReply(dup(slow));
  const double waited = secondsSince(connected);
  EXPECT_GE(waited, 1.9);
  EXPECT_LT(waited, 3.0);
  EXPECT_EQ(7, late.code);
  EXPECT_EQ("qzfi: the agent refused the request: no whole request came within 2 seconds\n",
            late.err);
  trickle.join();
  close(slow);
  // SIGTERM while a slow client is half-way: the agent ends at once.
  const int half = qzfi_e2e::connectRaw(a.socket());
  ASSERT_GE(half, 0);
  ASSERT_EQ(1, send(half, whole.data(), 1, MSG_NOSIGNAL));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, a.stop()) << a.log();
  EXPECT_LT(secondsSince(start), 1.0);
  EXPECT_EQ(8, qzfi_e2e::readReply(half).code);
}

// An agent forgets the nodes of a record whose file is gone: a backup given
// up half-way holds no memory for the agent's life.
TEST_F(AgentTest, TheNodesOfARecordWhoseFileIsGoneAreForgotten) {
  makeSource();
  auto a = startAgent("A");
  ASSERT_EQ(0, agent(*a, {"prepare", kSource, "--record", record()}).status);
  EXPECT_THAT(a->log(), HasSubstr(": exit 0; 1 node(s) kept"));
  ASSERT_EQ(0, unlink(record().c_str()));
  ASSERT_EQ(0, agent(*a, {"version"}).status);
  EXPECT_THAT(a->log(), HasSubstr("version: exit 0; 0 node(s) kept"));
  EXPECT_EQ(0, a->stop()) << a->log();
}

// Under systemd (Type=notify) the agent says it is ready once it serves,
// and that it stops when SIGTERM comes.
TEST_F(AgentTest, TheAgentTellsSystemdWhenItIsReadyAndWhenItStops) {
  const std::string path = m_run + "/notify.sock";
  const int notify = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(notify, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  timeval limit{5, 0};
  setsockopt(notify, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  auto receive = [&] {
    char text[256];
    const ssize_t n = recv(notify, text, sizeof text, 0);
    return n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
  };
  CAgentProcess a(root(), "A", m_run, {"NOTIFY_SOCKET=" + path});
  ASSERT_EQ("", a.error());
  EXPECT_EQ("READY=1", receive());
  // Ready means served.
  EXPECT_EQ(0, agent(a, {"version"}).status);
  kill(a.pid(), SIGTERM);
  EXPECT_EQ("STOPPING=1", receive());
  EXPECT_EQ(0, a.wait()) << a.log();
  close(notify);
}

// A socket file of root's whose listening process runs as another user is
// not asked either: the client checks the peer that answers.
TEST_F(AgentTest, TheClientRefusesAnAgentProcessOfAnotherUser) {
  const std::string path = m_run + "/other.sock";
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  int listening[2];
  ASSERT_EQ(0, pipe(listening));
  const pid_t child = fork();
  if (child == 0) {
    close(listening[0]);
    // The credentials a client sees are the ones of listen()'s caller.
    if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0 ||
        listen(listener, 4) != 0) {
      _exit(90);
    }
    if (write(listening[1], "x", 1) != 1) {
      _exit(91);
    }
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) {
      const std::string answer = qzfi_e2e::frame('X', "0");
      send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      close(client);
    }
    _exit(0);
  }
  close(listening[1]);
  char c = 0;
  ASSERT_EQ(1, read(listening[0], &c, 1));
  close(listening[0]);
  const qzsim::CommandResult run = qzsim::runCommand({QZFI_BINARY, "--agent", path, "version"});
  EXPECT_EQ(7, run.status);
  EXPECT_EQ("qzfi: the agent at " + path +
                " runs as uid 65534, neither root nor this user (uid 0): not asked\n",
            run.err);
  // The child's accept took the client's connection and ends.
  int status = 0;
  waitpid(child, &status, 0);
  close(listener);
}

}  // namespace

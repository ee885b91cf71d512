// A host's agent for end-to-end tests: "qzfi serve --socket S" run as a
// host in the simulator's sandbox, in the background, until the test ends
// it with SIGTERM. Its ready line is read from a pipe; what it says about
// each command goes to a file beside its socket's folder. Clients run outside the
// sandbox: the agent does the host's work.
#ifndef QZVMFI_TESTS_E2E_AGENT_PROCESS_H
#define QZVMFI_TESTS_E2E_AGENT_PROCESS_H

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <qzsim/sandbox.h>

#include "qzfi_e2e.h"

extern char** environ;

namespace qzfi_e2e {

class CAgentProcess {
 public:
  // The agent of host in the simulation at root, its socket and log in
  // folder; extra: more "NAME=value" environment entries.
  CAgentProcess(const std::string& root, const std::string& host, const std::string& folder,
                const std::vector<std::string>& extra = {})
      : m_socket(folder + "/" + host + ".sock"), m_log(folder + "." + host + ".log") {
    std::vector<std::string> env;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      env.emplace_back(*entry);
    }
    env.push_back("QZSIM_ROOT=" + root);
    env.insert(env.end(), extra.begin(), extra.end());
    const std::vector<std::string> argv = {qzsim::simBinary(), "host",  host,       "--",
                                           QZFI_BINARY,        "serve", "--socket", m_socket};
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) {
      m_error = "no pipe";
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_log.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    std::vector<char*> args = pointers(argv);
    std::vector<char*> envp = pointers(env);
    const int spawned =
        posix_spawn(&m_pid, argv[0].c_str(), &actions, nullptr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(ready[1]);
    if (spawned != 0) {
      m_pid = -1;
      m_error = "cannot start the agent";
      close(ready[0]);
      return;
    }
    char c = 0;
    while (read(ready[0], &c, 1) == 1 && c != '\n') {
      m_ready += c;
    }
    close(ready[0]);
    if (m_ready.find("serving on") == std::string::npos) {
      m_error = "the agent did not start: " + m_ready + log();
    }
  }

  ~CAgentProcess() {
    if (m_pid > 0) {
      stop();
    }
  }
  CAgentProcess(const CAgentProcess&) = delete;
  CAgentProcess& operator=(const CAgentProcess&) = delete;

  // Empty when the agent is serving.
  const std::string& error() const { return m_error; }
  const std::string& socket() const { return m_socket; }
  const std::string& readyLine() const { return m_ready; }
  pid_t pid() const { return m_pid; }

  // SIGTERM; the agent's exit status (128 + signal when a signal ended it).
  int stop() { return signal(SIGTERM); }
  // Sends sig and waits for the agent's end; its exit status.
  int signal(int sig) {
    if (m_pid <= 0) {
      return -1;
    }
    kill(m_pid, sig);
    return wait();
  }
  // Waits for the agent's end; its exit status.
  int wait() {
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  // What the agent said on its error output so far.
  std::string log() const {
    std::ifstream in(m_log);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // The agent's resident memory in kB, from /proc.
  long residentKb() const {
    std::ifstream status("/proc/" + std::to_string(m_pid) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("VmRSS:", 0) == 0) {
        return std::stol(line.substr(6));
      }
    }
    return -1;
  }

 private:
  static std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (const std::string& text : texts) {
      result.push_back(const_cast<char*>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
  }

  std::string m_socket;
  std::string m_log;
  std::string m_ready;
  std::string m_error;
  pid_t m_pid = -1;
};

// "qzfi --agent SOCKET ARGS..." run outside the sandbox: the agent works as
// its host.
inline QzfiRun viaAgent(const CAgentProcess& agent, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {QZFI_BINARY, "--agent", agent.socket()};
  argv.insert(argv.end(), args.begin(), args.end());
  const qzsim::CommandResult result = qzsim::runCommand(argv);
  return {result.status, result.out, result.err};
}

}  // namespace qzfi_e2e

#endif  // QZVMFI_TESTS_E2E_AGENT_PROCESS_H

// qzfi serve: the host's agent. It loads and starts the plug-in once and
// runs the commands of qzfi --agent clients one at a time over a Unix
// socket, with the output, JSON and exit codes they have run alone, until
// SIGTERM (or SIGINT): the command under way ends, the plug-in is
// finalised, and the agent exits 0.
//
// The socket is its owner's: its folder is made 0700 when missing and
// refused when it is not the agent's owner's or is open to others; the
// socket is 0600; a peer whose credentials are neither root's nor the
// owner's is refused. A malformed or oversized request gets an error reply
// and the agent goes on; a client that goes away does not stop its command.
//
// The socket is the agent's own: a lock file beside it (SOCKET.lock) is
// held for the agent's life, taken before the plug-in starts, so that a
// second agent on the same path is refused at once; at its end the agent
// removes the socket only while it is still the one it bound.
//
// Requests are read from every connection at once; each has one deadline
// from its connection (10 s, QZFI_AGENT_REQUEST_SECONDS), and commands run
// one at a time. Clients whose requests are not run because the agent
// stops are told that nothing ran (exit code 8).
#ifndef QZFI_HOST_AGENT_SERVER_H
#define QZFI_HOST_AGENT_SERVER_H

#include <sys/types.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent_state.h"
#include "options.h"

namespace qzfi_host {

class CAgentConnection;

// The agent cannot start; what() says why.
class ServeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CAgentServer {
 public:
  // out gets the line that says the agent is ready (and nothing else); err
  // gets a line per command and the agent's end.
  CAgentServer(const Options& options, std::ostream& out, std::ostream& err);
  ~CAgentServer();
  CAgentServer(const CAgentServer&) = delete;
  CAgentServer& operator=(const CAgentServer&) = delete;

  // Serves until SIGTERM or SIGINT; the exit code.
  int run();

  // Throws ServeError unless folder (made 0700 when missing) is a folder of
  // owner's that no one else may enter.
  static void checkFolder(const std::string& folder, uid_t owner);
  // Whether a peer with uid may use an agent of owner: root or the owner.
  static bool peerAllowed(uid_t uid, uid_t owner);

 private:
  struct Pending;

  void takeLock();
  void startPlugin();
  void listenOnSocket();
  // Serves until a signal asks the agent to end.
  void serve();
  void accept();
  // Reads what pending's client sent; false once the connection is done with
  // (refused, or its request run).
  bool readRequest(Pending& pending);
  void runPending(Pending& pending);
  // Clients not served: told that the agent stops and nothing ran.
  void turnAway(std::vector<Pending>& pending);
  void removeSocket();
  // The request's command run for the client; its exit code.
  int runRequest(CAgentConnection& connection, const std::string& payload, uid_t uid);

  const Options& m_options;
  std::ostream& m_out;
  std::ostream& m_err;
  std::string m_socket;
  uid_t m_owner;
  int m_listen = -1;
  int m_signals = -1;
  int m_home = -1;  // the agent's own working folder, back after each command
  int m_lock = -1;  // SOCKET.lock, held for the agent's life
  bool m_bound = false;
  dev_t m_socketDevice = 0;  // the socket file this agent bound
  ino_t m_socketInode = 0;
  int m_requestSeconds = 10;
  std::unique_ptr<CAgentState> m_state;
};

// The command serve: the agent of options until it ends; its exit code.
int serveAgent(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_AGENT_SERVER_H

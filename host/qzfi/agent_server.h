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
#ifndef QZFI_HOST_AGENT_SERVER_H
#define QZFI_HOST_AGENT_SERVER_H

#include <sys/types.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>

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
  void startPlugin();
  void listenOnSocket();
  void serveConnection(int fd);
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
  bool m_bound = false;
  std::unique_ptr<CAgentState> m_state;
};

// The command serve: the agent of options until it ends; its exit code.
int serveAgent(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_AGENT_SERVER_H

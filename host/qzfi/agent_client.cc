// The client side of the agent's socket.
#include "agent_client.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "agent_protocol.h"
#include "options.h"

namespace qzfi_host {

namespace {

// The largest frame the client takes from an agent: output arrives in
// pieces far smaller.
constexpr uint32_t kMaxReply = 16 * 1024 * 1024;

struct AgentFailure {
  std::string why;
};

// A connected socket, closed when it goes.
class CSocket {
 public:
  explicit CSocket(int fd) : m_fd(fd) {}
  ~CSocket() {
    if (m_fd >= 0) {
      close(m_fd);
    }
  }
  CSocket(const CSocket&) = delete;
  CSocket& operator=(const CSocket&) = delete;
  int fd() const { return m_fd; }

 private:
  int m_fd;
};

std::unique_ptr<CSocket> connectTo(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw AgentFailure{"the socket path '" + path + "' is empty or too long"};
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  // The agent is root's or this user's: a socket of anyone else's could be
  // a stand-in that reads the command and answers what it likes.
  struct stat info {};
  if (stat(path.c_str(), &info) == 0 && info.st_uid != 0 && info.st_uid != geteuid() &&
      info.st_uid != getuid()) {
    throw AgentFailure{"the socket " + path + " belongs to uid " + std::to_string(info.st_uid) +
                       ", neither root nor this user (uid " + std::to_string(geteuid()) +
                       "): not asked"};
  }
  auto socket = std::make_unique<CSocket>(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket->fd() < 0) {
    throw AgentFailure{std::string("no socket: ") + strerror(errno)};
  }
  if (connect(socket->fd(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    throw AgentFailure{"no agent at " + path + ": " + strerror(errno)};
  }
  // The process that answers is held to the same rule as the file.
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket->fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid != 0 &&
      peer.uid != geteuid() && peer.uid != getuid()) {
    throw AgentFailure{"the agent at " + path + " runs as uid " + std::to_string(peer.uid) +
                       ", neither root nor this user (uid " + std::to_string(geteuid()) +
                       "): not asked"};
  }
  return socket;
}

std::string workingFolder() {
  std::unique_ptr<char, decltype(&free)> folder(getcwd(nullptr, 0), &free);
  if (!folder) {
    throw AgentFailure{std::string("the working folder is unknown: ") + strerror(errno)};
  }
  return folder.get();
}

// The exit code an 'X' frame holds: a decimal number from 0 to 255, and
// nothing else.
int exitCodeOf(const std::string& payload) {
  if (payload.empty() || payload.size() > 3 ||
      payload.find_first_not_of("0123456789") != std::string::npos) {
    throw AgentFailure{"bad answer from the agent: an exit code of '" + payload.substr(0, 16) +
                       "'"};
  }
  const int code = std::stoi(payload);
  if (code > 255) {
    throw AgentFailure{"bad answer from the agent: an exit code of " + payload};
  }
  return code;
}

// The agent's frames copied to out and err until its exit code.
int relayReplies(int fd, std::ostream& out, std::ostream& err) {
  for (;;) {
    char header[kFrameHeader];
    if (!receiveAll(fd, header, sizeof header)) {
      throw AgentFailure{"the agent ended the connection before the command's end"};
    }
    char kind = 0;
    uint32_t length = 0;
    decodeHeader(header, kind, length);
    if (length > kMaxReply) {
      throw AgentFailure{"the agent sent a reply of " + std::to_string(length) + " bytes"};
    }
    std::string payload(length, '\0');
    if (!receiveAll(fd, &payload[0], length)) {
      throw AgentFailure{"the agent ended the connection before the command's end"};
    }
    if (kind == kFrameOut || kind == kFrameErr) {
      std::ostream& to = kind == kFrameOut ? out : err;
      to << payload;
      to.flush();
    } else if (kind == kFrameExit) {
      return exitCodeOf(payload);
    } else {
      char code[8];
      std::snprintf(code, sizeof code, "0x%02x", static_cast<unsigned char>(kind));
      throw AgentFailure{std::string("bad answer from the agent: a frame of unknown kind ") + code};
    }
  }
}

}  // namespace

bool takeAgentArguments(std::vector<std::string>& args, std::string& socket) {
  bool asked = false;
  std::string command;
  for (size_t i = 1; i < args.size();) {
    const std::string& arg = args[i];
    if (arg.empty() || arg[0] != '-') {
      command = arg;
      break;
    }
    if (arg == "--agent") {
      asked = true;
      args.erase(args.begin() + static_cast<long>(i));
      if (i < args.size() && !args[i].empty() && args[i][0] != '-' && !isCommandName(args[i])) {
        socket = args[i];
        args.erase(args.begin() + static_cast<long>(i));
      }
      continue;
    }
    i += arg == "--plugin" ? 2 : 1;
  }
  const char* variable = std::getenv(kAgentSocketVariable);
  const bool fromVariable = variable != nullptr && *variable != '\0';
  if (socket.empty()) {
    socket = fromVariable ? variable : kDefaultAgentSocket;
  }
  return asked || (fromVariable && command != "serve");
}

int runThroughAgent(const std::string& socket, const std::vector<std::string>& args,
                    std::ostream& out, std::ostream& err) {
  try {
    AgentRequest request{workingFolder(), {args.begin() + (args.empty() ? 0 : 1), args.end()}};
    if (request.args.empty()) {
      throw AgentFailure{"no command given"};
    }
    const std::string payload = encodeRequest(request);
    if (payload.size() > kMaxRequest) {
      throw AgentFailure{"the command line is longer than an agent takes (" +
                         std::to_string(kMaxRequest) + " bytes)"};
    }
    std::unique_ptr<CSocket> connection = connectTo(socket);
    if (!sendAll(connection->fd(), encodeFrame(kFrameRequest, payload))) {
      throw AgentFailure{"the agent at " + socket + " took no request: " + strerror(errno)};
    }
    return relayReplies(connection->fd(), out, err);
  } catch (const AgentFailure& failure) {
    out.flush();
    err << "qzfi: " << failure.why << "\n";
    err.flush();
    return kExitAgent;
  }
}

}  // namespace qzfi_host

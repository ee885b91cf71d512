// The host's agent: its socket, its plug-in and its commands.
#include "agent_server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <streambuf>

#include "agent_protocol.h"
#include "command_line.h"
#include "record.h"

namespace qzfi_host {

namespace {

// How long a client may take to send its request, and to take a piece of
// output, before the agent gives up on it and goes on.
constexpr int kRequestSeconds = 10;
constexpr int kReplySeconds = 30;

std::string systemError(const std::string& what) {
  return what + ": " + strerror(errno);
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw ServeError("the socket path '" + path + "' is empty or longer than " +
                     std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace

// The connection to one client. Output that the client can no longer take
// is dropped: the command goes on without it.
class CAgentConnection {
 public:
  explicit CAgentConnection(int fd) : m_fd(fd) {}
  void send(char kind, const std::string& payload) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_open && !sendAll(m_fd, encodeFrame(kind, payload))) {
      m_open = false;
    }
  }
  bool open() const { return m_open; }

 private:
  int m_fd;
  std::mutex m_mutex;
  bool m_open = true;
};

namespace {

// An output stream's buffer whose text goes to the client in frames of one
// kind each time the stream is flushed (the report flushes every step and
// progress line). Progress lines come from the watch's thread: the buffer
// is locked.
class CFrameBuffer : public std::streambuf {
 public:
  CFrameBuffer(CAgentConnection& connection, char kind) : m_connection(connection), m_kind(kind) {}
  ~CFrameBuffer() override { sync(); }

 protected:
  int_type overflow(int_type c) override {
    if (c != traits_type::eof()) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_pending.push_back(static_cast<char>(c));
    }
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* text, std::streamsize count) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pending.append(text, static_cast<size_t>(count));
    return count;
  }
  int sync() override {
    std::string text;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      text.swap(m_pending);
    }
    if (!text.empty()) {
      m_connection.send(m_kind, text);
    }
    return 0;
  }

 private:
  CAgentConnection& m_connection;
  char m_kind;
  std::mutex m_mutex;
  std::string m_pending;
};

void setTimeout(int fd, int option, int seconds) {
  timeval limit{};
  limit.tv_sec = seconds;
  setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
}

// A refusal for the client: why on its error output, and exit code 7.
void refuse(CAgentConnection& connection, const std::string& why) {
  connection.send(kFrameErr, "qzfi: the agent refused the request: " + why + "\n");
  connection.send(kFrameExit, std::to_string(kExitAgent));
}

std::string commandText(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& arg : args) {
    text += (text.empty() ? "" : " ") + arg;
  }
  return text;
}

}  // namespace

CAgentServer::CAgentServer(const Options& options, std::ostream& out, std::ostream& err)
    : m_options(options),
      m_out(out),
      m_err(err),
      m_socket(options.socket.empty() ? kDefaultAgentSocket : options.socket),
      m_owner(geteuid()) {}

CAgentServer::~CAgentServer() {
  m_state.reset();
  if (m_bound) {
    unlink(m_socket.c_str());
  }
  for (int fd : {m_listen, m_signals, m_home}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

void CAgentServer::checkFolder(const std::string& folder, uid_t owner) {
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw ServeError(systemError("the socket's folder " + folder + " cannot be made"));
  }
  struct stat info {};
  if (lstat(folder.c_str(), &info) != 0) {
    throw ServeError(systemError("the socket's folder " + folder + " cannot be examined"));
  }
  if (!S_ISDIR(info.st_mode)) {
    throw ServeError("the socket's folder " + folder + " is not a folder");
  }
  if (info.st_uid != owner) {
    throw ServeError("the socket's folder " + folder + " belongs to uid " +
                     std::to_string(info.st_uid) + ", not to the agent's owner (uid " +
                     std::to_string(owner) + ")");
  }
  if ((info.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(info.st_mode & 07777));
    throw ServeError("the socket's folder " + folder + " has the mode " + mode +
                     ": others may enter it; the agent wants 0700");
  }
}

bool CAgentServer::peerAllowed(uid_t uid, uid_t owner) {
  return uid == 0 || uid == owner;
}

void CAgentServer::startPlugin() {
  auto plugin = std::make_unique<CPluginLibrary>(m_options.plugin);
  plugin->load();
  const int status = plugin->start();
  if (status != 0) {
    throw ServeError("the plug-in " + plugin->name() + " did not start (init returned " +
                     std::to_string(status) + ")");
  }
  m_state = std::make_unique<CAgentState>(std::move(plugin));
}

// A socket file left by an agent that is gone is replaced; one that an
// agent answers on, or a file of another kind, is not.
void CAgentServer::listenOnSocket() {
  const sockaddr_un address = addressOf(m_socket);
  m_listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_listen < 0) {
    throw ServeError(systemError("no socket"));
  }
  struct stat existing {};
  if (lstat(m_socket.c_str(), &existing) == 0) {
    if (!S_ISSOCK(existing.st_mode)) {
      throw ServeError(m_socket + " exists and is not a socket");
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    if (answered) {
      throw ServeError("an agent serves on " + m_socket + " already");
    }
    unlink(m_socket.c_str());
  }
  const mode_t previous = umask(0177);
  const int bound = bind(m_listen, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  umask(previous);
  if (bound != 0) {
    throw ServeError(systemError("cannot bind " + m_socket));
  }
  m_bound = true;
  if (chmod(m_socket.c_str(), 0600) != 0 || listen(m_listen, 16) != 0) {
    throw ServeError(systemError("cannot listen on " + m_socket));
  }
}

int CAgentServer::run() {
  // SIGTERM and SIGINT are taken as events between commands, never in the
  // middle of one; the tools the plug-in runs get the default signals back.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  signal(SIGPIPE, SIG_IGN);
  try {
    m_signals = signalfd(-1, &ending, SFD_CLOEXEC);
    m_home = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_signals < 0 || m_home < 0) {
      throw ServeError(systemError("the agent cannot set itself up"));
    }
    checkFolder(folderOf(m_socket), m_owner);
    startPlugin();
    listenOnSocket();
  } catch (const ServeError& error) {
    m_err << "qzfi serve: " << error.what() << "\n";
    return kExitAgent;
  } catch (const PluginLoadError& error) {
    m_err << "qzfi serve: " << error.what() << "\n";
    return kExitPluginLoad;
  }
  m_out << "qzfi serve: " << m_state->plugin().name() << " started; serving on " << m_socket
        << " (pid " << getpid() << ")" << std::endl;

  signalfd_siginfo signal{};
  for (;;) {
    pollfd waits[2] = {{m_signals, POLLIN, 0}, {m_listen, POLLIN, 0}};
    if (poll(waits, 2, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      m_err << "qzfi serve: " << systemError("poll") << "\n";
      break;
    }
    if ((waits[0].revents & POLLIN) != 0) {
      if (read(m_signals, &signal, sizeof signal) == sizeof signal) {
        m_err << "qzfi serve: " << strsignal(static_cast<int>(signal.ssi_signo))
              << ": the plug-in is finalised and the agent ends" << std::endl;
      }
      break;
    }
    const int client = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) {
      serveConnection(client);
      close(client);
    }
  }
  m_state.reset();
  return kExitDone;
}

void CAgentServer::serveConnection(int fd) {
  CAgentConnection connection(fd);
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
      !peerAllowed(peer.uid, m_owner)) {
    m_err << "qzfi serve: refused a client of uid " << peer.uid << " (pid " << peer.pid << ")"
          << std::endl;
    refuse(connection, "uid " + std::to_string(peer.uid) +
                           " is neither root nor the agent's owner (uid " +
                           std::to_string(m_owner) + ")");
    return;
  }
  setTimeout(fd, SO_RCVTIMEO, kRequestSeconds);
  setTimeout(fd, SO_SNDTIMEO, kReplySeconds);
  char header[kFrameHeader];
  if (!receiveAll(fd, header, sizeof header)) {
    refuse(connection, "no request came");
    return;
  }
  char kind = 0;
  uint32_t length = 0;
  decodeHeader(header, kind, length);
  if (kind != kFrameRequest) {
    refuse(connection, "malformed request: a frame of kind " + std::to_string(kind) +
                           " where a request was due");
    return;
  }
  if (length > kMaxRequest) {
    refuse(connection, "a request of " + std::to_string(length) + " bytes is larger than the " +
                           std::to_string(kMaxRequest) + " an agent takes");
    return;
  }
  std::string payload(length, '\0');
  if (!receiveAll(fd, &payload[0], length)) {
    refuse(connection, "the request ended early");
    return;
  }
  runRequest(connection, payload, peer.uid);
}

int CAgentServer::runRequest(CAgentConnection& connection, const std::string& payload, uid_t uid) {
  AgentRequest request;
  try {
    request = decodeRequest(payload);
  } catch (const ProtocolError& error) {
    refuse(connection, std::string("malformed request: ") + error.what());
    return kExitAgent;
  }
  const int folder = open(request.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0 || fchdir(folder) != 0) {
    refuse(connection, systemError("the agent cannot work in " + request.folder));
    if (folder >= 0) {
      close(folder);
    }
    return kExitAgent;
  }
  close(folder);
  std::vector<std::string> args = {"qzfi"};
  args.insert(args.end(), request.args.begin(), request.args.end());
  int code = kExitFailed;
  {
    CFrameBuffer outBuffer(connection, kFrameOut);
    CFrameBuffer errBuffer(connection, kFrameErr);
    std::ostream out(&outBuffer);
    std::ostream err(&errBuffer);
    try {
      code = runCommandLine(args, out, err, m_state.get());
    } catch (const std::exception& error) {
      err << "qzfi: " << error.what() << "\n";
    }
    out.flush();
    err.flush();
  }
  connection.send(kFrameExit, std::to_string(code));
  if (fchdir(m_home) != 0) {
    m_err << "qzfi serve: " << systemError("cannot return to the agent's folder") << std::endl;
  }
  m_err << "qzfi serve: uid " << uid << ": " << commandText(request.args) << ": exit " << code
        << (connection.open() ? "" : " (the client had gone)") << std::endl;
  return code;
}

int serveAgent(const Options& options, std::ostream& out, std::ostream& err) {
  CAgentServer server(options, out, err);
  return server.run();
}

}  // namespace qzfi_host

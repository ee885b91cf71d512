// The host's agent: its socket, its plug-in and its commands.
#include "agent_server.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <streambuf>

#include "agent_protocol.h"
#include "command_line.h"
#include "record.h"

namespace qzfi_host {

namespace {

// How long a client may take to send its whole request, from its
// connection (QZFI_AGENT_REQUEST_SECONDS changes it), and to take a piece of
// output, before the agent gives up on it and goes on.
constexpr int kRequestSeconds = 10;
constexpr int kReplySeconds = 30;
constexpr char kRequestSecondsVariable[] = "QZFI_AGENT_REQUEST_SECONDS";

using Clock = std::chrono::steady_clock;

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

// A frame's kind for a message: the character when it is printable, its
// code otherwise.
std::string kindText(char kind) {
  const unsigned char code = static_cast<unsigned char>(kind);
  if (code > 0x20 && code < 0x7f) {
    return std::string("'") + kind + "'";
  }
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", code);
  return text;
}

std::string commandText(const std::vector<std::string>& args) {
  std::string text;
  for (const std::string& arg : args) {
    text += (text.empty() ? "" : " ") + arg;
  }
  return text;
}

}  // namespace

// A connection whose request is being read.
struct CAgentServer::Pending {
  int fd = -1;
  uid_t uid = 0;
  Clock::time_point deadline;
  std::string bytes;  // what came so far: the header, then the payload
  size_t length = 0;  // the payload's, once the header has come
  bool complete = false;
};

CAgentServer::CAgentServer(const Options& options, std::ostream& out, std::ostream& err)
    : m_options(options),
      m_out(out),
      m_err(err),
      m_socket(options.socket.empty() ? kDefaultAgentSocket : options.socket),
      m_owner(geteuid()) {
  const char* seconds = std::getenv(kRequestSecondsVariable);
  m_requestSeconds = kRequestSeconds;
  if (seconds != nullptr && *seconds != '\0') {
    char* end = nullptr;
    const long value = std::strtol(seconds, &end, 10);
    if (*end == '\0' && value > 0 && value <= 3600) {
      m_requestSeconds = static_cast<int>(value);
    }
  }
}

CAgentServer::~CAgentServer() {
  m_state.reset();
  removeSocket();
  for (int fd : {m_listen, m_signals, m_home, m_lock}) {
    if (fd >= 0) {
      close(fd);
    }
  }
}

// The socket is removed only while it is the file this agent bound: an
// agent whose socket another replaced leaves the other's alone.
void CAgentServer::removeSocket() {
  if (!m_bound) {
    return;
  }
  m_bound = false;
  struct stat now {};
  if (lstat(m_socket.c_str(), &now) == 0 && now.st_dev == m_socketDevice &&
      now.st_ino == m_socketInode) {
    unlink(m_socket.c_str());
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

// SOCKET.lock, held (flock) until the agent's process ends: a second agent
// on the same socket is refused here, before its plug-in starts. The file
// stays: removing it would let two agents lock two different files.
void CAgentServer::takeLock() {
  const std::string path = m_socket + ".lock";
  m_lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (m_lock < 0) {
    throw ServeError(systemError("the agent's lock file " + path + " cannot be opened"));
  }
  if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      throw ServeError(systemError("the agent's lock file " + path + " cannot be locked"));
    }
    char holder[32] = {};
    const ssize_t n = pread(m_lock, holder, sizeof holder - 1, 0);
    const std::string pid = n > 0 ? std::string(holder, static_cast<size_t>(n)) : "";
    throw ServeError("an agent serves on " + m_socket + " already" +
                     (pid.empty() || pid.back() != '\n'
                          ? std::string()
                          : " (pid " + pid.substr(0, pid.size() - 1) + ")") +
                     ": it holds " + path);
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(m_lock, 0) != 0 || pwrite(m_lock, pid.data(), pid.size(), 0) < 0) {
    m_err << "qzfi serve: " << systemError("cannot write the pid to " + path) << std::endl;
  }
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

// With the lock held, a socket file is one that an agent now gone left: it
// is replaced. One that answers all the same (an agent that took no lock),
// or a file of another kind, is not.
void CAgentServer::listenOnSocket() {
  const sockaddr_un address = addressOf(m_socket);
  m_listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
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
  struct stat mine {};
  if (lstat(m_socket.c_str(), &mine) != 0) {
    throw ServeError(systemError("cannot examine " + m_socket));
  }
  m_bound = true;
  m_socketDevice = mine.st_dev;
  m_socketInode = mine.st_ino;
  if (chmod(m_socket.c_str(), 0600) != 0 || listen(m_listen, 64) != 0) {
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
    takeLock();
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
  // Under systemd (Type=notify): the service is up once clients can be
  // served.
  sd_notify(0, "READY=1");
  serve();
  removeSocket();
  m_state.reset();
  return kExitDone;
}

void CAgentServer::serve() {
  std::vector<Pending> pending;
  signalfd_siginfo signal{};
  bool ending = false;
  while (!ending) {
    // The first whole request, in the order they came, runs once every
    // connection has been read.
    std::vector<pollfd> waits = {{m_signals, POLLIN, 0}, {m_listen, POLLIN, 0}};
    Clock::time_point first = Clock::time_point::max();
    bool ready = false;
    for (const Pending& each : pending) {
      waits.push_back({each.fd, POLLIN, 0});
      first = std::min(first, each.deadline);
      ready = ready || each.complete;
    }
    int timeout = -1;
    if (ready) {
      timeout = 0;
    } else if (first != Clock::time_point::max()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(first - Clock::now()).count();
      timeout = static_cast<int>(std::max<long long>(0, left + 1));
    }
    if (poll(waits.data(), waits.size(), timeout) < 0) {
      if (errno == EINTR) {
        continue;
      }
      m_err << "qzfi serve: " << systemError("poll") << std::endl;
      break;
    }
    if ((waits[0].revents & POLLIN) != 0) {
      if (read(m_signals, &signal, sizeof signal) == sizeof signal) {
        m_err << "qzfi serve: " << strsignal(static_cast<int>(signal.ssi_signo))
              << ": the plug-in is finalised and the agent ends" << std::endl;
      }
      sd_notify(0, "STOPPING=1");
      ending = true;
      break;
    }
    // Connections read (or found past their deadline) are done with or go
    // on; the new ones are added after.
    const Clock::time_point now = Clock::now();
    std::vector<Pending> next;
    for (size_t i = 0; i < pending.size(); ++i) {
      Pending& each = pending[i];
      const short events = waits[i + 2].revents;
      bool keep = true;
      if (!each.complete && events != 0) {
        keep = readRequest(each);
      } else if (!each.complete && now >= each.deadline) {
        CAgentConnection connection(each.fd);
        refuse(connection,
               "no whole request came within " + std::to_string(m_requestSeconds) + " seconds");
        keep = false;
      }
      if (keep) {
        next.push_back(std::move(each));
      } else {
        close(each.fd);
      }
    }
    pending.swap(next);
    if ((waits[1].revents & POLLIN) != 0) {
      for (;;) {
        const int client = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (client < 0) {
          break;
        }
        Pending added;
        added.fd = client;
        added.deadline = Clock::now() + std::chrono::seconds(m_requestSeconds);
        ucred peer{};
        socklen_t size = sizeof peer;
        if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 ||
            !peerAllowed(peer.uid, m_owner)) {
          m_err << "qzfi serve: refused a client of uid " << peer.uid << " (pid " << peer.pid << ")"
                << std::endl;
          CAgentConnection connection(client);
          setTimeout(client, SO_SNDTIMEO, kReplySeconds);
          fcntl(client, F_SETFL, fcntl(client, F_GETFL) & ~O_NONBLOCK);
          refuse(connection, "uid " + std::to_string(peer.uid) +
                                 " is neither root nor the agent's owner (uid " +
                                 std::to_string(m_owner) + ")");
          close(client);
          continue;
        }
        added.uid = peer.uid;
        pending.push_back(std::move(added));
      }
    }
    auto whole = std::find_if(pending.begin(), pending.end(),
                              [](const Pending& each) { return each.complete; });
    if (whole != pending.end()) {
      Pending running = std::move(*whole);
      pending.erase(whole);
      runPending(running);
      close(running.fd);
    }
  }
  turnAway(pending);
}

bool CAgentServer::readRequest(Pending& pending) {
  CAgentConnection connection(pending.fd);
  for (;;) {
    const size_t want = pending.bytes.size() < kFrameHeader
                            ? kFrameHeader - pending.bytes.size()
                            : kFrameHeader + pending.length - pending.bytes.size();
    if (want == 0) {
      pending.complete = true;
      return true;
    }
    char buffer[4096];
    const ssize_t n = recv(pending.fd, buffer, std::min(want, sizeof buffer), 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      return true;
    }
    if (n <= 0) {
      refuse(connection,
             pending.bytes.size() < kFrameHeader ? "no request came" : "the request ended early");
      return false;
    }
    pending.bytes.append(buffer, static_cast<size_t>(n));
    if (pending.bytes.size() == kFrameHeader) {
      char kind = 0;
      uint32_t length = 0;
      decodeHeader(pending.bytes.data(), kind, length);
      if (kind != kFrameRequest) {
        refuse(connection,
               "malformed request: a frame of kind " + kindText(kind) + " where a request was due");
        return false;
      }
      if (length > kMaxRequest) {
        refuse(connection, "a request of " + std::to_string(length) + " bytes is larger than the " +
                               std::to_string(kMaxRequest) + " an agent takes");
        return false;
      }
      pending.length = length;
    }
  }
}

void CAgentServer::runPending(Pending& pending) {
  // The command's output is written as it comes: blocking, each piece
  // within its time.
  fcntl(pending.fd, F_SETFL, fcntl(pending.fd, F_GETFL) & ~O_NONBLOCK);
  setTimeout(pending.fd, SO_SNDTIMEO, kReplySeconds);
  CAgentConnection connection(pending.fd);
  runRequest(connection, pending.bytes.substr(kFrameHeader), pending.uid);
}

// Every client still connected, and every one waiting to be accepted, is
// answered: the agent stops, its command did not run. The socket goes
// first, so that no client comes after.
void CAgentServer::turnAway(std::vector<Pending>& pending) {
  removeSocket();
  for (;;) {
    const int client = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) {
      break;
    }
    Pending added;
    added.fd = client;
    pending.push_back(std::move(added));
  }
  for (Pending& each : pending) {
    fcntl(each.fd, F_SETFL, fcntl(each.fd, F_GETFL) & ~O_NONBLOCK);
    setTimeout(each.fd, SO_SNDTIMEO, 1);
    CAgentConnection connection(each.fd);
    connection.send(kFrameErr, std::string("qzfi: ") + kAgentStoppingText + "\n");
    connection.send(kFrameExit, std::to_string(kExitAgentStopping));
    close(each.fd);
  }
  if (!pending.empty()) {
    m_err << "qzfi serve: " << pending.size()
          << " client(s) turned away: the agent stops, their commands did not run" << std::endl;
  }
  pending.clear();
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
  // The record whose nodes this host has no more use for once the command
  // has run: the source's after deport, the copy's after move (release
  // drops its own).
  std::string done;
  try {
    const Options options = parseOptions(args);
    if ((options.commandName == "deport" || options.commandName == "move") &&
        !options.record.empty()) {
      done = realRecordFile(options.record);
    }
  } catch (const std::exception&) {
    // The command itself says what is wrong with its line.
  }
  int code = kExitFailed;
  {
    CFrameBuffer outBuffer(connection, kFrameOut);
    CFrameBuffer errBuffer(connection, kFrameErr);
    std::ostream out(&outBuffer);
    std::ostream err(&errBuffer);
    try {
      m_state->setClientUid(uid);
      code = runCommandLine(args, out, err, m_state.get());
    } catch (const std::exception& error) {
      err << "qzfi: " << error.what() << "\n";
    }
    out.flush();
    err.flush();
  }
  connection.send(kFrameExit, std::to_string(code));
  if (!done.empty()) {
    m_state->forget(done);
  }
  m_state->forgetGone();
  if (fchdir(m_home) != 0) {
    m_err << "qzfi serve: " << systemError("cannot return to the agent's folder") << std::endl;
  }
  m_err << "qzfi serve: uid " << uid << ": " << commandText(request.args) << ": exit " << code
        << (connection.open() ? "" : " (the client had gone)") << "; " << m_state->nodes()
        << " node(s) kept" << std::endl;
  return code;
}

int serveAgent(const Options& options, std::ostream& out, std::ostream& err) {
  CAgentServer server(options, out, err);
  return server.run();
}

}  // namespace qzfi_host

// Raw talk on an agent's socket for end-to-end tests, written from the
// protocol's description rather than with qzfi's own client: a frame is a
// kind byte, a 32-bit length in network order and the payload; a request
// (kind 'Q') holds "qzfi-agent/1", the working folder and the arguments,
// each ended by a zero byte; the agent answers with 'O', 'E' and 'X' frames.
#ifndef QZVMFI_TESTS_E2E_AGENT_CLIENT_RAW_H
#define QZVMFI_TESTS_E2E_AGENT_CLIENT_RAW_H

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace qzfi_e2e {

inline std::string frame(char kind, const std::string& payload) {
  const uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
  std::string bytes(1, kind);
  bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
  return bytes + payload;
}

inline std::string request(const std::string& folder, const std::vector<std::string>& args) {
  std::string payload = std::string("qzfi-agent/1") + '\0' + folder + '\0';
  for (const std::string& arg : args) {
    payload += arg + '\0';
  }
  return frame('Q', payload);
}

// What an agent answered.
struct RawReply {
  bool connected = false;
  std::string out;
  std::string err;
  int code = -1;  // the 'X' frame's exit code, -1 without one
};

// A connection to socket; -1 when there is none.
inline int connectRaw(const std::string& socket) {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
  if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (fd >= 0) {
      close(fd);
    }
    return -1;
  }
  return fd;
}

// Reads the agent's frames on fd until it closes the connection, and closes
// fd.
inline RawReply readReply(int fd) {
  RawReply reply;
  reply.connected = true;
  std::string got;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) {
    got.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  for (size_t at = 0; at + 5 <= got.size();) {
    uint32_t length = 0;
    std::memcpy(&length, got.data() + at + 1, sizeof length);
    length = ntohl(length);
    const std::string payload = got.substr(at + 5, length);
    switch (got[at]) {
      case 'O':
        reply.out += payload;
        break;
      case 'E':
        reply.err += payload;
        break;
      case 'X':
        reply.code = std::stoi(payload);
        break;
    }
    at += 5 + length;
  }
  return reply;
}

// Connects to socket, sends bytes, ends its side and reads the agent's
// frames until it closes the connection.
inline RawReply exchange(const std::string& socket, const std::string& bytes) {
  const int fd = connectRaw(socket);
  if (fd < 0) {
    return RawReply{};
  }
  send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  // Nothing more comes: a short request ends now, not at the agent's wait.
  shutdown(fd, SHUT_WR);
  return readReply(fd);
}

}  // namespace qzfi_e2e

#endif  // QZVMFI_TESTS_E2E_AGENT_CLIENT_RAW_H

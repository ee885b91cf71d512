// Frames and requests of the agent's socket.
#include "agent_protocol.h"

#include <arpa/inet.h>
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace qzfi_host {

std::string encodeFrame(char kind, const std::string& payload) {
  const uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
  std::string frame(1, kind);
  frame.append(reinterpret_cast<const char*>(&length), sizeof length);
  return frame + payload;
}

void decodeHeader(const char* header, char& kind, uint32_t& length) {
  kind = header[0];
  uint32_t network = 0;
  std::memcpy(&network, header + 1, sizeof network);
  length = ntohl(network);
}

std::string encodeRequest(const AgentRequest& request) {
  std::string payload = std::string(kProtocolVersion) + '\0' + request.folder + '\0';
  for (const std::string& arg : request.args) {
    payload += arg + '\0';
  }
  return payload;
}

AgentRequest decodeRequest(const std::string& payload) {
  if (payload.empty() || payload.back() != '\0') {
    throw ProtocolError("the request's last field has no end");
  }
  std::vector<std::string> fields;
  for (size_t start = 0; start < payload.size();) {
    const size_t end = payload.find('\0', start);
    fields.push_back(payload.substr(start, end - start));
    start = end + 1;
  }
  if (fields.front() != kProtocolVersion) {
    throw ProtocolError("not a request of " + std::string(kProtocolVersion));
  }
  if (fields.size() < 3) {
    throw ProtocolError("the request names no command");
  }
  if (fields[1].empty() || fields[1].front() != '/') {
    throw ProtocolError("the request's working folder is not an absolute path");
  }
  return {fields[1], {fields.begin() + 2, fields.end()}};
}

bool sendAll(int fd, const std::string& data) {
  for (size_t sent = 0; sent < data.size();) {
    const ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool receiveAll(int fd, char* buffer, size_t size) {
  for (size_t got = 0; got < size;) {
    const ssize_t n = recv(fd, buffer + got, size - got, 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace qzfi_host

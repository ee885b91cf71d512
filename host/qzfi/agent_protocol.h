// What qzfi --agent and qzfi serve say to each other over the agent's Unix
// socket: frames of a kind byte, a 32-bit length in network order and the
// payload. The client sends one request (kind 'Q': a version word, its
// working folder and its arguments, each ended by a zero byte); the agent
// answers with the command's standard output ('O') and error ('E') as they
// are written, then its exit code ('X', in decimal).
#ifndef QZFI_HOST_AGENT_PROTOCOL_H
#define QZFI_HOST_AGENT_PROTOCOL_H

#include <stddef.h>
#include <stdint.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace qzfi_host {

constexpr char kFrameRequest = 'Q';
constexpr char kFrameOut = 'O';
constexpr char kFrameErr = 'E';
constexpr char kFrameExit = 'X';
constexpr size_t kFrameHeader = 5;
// A request longer than this is refused unread: no command line of qzfi
// comes near it.
constexpr size_t kMaxRequest = 64 * 1024;
constexpr char kProtocolVersion[] = "qzfi-agent/1";

// The exit code of a client whose command the agent did not run because it
// was stopping (SIGTERM or SIGINT): nothing ran; the command may be sent
// again once an agent serves.
constexpr int kExitAgentStopping = 8;
constexpr char kAgentStoppingText[] =
    "the agent is stopping: the command did not run, nothing was changed";

// The default socket of the host's agent.
constexpr char kDefaultAgentSocket[] = "/run/qzfi/agent.sock";
// The environment variable that names the agent's socket for clients.
constexpr char kAgentSocketVariable[] = "QZFI_AGENT_SOCKET";

// A request the agent cannot take; what() says why, for the client.
class ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct AgentRequest {
  std::string folder;             // the client's working folder, absolute
  std::vector<std::string> args;  // the arguments after the program's name
};

// The frame of kind with payload.
std::string encodeFrame(char kind, const std::string& payload);
// The kind and length of a frame's header (kFrameHeader bytes).
void decodeHeader(const char* header, char& kind, uint32_t& length);

std::string encodeRequest(const AgentRequest& request);
// Throws ProtocolError when the payload is not a request of this version:
// the wrong version word, a folder that is not absolute, no command, or a
// last field without its zero byte.
AgentRequest decodeRequest(const std::string& payload);

// Writes all of data to fd (MSG_NOSIGNAL: a peer gone is an error, not a
// signal); false when the peer is gone or the write failed.
bool sendAll(int fd, const std::string& data);
// Reads exactly size bytes into buffer; false at the end of the stream or on
// an error.
bool receiveAll(int fd, char* buffer, size_t size);

}  // namespace qzfi_host

#endif  // QZFI_HOST_AGENT_PROTOCOL_H

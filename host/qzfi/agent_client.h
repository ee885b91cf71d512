// qzfi --agent: a command sent to the host's agent (qzfi serve) instead of
// being run in this process; the agent's output copied here as it comes and
// its exit code returned, so that the command looks as it does run alone.
#ifndef QZFI_HOST_AGENT_CLIENT_H
#define QZFI_HOST_AGENT_CLIENT_H

#include <ostream>
#include <string>
#include <vector>

namespace qzfi_host {

// Whether the command line args (args[0] the program) goes to an agent:
// "--agent [SOCKET]" among the options before the command, or the variable
// QZFI_AGENT_SOCKET set (for every command but serve). --agent and its
// socket are taken out of args; socket is the one given, else the
// variable's, else the default.
bool takeAgentArguments(std::vector<std::string>& args, std::string& socket);

// Sends the arguments after args[0] to the agent at socket with this
// process's working folder; the agent's standard output goes to out and its
// error to err as they arrive. The command's exit code, or 7 (with a line on
// err) when the agent cannot be reached or ends the connection early.
int runThroughAgent(const std::string& socket, const std::vector<std::string>& args,
                    std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_AGENT_CLIENT_H

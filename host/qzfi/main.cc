// qzfi: the reference framework's command-line program. It loads a snapshot
// plug-in and drives the framework's flows through it, one command per run,
// or sends the command to the host's agent (qzfi serve), which keeps the
// plug-in loaded: the source host prepares and deports, the alternate host
// imports, moves on and releases the copy; "qzfi help" says how.
#include <iostream>
#include <string>
#include <vector>

#include "agent_client.h"
#include "command_line.h"

int main(int argc, char** argv) {
  using namespace qzfi_host;
  std::vector<std::string> args(argv, argv + argc);
  std::string socket;
  if (takeAgentArguments(args, socket)) {
    return runThroughAgent(socket, args, std::cout, std::cerr);
  }
  return runCommandLine(args, std::cout, std::cerr, nullptr);
}

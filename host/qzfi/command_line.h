// One qzfi command line run to its exit code, alone or by the host's agent:
// the options checked, help and version answered, the agent started for
// serve, and every other command run as the framework's flows.
#ifndef QZFI_HOST_COMMAND_LINE_H
#define QZFI_HOST_COMMAND_LINE_H

#include <ostream>
#include <string>
#include <vector>

#include "agent_state.h"

namespace qzfi_host {

// args[0] is the program. agent: the agent that runs the command, null
// when it runs alone. What the command prints goes to out and err.
int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   CAgentState* agent);

}  // namespace qzfi_host

#endif  // QZFI_HOST_COMMAND_LINE_H

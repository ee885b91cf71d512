// The command line of qzfi: global options, the command and its own
// options, checked before anything is loaded or run.
#ifndef QZFI_HOST_OPTIONS_H
#define QZFI_HOST_OPTIONS_H

#include <stdexcept>
#include <string>
#include <vector>

namespace qzfi_host {

// Exit codes of qzfi, as its help and man page list them.
enum ExitCode {
  kExitDone = 0,         // done; for claim: the plug-in claims the path
  kExitNotClaimed = 1,   // claim: the plug-in does not claim the path
  kExitUsage = 2,        // the command line is wrong
  kExitRecord = 3,       // the record cannot be used for this command
  kExitPluginLoad = 4,   // the plug-in cannot be found or loaded, or lacks an entry point
  kExitPluginStart = 5,  // the plug-in did not start (its init failed)
  kExitFailed = 6,       // a plug-in operation failed
  kExitAgent = 7,        // the agent cannot be reached, or refused the request
  // 8: the agent is stopping, the command did not run (agent_protocol.h)
  // status: where the backup stands
  kExitInProgress = 9,  // a command on the record runs now
  kExitStopped = 10,    // a command on the record stopped half-way
  kExitAttention = 11   // the host does not hold what the record says
};

enum class Command {
  help,
  version,
  info,
  claim,
  prepare,
  deport,
  import,
  move,
  release,
  access,
  format,
  online,
  unformat,
  serve,
  status,
  list,
  journal
};

struct Options {
  std::string plugin = "qzvmfi";  // a name in the plug-in folder, or a file path
  bool json = false;
  bool quiet = false;
  bool verbose = false;  // messages of steps that succeeded, as notes
  Command command = Command::help;
  std::string commandName;
  std::string path;                    // claim, prepare: the object path
  std::string record;                  // --record FILE
  std::vector<std::string> secondary;  // import: --secondary DISK[,DISK...]
  bool raw = false;                    // import: print the raw device path
  int disposition = 1;                 // release: --disposition N
  bool accessOn = false;               // access on|off
  long accessFlags = 0;                // access off: --flags N
  std::string group;                   // format: --group DG
  std::string volume;                  // format: --volume VOL
  std::vector<std::string> disks;      // format, online, unformat
  bool persistent = false;             // online, unformat: the disks stay visible to this host
  std::string socket;                  // serve: --socket PATH
  std::string folder;                  // list: the folder of the records
  std::string since;                   // journal: --since TIME
  // The command line as given, without the program: what the journal and a
  // stopped command's mark repeat.
  std::vector<std::string> arguments;
  // deport, access, move, release: --this-host-was HOST: this host is the
  // one the record names as HOST (its name or machine id), with a new
  // identity (reinstalled or renamed).
  std::string thisHostWas;
};

// A command line qzfi refuses; what() says why, for the user.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The options of argv (argv[0] is the program). Throws UsageError.
Options parseOptions(const std::vector<std::string>& args);

// Whether name is one of qzfi's commands.
bool isCommandName(const std::string& name);

// The help text: usage, commands, options and exit codes.
std::string helpText();

// The name of an exit code, for the JSON output ("done", "failed", ...).
const char* exitCodeName(int code);

}  // namespace qzfi_host

#endif  // QZFI_HOST_OPTIONS_H

// The command line of qzfi.
#include "options.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>

#include "journal.h"

namespace qzfi_host {

namespace {

const std::map<std::string, Command> kCommands = {
    {"help", Command::help},       {"info", Command::info},       {"claim", Command::claim},
    {"prepare", Command::prepare}, {"deport", Command::deport},   {"import", Command::import},
    {"move", Command::move},       {"release", Command::release}, {"access", Command::access},
    {"format", Command::format},   {"online", Command::online},   {"unformat", Command::unformat},
    {"serve", Command::serve},     {"version", Command::version}, {"status", Command::status},
    {"list", Command::list},       {"journal", Command::journal}};

// Names that reach the plug-in, and through it the volume manager's command
// lines: device paths, disk, group and volume names. Only the characters
// such names are made of; a blank, a quote or a shell character is refused
// here, before anything runs.
bool isSafeName(const std::string& name) {
  if (name.empty() || name.front() == '-') {
    return false;
  }
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-' || c == '/' || c == ':' || c == '+' || c == '@';
    if (!ok) {
      return false;
    }
  }
  return true;
}

std::string checkedName(const std::string& what, const std::string& name) {
  if (!isSafeName(name)) {
    throw UsageError(what + " '" + name +
                     "' is not a device or object name (letters, digits and . _ - / : + @ only)");
  }
  return name;
}

// A group or volume name of the volume manager: at most 31 characters, no
// folder separator.
std::string checkedObjectName(const std::string& what, const std::string& name) {
  checkedName(what, name);
  if (name.size() > 31 || name.find('/') != std::string::npos) {
    throw UsageError(what + " '" + name +
                     "' is not a group or volume name (at most 31 "
                     "characters, no '/')");
  }
  return name;
}

long parseNumber(const std::string& option, const std::string& text, long low, long high) {
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 0);
  if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high) {
    throw UsageError(option + " takes a number from " + std::to_string(low) + " to " +
                     std::to_string(high) + ", not '" + text + "'");
  }
  return value;
}

std::vector<std::string> splitList(const std::string& text) {
  std::vector<std::string> items;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    items.push_back(item);
  }
  if (!text.empty() && text.back() == ',') {
    items.emplace_back();
  }
  return items;
}

// --json, --quiet, --verbose and --plugin NAME|FILE, before or after the
// command: true when arg is one of them (its value taken with next).
bool takeGlobalOption(Options& options, const std::string& arg,
                      const std::function<std::string()>& next) {
  if (arg == "--json") {
    options.json = true;
  } else if (arg == "--quiet") {
    options.quiet = true;
  } else if (arg == "--verbose") {
    options.verbose = true;
  } else if (arg == "--plugin") {
    options.plugin = next();
    if (options.plugin.empty()) {
      throw UsageError("--plugin needs a name or a file");
    }
  } else {
    return false;
  }
  return true;
}

// Walks the arguments after the command: options with their values and the
// plain arguments in order.
class ArgumentReader {
 public:
  ArgumentReader(const std::string& command, std::vector<std::string> args)
      : m_command(command), m_args(std::move(args)) {}

  bool done() const { return m_next >= m_args.size(); }
  const std::string& peek() const { return m_args[m_next]; }
  bool isOption() const { return peek().size() > 1 && peek()[0] == '-'; }
  std::string take() { return m_args[m_next++]; }
  std::string value(const std::string& option) {
    if (done()) {
      throw UsageError(option == "--plugin" ? "--plugin needs a name or a file"
                                            : m_command + ": " + option + " needs a value");
    }
    return take();
  }
  [[noreturn]] void unknown(const std::string& arg) const {
    throw UsageError(m_command + ": unknown option or argument '" + arg + "'");
  }

 private:
  std::string m_command;
  std::vector<std::string> m_args;
  size_t m_next = 0;
};

void requireRecord(const Options& options) {
  if (options.record.empty()) {
    throw UsageError(options.commandName + ": --record FILE is required");
  }
}

void checkDisks(Options& options) {
  if (options.disks.empty()) {
    throw UsageError(options.commandName + ": at least one disk is required");
  }
  for (const std::string& disk : options.disks) {
    checkedName("disk", disk);
  }
}

// The options and arguments of one command.
void parseCommand(Options& options, ArgumentReader& args) {
  std::vector<std::string> plain;
  while (!args.done()) {
    if (!args.isOption()) {
      plain.push_back(args.take());
      continue;
    }
    const std::string option = args.take();
    if (takeGlobalOption(options, option, [&] { return args.value(option); })) {
      continue;
    }
    if (option == "--record") {
      options.record = args.value(option);
    } else if (option == "--secondary" && options.command == Command::import) {
      for (const std::string& disk : splitList(args.value(option))) {
        options.secondary.push_back(checkedName("secondary disk", disk));
      }
    } else if (option == "--raw" && options.command == Command::import) {
      options.raw = true;
    } else if (option == "--disposition" && options.command == Command::release) {
      options.disposition = static_cast<int>(parseNumber(option, args.value(option), 0, 3));
    } else if (option == "--flags" && options.command == Command::access) {
      options.accessFlags = parseNumber(option, args.value(option), 0, LONG_MAX);
    } else if (option == "--group" && options.command == Command::format) {
      options.group = checkedObjectName("disk group", args.value(option));
    } else if (option == "--volume" && options.command == Command::format) {
      options.volume = checkedObjectName("volume", args.value(option));
    } else if (option == "--this-host-was" &&
               (options.command == Command::deport || options.command == Command::access ||
                options.command == Command::move || options.command == Command::release)) {
      options.thisHostWas = checkedName("host", args.value(option));
    } else if (option == "--since" && options.command == Command::journal) {
      options.since = args.value(option);
    } else if (option == "--socket" && options.command == Command::serve) {
      options.socket = args.value(option);
    } else if (option == "--persistent" &&
               (options.command == Command::online || options.command == Command::unformat)) {
      options.persistent = true;
    } else {
      args.unknown(option);
    }
  }

  switch (options.command) {
    case Command::help:
    case Command::version:
    case Command::info:
    case Command::serve:
      if (!plain.empty()) {
        args.unknown(plain.front());
      }
      break;
    case Command::claim:
    case Command::prepare:
      if (plain.size() != 1) {
        throw UsageError(options.commandName + ": one object path is required");
      }
      options.path = checkedName("object path", plain.front());
      if (options.command == Command::prepare) {
        requireRecord(options);
      }
      break;
    case Command::deport:
    case Command::move:
    case Command::release:
    case Command::status:
      if (!plain.empty()) {
        args.unknown(plain.front());
      }
      requireRecord(options);
      break;
    case Command::import:
      if (!plain.empty()) {
        args.unknown(plain.front());
      }
      requireRecord(options);
      if (options.secondary.empty()) {
        throw UsageError("import: --secondary DISK[,DISK...] is required");
      }
      break;
    case Command::access:
      if (plain.size() != 1 || (plain.front() != "on" && plain.front() != "off")) {
        throw UsageError("access: say 'on' or 'off'");
      }
      options.accessOn = plain.front() == "on";
      requireRecord(options);
      break;
    case Command::format:
    case Command::online:
    case Command::unformat:
      options.disks = plain;
      checkDisks(options);
      break;
    case Command::list:
      if (plain.size() > 1) {
        args.unknown(plain[1]);
      }
      options.folder = plain.empty() ? std::string() : plain.front();
      break;
    case Command::journal:
      if (!plain.empty()) {
        args.unknown(plain.front());
      }
      if (!options.since.empty()) {
        parseSince(options.since, 0);  // refused here, like any bad option
      }
      break;
  }
}

}  // namespace

bool isCommandName(const std::string& name) {
  return kCommands.count(name) != 0;
}

Options parseOptions(const std::vector<std::string>& args) {
  Options options;
  size_t next = 1;
  for (; next < args.size(); ++next) {
    const std::string& arg = args[next];
    const auto value = [&] {
      if (++next == args.size()) {
        throw UsageError("--plugin needs a name or a file");
      }
      return args[next];
    };
    if (takeGlobalOption(options, arg, value)) {
      continue;
    } else if (arg == "--help" || arg == "-h") {
      options.command = Command::help;
      options.commandName = "help";
      return options;
    } else if (arg == "--version") {
      options.command = Command::version;
      options.commandName = "version";
      return options;
    } else if (!arg.empty() && arg[0] == '-') {
      throw UsageError("unknown option '" + arg + "'");
    } else {
      break;
    }
  }
  if (next == args.size()) {
    throw UsageError("no command given");
  }
  auto found = kCommands.find(args[next]);
  if (found == kCommands.end()) {
    throw UsageError("unknown command '" + args[next] + "'");
  }
  options.command = found->second;
  options.commandName = found->first;
  options.arguments.assign(args.begin() + 1, args.end());
  ArgumentReader reader(options.commandName, {args.begin() + next + 1, args.end()});
  parseCommand(options, reader);
  return options;
}

std::string helpText() {
  return R"(qzfi - drive a snapshot plug-in through a whole backup

Usage: qzfi [--plugin NAME|FILE] [--json] [--quiet] [--verbose] COMMAND [ARGUMENTS]
       qzfi [--plugin NAME|FILE] serve [--socket PATH]
       qzfi --agent [SOCKET] [--json] [--quiet] [--verbose] COMMAND [ARGUMENTS]

Commands:
  info                        the plug-in's provider, interface version, release
                              and supported frozen-image access types
  claim PATH                  whether the plug-in claims PATH (exit 0 or 1)
  prepare PATH --record FILE  source host, before the split: claim and node
                              initialisation; writes the snapshot record FILE
  deport --record FILE        source host, after the split: deportTree and
                              postDeport; the provider state saved again
  import --record FILE --secondary DISK[,DISK...] [--raw]
                              alternate host: the copy built on the split disks
                              (in the order of the record's sub-objects) or the
                              moved group imported; prints its device path
  move --record FILE          alternate host: the copy's group deported intact,
                              to be imported on another host
  release --record FILE [--disposition N]
                              alternate host, when the backup is done: the copy
                              taken offline, disposed of and its group taken
                              away (N: 1 delete, the default; 0, 2, 3 keep the
                              group on the disks, deported)
  access off|on --record FILE [--flags N]
                              source host: disableAccess / enableAccess
  format [--group DG] [--volume VOL] DISK...
                              a new disk group with one volume on plain disks
                              (the plug-in names what is not given)
  online [--persistent] DISK...
                              the group and volume on the disks brought online
  unformat [--persistent] DISK...
                              the volume manager's identity removed from disks
  serve [--socket PATH]       the host's agent: the plug-in loaded and started
                              once, commands taken from qzfi --agent over the
                              socket PATH (default /run/qzfi/agent.sock)
  status --record FILE        where the backup stands: the last step done, a
                              command running or stopped half-way, what this
                              host holds of it, and the command that takes
                              the flow on; reads only (no changing tool run)
  list [FOLDER]               the records in FOLDER (default /var/lib/qzfi/records,
                              or $QZFI_RECORD_DIR): object, step, copy, age,
                              and whether a command stopped half-way
  journal [--record FILE] [--since TIME]
                              what changed: one line per changing command,
                              from the journal /var/log/qzfi/journal.json
                              (TIME, UTC: 2026-11-26, 2026-11-26T03:00, or
                              2h, 3d ago)
  help, version

Options:
  --plugin NAME|FILE  the plug-in: a name in the framework's plug-in folder
                      (default qzvmfi) or the path of its library
  --json              one JSON document on standard output
  --quiet             only the result (a device path) on standard output
  --verbose           also the messages of steps that succeeded, as notes
                      (a volume manager's "no" to a question, for instance)
  --agent [SOCKET]    the command run by the agent at SOCKET (default
                      $QZFI_AGENT_SOCKET, else /run/qzfi/agent.sock); with
                      QZFI_AGENT_SOCKET set, every command goes to its agent
These options go before or after the command.

Hosts:
  The record names the host of each step by its machine id (/etc/machine-id)
  and host name. deport and access run on the source's host (where prepare
  ran), move and release on the host that holds the copy (where import ran);
  import runs wherever the copy's disks are. On another host the command is
  refused (exit 3) and nothing is run. Where the record names no host for
  the copy (an earlier qzfi's record, a host taken on), release first reads
  with qzdg list and qzdisk list that the copy is here or gone.
  --this-host-was HOST
                      deport, access, move, release: this host is the one
                      the record names as HOST (its host name or machine
                      id), with a new identity (reinstalled or renamed); the
                      record then names this host instead

Exit codes:
  0  done; claim: the plug-in claims the path
  1  claim: the plug-in does not claim the path
  2  the command line is wrong
  3  the record cannot be used for this command (missing, unreadable, from
     another step, not matching the command line, or of another host);
     nothing was changed
  4  the plug-in cannot be found or loaded, or lacks an entry point
  5  the plug-in did not start (its init failed)
  6  a plug-in operation failed; its messages are printed
  7  the agent cannot be reached, or refused the request
  8  the agent is stopping: the command did not run, nothing was changed
status:
  0  no command stopped half-way: the flow is at its last step done
  3  the record cannot be read (a missing one: prepare made none)
  9  a command on the record runs now
  10 a command on the record stopped half-way: the command printed finishes it
  11 needs attention: this host does not hold what the record says
list:
  0  the folder's records listed, stopped ones too
  3  the folder cannot be read
)";
}

const char* exitCodeName(int code) {
  switch (code) {
    case kExitDone:
      return "done";
    case kExitNotClaimed:
      return "not claimed";
    case kExitUsage:
      return "usage";
    case kExitRecord:
      return "record unusable";
    case kExitPluginLoad:
      return "plug-in not loaded";
    case kExitPluginStart:
      return "plug-in not started";
    case kExitAgent:
      return "agent unusable";
    case kExitInProgress:
      return "in progress";
    case kExitStopped:
      return "stopped";
    case kExitAttention:
      return "needs attention";
    default:
      return "failed";
  }
}

}  // namespace qzfi_host

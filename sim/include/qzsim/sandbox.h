// The QzVM simulator's multi-host sandbox, as a library.
//
// A process enters its own private mount namespace once (enterNamespace) and
// then acts as one simulated host after another (actAsHost): the host's tools
// appear at /usr/sbin, /usr/lib/qzvm/bin, /bin/rpm and /sbin/parted, its own
// /dev/qz and /sys/block are bound over the machine's, and QZSIM_ROOT,
// QZSIM_HOST, QZFI_CONFIG_DIR and QZFI_LOG_DIR point at the host. Nothing
// outside the namespace changes. The helpers below run the qzsim program and
// its tools as child processes, with or without the sandbox.
#pragma once

#include <string>
#include <vector>

namespace qzsim {

// Path of the qzsim program built together with this library.
std::string simBinary();

// Moves the calling process into a private mount namespace (and a user
// namespace when not root). Later calls do nothing. Call it before the
// process starts threads: the namespace then belongs to the whole process.
bool enterNamespace(std::string* error);

// Shows host's view at the machine's paths, replacing the previous host's
// (needs enterNamespace first). binary is the program the tool names run.
bool actAsHost(const std::string& root, const std::string& host, std::string* error,
               const std::string& binary = simBinary());

// Removes the mounts of the current host; the machine's paths show again.
void leaveHost();

struct CommandResult {
  int status = -1;  // exit status, or 128 + signal
  std::string out, err;
};

// Runs argv (argv[0] is looked up in PATH when it holds no "/") with extra
// "NAME=value" environment entries, and collects its output.
CommandResult runCommand(const std::vector<std::string>& argv,
                         const std::vector<std::string>& env = {});

// "qzsim ARGS..." for the simulation at root.
CommandResult simAdmin(const std::string& root, const std::vector<std::string>& args);

// One tool run as host, without the sandbox: the qzsim program called under
// the tool's name. A single string is split on blanks like a shell would.
CommandResult simTool(const std::string& root, const std::string& host,
                      const std::vector<std::string>& toolAndArgs);
CommandResult simTool(const std::string& root, const std::string& host,
                      const std::string& commandLine);

}  // namespace qzsim

// One run of a simulated tool: one transaction on the simulation database.
#pragma once

#include <string>
#include <vector>

namespace qzsim {

struct RunResult {
  int status = 0;
  std::string out, err;
  // A hanging fault: after printing, the run waits until it is killed.
  bool hang = false;
  // What the tool itself did, as the log keeps it: whether it changed the
  // model, and whether it printed on standard output.
  bool changed = false, printed = false;
  // A killing fault: the run is made, then the program that ran it dies.
  bool killCaller = false;
};

// The status "qzsim log" keeps for a run that hung.
constexpr int kHungStatus = -1;

// How a fault acts on the run it fires on: each kind is a way in which a
// real tool run goes wrong. Every kind ends the run with the fault's output
// (--stdout, --stderr) and status.
enum class FaultKind {
  kFail,     // the run does nothing else: no change, no output of its own
  kAfter,    // the run makes its change first
  kPartial,  // the run prints the first half of its output's lines first; no change
  kHang,     // as kFail, then the run waits until it is killed
  kKill,     // the run is made, then the program that ran the tool dies
};
// The kinds under the names "qzsim fault" takes and lists.
bool faultKindFromName(const std::string& name, FaultKind* kind);
const char* faultKindName(FaultKind kind);
std::string faultKindNames();  // "fail|after|..."

// Runs a tool as a host: fault injection, the tool itself, the host's device
// nodes refreshed, and the run logged; all in one transaction.
RunResult runTool(const std::string& root, const std::string& host, const std::string& tool,
                  const std::vector<std::string>& args);

std::string errorLine(const std::string& tool, int code, const std::string& text);

// SIGKILL to the program that ran this tool through a pipe runner: the
// parent of the tool's process group, seen through a "sh -c" between them.
// A tool that shares its caller's process group (run directly, not through
// a runner) kills nothing. Whether a process was killed.
bool killCaller();

}  // namespace qzsim

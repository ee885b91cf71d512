// One run of a simulated tool: one transaction on the simulation database.
#pragma once

#include <string>
#include <vector>

namespace qzsim {

struct RunResult {
  int status = 0;
  std::string out, err;
};

// Runs a tool as a host: applies pending device deletions, fault injection,
// the tool itself, refreshes the host's device folders and logs the run.
RunResult runTool(const std::string& root, const std::string& host, const std::string& tool,
                  const std::vector<std::string>& args);

std::string errorLine(const std::string& tool, int code, const std::string& text);

}  // namespace qzsim

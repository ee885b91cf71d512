// A command line run to its exit code.
#include "command_line.h"

#include "agent_server.h"
#include "flows.h"
#include "journal.h"
#include "options.h"
#include "report.h"
#include "status.h"

#ifndef QZFI_VERSION
#error "QZFI_VERSION (the project's version) must be defined by the build"
#endif

namespace qzfi_host {

namespace {

// The agent serves the plug-in it started: a command that names another one
// is refused rather than run through the wrong plug-in. The why, empty when
// the plug-in is the agent's.
std::string otherPlugin(const Options& options, CPluginLibrary& served) {
  const bool isFile = options.plugin.find('/') != std::string::npos;
  if (isFile ? options.plugin == served.file() : options.plugin == served.name()) {
    return std::string();
  }
  return "the agent serves the plug-in " + served.name() + " (" + served.file() + "), not " +
         options.plugin;
}

}  // namespace

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   CAgentState* agent) {
  Options options;
  try {
    options = parseOptions(args);
  } catch (const UsageError& error) {
    err << "qzfi: " << error.what() << "\n(qzfi help lists the commands)\n";
    return kExitUsage;
  }
  if (options.command == Command::help) {
    out << helpText();
    return kExitDone;
  }
  if (options.command == Command::version) {
    out << "qzfi " << QZFI_VERSION << "\n";
    return kExitDone;
  }
  if (options.command == Command::serve) {
    if (agent != nullptr) {
      err << "qzfi: serve: an agent runs commands, it does not start another agent\n";
      return kExitUsage;
    }
    return serveAgent(options, out, err);
  }
  if (options.command == Command::status) {
    return runStatus(options, out, err);
  }
  if (options.command == Command::list) {
    return runList(options, out, err);
  }
  if (options.command == Command::journal) {
    return runJournal(options, out, err);
  }
  CReport report(options, out, err);
  if (agent != nullptr) {
    const std::string why = otherPlugin(options, agent->plugin());
    if (!why.empty()) {
      return report.finish(kExitPluginLoad, why);
    }
  }
  CFlows flows(options, report, agent);
  return flows.run();
}

}  // namespace qzfi_host

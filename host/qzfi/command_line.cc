// A command line run to its exit code.
#include "command_line.h"

#include <unistd.h>

#include <chrono>

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

// The command run through flows, or refused when the agent serves another
// plug-in.
int runFlow(const Options& options, CReport& report, CFlows& flows, CAgentState* agent) {
  if (agent != nullptr) {
    const std::string why = otherPlugin(options, agent->plugin());
    if (!why.empty()) {
      return report.finish(kExitPluginLoad, why);
    }
  }
  return flows.run();
}

// The journal's entry of the command, as it begins.
JournalEntry begunEntry(const Options& options, bool throughAgent) {
  JournalEntry entry;
  entry.time = utcNow();
  entry.host = thisHost();
  entry.pid = getpid();
  entry.throughAgent = throughAgent;
  entry.command = options.commandName;
  entry.arguments = options.arguments;
  try {
    entry.record = options.record.empty() ? std::string() : realRecordFile(options.record);
  } catch (const RecordError&) {
    entry.record = options.record;  // a link to nothing: the path as given
  }
  return entry;
}

// A changing command run, then its line in the journal, after the line of a
// command that it found stopped half-way on its record. The command's mark
// on its record goes with flows, after the line.
int runJournaled(const Options& options, CReport& report, CAgentState* agent, std::ostream& err) {
  // One journal for the process: an agent warns once in its life.
  static CJournal journal;
  JournalEntry entry = begunEntry(options, agent != nullptr);
  const auto start = std::chrono::steady_clock::now();
  CFlows flows(options, report, agent);
  const int code = runFlow(options, report, flows, agent);
  entry.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  entry.uid = flows.requester();
  entry.user = userName(entry.uid);
  entry.result = exitCodeName(code);
  entry.exitCode = code;
  entry.toolRuns = report.toolRuns();
  entry.reason = code == kExitDone ? std::string() : report.why();
  std::vector<JournalEntry> entries;
  if (flows.stoppedBefore()) {
    entries.push_back(stoppedEntry(*flows.stoppedBefore(), entry));
  }
  entries.push_back(entry);
  journal.append(entries, err);
  return code;
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
  if (isChangingCommand(options.command)) {
    return runJournaled(options, report, agent, err);
  }
  CFlows flows(options, report, agent);
  return runFlow(options, report, flows, agent);
}

}  // namespace qzfi_host

// What qzfi tells its user: each step with what it did, how long it took and
// how many tool runs it needed, the plug-in's messages with their catalogue
// texts, the command's results and its outcome. Human lines by default, one
// JSON document with --json, only the results with --quiet.
#ifndef QZFI_HOST_REPORT_H
#define QZFI_HOST_REPORT_H

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "options.h"
#include "plugin_library.h"
#include "progress.h"

namespace qzfi_host {

// One step of a command: a plug-in call, or qzfi's own work.
struct StepOutcome {
  std::string name;
  int status = 0;  // the plug-in's status
  bool ok = true;
  double seconds = 0;
  CProgressWatch::Counts counts;
  std::string detail;  // what it did, or why it failed
  std::vector<PluginMessage> messages;
};

class CReport {
 public:
  CReport(const Options& options, std::ostream& out, std::ostream& err);

  // The command's first line: what it works on.
  void begin(const std::string& title);
  // A finished step: printed at once (human form) and kept for the totals.
  void step(StepOutcome outcome);
  // A result of the command under key for the JSON form; line (when not
  // empty) is printed in the human form.
  void result(const std::string& key, const nlohmann::ordered_json& value,
              const std::string& line = std::string());
  // The command's answer (a device path, whether a path is claimed): a
  // result whose line is printed with --quiet too, alone.
  void answer(const std::string& key, const nlohmann::ordered_json& value, const std::string& line);
  // A progress line while a step lasts (standard error with --json, nothing
  // with --quiet).
  void progress(const std::string& line);

  // The end: the summary line or the failure, or the JSON document. Returns
  // code. why explains a failure in one sentence.
  int finish(int code, const std::string& why = std::string());

  const std::vector<StepOutcome>& steps() const { return m_steps; }
  // The why given to finish, for the journal.
  const std::string& why() const { return m_why; }
  unsigned long toolRuns() const;

 private:
  void printStep(const StepOutcome& outcome);
  void printMessages(const StepOutcome& outcome);
  nlohmann::ordered_json document(int code, const std::string& why) const;

  const Options& m_options;
  std::ostream& m_out;
  std::ostream& m_err;
  std::chrono::steady_clock::time_point m_start;
  std::string m_title;
  std::string m_why;
  std::vector<StepOutcome> m_steps;
  nlohmann::ordered_json m_results;
};

// "error", "warning" or "note" for a message's severity.
const char* severityName(int severity);

// The items with separator between them.
std::string joined(const std::vector<std::string>& items, const std::string& separator = " ");

}  // namespace qzfi_host

#endif  // QZFI_HOST_REPORT_H

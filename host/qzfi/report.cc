// What qzfi prints.
#include "report.h"

#include <cstdio>

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;

// Seconds rounded to the millisecond, as the JSON form gives them.
double rounded(double seconds) {
  return static_cast<double>(static_cast<long long>(seconds * 1000 + 0.5)) / 1000;
}

std::string stepLine(const StepOutcome& outcome) {
  char numbers[64];
  std::snprintf(numbers, sizeof numbers, "%8.3f s %4lu tool runs", outcome.seconds,
                outcome.counts.toolRuns);
  std::string name = outcome.name;
  if (name.size() < 22) {
    name.resize(22, ' ');
  }
  return "  " + name + " " + numbers + "  " + (outcome.ok ? "" : "FAILED: ") + outcome.detail;
}

Json messagesJson(const std::vector<PluginMessage>& messages) {
  Json list = Json::array();
  for (const PluginMessage& message : messages) {
    list.push_back({{"id", message.id},
                    {"severity", severityName(message.severity)},
                    {"number", message.number},
                    {"text", message.text}});
  }
  return list;
}

}  // namespace

const char* severityName(int severity) {
  switch (severity) {
    case 3:
      return "error";
    case 2:
      return "warning";
    default:
      return "note";
  }
}

std::string joined(const std::vector<std::string>& items, const std::string& separator) {
  std::string text;
  for (const std::string& item : items) {
    text += (text.empty() ? "" : separator) + item;
  }
  return text;
}

CReport::CReport(const Options& options, std::ostream& out, std::ostream& err)
    : m_options(options),
      m_out(out),
      m_err(err),
      m_start(std::chrono::steady_clock::now()),
      m_results(Json::object()) {}

void CReport::begin(const std::string& title) {
  m_title = title;
  if (!m_options.json && !m_options.quiet) {
    m_out << title << "\n";
  }
}

void CReport::step(StepOutcome outcome) {
  printStep(outcome);
  m_steps.push_back(std::move(outcome));
}

void CReport::printStep(const StepOutcome& outcome) {
  if (m_options.json) {
    return;
  }
  if (!m_options.quiet) {
    m_out << stepLine(outcome) << "\n";
  }
  printMessages(outcome);
  m_out.flush();
}

// A failed step's messages go to standard error in full, whatever the
// output form. A step that succeeded may have pushed some on the way (a
// tool's expected "no" to a question): they are no errors, and are told
// only with --verbose, as notes.
void CReport::printMessages(const StepOutcome& outcome) {
  if (outcome.ok && (!m_options.verbose || m_options.quiet)) {
    return;
  }
  std::ostream& to = outcome.ok ? m_out : m_err;
  for (const PluginMessage& message : outcome.messages) {
    std::string text = message.text;
    text.erase(text.find_last_not_of(" \n\t\r") + 1);
    to << "    " << (outcome.ok ? "note" : severityName(message.severity)) << " " << message.id
       << ": " << text << "\n";
  }
}

void CReport::result(const std::string& key, const Json& value, const std::string& line) {
  m_results[key] = value;
  if (!m_options.json && !m_options.quiet && !line.empty()) {
    m_out << line << "\n";
  }
}

void CReport::answer(const std::string& key, const Json& value, const std::string& line) {
  m_results[key] = value;
  if (!m_options.json) {
    m_out << line << "\n";
  }
}

void CReport::progress(const std::string& line) {
  if (m_options.quiet) {
    return;
  }
  std::ostream& to = m_options.json ? m_err : m_out;
  to << line << "\n";
  to.flush();
}

unsigned long CReport::toolRuns() const {
  unsigned long runs = 0;
  for (const StepOutcome& outcome : m_steps) {
    runs += outcome.counts.toolRuns;
  }
  return runs;
}

Json CReport::document(int code, const std::string& why) const {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
  double toolSeconds = 0;
  double waited = 0;
  Json steps = Json::array();
  for (const StepOutcome& outcome : m_steps) {
    toolSeconds += outcome.counts.toolSeconds;
    waited += outcome.counts.waitedSeconds;
    steps.push_back({{"step", outcome.name},
                     {"ok", outcome.ok},
                     {"status", outcome.status},
                     {"seconds", rounded(outcome.seconds)},
                     {"tool_runs", outcome.counts.toolRuns},
                     {"tool_seconds", rounded(outcome.counts.toolSeconds)},
                     {"waited_seconds", rounded(outcome.counts.waitedSeconds)},
                     {"detail", outcome.detail},
                     {"messages", messagesJson(outcome.messages)}});
  }
  Json json;
  json["command"] = m_options.commandName;
  json["title"] = m_title;
  json["exit_code"] = code;
  json["result"] = exitCodeName(code);
  if (!why.empty()) {
    json["error"] = why;
  }
  json["seconds"] = rounded(seconds);
  json["tool_runs"] = toolRuns();
  json["tool_seconds"] = rounded(toolSeconds);
  json["waited_seconds"] = rounded(waited);
  json["steps"] = steps;
  for (const auto& item : m_results.items()) {
    json[item.key()] = item.value();
  }
  return json;
}

int CReport::finish(int code, const std::string& why) {
  m_why = why;
  if (m_options.json) {
    m_out << document(code, why).dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
          << "\n";
  } else if (code != kExitDone && code != kExitNotClaimed) {
    m_err << "qzfi " << m_options.commandName << ": " << why << "\n";
  } else if (!m_options.quiet) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    char summary[96];
    std::snprintf(summary, sizeof summary, ": done in %.3f s with %lu tool runs", seconds,
                  toolRuns());
    m_out << m_options.commandName << summary << (why.empty() ? "" : "; " + why) << "\n";
  }
  m_out.flush();
  m_err.flush();
  return code;
}

}  // namespace qzfi_host

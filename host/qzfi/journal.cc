// The journal of the host's changing commands.
#include "journal.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <system_error>

#include <nlohmann/json.hpp>
#include <qzfi/folders.h>

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;

std::string errorText(int error) {
  return std::generic_category().message(error);
}

std::string dumped(const Json& json) {
  return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// text cut to at most limit bytes; cut tells whether it was.
std::string cutTo(const std::string& text, size_t limit, bool& cut) {
  if (text.size() <= limit) {
    return text;
  }
  cut = true;
  return text.substr(0, limit);
}

// The arguments, cut to limit bytes together.
Json cutArguments(const std::vector<std::string>& arguments, size_t limit, bool& cut) {
  Json kept = Json::array();
  for (const std::string& argument : arguments) {
    kept.push_back(cutTo(argument, limit, cut));
    limit -= kept.back().get_ref<const std::string&>().size();
  }
  return kept;
}

// The entry as JSON, its arguments and its reason cut to limit bytes each.
Json toJson(const JournalEntry& entry, size_t limit) {
  bool cut = false;
  Json json;
  json["time"] = entry.time;
  json["host"] = hostJson(entry.host);
  json["uid"] = entry.uid;
  json["user"] = entry.user;
  json["pid"] = entry.pid;
  if (entry.throughAgent) {
    json["agent"] = true;
  }
  json["command"] = entry.command;
  json["arguments"] = cutArguments(entry.arguments, limit, cut);
  if (!entry.record.empty()) {
    json["record"] = entry.record;
  }
  json["result"] = entry.result;
  if (entry.exitCode) {
    json["exit_code"] = *entry.exitCode;
  }
  if (entry.toolRuns) {
    json["tool_runs"] = *entry.toolRuns;
  }
  if (entry.seconds) {
    json["seconds"] = std::round(*entry.seconds * 1000) / 1000;  // to the millisecond
  }
  if (!entry.reason.empty()) {
    json["reason"] = cutTo(entry.reason, limit, cut);
  }
  if (!entry.foundBy.empty()) {
    json["found_by"] = {
        {"command", entry.foundBy}, {"pid", entry.foundByPid}, {"time", entry.foundAt}};
  }
  if (cut) {
    json["cut"] = true;
  }
  return json;
}

// The journal opened to append, made with its folder when missing; -1 and
// errno otherwise. Read too: its last byte tells whether a torn line ends it.
int openJournal(const std::string& file) {
  const int flags = O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW;
  const int fd = open(file.c_str(), flags, 0640);
  if (fd < 0 && errno == ENOENT && mkdir(folderOf(file).c_str(), 0755) == 0) {
    return open(file.c_str(), flags, 0640);
  }
  return fd;
}

// Writes line at the end of fd with one write, synced; the error, empty
// when done. A line that follows a torn one (a power cut's) starts on a
// line of its own.
std::string writeLine(int fd, const std::string& line) {
  // Held while the last byte is read and the line written: another
  // process's write under way would look like a torn line.
  (void)flock(fd, LOCK_EX);
  struct stat held {};
  char last = '\n';
  if (fstat(fd, &held) == 0 && held.st_size > 0) {
    (void)pread(fd, &last, 1, held.st_size - 1);
  }
  const std::string text = last == '\n' ? line : "\n" + line;
  const ssize_t written = write(fd, text.data(), text.size());
  if (written < 0) {
    return errorText(errno);
  }
  if (static_cast<size_t>(written) != text.size()) {
    return "only " + std::to_string(written) + " of " + std::to_string(text.size()) +
           " bytes written";
  }
  return fdatasync(fd) == 0 ? std::string() : errorText(errno);
}

// Appends line to file; the error, empty when done.
std::string appendLine(const std::string& file, const std::string& line) {
  const int fd = openJournal(file);
  if (fd < 0) {
    return errorText(errno);
  }
  const std::string why = writeLine(fd, line);
  close(fd);
  return why;
}

// An age before now: "90m", "2h", "3d", "1w".
std::optional<std::time_t> ageBefore(const std::string& text, std::time_t now) {
  const std::string units = "mhdw";
  const long seconds[] = {60, 3600, 86400, 604800};
  const size_t unit = text.empty() ? std::string::npos : units.find(text.back());
  const std::string count = text.substr(0, text.empty() ? 0 : text.size() - 1);
  if (unit == std::string::npos || count.empty() || count.size() > 6 ||
      count.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  return now - std::stol(count) * seconds[unit];
}

// The entry's time, when it has one.
std::optional<std::time_t> entryTime(const Json& entry) {
  const auto found = entry.find("time");
  if (found == entry.end() || !found->is_string()) {
    return std::nullopt;
  }
  return utcTime(found->get<std::string>());
}

// Whether json is an entry as the journal writes them.
bool isEntry(const Json& json) {
  if (!json.is_object() || !entryTime(json)) {
    return false;
  }
  for (const char* text : {"command", "result", "user", "record", "reason"}) {
    if (json.contains(text) && !json[text].is_string()) {
      return false;
    }
  }
  for (const char* number : {"uid", "exit_code", "tool_runs", "seconds"}) {
    if (json.contains(number) && !json[number].is_number()) {
      return false;
    }
  }
  return json.contains("command") && json.value("arguments", Json::array()).is_array() &&
         json.value("host", Json::object()).is_object() &&
         (!json.contains("agent") || json["agent"].is_boolean());
}

// The entries of file, added to entries; a line that is not one is skipped
// with a note. False when the file is there but cannot be read.
bool readEntries(const std::string& file, std::vector<Json>& entries, std::ostream& err) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    struct stat held {};
    if (stat(file.c_str(), &held) != 0 && errno == ENOENT) {
      return true;
    }
    err << "qzfi journal: " << file << " cannot be read: " << errorText(errno) << "\n";
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  std::istringstream lines(text.str());
  size_t number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    const Json json = Json::parse(line, nullptr, false);
    if (isEntry(json)) {
      entries.push_back(json);
    } else if (!line.empty()) {
      err << "qzfi journal: note: " << file << ", line " << number
          << ": not a whole entry (torn or damaged), skipped\n";
    }
  }
  return true;
}

// What of an entry's value key is readable text: a string as it is,
// anything else as JSON.
std::string textOf(const Json& entry, const char* key) {
  const auto found = entry.find(key);
  if (found == entry.end()) {
    return std::string();
  }
  return found->is_string() ? found->get<std::string>() : dumped(*found);
}

// One entry as a line for people.
std::string readableLine(const Json& entry) {
  std::vector<std::string> arguments;
  for (const Json& argument : entry.value("arguments", Json::array())) {
    arguments.push_back(argument.is_string() ? argument.get<std::string>() : dumped(argument));
  }
  const Json host = entry.value("host", Json::object());
  std::string line = textOf(entry, "time") + " " + textOf(host, "name") + " " +
                     textOf(entry, "user") + "(" + textOf(entry, "uid") + ")" +
                     (entry.value("agent", false) ? " through the agent" : "") + ": " +
                     qzfiLine(arguments) + " => " + textOf(entry, "result");
  if (entry.contains("exit_code")) {
    line += ", exit " + textOf(entry, "exit_code");
  }
  if (entry.contains("tool_runs")) {
    line += ", " + textOf(entry, "tool_runs") + " tool runs";
  }
  if (entry.contains("seconds")) {
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, ", %.3f s", entry["seconds"].get<double>());
    line += seconds;
  }
  return line + (entry.contains("reason") ? ": " + textOf(entry, "reason") : "");
}

// The record files an entry may name to be one of --record FILE's: the
// path as given, and its real file.
std::vector<std::string> recordNames(const std::string& record) {
  std::vector<std::string> names = {record};
  try {
    names.push_back(realRecordFile(record));
  } catch (const RecordError&) {
    // a link to nothing: only its path as given can match
  }
  return names;
}

bool wanted(const Json& entry, const std::vector<std::string>& records, std::time_t since) {
  if (entryTime(entry).value_or(0) < since) {
    return false;
  }
  const std::string record = textOf(entry, "record");
  for (const std::string& name : records) {
    if (record == name) {
      return true;
    }
  }
  return records.empty();
}

}  // namespace

bool isChangingCommand(Command command) {
  switch (command) {
    case Command::prepare:
    case Command::deport:
    case Command::import:
    case Command::move:
    case Command::release:
    case Command::access:
    case Command::format:
    case Command::online:
    case Command::unformat:
      return true;
    default:
      return false;
  }
}

std::string journalFile() {
  return qzfi_pdk_4_4::getInstallFolder(qzfi_pdk_4_4::CFiInstallFolder::logs) + "/journal.json";
}

std::string journalLine(const JournalEntry& entry) {
  for (size_t limit = kMaxJournalLine;; limit /= 2) {
    const std::string line = dumped(toJson(entry, limit)) + "\n";
    if (line.size() <= kMaxJournalLine || limit == 0) {
      return line;
    }
  }
}

JournalEntry stoppedEntry(const CommandMark& mark, const JournalEntry& finder) {
  JournalEntry entry;
  entry.time = mark.started;
  entry.host = mark.host;
  entry.uid = mark.uid;
  entry.user = mark.user;
  entry.pid = mark.pid;
  entry.command = mark.command;
  entry.arguments = mark.arguments;
  entry.record = finder.record;
  entry.result = "stopped";
  entry.reason = "it did not finish (killed, or its host went down); its mark was found by " +
                 finder.command + " (pid " + std::to_string(finder.pid) + ") at " + finder.time;
  entry.foundBy = finder.command;
  entry.foundByPid = finder.pid;
  entry.foundAt = finder.time;
  return entry;
}

void CJournal::append(const std::vector<JournalEntry>& entries, std::ostream& err) {
  const std::string file = m_file.empty() ? journalFile() : m_file;
  for (const JournalEntry& entry : entries) {
    const std::string why = appendLine(file, journalLine(entry));
    if (!why.empty()) {
      if (!m_warned.exchange(true)) {
        err << "qzfi: warning: the journal " << file << " cannot be written: " << why
            << "; the backup goes on\n";
      }
      return;
    }
  }
}

std::time_t parseSince(const std::string& text, std::time_t now) {
  for (const char* format : {"%Y-%m-%dT%H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
    if (const std::optional<std::time_t> time = utcTime(text, format)) {
      return *time;
    }
  }
  if (const std::optional<std::time_t> time = ageBefore(text, now)) {
    return *time;
  }
  throw UsageError(
      "journal: --since takes a time like 2026-11-26, 2026-11-26T03:00 (UTC), 2h or "
      "3d, not '" +
      text + "'");
}

int runJournal(const Options& options, std::ostream& out, std::ostream& err) {
  const std::time_t since =
      options.since.empty() ? 0 : parseSince(options.since, std::time(nullptr));
  const std::vector<std::string> records =
      options.record.empty() ? std::vector<std::string>() : recordNames(options.record);
  const std::string file = journalFile();
  std::vector<Json> entries;
  // The rotated file holds the older lines; logrotate compresses it only
  // at the next rotation.
  if (!readEntries(file + ".1", entries, err) || !readEntries(file, entries, err)) {
    return kExitFailed;
  }
  for (const Json& entry : entries) {
    if (wanted(entry, records, since)) {
      out << (options.json ? dumped(entry) : readableLine(entry)) << "\n";
    }
  }
  return kExitDone;
}

}  // namespace qzfi_host

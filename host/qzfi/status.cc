// Where backups stand: qzfi status and qzfi list.
#include "status.h"

#include <dirent.h>
#include <time.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "command_mark.h"
#include "host_tools.h"
#include "report.h"

namespace qzfi_host {

namespace {

using Json = nlohmann::ordered_json;
using Texts = std::vector<std::string>;

const char kPackageRecordFolder[] = "/var/lib/qzfi/records";

// null for a host the record does not know.
Json knownHostJson(const HostIdentity& host) {
  return host.known() ? hostJson(host) : Json();
}

// A command on a record: one that runs now (it holds the record's lock) and
// the mark that a command left beside the record.
struct CommandOnRecord {
  long holder = 0;  // the process that holds the record's lock
  std::optional<CommandMark> mark;
  bool running() const { return holder > 0; }
  // A command that ended without its event in the record, and holds no lock.
  bool stopped(const CSnapshotRecord& record) const {
    return !running() && mark && !mark->finishedIn(record);
  }
};

// Reads the lock's holder from /proc/locks and the mark: status never
// takes the lock, so that a running command is not disturbed.
CommandOnRecord commandOn(const std::string& realFile) {
  CommandOnRecord found;
  struct stat info {};
  if (stat(realFile.c_str(), &info) == 0) {
    found.holder = lockHolder(info.st_dev, info.st_ino);
  }
  found.mark = readCommandMark(realFile);
  return found;
}

// The command to run next: qzfi's arguments, where and why.
struct NextCommand {
  Texts arguments;  // empty: nothing to run
  HostIdentity host;
  std::string where;
  std::string why;
  bool placeholders = false;  // the arguments hold names to fill in

  std::string line() const { return arguments.empty() ? std::string() : qzfiLine(arguments); }
};

// The command as fields; null when there is none to run.
Json nextJson(const NextCommand& command) {
  if (command.arguments.empty()) {
    return Json();
  }
  return {{"command", command.line()},
          {"arguments", command.arguments},
          {"host", knownHostJson(command.host)},
          {"where", command.where},
          {"why", command.why},
          {"placeholders", command.placeholders}};
}

// The mark's arguments with the record named as status was given it, so
// that the line works where status ran.
Texts withRecord(Texts arguments, const std::string& record) {
  for (size_t i = 0; i + 1 < arguments.size(); ++i) {
    if (arguments[i] == "--record") {
      arguments[i + 1] = record;
    }
  }
  return arguments;
}

// The split disks that a stopped import was given.
Texts secondaryOf(const CommandMark& mark) {
  Texts args = {"qzfi"};
  args.insert(args.end(), mark.arguments.begin(), mark.arguments.end());
  try {
    return parseOptions(args).secondary;
  } catch (const UsageError&) {
    return Texts();
  }
}

std::string where(const HostIdentity& host, const HostIdentity& here) {
  return hostText(host) + (sameHost(host, here) ? ", this host" : "");
}

// "DISK1,DISK2": a name to fill in per sub-object.
std::string diskPlaceholders(size_t count) {
  Texts names;
  for (size_t i = 1; i <= count; ++i) {
    names.push_back("DISK" + std::to_string(i));
  }
  return joined(names, ",");
}

std::string placeholderMeaning(const Texts& subObjects) {
  Texts meanings;
  for (size_t i = 0; i < subObjects.size(); ++i) {
    meanings.push_back("DISK" + std::to_string(i + 1) + " the split copy of " + subObjects[i]);
  }
  return joined(meanings, ", ");
}

// Access to the source given back on its host.
NextCommand accessOn(const CSnapshotRecord& record, const std::string& file,
                     const HostIdentity& here, const std::string& why) {
  return {{"access", "on", "--record", file},
          record.sourceHost,
          where(record.sourceHost, here),
          why,
          false};
}

// The next step of a flow that nothing holds half-way.
NextCommand nextStep(const CSnapshotRecord& record, const std::string& file,
                     const HostIdentity& here) {
  switch (record.step) {
    case RecordStep::prepared:
      if (!record.sourceAccess) {
        return accessOn(record, file, here,
                        "access to the source is off: give it back once the array has split "
                        "its disks, then deport");
      }
      return {{"deport", "--record", file},
              record.sourceHost,
              where(record.sourceHost, here),
              "once the array has split the source's disks: the source's configuration kept",
              false};
    case RecordStep::deported:
      return {
          {"import", "--record", file, "--secondary", diskPlaceholders(record.subObjects.size())},
          HostIdentity(),
          "the host that the split disks are presented to",
          "the copy built on the split disks, named as that host names them: " +
              placeholderMeaning(record.subObjects),
          true};
    case RecordStep::imported:
      return {{"release", "--record", file},
              record.alternate.host,
              where(record.alternate.host, here),
              "the copy released once the backup has read it (or qzfi move --record " + file +
                  " takes it on, intact, to another host)",
              false};
    case RecordStep::moved:
      return {{"import", "--record", file, "--secondary", joined(record.alternate.secondary, ",")},
              HostIdentity(),
              "the host that the copy's disks are presented to now",
              "the copy's group imported intact; its disks were " +
                  joined(record.alternate.secondary, ", ") + " on " +
                  hostText(record.alternate.host) + ": give them as the new host names them",
              false};
    case RecordStep::released:
      if (!record.sourceAccess) {
        return accessOn(record, file, here,
                        "the copy is released; access to the source is still off");
      }
      return NextCommand{};
  }
  return NextCommand{};
}

// Where a backup stands: the record, the command on it, what this host
// holds of it, and the command that takes the flow on.
class CStatus {
 public:
  CStatus(const Options& options, const HostProbe& probe) : m_options(options), m_probe(probe) {}

  int run(std::ostream& out, std::ostream& err);

 private:
  int unreadable(const std::string& why, bool missing, std::ostream& out, std::ostream& err);
  // What this host is to the backup: its source's host, its copy's, where
  // a command stopped.
  void findRoles();
  void readHost();
  Texts groupsHere();
  void checkSource(const Texts& groups);
  void checkCopy(const Texts& groups);
  void checkDisks(const Texts& disks, const std::string& whose);
  bool stoppedHere() const;
  int code() const;
  std::string state() const;
  NextCommand next() const;
  std::string commandText() const;
  std::string stepText() const;
  Json document() const;
  void print(std::ostream& out) const;
  void printNext(std::ostream& out) const;

  const Options& m_options;
  const HostProbe& m_probe;
  CSnapshotRecord m_record;
  CommandOnRecord m_command;
  bool m_stopped = false;
  Texts m_roles;      // what this host is to the backup
  Texts m_found;      // what this host holds of it
  Texts m_attention;  // what this host holds that the record does not say
};

int CStatus::run(std::ostream& out, std::ostream& err) {
  std::string real;
  try {
    real = realRecordFile(m_options.record);
    m_record = CSnapshotRecord::load(real, m_options.record);
  } catch (const RecordError& error) {
    struct stat info {};
    return unreadable(error.what(), lstat(m_options.record.c_str(), &info) != 0 && errno == ENOENT,
                      out, err);
  }
  m_command = commandOn(real);
  m_stopped = m_command.stopped(m_record);
  findRoles();
  if (!m_command.running()) {
    readHost();
  }
  if (m_options.json) {
    out << document().dump(2) << "\n";
  } else {
    print(out);
  }
  return code();
}

// A record that is not there was never written: prepare writes it last,
// and a prepare stopped half-way leaves none; the object is not known here.
int CStatus::unreadable(const std::string& why, bool missing, std::ostream& out,
                        std::ostream& err) {
  NextCommand prepare;
  if (missing) {
    prepare = {{"prepare", "OBJECT", "--record", m_options.record},
               HostIdentity(),
               "the source's host",
               "no record: prepare writes it as its last step, and a prepare stopped half-way "
               "leaves none; OBJECT is the source volume's device path, which only the record "
               "would tell",
               true};
  }
  if (m_options.json) {
    Json json;
    json["record"] = m_options.record;
    json["readable"] = false;
    json["error"] = why;
    json["state"] = "unreadable";
    json["exit_code"] = kExitRecord;
    json["next"] = nextJson(prepare);
    out << json.dump(2) << "\n";
  } else if (missing) {
    out << "record:     " << m_options.record
        << "\nstate:      unreadable (exit 3)\nnext:       " << prepare.line()
        << "\nrun on:     " << prepare.where << "\nwhy:        " << prepare.why << "\n";
  }
  err << "qzfi status: " << why << "\n";
  return kExitRecord;
}

bool CStatus::stoppedHere() const {
  return m_stopped && sameHost(m_command.mark->host, m_probe.here);
}

void CStatus::findRoles() {
  const HostIdentity& here = m_probe.here;
  if (m_record.sourceHost.known() && sameHost(m_record.sourceHost, here)) {
    m_roles.push_back("the source's host");
  }
  if (m_record.hasAlternate && sameHost(m_record.alternate.host, here)) {
    m_roles.push_back("the copy's host");
  }
  if (stoppedHere()) {
    m_roles.push_back("where " + m_command.mark->command + " stopped");
  }
}

// What this host holds of the backup, for the roles it has in it; a host
// with none is not asked anything.
void CStatus::readHost() {
  if (m_roles.empty()) {
    return;
  }
  const Texts groups = groupsHere();
  if (!m_attention.empty()) {
    return;
  }
  if (sameHost(m_record.sourceHost, m_probe.here)) {
    checkSource(groups);
  }
  checkCopy(groups);
}

Texts CStatus::groupsHere() {
  std::vector<std::string> lines;
  const int status = runTool("/usr/sbin/qzdg list", lines);
  if (status != 0) {
    m_attention.push_back("what this host holds cannot be read: qzdg list failed (status " +
                          std::to_string(status) + ")");
    return Texts();
  }
  Texts groups;
  for (size_t i = 1; i < lines.size(); ++i) {
    groups.push_back(firstWord(lines[i]));
  }
  return groups;
}

// The kernel state of a volume ("Started"), from qzinfo; empty when it
// cannot be read.
std::string volumeState(const std::string& group, const std::string& volume) {
  std::vector<std::string> lines;
  if (!plainName(group) || !plainName(volume) ||
      runTool("/usr/sbin/qzinfo -g " + group + " " + volume, lines) != 0 || lines.empty()) {
    return std::string();
  }
  std::istringstream words(lines[0]);
  std::string name, use, state;
  words >> name >> use >> state;
  return state;
}

bool holds(const Texts& groups, const std::string& group) {
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

// The source's group is imported here while access to it is on.
void CStatus::checkSource(const Texts& groups) {
  const std::string group = groupOfVolumePath(m_record.object);
  const bool imported = holds(groups, group);
  m_found.push_back("the source's group " + group + (imported ? " is" : " is not") +
                    " imported here");
  if (m_stopped || imported == m_record.sourceAccess) {
    return;
  }
  m_attention.push_back(std::string("the record says access to the source is ") +
                        (m_record.sourceAccess ? "on" : "off") + ", but its group " + group +
                        (imported ? " is imported here" : " is not imported here"));
}

// The copy as the record places it: imported and started on its host once
// imported, gone from it once moved on or released. A stopped import's copy
// is not named yet: its split disks tell what it left.
void CStatus::checkCopy(const Texts& groups) {
  const bool stoppedImport = stoppedHere() && m_command.mark->command == "import";
  if (stoppedImport) {
    checkDisks(secondaryOf(*m_command.mark), "the stopped import's split disk");
  }
  const bool copyHere = m_record.hasAlternate && (sameHost(m_record.alternate.host, m_probe.here) ||
                                                  (stoppedHere() && !stoppedImport));
  if (!copyHere) {
    return;
  }
  const std::string copy = m_record.alternate.object;
  const std::string group = groupOfVolumePath(copy);
  const std::string volume = volumeOfVolumePath(copy);
  const bool expected = m_record.step == RecordStep::imported;
  if (!holds(groups, group)) {
    m_found.push_back("the copy's group " + group + " is not imported here");
    if (!stoppedImport) {
      checkDisks(m_record.alternate.secondary, "the copy's split disk");
    }
    if (expected && !m_stopped) {
      m_attention.push_back("the record says the copy " + copy +
                            " is imported on this host, but its group " + group + " is not");
    }
    return;
  }
  const std::string state = volumeState(group, volume);
  m_found.push_back("the copy's group " + group + " is imported here, its volume " + volume +
                    (state.empty() ? " not known to qzinfo" : " " + state));
  if (expected && !m_stopped && state != "Started") {
    m_attention.push_back("the copy's volume " + volume + " is not started (" +
                          (state.empty() ? std::string("qzinfo does not know it") : state) + ")");
  }
  if (!expected && !m_stopped) {
    m_attention.push_back(std::string("the record says the copy was ") +
                          (m_record.step == RecordStep::moved ? "moved on" : "released") +
                          ", but its group " + group + " is still imported here");
  }
}

void CStatus::checkDisks(const Texts& disks, const std::string& whose) {
  for (const std::string& disk : disks) {
    if (!m_probe.deviceExists(disk)) {
      m_found.push_back(whose + " " + disk + " is not on this host (out of its view)");
      continue;
    }
    std::vector<std::string> lines;
    if (!plainName(disk) || runTool("/usr/sbin/qzdisk list " + disk, lines) != 0) {
      m_found.push_back(whose + " " + disk + " is not in the volume manager's view");
      continue;
    }
    const std::string group = groupOnDisk(lines);
    m_found.push_back(whose + " " + disk +
                      (group.empty() ? " carries no group" : " carries the group " + group));
  }
}

int CStatus::code() const {
  if (m_command.running()) {
    return kExitInProgress;
  }
  if (m_stopped) {
    return m_command.mark->command.empty() ? kExitAttention : kExitStopped;
  }
  return m_attention.empty() ? kExitDone : kExitAttention;
}

std::string CStatus::state() const {
  return exitCodeName(code());
}

NextCommand CStatus::next() const {
  if (m_command.running()) {
    return NextCommand{};
  }
  if (m_stopped && !m_command.mark->command.empty()) {
    const CommandMark& mark = *m_command.mark;
    return {withRecord(mark.arguments, m_options.record), mark.host, where(mark.host, m_probe.here),
            "the same command again: " + mark.command +
                " was stopped half-way; run again, it finishes what it began",
            false};
  }
  return nextStep(m_record, m_options.record, m_probe.here);
}

std::string markText(const CommandMark& mark) {
  return "started " + mark.started + " by " + (mark.user.empty() ? std::string("uid") : mark.user) +
         " (uid " + std::to_string(mark.uid) + ") on " + hostText(mark.host) + " as process " +
         std::to_string(mark.pid) + ", at the step " + mark.stepAtStart;
}

std::string CStatus::commandText() const {
  const std::optional<CommandMark>& mark = m_command.mark;
  if (m_command.running()) {
    const std::string pid = "process " + std::to_string(m_command.holder);
    return mark && !mark->finishedIn(m_record)
               ? mark->command + " runs now (" + pid + "; " + markText(*mark) + ")"
               : "a command runs now (" + pid + " holds the record's lock)";
  }
  if (m_stopped && mark->command.empty()) {
    return "a command left a mark that cannot be read: " + commandMarkFile(m_options.record);
  }
  if (m_stopped && sameHost(mark->host, m_probe.here)) {
    return mark->command + " stopped half-way: " + markText(*mark) +
           "; it holds no lock and wrote no event";
  }
  // A lock taken on another host is not seen here when the records' folder
  // is shared over the network.
  if (m_stopped) {
    return mark->command + " stopped half-way: " + markText(*mark) +
           "; no lock of it is seen from this host and it wrote no event (on a records folder "
           "shared over the network, qzfi status on " +
           mark->host.name + " tells whether it still runs there)";
  }
  return "none running, none stopped half-way";
}

std::string CStatus::stepText() const {
  if (m_record.events.empty()) {
    return stepName(m_record.step);
  }
  const RecordEvent& last = m_record.events.back();
  return std::string(stepName(m_record.step)) + ": " + last.command +
         (last.host.known() ? " on " + hostText(last.host) : "") + " at " + last.time;
}

void CStatus::print(std::ostream& out) const {
  out << "record:     " << m_options.record << "\n";
  out << "object:     " << m_record.object << " (plug-in " << m_record.plugin << ")\n";
  out << "step:       " << stepText() << "\n";
  out << "source:     " << hostText(m_record.sourceHost) << ", access "
      << (m_record.sourceAccess ? "on" : "off") << "\n";
  if (m_record.hasAlternate) {
    out << "copy:       " << m_record.alternate.object << " on "
        << hostText(m_record.alternate.host) << ", split disks "
        << joined(m_record.alternate.secondary, ",") << "\n";
  }
  out << "command:    " << commandText() << "\n";
  out << "this host:  " << hostText(m_probe.here) << ": "
      << (m_roles.empty() ? std::string("no part in this backup") : joined(m_roles, ", "))
      << (m_command.running() ? " (not read while a command runs)" : "") << "\n";
  for (const std::string& found : m_found) {
    out << "found:      " << found << "\n";
  }
  for (const std::string& attention : m_attention) {
    out << "attention:  " << attention << "\n";
  }
  out << "state:      " << state() << " (exit " << code() << ")\n";
  printNext(out);
}

void CStatus::printNext(std::ostream& out) const {
  const NextCommand command = next();
  if (m_command.running()) {
    out << "next:       none while process " << m_command.holder
        << " runs: run qzfi status again when it has ended\n";
    return;
  }
  if (command.arguments.empty()) {
    out << "next:       none: the backup is done\n";
    return;
  }
  out << "next:       " << command.line() << "\n";
  out << "run on:     " << command.where << "\n";
  out << "why:        " << command.why << "\n";
}

Json markJson(const CommandMark& mark, const std::string& record) {
  return {{"command", mark.command}, {"command_line", qzfiLine(withRecord(mark.arguments, record))},
          {"pid", mark.pid},         {"uid", mark.uid},
          {"user", mark.user},       {"host", knownHostJson(mark.host)},
          {"started", mark.started}, {"step_at_start", mark.stepAtStart}};
}

Json CStatus::document() const {
  Json json;
  json["record"] = m_options.record;
  json["readable"] = true;
  json["object"] = m_record.object;
  json["plugin"] = m_record.plugin;
  json["step"] = stepName(m_record.step);
  json["last_event"] = Json();
  if (!m_record.events.empty()) {
    const RecordEvent& last = m_record.events.back();
    json["last_event"] = {
        {"command", last.command}, {"time", last.time}, {"host", knownHostJson(last.host)}};
  }
  json["source"] = {{"host", knownHostJson(m_record.sourceHost)},
                    {"access", m_record.sourceAccess ? "on" : "off"}};
  json["copy"] = m_record.hasAlternate ? Json{{"object", m_record.alternate.object},
                                              {"secondary", m_record.alternate.secondary},
                                              {"host", knownHostJson(m_record.alternate.host)}}
                                       : Json();
  json["running"] = Json();
  if (m_command.running()) {
    json["running"] = {{"pid", m_command.holder},
                       {"command", m_command.mark ? m_command.mark->command : std::string()}};
  }
  json["stopped"] = m_stopped ? markJson(*m_command.mark, m_options.record) : Json();
  json["this_host"] = {{"host", knownHostJson(m_probe.here)},
                       {"roles", m_roles},
                       {"found", m_found},
                       {"read", !m_command.running()}};
  json["attention"] = m_attention;
  json["state"] = state();
  json["exit_code"] = code();
  json["next"] = nextJson(next());
  return json;
}

// Seconds from an ISO 8601 UTC time to now; -1 when it cannot be read.
long long secondsSince(const std::string& time, std::time_t now) {
  const std::optional<std::time_t> then = utcTime(time);
  return then ? static_cast<long long>(now - *then) : -1;
}

std::string ageText(long long seconds) {
  if (seconds < 0) {
    return "-";
  }
  if (seconds < 60) {
    return std::to_string(seconds) + "s";
  }
  if (seconds < 3600) {
    return std::to_string(seconds / 60) + "m";
  }
  if (seconds < 86400) {
    return std::to_string(seconds / 3600) + "h";
  }
  return std::to_string(seconds / 86400) + "d";
}

// One record of a folder, read, or why it cannot be.
struct ListedRecord {
  std::string name;
  std::string error;
  CSnapshotRecord record;
  CommandOnRecord command;
  long long age = -1;  // seconds since its last event
};

// Whether the file holds a qzfi record, good or damaged: other files of
// the folder are none of list's business.
bool looksLikeRecord(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  const Json json = Json::parse(text.str(), nullptr, false);
  return json.is_object() && json.value("format", "") == "qzfi snapshot record";
}

ListedRecord listed(const std::string& folder, const std::string& name, std::time_t now) {
  ListedRecord item;
  item.name = name;
  try {
    const std::string real = realRecordFile(folder + "/" + name);
    item.record = CSnapshotRecord::load(real, name);
    item.command = commandOn(real);
  } catch (const RecordError& error) {
    item.error = error.what();
    return item;
  }
  if (!item.record.events.empty()) {
    item.age = secondsSince(item.record.events.back().time, now);
  }
  return item;
}

// The records in folder, by name; hidden files (marks, a write's
// temporaries) and files that are not records left out.
std::vector<ListedRecord> recordsIn(const std::string& folder, std::time_t now) {
  Texts names;
  if (DIR* dir = opendir(folder.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      names.emplace_back(entry->d_name);
    }
    closedir(dir);
  }
  std::sort(names.begin(), names.end());
  std::vector<ListedRecord> records;
  for (const std::string& name : names) {
    struct stat info {};
    const std::string file = folder + "/" + name;
    if (name[0] == '.' || stat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
      continue;
    }
    ListedRecord item = listed(folder, name, now);
    // A file that does not load is listed only when it is a damaged record.
    if (item.error.empty() || looksLikeRecord(file)) {
      records.push_back(std::move(item));
    }
  }
  return records;
}

// "-", "running: import (pid 12)" or "stopped: import".
std::string commandColumn(const ListedRecord& item) {
  const CommandOnRecord& command = item.command;
  const std::string name = command.mark && !command.mark->command.empty()
                               ? command.mark->command
                               : std::string("a command");
  if (command.running()) {
    return "running: " + name + " (pid " + std::to_string(command.holder) + ")";
  }
  return command.stopped(item.record) ? "stopped: " + name : std::string("-");
}

Texts listRow(const ListedRecord& item) {
  const CSnapshotRecord& record = item.record;
  if (!item.error.empty()) {
    return {item.name, "-", "unreadable", "-", "-", "-", "-"};
  }
  return {item.name,
          record.object,
          stepName(record.step),
          record.hasAlternate ? record.alternate.object : "-",
          record.hasAlternate && record.alternate.host.known() ? record.alternate.host.name : "-",
          ageText(item.age),
          commandColumn(item)};
}

void printTable(const std::vector<Texts>& rows, std::ostream& out) {
  std::vector<size_t> widths(rows.front().size(), 0);
  for (const Texts& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  for (const Texts& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line +=
          i + 1 == row.size() ? row[i] : row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out << line << "\n";
  }
}

Json listJson(const std::string& folder, const std::vector<ListedRecord>& records) {
  Json items = Json::array();
  Json unreadable = Json::array();
  for (const ListedRecord& item : records) {
    const std::string file = folder + "/" + item.name;
    if (!item.error.empty()) {
      unreadable.push_back({{"record", file}, {"error", item.error}});
      continue;
    }
    const CSnapshotRecord& record = item.record;
    const CommandOnRecord& command = item.command;
    Json commandJson;
    if (command.running() || command.stopped(record)) {
      commandJson = {{"state", command.running() ? "running" : "stopped"},
                     {"command", command.mark ? command.mark->command : std::string()},
                     {"pid", command.running() ? command.holder : command.mark->pid}};
    }
    items.push_back(
        {{"record", file},
         {"object", record.object},
         {"step", stepName(record.step)},
         {"copy", record.hasAlternate ? Json(record.alternate.object) : Json()},
         {"copy_host", record.hasAlternate ? knownHostJson(record.alternate.host) : Json()},
         {"age_seconds", item.age},
         {"age", ageText(item.age)},
         {"command", commandJson}});
  }
  return {{"folder", folder}, {"records", items}, {"unreadable", unreadable}};
}

}  // namespace

HostProbe machineProbe() {
  HostProbe probe;
  probe.here = thisHost();
  probe.deviceExists = [](const std::string& path) {
    struct stat device {};
    return stat(path.c_str(), &device) == 0;
  };
  probe.now = std::time(nullptr);
  return probe;
}

std::string defaultRecordFolder() {
  const char* named = std::getenv("QZFI_RECORD_DIR");
  return named != nullptr && named[0] != '\0' ? std::string(named)
                                              : std::string(kPackageRecordFolder);
}

int showStatus(const Options& options, const HostProbe& probe, std::ostream& out,
               std::ostream& err) {
  CStatus status(options, probe);
  return status.run(out, err);
}

int runStatus(const Options& options, std::ostream& out, std::ostream& err) {
  return showStatus(options, machineProbe(), out, err);
}

int showList(const Options& options, const HostProbe& probe, std::ostream& out, std::ostream& err) {
  const std::string folder = options.folder.empty() ? defaultRecordFolder() : options.folder;
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    err << "qzfi list: the folder " << folder << " does not exist"
        << (options.folder.empty() ? std::string(" (the package makes ") + kPackageRecordFolder +
                                         "; QZFI_RECORD_DIR names another)"
                                   : std::string())
        << ": name the folder that holds the records\n";
    return kExitRecord;
  }
  const std::vector<ListedRecord> records = recordsIn(folder, probe.now);
  if (options.json) {
    out << listJson(folder, records).dump(2) << "\n";
    return kExitDone;
  }
  if (records.empty()) {
    out << "no records in " << folder << "\n";
    return kExitDone;
  }
  std::vector<Texts> rows = {{"RECORD", "OBJECT", "STEP", "COPY", "ON", "AGE", "COMMAND"}};
  for (const ListedRecord& item : records) {
    rows.push_back(listRow(item));
  }
  printTable(rows, out);
  for (const ListedRecord& item : records) {
    if (!item.error.empty()) {
      out << "unreadable: " << item.error << "\n";
    }
  }
  return kExitDone;
}

int runList(const Options& options, std::ostream& out, std::ostream& err) {
  return showList(options, machineProbe(), out, err);
}

}  // namespace qzfi_host

// The journal of the host's changing commands: one JSON line each, appended
// to journal.json in the framework's log folder, and qzfi journal that
// prints it readably. Each append opens the file anew (logrotate's create
// rotation works under a long-lived agent) and writes the whole line with
// one write() under the file's flock, then fdatasync: appends of several
// processes never mix, and a crash leaves no torn line but, at worst, after
// a power cut, a torn last one that readers skip.
#ifndef QZFI_HOST_JOURNAL_H
#define QZFI_HOST_JOURNAL_H

#include <atomic>
#include <ctime>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "command_mark.h"
#include "options.h"
#include "record.h"

namespace qzfi_host {

// One line of the journal.
struct JournalEntry {
  std::string time;  // when the command began, UTC, ISO 8601
  HostIdentity host;
  long long uid = -1;  // who asked for it (the agent's client, through one)
  std::string user;    // uid's name, when it has one
  long pid = 0;        // the process that ran it (the agent's, through one)
  bool throughAgent = false;
  std::string command;
  std::vector<std::string> arguments;  // the command line, without the program
  std::string record;                  // the record's real file; empty without one
  std::string result;                  // "done", "record unusable", "stopped", ...
  std::optional<int> exitCode;         // none for a command stopped half-way
  std::optional<unsigned long> toolRuns;
  std::optional<double> seconds;
  std::string reason;  // why it was refused, failed or stopped
  // A command stopped half-way: the one that found its mark.
  std::string foundBy;
  long foundByPid = 0;
  std::string foundAt;
};

// Whether the command changes something, and so has its line.
bool isChangingCommand(Command command);

// <the framework's log folder>/journal.json.
std::string journalFile();

// The entry as its line, newline included, at most kMaxJournalLine bytes:
// a longer one has its arguments and reason cut (and says so).
constexpr size_t kMaxJournalLine = 65536;
std::string journalLine(const JournalEntry& entry);

// The entry of a command stopped half-way, as its mark tells it, found by
// the command of finder on the same record.
JournalEntry stoppedEntry(const CommandMark& mark, const JournalEntry& finder);

// A journal file to append to.
class CJournal {
 public:
  // file empty: journalFile(), found at each append.
  explicit CJournal(std::string file = std::string()) : m_file(std::move(file)) {}

  // Appends the entries' lines. A journal that cannot be written is told
  // on err once in this object's life; the command goes on regardless.
  void append(const std::vector<JournalEntry>& entries, std::ostream& err);

 private:
  std::string m_file;
  std::atomic<bool> m_warned{false};
};

// The time that --since TIME names: "2026-11-26" (midnight, UTC),
// "2026-11-26T03:00[:00][Z]" (UTC), or an age before now: "90m", "2h",
// "3d". Throws UsageError.
std::time_t parseSince(const std::string& text, std::time_t now);

// qzfi journal [--record FILE] [--since TIME]; its exit code.
int runJournal(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_JOURNAL_H

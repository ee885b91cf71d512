// The mark of a command under way on a record: a small JSON file beside the
// record (".NAME.running"), written once the command holds the record's lock
// and before it changes anything, removed when it ends. A mark found by the
// next command on the record, or by status, is that of a command that was
// killed or lost its host half-way: it tells which command it was, with its
// arguments, who ran it and when, so that the same command can be run again.
#ifndef QZFI_HOST_COMMAND_MARK_H
#define QZFI_HOST_COMMAND_MARK_H

#include <optional>
#include <string>
#include <vector>

#include "record.h"

namespace qzfi_host {

struct CommandMark {
  std::string command;                 // "import"
  std::vector<std::string> arguments;  // the command line, without the program
  long pid = 0;                        // the process that ran it (the agent's, through one)
  long long uid = -1;                  // who asked for it
  std::string user;                    // uid's name, when it has one
  HostIdentity host;                   // where it ran
  std::string started;                 // UTC, ISO 8601
  std::string stepAtStart;             // the record's step when it began
  size_t eventsAtStart = 0;            // how many events the record held then

  // Whether the command finished after all: the record holds an event of
  // it past those it found (killed between its record's write and the
  // mark's removal).
  bool finishedIn(const CSnapshotRecord& record) const;
  // The command line to paste: "qzfi import --record R --secondary A,B",
  // each argument quoted for a shell where it needs to be.
  std::string commandLine() const;
};

// "qzfi ARGUMENTS...", each argument quoted for a shell where it needs to be.
std::string qzfiLine(const std::vector<std::string>& arguments);

// The name of the user uid, empty when it has none.
std::string userName(long long uid);

// The mark's file of the record at recordFile (its real file).
std::string commandMarkFile(const std::string& recordFile);

// Writes the mark atomically; throws RecordError.
void writeCommandMark(const std::string& recordFile, const CommandMark& mark);
// Removes the mark; a mark that is gone already is no error.
void removeCommandMark(const std::string& recordFile);
// The mark beside the record, if one is there. A mark that cannot be read
// as one (a torn or foreign file) is returned with its command empty.
std::optional<CommandMark> readCommandMark(const std::string& recordFile);

}  // namespace qzfi_host

#endif  // QZFI_HOST_COMMAND_MARK_H

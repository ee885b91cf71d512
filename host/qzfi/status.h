// Where backups stand, read from their records and from this host, with no
// changing tool run: qzfi status (one record) and qzfi list (a folder).
// Neither takes a record's lock nor writes anything: a command that runs
// now is found by its lock in /proc/locks, one stopped half-way by the mark
// it left beside the record (command_mark.h).
#ifndef QZFI_HOST_STATUS_H
#define QZFI_HOST_STATUS_H

#include <ctime>
#include <functional>
#include <ostream>
#include <string>

#include "options.h"
#include "record.h"

namespace qzfi_host {

// What status and list read of this machine besides the records and the
// volume manager's listings; tests give their own.
struct HostProbe {
  HostIdentity here;                                     // this host
  std::function<bool(const std::string&)> deviceExists;  // a device node is there
  std::time_t now = 0;
};

// The probe of the machine this program runs on.
HostProbe machineProbe();

// The folder of records when list names none: $QZFI_RECORD_DIR, else the
// package's /var/lib/qzfi/records.
std::string defaultRecordFolder();

// qzfi status --record FILE; its exit code (options.h).
int runStatus(const Options& options, std::ostream& out, std::ostream& err);
int showStatus(const Options& options, const HostProbe& probe, std::ostream& out,
               std::ostream& err);
// qzfi list [FOLDER]; its exit code: 0, or 3 when the folder cannot be read.
int runList(const Options& options, std::ostream& out, std::ostream& err);
int showList(const Options& options, const HostProbe& probe, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_STATUS_H

// Where backups stand, read from their records and from this host, with no
// changing tool run: qzfi status (one record) and qzfi list (a folder).
#ifndef QZFI_HOST_STATUS_H
#define QZFI_HOST_STATUS_H

#include <ostream>

#include "options.h"

namespace qzfi_host {

// qzfi status --record FILE; its exit code (options.h).
int runStatus(const Options& options, std::ostream& out, std::ostream& err);
// qzfi list [FOLDER]; its exit code.
int runList(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_STATUS_H

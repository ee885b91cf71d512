// The journal of the host's changing commands: one JSON line each, appended
// to a file under the framework's log folder, and qzfi journal that prints
// it readably.
#ifndef QZFI_HOST_JOURNAL_H
#define QZFI_HOST_JOURNAL_H

#include <ostream>

#include "options.h"

namespace qzfi_host {

// qzfi journal [--record FILE] [--since TIME]; its exit code.
int runJournal(const Options& options, std::ostream& out, std::ostream& err);

}  // namespace qzfi_host

#endif  // QZFI_HOST_JOURNAL_H

#include "journal.h"

namespace qzfi_host {

int runJournal(const Options&, std::ostream&, std::ostream& err) {
  err << "qzfi: journal: not built yet\n";
  return kExitUsage;
}

}  // namespace qzfi_host

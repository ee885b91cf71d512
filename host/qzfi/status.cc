#include "status.h"

namespace qzfi_host {

int runStatus(const Options&, std::ostream&, std::ostream& err) {
  err << "qzfi: status: not built yet\n";
  return kExitUsage;
}

int runList(const Options&, std::ostream&, std::ostream& err) {
  err << "qzfi: list: not built yet\n";
  return kExitUsage;
}

}  // namespace qzfi_host

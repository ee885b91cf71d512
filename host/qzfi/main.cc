// qzfi: the reference framework's command-line program. It loads a snapshot
// plug-in and drives the framework's flows through it, one command per run:
// the source host prepares and deports, the alternate host imports, moves
// on and releases the copy; "qzfi help" says how.
#include <iostream>
#include <string>
#include <vector>

#include "flows.h"
#include "options.h"
#include "report.h"

#ifndef QZFI_VERSION
#error "QZFI_VERSION (the project's version) must be defined by the build"
#endif

int main(int argc, char** argv) {
  using namespace qzfi_host;
  Options options;
  try {
    options = parseOptions(std::vector<std::string>(argv, argv + argc));
  } catch (const UsageError& error) {
    std::cerr << "qzfi: " << error.what() << "\n(qzfi help lists the commands)\n";
    return kExitUsage;
  }
  if (options.command == Command::help) {
    std::cout << helpText();
    return kExitDone;
  }
  if (options.command == Command::version) {
    std::cout << "qzfi " << QZFI_VERSION << "\n";
    return kExitDone;
  }
  CReport report(options, std::cout, std::cerr);
  CFlows flows(options, report);
  return flows.run();
}

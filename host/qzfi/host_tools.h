// What this host's volume manager shows, read with its listing tools only
// (qzdg list, qzdisk list DISK, qzinfo): the reads that a command makes
// before it changes anything, and that qzfi status makes instead of any.
#ifndef QZFI_HOST_HOST_TOOLS_H
#define QZFI_HOST_HOST_TOOLS_H

#include <string>
#include <vector>

namespace qzfi_host {

// Runs a read-only tool command line through the framework's pipe; its
// status, -1 when it cannot be started.
int runTool(const std::string& command, std::vector<std::string>& lines);

// A name that may go on a tool's command line as it is.
bool plainName(const std::string& name);

// The first blank-separated word of line.
std::string firstWord(const std::string& line);

// The group a "qzdisk list DISK" listing names on the disk ("group:
// name=G id=..."); empty for "group: -".
std::string groupOnDisk(const std::vector<std::string>& lines);

// The group and the volume of a QzVM volume's device path,
// /dev/qz/dsk/G/V or /dev/qz/rdsk/G/V: G and V; empty for any other path.
std::string groupOfVolumePath(const std::string& path);
std::string volumeOfVolumePath(const std::string& path);

}  // namespace qzfi_host

#endif  // QZFI_HOST_HOST_TOOLS_H

// The "qzsim" front end: building the storage network, hosts, copies of
// disks, data checks, faults and the run log.
#pragma once

#include <string>
#include <vector>

namespace qzsim {

// Runs one administration command; output goes to stdout/stderr. binary is
// the path of the qzsim program (for the sandbox's tool links).
int adminMain(const std::vector<std::string>& args, const std::string& binary);

}  // namespace qzsim

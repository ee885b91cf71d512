// What this host's volume manager shows, read with its listing tools.
#include "host_tools.h"

#include <qzfi/execpipe.h>

namespace qzfi_host {

int runTool(const std::string& command, std::vector<std::string>& lines) {
  qzfi_pdk_4_4::CFiExecPipePosix pipe(1);
  lines.clear();
  try {
    return pipe.Exec(command, lines, std::string(), 600, std::string(), std::string(),
                     std::string());
  } catch (const qzfi_pdk_4_4::EFiExecPipe&) {
    return -1;
  }
}

bool plainName(const std::string& name) {
  if (name.empty() || name.front() == '-') {
    return false;
  }
  for (char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '.' || c == '_' || c == '-' || c == '/' || c == ':' || c == '+';
    if (!ok) {
      return false;
    }
  }
  return true;
}

std::string firstWord(const std::string& line) {
  const size_t start = line.find_first_not_of(" \t");
  if (start == std::string::npos) {
    return std::string();
  }
  const size_t end = line.find_first_of(" \t\n", start);
  return line.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::string groupOnDisk(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    if (line.compare(0, 6, "group:") != 0) {
      continue;
    }
    const size_t name = line.find("name=");
    return name == std::string::npos ? std::string() : firstWord(line.substr(name + 5));
  }
  return std::string();
}

namespace {

// "G/V" of a volume's device path; empty for any other path.
std::string groupAndVolume(const std::string& path) {
  for (const std::string prefix : {"/dev/qz/dsk/", "/dev/qz/rdsk/"}) {
    if (path.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    const std::string rest = path.substr(prefix.size());
    const size_t slash = rest.find('/');
    if (slash == std::string::npos || slash == 0 || slash + 1 == rest.size() ||
        rest.find('/', slash + 1) != std::string::npos) {
      return std::string();
    }
    return rest;
  }
  return std::string();
}

}  // namespace

std::string groupOfVolumePath(const std::string& path) {
  const std::string both = groupAndVolume(path);
  return both.substr(0, both.find('/'));
}

std::string volumeOfVolumePath(const std::string& path) {
  const std::string both = groupAndVolume(path);
  return both.empty() ? std::string() : both.substr(both.find('/') + 1);
}

}  // namespace qzfi_host

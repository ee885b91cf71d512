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

std::string groupOfCopy(const std::string& object) {
  const size_t last = object.rfind('/');
  if (last == std::string::npos || last == 0) {
    return std::string();
  }
  const size_t before = object.rfind('/', last - 1);
  return object.substr(before + 1, last - before - 1);
}

std::string volumeOfCopy(const std::string& object) {
  const size_t last = object.rfind('/');
  return last == std::string::npos || groupOfCopy(object).empty() ? std::string()
                                                                  : object.substr(last + 1);
}

}  // namespace qzfi_host

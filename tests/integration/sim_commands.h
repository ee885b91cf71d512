// The simulator's own commands run by a test that needs them to succeed, and
// what they print read back: words, lines, and the disks that "qzsim disk
// add", "disk attach" and "array split" name.
#ifndef QZVMFI_TESTS_SIM_COMMANDS_H
#define QZVMFI_TESTS_SIM_COMMANDS_H

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <qzsim/sandbox.h>

namespace qzvmfi_it {

using Lines = std::vector<std::string>;

// The words of text, split on blanks and line feeds.
inline Lines words(const std::string& text) {
  std::istringstream in(text);
  Lines result;
  for (std::string word; in >> word;) {
    result.push_back(word);
  }
  return result;
}

// The lines of text without their line feeds.
inline Lines linesOf(const std::string& text) {
  std::istringstream in(text);
  Lines result;
  for (std::string line; std::getline(in, line);) {
    result.push_back(line);
  }
  return result;
}

inline bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// A disk as "qzsim disk add" and "qzsim array split" print it:
// "LUN NODE HOST=os,os".
struct SimDisk {
  std::string lun;
  std::string node;
  Lines osNames;
};

inline std::vector<SimDisk> parseDisks(const std::string& text) {
  std::vector<SimDisk> disks;
  for (const std::string& line : linesOf(text)) {
    const Lines parts = words(line);
    if (parts.size() < 3) {
      continue;
    }
    SimDisk disk{parts[0], parts[1], {}};
    std::istringstream paths(parts[2].substr(parts[2].find('=') + 1));
    for (std::string name; std::getline(paths, name, ',');) {
      disk.osNames.push_back(name);
    }
    disks.push_back(disk);
  }
  return disks;
}

// "qzsim ARGS..." in the simulation at root, which must succeed; its
// standard output.
inline std::string simAdminOk(const std::string& root, const std::vector<std::string>& args) {
  const qzsim::CommandResult result = qzsim::simAdmin(root, args);
  EXPECT_EQ(result.status, 0) << "qzsim " << args[0] << ": " << result.err;
  return result.out;
}

// A tool run as host, outside the plug-in, which must succeed; its output.
inline std::string simToolOk(const std::string& root, const std::string& host,
                             const std::string& commandLine) {
  const qzsim::CommandResult result = qzsim::simTool(root, host, commandLine);
  EXPECT_EQ(result.status, 0) << host << ": " << commandLine << ": " << result.err;
  return result.out;
}

}  // namespace qzvmfi_it

#endif  // QZVMFI_TESTS_SIM_COMMANDS_H

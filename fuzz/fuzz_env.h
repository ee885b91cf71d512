// What the fuzz targets share: the process's own configuration and trace
// folders, and the one abort of the text helpers that is designed.
#ifndef QZVMFI_FUZZ_FUZZ_ENV_H
#define QZVMFI_FUZZ_FUZZ_ENV_H

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "support/qzvm_support.h"

namespace qzvmfi_fuzz {

// Configuration, trace and temporary files of the plug-in go to a folder of
// the process, removed when it exits; call once before the first input.
inline const std::string& privateFolder() {
  // Never destroyed: the clean-up at exit still needs it.
  static const std::string* folder = [] {
    // In memory where there is such a folder: a file rewritten on a disk's
    // file system may wait for the disk when it is closed.
    std::error_code absent;
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm", absent)
                                           ? std::filesystem::path("/dev/shm")
                                           : std::filesystem::temp_directory_path();
    std::string pattern = (base / "qzvmfi_fuzz_XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      abort();
    }
    setenv("QZFI_CONFIG_DIR", pattern.c_str(), 1);
    setenv("QZFI_LOG_DIR", pattern.c_str(), 1);
    setenv("QZFI_TRACE_LEVEL", "1", 1);
    atexit([] {
      std::error_code ignored;
      std::filesystem::remove_all(privateFolder(), ignored);
    });
    return new std::string(pattern);
  }();
  return *folder;
}

inline std::string textOf(const uint8_t* bytes, size_t size) {
  return std::string(reinterpret_cast<const char*>(bytes), size);
}

// The lines of text as a tool prints them: each with its line feed.
inline std::vector<std::string> toolLines(const std::string& text) {
  std::vector<std::string> lines;
  multiLinesToVector(text, lines);
  for (std::string& line : lines) {
    line += '\n';
  }
  return lines;
}

// getValForKey stops the process, by design, on a value that begins with a
// comma; inputs that would hand it one are not findings.
inline bool valueStartsWithComma(const std::string& text, const std::string& key) {
  std::string::size_type at = text.find(key + "=");
  if (at == std::string::npos) {
    return false;
  }
  std::string::size_type value = text.find_first_not_of(" \n\t\r", at + key.size() + 1);
  return value != std::string::npos && text[value] == ',';
}

}  // namespace qzvmfi_fuzz

#endif  // QZVMFI_FUZZ_FUZZ_ENV_H

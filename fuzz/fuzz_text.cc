// The text helpers that take the tools' output apart, on arbitrary lines.
// getValForKey stops the process on a value that begins with a comma by
// design, so such lines are not handed to it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/qzvm_support.h"

namespace {

const char* const kKeys[] = {"dm_name", "da_name", "path", "len", "guid"};

bool valueStartsWithComma(const std::string& line, const std::string& key) {
  std::string::size_type at = line.find(key + "=");
  if (at == std::string::npos) {
    return false;
  }
  std::string::size_type value = line.find_first_not_of(" \n\t\r", at + key.size() + 1);
  return value != std::string::npos && line[value] == ',';
}

void checkLine(const std::string& line) {
  for (int i = 0; i < 4; ++i) {
    std::string token = getToken(line, i);
    if (token.find_first_of(" \t\n\r") != std::string::npos) {
      abort();
    }
  }
  for (const char* key : kKeys) {
    if (valueStartsWithComma(line, key)) {
      continue;
    }
    std::string value = getValForKey(line, key);
    if (value.find_first_of(" ,\t\n") != std::string::npos) {
      abort();
    }
    if (hasVal(line, key) != !value.empty()) {
      abort();
    }
  }
  std::string name = line;
  MAKE_NAME_RFIT(name);
  if (name.size() > 31) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::string text(reinterpret_cast<const char*>(bytes), size);
  std::vector<std::string> lines;
  multiLinesToVector(text, lines);
  for (const std::string& line : lines) {
    if (line.find('\n') != std::string::npos) {
      abort();
    }
    checkLine(line);
  }
  std::string value;
  getMetaValForkey(lines, "disk:", value);
  return 0;
}

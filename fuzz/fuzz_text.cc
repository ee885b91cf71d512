// The key/value and list helpers that take the tools' output apart, on
// arbitrary lines. getValForKey stops the process on a value that begins
// with a comma by design, so such lines are not handed to it.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz_env.h"
#include "support/qzvm_support.h"

namespace {

using qzvmfi_fuzz::valueStartsWithComma;

const char* const kKeys[] = {"dm_name", "da_name", "path", "len", "guid"};

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

// A name made unique against the lines is unique, fits the volume
// manager's limit and ends in "_" and a number; or is empty when all 1024
// tries are taken.
void checkUniqueName(const std::vector<std::string>& names, const std::string& base) {
  std::string name = base;
  createUniqueInVector(names, name);
  if (name.empty()) {
    if (names.size() < 1024) {
      abort();
    }
    return;
  }
  const std::string::size_type underscore = name.rfind('_');
  if (!isUniqueInVector(names, name) || name.size() > 31 || underscore == std::string::npos ||
      underscore + 1 == name.size() ||
      name.find_first_not_of("0123456789", underscore + 1) != std::string::npos) {
    abort();
  }
  if (!checkVectorMatch({}, names, false) ||
      (!names.empty() && !checkVectorMatch(names, names, true)) ||
      checkVectorMatch({name}, names, false)) {
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
  checkUniqueName(lines, lines.empty() ? std::string() : lines.front());
  return 0;
}

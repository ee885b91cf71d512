// The text helpers with which the command layer takes the tools' output
// apart, and the whole-line reading and writing of dump files.
#include "support/qzvm_support.h"

#include <string.h>

#include <cstdio>
#include <string_view>

#include "report.h"
#include "support/internal.h"

using qzfi_pdk_4_4::CFiStringTool;
using qzvm_support_internal::kTrimSet;
using qzvm_support_internal::trimmed;
using qzvm_support_internal::valueForKey;
using qzvmfi_report::pluginTraceLog;

namespace {

const std::string::size_type kMaxNameLength = 31;
const int kUniqueNameTries = 1024;

// The white space that "%s" of sscanf stops at.
bool isScanSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

std::string getToken(const std::string& line, int index) {
  // sscanf sees the line only up to its first zero byte.
  std::string_view rest(line.c_str());
  for (int i = 0; i <= index; ++i) {
    std::string::size_type start = 0;
    while (start < rest.size() && isScanSpace(rest[start])) {
      ++start;
    }
    std::string::size_type end = start;
    while (end < rest.size() && !isScanSpace(rest[end])) {
      ++end;
    }
    if (i == index) {
      return std::string(rest.substr(start, end - start));
    }
    rest.remove_prefix(end);
  }
  return std::string();
}

namespace {

// Where "key=" first occurs in text.
size_t findKeyWithEquals(std::string_view text, std::string_view key) {
  for (size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
    if (at + key.size() < text.size() && text[at + key.size()] == '=') {
      return at;
    }
  }
  return std::string_view::npos;
}

}  // namespace

std::string_view qzvm_support_internal::valueForKey(std::string_view text, std::string_view key) {
  const auto found = findKeyWithEquals(text, key);
  if (found == std::string_view::npos) {
    return {};
  }
  std::string_view str = trimmed(text.substr(found + key.size() + 1));
  // The value's first character is read as std::string's operator[] would:
  // a zero character past the end of an empty value.
  const char first = str.empty() ? '\0' : str[0];
  if ((first == ' ') || (first == ',') || (first == '\t') || (first == '\n')) {
    qzvmfi_report::assertFailed(
        "! ( (str[0] == ' ') || (str[0] == ',') || (str[0] == '\\t') || (str[0] == '\\n') )",
        "qzvm_support", 4095, "std::string getValForKey(const std::string&, const std::string&)");
  }
  return trimmed(str.substr(0, str.find_first_of(" ,\t\n")));
}

std::string getValForKey(const std::string& text, const std::string& key) {
  return std::string(valueForKey(text, key));
}

int getMetaValForkey(const std::vector<std::string>& lines, const std::string& key,
                     std::string& value) {
  const int index = CFiStringTool::find(lines, key, 0, false);
  if (index < 0) {
    return 1;
  }
  std::string line = lines[index];
  line.erase(line.find(key), key.size());
  value = std::string(trimmed(line));
  return 0;
}

bool hasVal(const std::string& text, const std::string& key) {
  return !valueForKey(text, key).empty();
}

bool hasDAName(const std::string& text) {
  return hasVal(text, "da_name");
}

bool hasDMName(const std::string& text) {
  return hasVal(text, "dm_name");
}

bool hasPathVal(const std::string& text) {
  return hasVal(text, "path");
}

int replaceString(std::string& text, std::string::size_type from, const std::string& what,
                  const std::string& with) {
  const auto found = text.find(what, from);
  if (found == std::string::npos) {
    return 1;
  }
  text.replace(found, what.size(), with);
  return 0;
}

bool checkVectorMatch(const std::vector<std::string>& wanted,
                      const std::vector<std::string>& present, bool sameSize) {
  if (sameSize && wanted.size() != present.size()) {
    return false;
  }
  for (const std::string& name : wanted) {
    if (isUniqueInVector(present, name)) {
      return false;
    }
  }
  return true;
}

bool isUniqueInVector(const std::vector<std::string>& names, const std::string& name) {
  for (const std::string& entry : names) {
    if (entry == name) {
      return false;
    }
  }
  return true;
}

void createUniqueInVector(const std::vector<std::string>& names, std::string& name) {
  for (int i = 0; i < kUniqueNameTries; ++i) {
    std::string candidate = name + "_" + CFiStringTool::int2str(i);
    MAKE_NAME_RFIT(candidate);
    if (isUniqueInVector(names, candidate)) {
      name = candidate;
      return;
    }
  }
  QZ_TRACE(pluginTraceLog(), 1,
           "CQzVMSupport::createUniqueInVector - unable to create unique name for dm/dg.");
  name.clear();
}

void MAKE_NAME_RFIT(std::string& name) {
  if (name.size() > kMaxNameLength) {
    name.erase(0, name.size() - kMaxNameLength);
  }
}

void multiLinesToVector(const std::string& text, std::vector<std::string>& lines) {
  std::string::size_type start = 0;
  while (start < text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    lines.emplace_back(text, start, end - start);
    start = end + 1;
  }
}

void printList4(const std::vector<std::string>& lines) {
  const auto log = pluginTraceLog();
  QZ_TRACE(log, 3, "%s", "");
  for (const std::string& line : lines) {
    QZ_TRACE(log, 3, "printList  %s", line.c_str());
  }
}

int CQzVMSupport::fgetline(std::string& line, FILE* stream) {
  line.clear();
  while (!feof(stream)) {
    char chunk[512] = {0};
    if (fgets(chunk, sizeof chunk, stream) == nullptr || chunk[0] == '\0') {
      break;
    }
    const size_t length = strlen(chunk);
    line.append(chunk, length);
    if (chunk[length - 1] == '\n') {
      break;
    }
  }
  return 0;
}

int CQzVMSupport::putVectorInFile(const std::vector<std::string>& lines, const std::string& path) {
  FILE* file = CFiMyTempFile::openForWriting(path);
  if (file == nullptr) {
    return 1;
  }
  // Opened first on purpose: an empty list leaves an empty file behind.
  int result = lines.empty() ? 1 : 0;
  for (const std::string& line : lines) {
    fwrite(line.data(), 1, line.size(), file);
  }
  fclose(file);
  return result;
}

// Helpers that the files of the command layer share: how the tools' output
// is trimmed, how dump records and listings are recognised. Not part of the
// command layer's interface.
#ifndef QZVMFI_SUPPORT_INTERNAL_H
#define QZVMFI_SUPPORT_INTERNAL_H

#include <string>
#include <string_view>
#include <vector>

#include <qzfi/pdk.h>

namespace qzvm_support_internal {

constexpr char kTrimSet[] = " \n\t\r";

inline std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(kTrimSet);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kTrimSet) - first + 1);
}

// The kind of a record line of a configuration dump: its text up to the first
// blank or tab; empty when there is none. Tags hold neither, so a line is a
// record of kind tag exactly when its kind is tag.
inline std::string_view recordKind(std::string_view line) {
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == ' ' || line[i] == '\t') {
      return line.substr(0, i);
    }
  }
  return {};
}

inline bool isRecordOf(std::string_view line, std::string_view tag) {
  return recordKind(line) == tag;
}

// The records that the replay file keeps.
inline bool isReplayedKind(std::string_view kind) {
  return kind == "vol" || kind == "plex" || kind == "sd" || kind == "dco";
}

inline bool isReplayedRecord(std::string_view line) {
  return isReplayedKind(recordKind(line));
}

// Trailing white space cannot touch "guid=", so only the leading is skipped.
inline bool isGuidLine(std::string_view line) {
  const auto first = line.find_first_not_of(kTrimSet);
  return first != std::string_view::npos && line.compare(first, 5, "guid=") == 0;
}

// Index of the first line holding word, -1 when none.
inline int lineHolding(const std::vector<std::string>& lines, const std::string& word) {
  return qzfi_pdk_4_4::CFiStringTool::find(lines, word, 0, false);
}

inline bool contains(const std::string& text, const char* part) {
  return text.find(part) != std::string::npos;
}

inline bool isDigitChar(char c) {
  return c >= '0' && c <= '9';
}

// getValForKey without copies, for the callers that only look at the value.
std::string_view valueForKey(std::string_view text, std::string_view key);

}  // namespace qzvm_support_internal

#endif  // QZVMFI_SUPPORT_INTERNAL_H

// Text helpers shared by every simulated tool: argument splitting, key=value
// pieces, sizes and column tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qzsim {

// Splits on any run of blanks (blank, tab, newline): the plug-in puts several
// blanks between words and the tools must not see empty words.
std::vector<std::string> splitBlanks(const std::string& text);
std::vector<std::string> splitChar(const std::string& text, char sep);
std::string join(const std::vector<std::string>& parts, const std::string& sep);
std::string trim(const std::string& text);
bool startsWith(const std::string& text, const std::string& prefix);
bool endsWith(const std::string& text, const std::string& suffix);

// Splits "key=value"; false when the word holds no "=".
bool splitKeyValue(const std::string& word, std::string* key, std::string* value);

// Parses a decimal number no larger than the largest signed 64-bit value,
// so that it can be kept in the database; false on anything else.
bool parseUint(const std::string& text, uint64_t* value);
// Parses a length: a bare number is in sectors (512 bytes); the suffixes
// s, k, m, g, t scale it. False when the scaled value is out of range.
bool parseLength(const std::string& text, uint64_t* sectors);

// The volume manager's object names: 1 to 31 characters, letters, digits,
// '_', '-' and '.', not beginning with '-' or '.'. Empty when the name is
// valid, otherwise why it is not, as the end of a sentence.
constexpr size_t kMaxNameLength = 31;
std::string nameProblem(const std::string& name);

// Runs of blanks become one blank; leading and trailing blanks go.
std::string squeezeBlanks(const std::string& text);

// Formats rows as left-aligned columns; each column is as wide as its widest
// cell plus two blanks, so that any run of blanks separates the columns.
std::string formatTable(const std::vector<std::vector<std::string>>& rows);
// One "key:<pad>value" line, the way the tools print their listings.
std::string keyLine(const std::string& key, const std::string& value);

}  // namespace qzsim

#include "text.h"

#include <algorithm>
#include <cctype>

namespace qzsim {

namespace {
bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
}  // namespace

std::vector<std::string> splitBlanks(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  for (char c : text) {
    if (isBlank(c)) {
      if (!word.empty())
        words.push_back(word);
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty())
    words.push_back(word);
  return words;
}

std::vector<std::string> splitChar(const std::string& text, char sep) {
  std::vector<std::string> parts;
  std::string part;
  for (char c : text) {
    if (c == sep) {
      parts.push_back(part);
      part.clear();
    } else {
      part += c;
    }
  }
  parts.push_back(part);
  return parts;
}

std::string join(const std::vector<std::string>& parts, const std::string& sep) {
  std::string out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i)
      out += sep;
    out += parts[i];
  }
  return out;
}

std::string trim(const std::string& text) {
  size_t b = 0, e = text.size();
  while (b < e && isBlank(text[b])) ++b;
  while (e > b && isBlank(text[e - 1])) --e;
  return text.substr(b, e - b);
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool splitKeyValue(const std::string& word, std::string* key, std::string* value) {
  size_t eq = word.find('=');
  if (eq == std::string::npos)
    return false;
  *key = word.substr(0, eq);
  *value = word.substr(eq + 1);
  return true;
}

namespace {
constexpr uint64_t kMaxValue = 9223372036854775807ull;  // INT64_MAX
}  // namespace

bool parseUint(const std::string& text, uint64_t* value) {
  if (text.empty() || text.size() > 19)
    return false;
  uint64_t v = 0;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c)))
      return false;
    v = v * 10 + static_cast<uint64_t>(c - '0');
  }
  if (v > kMaxValue)
    return false;
  *value = v;
  return true;
}

bool parseLength(const std::string& text, uint64_t* sectors) {
  if (text.empty())
    return false;
  std::string digits = text;
  uint64_t scale = 1;
  char last = static_cast<char>(std::tolower(static_cast<unsigned char>(text.back())));
  if (!std::isdigit(static_cast<unsigned char>(last))) {
    digits.pop_back();
    switch (last) {
      case 's':
        scale = 1;
        break;
      case 'k':
        scale = 2;
        break;
      case 'm':
        scale = 2048;
        break;
      case 'g':
        scale = 2048ull * 1024;
        break;
      case 't':
        scale = 2048ull * 1024 * 1024;
        break;
      default:
        return false;
    }
  }
  uint64_t v = 0;
  if (!parseUint(digits, &v) || v > kMaxValue / scale)
    return false;
  *sectors = v * scale;
  return true;
}

std::string nameProblem(const std::string& name) {
  if (name.empty())
    return "is empty";
  if (name.size() > kMaxNameLength)
    return "is longer than " + std::to_string(kMaxNameLength) + " characters";
  if (name[0] == '-' || name[0] == '.')
    return "begins with '" + name.substr(0, 1) + "'";
  for (char c : name)
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
          c == '-' || c == '.'))
      return "holds a character other than letters, digits, '_', '-' and '.'";
  return "";
}

std::string squeezeBlanks(const std::string& text) {
  return join(splitBlanks(text), " ");
}

std::string formatTable(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> widths;
  for (const auto& row : rows) {
    if (widths.size() < row.size())
      widths.resize(row.size(), 0);
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
  }
  std::string out;
  for (const auto& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size())
        line += std::string(widths[i] - row[i].size() + 2, ' ');
    }
    out += line + "\n";
  }
  return out;
}

std::string keyLine(const std::string& key, const std::string& value) {
  std::string head = key + ":";
  if (head.size() < 11)
    head += std::string(11 - head.size(), ' ');
  else
    head += " ";
  return head + value + "\n";
}

}  // namespace qzsim

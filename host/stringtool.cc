// String helpers, format options and objctl argument lists.
#include "qzfi/stringtool.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "qzfi/records.h"

namespace qzfi_pdk_4_4 {

namespace {

char asciiUpper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}
char asciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

const char* const kBlanks = " \t\r\n";

}  // namespace

// ASCII only, so that the answer never depends on the process locale.
int CFiStringTool::CompareNoCase(const tstring& a, const tstring& b) {
  size_t common = a.size() < b.size() ? a.size() : b.size();
  for (size_t i = 0; i < common; ++i) {
    int diff =
        static_cast<unsigned char>(asciiLower(a[i])) - static_cast<unsigned char>(asciiLower(b[i]));
    if (diff != 0) {
      return diff;
    }
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

int CFiStringTool::find(const std::vector<tstring>& list, const tstring& key, int start,
                        bool exact) {
  for (size_t i = start > 0 ? static_cast<size_t>(start) : 0; i < list.size(); ++i) {
    if (exact ? list[i] == key : list[i].find(key) != tstring::npos) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

tstring CFiStringTool::int2str(long value) {
  return std::to_string(value);
}

tstring CFiStringTool::uint2str(unsigned long value) {
  return std::to_string(value);
}

int CFiStringTool::str2int(const tstring& text) {
  long value = std::strtol(text.c_str(), nullptr, 10);
  if (value > INT_MAX) {
    return INT_MAX;
  }
  return value < INT_MIN ? INT_MIN : static_cast<int>(value);
}

unsigned long long CFiStringTool::str2uint64(const tstring& text) {
  return std::strtoull(text.c_str(), nullptr, 10);
}

int CFiStringTool::tokenize(const tstring& text, const tstring& delimiters,
                            std::vector<tstring>& out) {
  int added = 0;
  size_t begin = text.find_first_not_of(delimiters);
  while (begin != tstring::npos) {
    size_t end = text.find_first_of(delimiters, begin);
    out.push_back(text.substr(begin, end == tstring::npos ? tstring::npos : end - begin));
    ++added;
    begin = end == tstring::npos ? end : text.find_first_not_of(delimiters, end);
  }
  return added;
}

tstring CFiStringTool::tostrupper(const tstring& text) {
  tstring upper(text);
  for (char& c : upper) {
    c = asciiUpper(c);
  }
  return upper;
}

tstring& CFiStringTool::trim(tstring& text, const tstring& set) {
  size_t end = text.find_last_not_of(set);
  text.erase(end == tstring::npos ? 0 : end + 1);
  text.erase(0, text.find_first_not_of(set));
  return text;
}

char** CFiStringTool::tstrduplist(const std::vector<tstring>& list) {
  auto** copies = static_cast<char**>(qzfi_alloc_buf(sizeof(char*) * (list.size() + 1)));
  if (copies == nullptr) {
    return nullptr;
  }
  for (size_t i = 0; i < list.size(); ++i) {
    copies[i] = static_cast<char*>(qzfi_alloc_buf(list[i].size() + 1));
    if (copies[i] == nullptr) {
      tstrfreelist(copies);
      return nullptr;
    }
    std::memcpy(copies[i], list[i].data(), list[i].size());
  }
  return copies;
}

void CFiStringTool::tstrfreelist(char** list) {
  if (list == nullptr) {
    return;
  }
  for (char** entry = list; *entry != nullptr; ++entry) {
    qzfi_free_buf(*entry, 0);
  }
  qzfi_free_buf(list, 0);
}

int CFiFormatOptionList::parse(const char* text) {
  std::map<tstring, tstring> parsed;
  std::vector<tstring> pieces;
  CFiStringTool::tokenize(text != nullptr ? text : "", ",;", pieces);
  for (tstring& piece : pieces) {
    if (CFiStringTool::trim(piece, kBlanks).empty()) {
      continue;
    }
    size_t equals = piece.find('=');
    tstring name = piece.substr(0, equals);
    tstring value = equals == tstring::npos ? tstring() : piece.substr(equals + 1);
    if (CFiStringTool::trim(name, kBlanks).empty()) {
      return 1;
    }
    parsed[name] = CFiStringTool::trim(value, kBlanks);
  }
  m_options.swap(parsed);
  return 0;
}

bool CFiFormatOptionList::getOption(const tstring& name, tstring& value) const {
  auto found = m_options.find(name);
  if (found == m_options.end()) {
    return false;
  }
  value = found->second;
  return true;
}

namespace {

const char kListOpen[] = "<OBJCTL_ARG_LIST>";
const char kListClose[] = "</OBJCTL_ARG_LIST>";
const char kInputOpen[] = "<OBJCTL_INPUT";
const char kElementClose[] = "/>";

bool startsWith(const tstring& text, size_t at, const char* prefix) {
  return text.compare(at, std::strlen(prefix), prefix) == 0;
}

// The quotes are optional around a value, which holds no blanks.
tstring unquote(const tstring& value) {
  if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

// "arg=NAME value=VALUE type=TYPE" in any order; arg is required.
bool parseAttributes(const tstring& body, CFiObjctlArgs::Arg& arg) {
  std::vector<tstring> attributes;
  CFiStringTool::tokenize(body, kBlanks, attributes);
  bool named = false;
  for (const tstring& attribute : attributes) {
    size_t equals = attribute.find('=');
    if (equals == tstring::npos) {
      return false;
    }
    tstring key = attribute.substr(0, equals);
    tstring value = unquote(attribute.substr(equals + 1));
    if (key == "arg") {
      arg.name = value;
      named = !value.empty();
    } else if (key == "value") {
      arg.value = value;
    } else if (key == "type") {
      arg.type = value;
    } else {
      return false;
    }
  }
  return named;
}

size_t skipBlanks(const tstring& text, size_t at) {
  size_t next = text.find_first_not_of(kBlanks, at);
  return next == tstring::npos ? text.size() : next;
}

}  // namespace

int CFiObjctlArgs::importArgs(const char* text) {
  tstring input(text != nullptr ? text : "");
  std::vector<Arg> parsed;
  size_t at = skipBlanks(input, 0);
  if (at == input.size()) {
    m_inputs.clear();
    return 0;
  }
  if (!startsWith(input, at, kListOpen)) {
    return 1;
  }
  at = skipBlanks(input, at + std::strlen(kListOpen));
  while (startsWith(input, at, kInputOpen)) {
    size_t bodyBegin = at + std::strlen(kInputOpen);
    size_t close = input.find(kElementClose, bodyBegin);
    Arg arg;
    if (close == tstring::npos ||
        !parseAttributes(input.substr(bodyBegin, close - bodyBegin), arg)) {
      return 1;
    }
    parsed.push_back(arg);
    at = skipBlanks(input, close + std::strlen(kElementClose));
  }
  if (!startsWith(input, at, kListClose) ||
      skipBlanks(input, at + std::strlen(kListClose)) != input.size()) {
    return 1;
  }
  m_inputs.swap(parsed);
  return 0;
}

bool CFiObjctlArgs::getInput(const tstring& name, tstring& value) const {
  for (const Arg& arg : m_inputs) {
    if (arg.name == name) {
      value = arg.value;
      return true;
    }
  }
  return false;
}

void CFiObjctlArgs::addOutput(const tstring& name, const tstring& value, const tstring& type) {
  m_outputs.push_back(Arg{name, value, type});
}

}  // namespace qzfi_pdk_4_4

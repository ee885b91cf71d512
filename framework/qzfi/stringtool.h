// String helpers, format options and objctl argument lists.
#ifndef QZFI_STRINGTOOL_H
#define QZFI_STRINGTOOL_H

#include <map>
#include <vector>

#include "errors.h"

namespace qzfi_pdk_4_4 {

class CFiStringTool {
 public:
  // 0 when equal ignoring ASCII case, <0 or >0 as strcasecmp.
  static int CompareNoCase(const tstring& a, const tstring& b);
  // Index of the first entry at or after start that holds key (exact: equals
  // key), -1 when none.
  static int find(const std::vector<tstring>& list, const tstring& key, int start, bool exact);
  static tstring int2str(long value);
  static tstring uint2str(unsigned long value);
  // Leading decimal number as strtol reads it; 0 when there is none.
  static int str2int(const tstring& text);
  static unsigned long long str2uint64(const tstring& text);
  // Byte strings and framework strings are the same type on this platform.
  static tstring str2tstr(const std::string& text) { return text; }
  static std::string tstr2str(const tstring& text) { return text; }
  // Splits at any of the delimiter characters, as strtok: empty pieces are
  // skipped. Appends to out and returns the number of pieces added.
  static int tokenize(const tstring& text, const tstring& delimiters, std::vector<tstring>& out);
  static tstring tostrupper(const tstring& text);
  // Removes the characters of set from both ends, in place; returns text.
  static tstring& trim(tstring& text, const tstring& set = " \t\r\n");
  // A null-terminated array of copies (qzfi_alloc_buf); free with tstrfreelist.
  static char** tstrduplist(const std::vector<tstring>& list);
  static void tstrfreelist(char** list);
};

// Format options: "name=value" pairs separated by ',' or ';' (blanks around
// names and values are ignored).
class CFiFormatOptionList {
 public:
  // 0 on success, non-zero when a piece has no name.
  int parse(const char* text);
  bool getOption(const tstring& name, tstring& value) const;
  const std::map<tstring, tstring>& options() const { return m_options; }

 private:
  std::map<tstring, tstring> m_options;
};

// Arguments of an objctl call. Input text: "<OBJCTL_ARG_LIST>", then for each
// argument "<OBJCTL_INPUT arg=NAME value=VALUE type=TYPE />", then
// "</OBJCTL_ARG_LIST>"; values hold no blanks.
class CFiObjctlArgs {
 public:
  struct Arg {
    tstring name;
    tstring value;
    tstring type;
  };
  // 0 on success, non-zero on malformed text (an empty text is no arguments).
  int importArgs(const char* text);
  bool getInput(const tstring& name, tstring& value) const;
  void addOutput(const tstring& name, const tstring& value, const tstring& type);
  const std::vector<Arg>& inputs() const { return m_inputs; }
  const std::vector<Arg>& outputs() const { return m_outputs; }

 private:
  std::vector<Arg> m_inputs;
  std::vector<Arg> m_outputs;
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_STRINGTOOL_H

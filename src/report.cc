#include "report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <unicode/unistr.h>

namespace qzvmfi_report {

void pushError(const char* identifier, std::initializer_list<std::string> args,
               const char* sourceFile, int line) {
  std::vector<icu::Formattable> values;
  values.reserve(args.size());
  for (const std::string& arg : args) {
    values.emplace_back(icu::UnicodeString::fromUTF8(arg));
  }
  qzfi_pdk_4_4::CFiIcuMessagePtr message(new qzfi_pdk_4_4::CFiIcuMessage(
      identifier, values.data(), static_cast<int>(values.size()), 3, sourceFile, line));
  qzvmfi_ctx::ErrorManager::instance()->pushError(message);
}

std::string joinLines(const std::vector<std::string>& lines) {
  std::string joined;
  for (const std::string& line : lines) {
    joined += line;
  }
  return joined;
}

void assertFailed(const char* text, const char* file, unsigned line, const char* function) {
  fprintf(stderr, "%s: %s:%u: %s: Assertion `%s' failed.\n", program_invocation_short_name, file,
          line, function, text);
  fflush(stderr);
  abort();
}

}  // namespace qzvmfi_report

#include "report.h"

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

}  // namespace qzvmfi_report

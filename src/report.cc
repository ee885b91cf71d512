#include "report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

using qzfi_pdk_4_4::CFiIcuMessage;

namespace qzvmfi_report {

MessageArg::MessageArg(const std::string& bytes) : m_value(CFiIcuMessage::textOfBytes(bytes)) {}

MessageArg::MessageArg(const char* bytes)
    : MessageArg(std::string(bytes != nullptr ? bytes : "")) {}

MessageArg::MessageArg(int number) : m_value(static_cast<int32_t>(number)) {}

MessageArg::MessageArg(long number) : m_value(static_cast<int64_t>(number)) {}

MessageArg::MessageArg(long long number) : m_value(static_cast<int64_t>(number)) {}

void pushError(const char* identifier, std::initializer_list<MessageArg> args,
               const char* sourceFile, int line, int severity) {
  std::vector<icu::Formattable> values;
  values.reserve(args.size());
  for (const MessageArg& arg : args) {
    values.push_back(arg.value());
  }
  qzfi_pdk_4_4::CFiIcuMessagePtr message(new CFiIcuMessage(
      identifier, values.data(), static_cast<int>(values.size()), severity, sourceFile, line));
  qzvmfi_ctx::ErrorManager::instance()->pushError(message);
}

void reportFiError(const Site& site, const qzfi_pdk_4_4::CFiError& error) {
  pushError("MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION",
            {error.getMessageId(), error.getText(), error.getWhere(), error.getLine()}, site.file,
            site.line);
}

void reportUdidError(const Site& site, const qzfi_pdk_4_4::CFiUdidException& error) {
  pushError("MSG_ERROR_UDID_PARSING_EXCEPTION", {error.getText(), error.getCode()}, site.file,
            site.line);
}

void reportRuntimeError(const Site& site, const std::runtime_error& error) {
  pushError("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION",
            {"std::runtime_error", error.what(), site.operation, site.line}, site.file, site.line);
}

void reportIntThrown(const Site& site, int value) {
  pushError("MSG_ERROR_UNHANDLED_INT_EXCEPTION", {value, site.file, site.line}, site.file,
            site.line);
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

// How the plug-in's units reach the framework's trace log and error stack,
// and how they stop the process on a broken invariant.
#ifndef QZVMFI_REPORT_H
#define QZVMFI_REPORT_H

#include <initializer_list>
#include <string>
#include <vector>

#include "context.h"

namespace qzvmfi_report {

// The plug-in's trace log once the plug-in has created it; empty otherwise,
// so that a unit used on its own (a tool, a test) never creates one.
inline qzfi_pdk_4_4::CFiTraceLogPtr pluginTraceLog() {
  return qzvmfi_ctx::TraceLog::exists() ? qzvmfi_ctx::TraceLog::instance()
                                        : qzfi_pdk_4_4::CFiTraceLogPtr();
}

// Pushes one message of severity 3 onto the plug-in's error stack.
void pushError(const char* identifier, std::initializer_list<std::string> args,
               const char* sourceFile, int line);

// The lines one after the other, as the tools printed them (each keeps its
// own line feed).
std::string joinLines(const std::vector<std::string>& lines);

// Prints "<program>: <file>:<line>: <function>: Assertion `<text>' failed."
// as the C library's assert does, and aborts; kept in every build type.
[[noreturn]] void assertFailed(const char* text, const char* file, unsigned line,
                               const char* function);

}  // namespace qzvmfi_report

// A trace line that is skipped when there is no log.
#define QZ_TRACE(log, level, ...)       \
  do {                                  \
    if (log) {                          \
      (log)->trace(level, __VA_ARGS__); \
    }                                   \
  } while (0)

// A fatal invariant, checked in every build type (NDEBUG does not drop it).
#define QZ_ASSERT(expr, unit)    \
  ((expr) ? static_cast<void>(0) \
          : qzvmfi_report::assertFailed(#expr, unit, __LINE__, __PRETTY_FUNCTION__))

#endif  // QZVMFI_REPORT_H

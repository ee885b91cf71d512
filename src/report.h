// How the plug-in's units reach the framework's trace log and error stack,
// how every operation turns what is thrown into a status, and how they stop
// the process on a broken invariant.
#ifndef QZVMFI_REPORT_H
#define QZVMFI_REPORT_H

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "clitool.h"
#include "context.h"

namespace qzvmfi_report {

// The plug-in's trace log once the plug-in has created it; empty otherwise,
// so that a unit used on its own (a tool, a test) never creates one.
inline qzfi_pdk_4_4::CFiTraceLogPtr pluginTraceLog() {
  return qzvmfi_ctx::TraceLog::exists() ? qzvmfi_ctx::TraceLog::instance()
                                        : qzfi_pdk_4_4::CFiTraceLogPtr();
}

// One argument of a pushed message: a byte string (a name, a path, a tool's
// output), handed on byte for byte whatever its encoding, or a number (a
// line, a status, a code), which the catalogue prints as plain digits.
class MessageArg {
 public:
  MessageArg(const std::string& bytes);
  MessageArg(const char* bytes);
  MessageArg(int number);
  MessageArg(long number);
  MessageArg(long long number);
  const icu::Formattable& value() const { return m_value; }

 private:
  icu::Formattable m_value;
};

// Pushes one message onto the plug-in's error stack; severity 3 unless a
// failure is only a warning to the framework (2).
void pushError(const char* identifier, std::initializer_list<MessageArg> args,
               const char* sourceFile, int line, int severity = 3);

// Where an operation reports from: its name, its unit's source name and the
// line at which it put its body under the exception mapping.
struct Site {
  const char* operation;
  const char* file;
  int line;
};

// The messages of the exception mapping, each with severity 3, the site's
// source name and line.
void reportFiError(const Site& site, const qzfi_pdk_4_4::CFiError& error);
void reportUdidError(const Site& site, const qzfi_pdk_4_4::CFiUdidException& error);
void reportRuntimeError(const Site& site, const std::runtime_error& error);
void reportIntThrown(const Site& site, int value);

// The one exception mapping of every operation: runs body and returns its
// status; what it throws is caught in this order. The command layer's
// CQzVMCliException was reported where it arose, so nothing is pushed:
// failed(false). The framework's CFiError and CFiUdidException, a
// std::runtime_error and a thrown int are pushed as their MSG_ERROR_*
// message first: failed(true). failed gives the operation's status then,
// after any trace or clean-up of its own.
template <class Body, class Failed>
int reportingExceptions(const Site& site, Body body, Failed failed) {
  try {
    return body();
  } catch (const CQzVMCliException&) {
    return failed(false);
  } catch (const qzfi_pdk_4_4::CFiError& error) {
    reportFiError(site, error);
  } catch (const qzfi_pdk_4_4::CFiUdidException& error) {
    reportUdidError(site, error);
  } catch (const std::runtime_error& error) {
    reportRuntimeError(site, error);
  } catch (int value) {
    reportIntThrown(site, value);
  }
  return failed(true);
}

// The same, for an operation that returns failure after any exception.
template <class Body>
int reportingExceptions(const Site& site, int failure, Body body) {
  return reportingExceptions(site, body, [failure](bool) { return failure; });
}

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

// The exception kinds every operation of the plug-in catches, in the order
// it catches them, each with the message it pushes: what a test throws
// inside an operation (from a tool run, a framework call or the private
// data) and what it then expects on the error stack.
#ifndef QZVMFI_TESTS_UNIT_PLUGIN_EXCEPTION_KINDS_H
#define QZVMFI_TESTS_UNIT_PLUGIN_EXCEPTION_KINDS_H

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <qzfi/errors.h>

#include "../plugin_env.h"
#include "clitool.h"

namespace qzvmfi_test {

struct ExceptionKind {
  std::string name;
  std::function<void()> raise;
};

// The command layer's own exception first, then the framework's two, a
// std::runtime_error and a thrown int.
inline std::vector<ExceptionKind> exceptionKinds() {
  return {
      {"CQzVMCliException", [] { throw CQzVMCliException("stopped"); }},
      {"CFiError",
       [] { throw qzfi_pdk_4_4::CFiError("MSG_FROM_TOOL", "tool broke", "../tool:run", 77); }},
      {"CFiUdidException", [] { throw qzfi_pdk_4_4::CFiUdidException("udid unreadable", 21); }},
      {"std::runtime_error", [] { throw std::runtime_error("lost"); }},
      {"int", [] { throw 42; }},
  };
}

// check(kind) for each kind in turn, the error stack cleared first and the
// kind named in any failure.
template <class Check>
void forEachExceptionKind(const Check& check) {
  for (const ExceptionKind& kind : exceptionKinds()) {
    SCOPED_TRACE(kind.name);
    qzvmfi_ctx::ErrorManager::instance()->clear();
    check(kind);
  }
}

// What operation, of source, pushes when it catches kind: nothing for the
// command layer's exception, which was reported where it arose; one
// message otherwise. The line of the catch, which the runtime and int
// messages end with, is left out: see caughtMessages.
inline std::vector<Pushed> reportedFor(const ExceptionKind& kind, const std::string& operation,
                                       const std::string& source) {
  if (kind.name == "CFiError") {
    return {{"MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION",
             source,
             {"MSG_FROM_TOOL", "tool broke", "../tool:run", "77"}}};
  }
  if (kind.name == "CFiUdidException") {
    return {{"MSG_ERROR_UDID_PARSING_EXCEPTION", source, {"udid unreadable", "21"}}};
  }
  if (kind.name == "std::runtime_error") {
    return {{"MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION",
             source,
             {"std::runtime_error", "lost", operation}}};
  }
  if (kind.name == "int") {
    return {{"MSG_ERROR_UNHANDLED_INT_EXCEPTION", source, {"42", source}}};
  }
  return {};
}

// The messages of caught exceptions among messages (a tool's failure
// reported on the way is left out), each without the line of the catch
// that the runtime and int messages end with (a number that moves with the
// source).
inline std::vector<Pushed> caughtMessages(const std::vector<Pushed>& messages) {
  std::vector<Pushed> caught;
  for (Pushed message : messages) {
    const bool endsWithLine = message.id == "MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION" ||
                              message.id == "MSG_ERROR_UNHANDLED_INT_EXCEPTION";
    if (endsWithLine && !message.args.empty()) {
      message.args.pop_back();
    }
    if (endsWithLine || message.id == "MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION" ||
        message.id == "MSG_ERROR_UDID_PARSING_EXCEPTION") {
      caught.push_back(message);
    }
  }
  return caught;
}

}  // namespace qzvmfi_test

#endif  // QZVMFI_TESTS_UNIT_PLUGIN_EXCEPTION_KINDS_H

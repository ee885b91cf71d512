// Framework exceptions and the platform error text.
#include "qzfi/errors.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace qzfi_pdk_4_4 {

CFiError::CFiError(tstring messageId, tstring text, tstring where, int line)
    : m_messageId(std::move(messageId)),
      m_text(std::move(text)),
      m_where(std::move(where)),
      m_line(line) {}

CFiUdidException::CFiUdidException(tstring text, int code)
    : m_text(std::move(text)), m_code(code) {}

EFiExecPipe::EFiExecPipe(tstring text) : m_text(std::move(text)) {}

namespace {

constexpr size_t kErrorTextMax = 512;

// The GNU strerror_r may return a static text instead of filling buf; the
// overloads below accept either flavour of the function.
[[maybe_unused]] const char* pickErrorText(int result, const char* buf) {
  return result == 0 ? buf : nullptr;
}
[[maybe_unused]] const char* pickErrorText(const char* result, const char*) {
  return result;
}

// strerror_r answers every number ("Unknown error N"), so only a number that
// names no errno value counts as out of range.
bool isKnownErrno(int err) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 32))
  return strerrorname_np(err) != nullptr;
#else
  return err > 0;
#endif
}

}  // namespace

tstring CFiPlatformError::returnErrorMsg(int err) {
  char buf[kErrorTextMax] = {};
  const char* text =
      isKnownErrno(err) ? pickErrorText(strerror_r(err, buf, sizeof buf), buf) : nullptr;
  if (text == nullptr || *text == '\0') {
    std::snprintf(buf, sizeof buf, "Errno %d (%x) out of range", err, static_cast<unsigned>(err));
    text = buf;
  }
  tstring message(text, strnlen(text, kErrorTextMax - 1));
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) {
    message.pop_back();
  }
  return message;
}

}  // namespace qzfi_pdk_4_4

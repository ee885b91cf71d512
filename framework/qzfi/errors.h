// Exceptions the framework raises and lets plug-ins raise.
#ifndef QZFI_ERRORS_H
#define QZFI_ERRORS_H

#include <exception>
#include <string>

namespace qzfi_pdk_4_4 {

using tstring = std::string;

// A framework error: the message identifier to report, two texts (what went
// wrong and where: source and function) and the line it was raised at.
class CFiError : public std::exception {
 public:
  CFiError(tstring messageId, tstring text, tstring where, int line);
  const tstring& getMessageId() const { return m_messageId; }
  const tstring& getText() const { return m_text; }
  const tstring& getWhere() const { return m_where; }
  int getLine() const { return m_line; }
  const char* what() const noexcept override { return m_text.c_str(); }

 private:
  tstring m_messageId;
  tstring m_text;
  tstring m_where;
  int m_line;
};

// Raised when a unique disk id cannot be parsed.
class CFiUdidException : public std::exception {
 public:
  CFiUdidException(tstring text, int code);
  const tstring& getText() const { return m_text; }
  int getCode() const { return m_code; }
  const char* what() const noexcept override { return m_text.c_str(); }

 private:
  tstring m_text;
  int m_code;
};

// Raised by the pipe runner when a command cannot be started. Deliberately
// not a std::runtime_error: callers catch it apart from other failures.
class EFiExecPipe : public std::exception {
 public:
  explicit EFiExecPipe(tstring text);
  const tstring& getText() const { return m_text; }
  const char* what() const noexcept override { return m_text.c_str(); }

 private:
  tstring m_text;
};

class CFiPlatformError {
 public:
  // strerror's text for err in at most 512 bytes, or "Errno %d (%x) out of
  // range"; a trailing newline or carriage return is removed.
  static tstring returnErrorMsg(int err);
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_ERRORS_H

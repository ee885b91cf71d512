// Error messages: ICU-formatted messages, the error stack and the message
// catalogue that resolves MSG_ERROR_* identifiers to texts.
#ifndef QZFI_MESSAGES_H
#define QZFI_MESSAGES_H

#include <unicode/fmtable.h>

#include <mutex>
#include <vector>

#include "records.h"
#include "refcount.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

class CFiIcuMessage : public virtual CFiRefCount {
 public:
  CFiIcuMessage() = default;
  CFiIcuMessage(const char* identifier, const icu::Formattable* args, int nargs, int severity,
                const char* sourceFile, int line);

  const tstring& getIdentifier() const { return m_identifier; }
  const std::vector<icu::Formattable>& getArguments() const { return m_args; }
  int getSeverity() const { return m_severity; }
  const tstring& getSourceFile() const { return m_sourceFile; }
  int getLine() const { return m_line; }

  // Argument i as text (strings as they are, numbers in decimal).
  tstring argumentText(size_t i) const;

  // String arguments are often byte strings (names, paths, a tool's output)
  // that need not be UTF-8. textOfBytes reads valid UTF-8 as text and
  // carries each other byte b as the lone surrogate U+DC00 + b, which no
  // UTF-8 text yields; bytesOfText turns such a text back into the very
  // bytes. Argument texts, resolved catalogue texts and the serial form all
  // read string arguments this way.
  static icu::UnicodeString textOfBytes(const tstring& bytes);
  static tstring bytesOfText(const icu::UnicodeString& text);

  // One-line text form that deserialize reads back, for carrying a message
  // between processes.
  tstring serialize() const;
  bool deserialize(const tstring& text);

 private:
  tstring m_identifier;
  std::vector<icu::Formattable> m_args;
  int m_severity = 0;
  tstring m_sourceFile;
  int m_line = 0;
};

using CFiIcuMessagePtr = CFiSmartPtr<CFiIcuMessage>;

// Resolves identifiers in one ICU resource bundle (genrb output). The bundle
// "root" of provider P is read from "<QZFI_CATALOG_DIR>/P/root.res"; without
// the variable, from the folder given to the constructor, and without that,
// from the installed catalogues (getInstallFolder).
class CFiMessageCatalogFactory : public virtual CFiRefCount {
 public:
  CFiMessageCatalogFactory(const tstring& bundle, const tstring& provider,
                           const tstring& folder = tstring());
  ~CFiMessageCatalogFactory() override;

  const tstring& getProvider() const { return m_provider; }
  // Catalogue text of the identifier with its arguments filled in by ICU's
  // MessageFormat; false when the identifier is not in the bundle. A number
  // at a plain {n} place prints as plain digits, without the locale's
  // grouping: such numbers are lines, statuses and codes.
  bool format(const CFiIcuMessage& message, const tstring& language, tstring& text) const;
  // Position of the identifier in the bundle, -1 when absent.
  int indexOf(const tstring& identifier) const;
  bool isOpen() const { return m_bundle != nullptr; }

 private:
  tstring m_bundleName;
  tstring m_provider;
  tstring m_folder;
  void* m_bundle = nullptr;  // UResourceBundle*
};

using CFiMessageCatalogFactoryPtr = CFiSmartPtr<CFiMessageCatalogFactory>;

class CFiMessageCatalogManager : public virtual CFiRefCount {
 public:
  void registerFactory(const CFiMessageCatalogFactoryPtr& factory);
  void setNativeLanguage(const tstring& language);
  const tstring& getNativeLanguage() const { return m_language; }
  void setMessageIndexOffset(long offset) { m_offset = offset; }
  long getMessageIndexOffset() const { return m_offset; }

  // Catalogue text of the message; the identifier itself followed by its
  // arguments when no registered catalogue knows it.
  tstring getLocalizedMessage(const CFiIcuMessage& message) const;
  // Catalogue number: the message index offset plus the identifier's index.
  int getMessageNumber(const CFiIcuMessage& message) const;

 private:
  mutable std::mutex m_mutex;
  std::vector<CFiMessageCatalogFactoryPtr> m_factories;
  tstring m_language;
  long m_offset = 0;
};

using CFiMessageCatalogManagerPtr = CFiSmartPtr<CFiMessageCatalogManager>;

// Turns pushed messages into framework records. The start-up record and the
// language are taken for the framework's signature only: texts come in the
// catalogue's native language.
class CFiErrorHandler : public virtual CFiRefCount {
 public:
  CFiErrorHandler(qfi_startup* startup, const tstring& language,
                  const CFiMessageCatalogManagerPtr& catalog);
  qfi_msg_info* toMsgInfo(const CFiIcuMessage& message) const;
  const CFiMessageCatalogManagerPtr& getCatalog() const { return m_catalog; }

 private:
  CFiMessageCatalogManagerPtr m_catalog;
};

using CFiErrorHandlerPtr = CFiSmartPtr<CFiErrorHandler>;

class CFiErrorManager : public virtual CFiRefCount {
 public:
  void registerHandler(const CFiErrorHandlerPtr& handler);
  void pushError(const CFiIcuMessagePtr& message);

  // The pushed messages, oldest first.
  std::vector<CFiIcuMessagePtr> errors() const;
  size_t count() const;
  void clear();

  // A linked list of the pushed messages, newest first, with their texts
  // resolved by the registered handler; the stack is emptied. Free the list
  // with delLastError.
  int getLastError(qfi_msg_info** out);
  static int delLastError(qfi_msg_info** list);

 private:
  mutable std::mutex m_mutex;
  std::vector<CFiIcuMessagePtr> m_stack;
  CFiErrorHandlerPtr m_handler;
};

using CFiErrorManagerPtr = CFiSmartPtr<CFiErrorManager>;

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_MESSAGES_H

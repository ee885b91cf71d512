// Error messages of the reference host framework: ICU messages, their
// catalogues (genrb resource bundles) and the error stack handed to the
// framework as qfi_msg_info lists.
#include "qzfi/messages.h"

#include <unicode/messagepattern.h>
#include <unicode/msgfmt.h>
#include <unicode/numberformatter.h>
#include <unicode/ures.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <set>

#include "qzfi/folders.h"

namespace qzfi_pdk_4_4 {

namespace {

const char kSerialTag[] = "QZFIMSG1";
const char kFieldSeparator = '|';
const char kEscape = '\\';
// A byte b that is not part of valid UTF-8 travels as the code unit
// kByteEscape + b; only bytes from 0x80 up can be such bytes.
const UChar32 kByteEscape = 0xDC00;
const UChar32 kFirstEscapedByte = kByteEscape + 0x80;
const UChar32 kLastEscapedByte = kByteEscape + 0xFF;

// Numbers as plain digits: argument texts are read by programs too, so no
// locale grouping.
tstring doubleText(double value) {
  UErrorCode status = U_ZERO_ERROR;
  auto formatter =
      icu::number::NumberFormatter::withLocale(icu::Locale::getRoot()).grouping(UNUM_GROUPING_OFF);
  icu::UnicodeString text = formatter.formatDouble(value, status).toString(status);
  return U_SUCCESS(status) ? CFiIcuMessage::bytesOfText(text) : std::to_string(value);
}

// Any other kind (date, array, object) as ICU's MessageFormat shows it.
tstring formattedText(const icu::Formattable& arg) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString text;
  icu::FieldPosition position;
  icu::MessageFormat format(icu::UnicodeString("{0}"), icu::Locale::getRoot(), status);
  format.format(&arg, 1, text, position, status);
  return U_SUCCESS(status) ? CFiIcuMessage::bytesOfText(text) : tstring();
}

tstring formattableText(const icu::Formattable& arg) {
  switch (arg.getType()) {
    case icu::Formattable::kString: {
      icu::UnicodeString text;
      return CFiIcuMessage::bytesOfText(arg.getString(text));
    }
    case icu::Formattable::kLong:
      return std::to_string(arg.getLong());
    case icu::Formattable::kInt64:
      return std::to_string(arg.getInt64());
    case icu::Formattable::kDouble:
      return doubleText(arg.getDouble());
    default:
      return formattedText(arg);
  }
}

// The identifier, then each argument in brackets: what a reader gets when
// no catalogue knows the message.
tstring fallbackText(const CFiIcuMessage& message) {
  tstring text = message.getIdentifier();
  for (size_t i = 0; i < message.getArguments().size(); ++i) {
    text += " [" + message.argumentText(i) + "]";
  }
  return text;
}

// Serial form: fields separated by '|'; '|', '\\' and line feeds escaped so
// that the text stays on one line.
tstring escapeField(const tstring& field) {
  tstring out;
  for (char c : field) {
    if (c == '\n') {
      out += "\\n";
    } else {
      if (c == kFieldSeparator || c == kEscape) {
        out += kEscape;
      }
      out += c;
    }
  }
  return out;
}

bool splitFields(const tstring& text, std::vector<tstring>& fields) {
  tstring field;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == kEscape) {
      if (++i == text.size()) {
        return false;
      }
      field += text[i] == 'n' ? '\n' : text[i];
    } else if (c == kFieldSeparator) {
      fields.push_back(field);
      field.clear();
    } else {
      field += c;
    }
  }
  fields.push_back(field);
  return true;
}

bool parseInt64(const tstring& text, int64_t& value) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0') {
    return false;
  }
  value = parsed;
  return true;
}

bool parseInt(const tstring& text, int& value) {
  int64_t parsed = 0;
  if (!parseInt64(text, parsed) || parsed < INT32_MIN || parsed > INT32_MAX) {
    return false;
  }
  value = static_cast<int>(parsed);
  return true;
}

bool parseDouble(const tstring& text, double& value) {
  if (text.empty()) {
    return false;
  }
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return *end == '\0';
}

tstring doubleSerial(double value) {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%.17g", value);
  return buffer;
}

// One argument as "<kind>:<value>"; kinds other than string and numbers
// travel as their text.
tstring serializeArgument(const icu::Formattable& arg) {
  switch (arg.getType()) {
    case icu::Formattable::kLong:
      return "l:" + std::to_string(arg.getLong());
    case icu::Formattable::kInt64:
      return "i:" + std::to_string(arg.getInt64());
    case icu::Formattable::kDouble:
      return "d:" + doubleSerial(arg.getDouble());
    case icu::Formattable::kDate:
      return "t:" + doubleSerial(arg.getDate());
    default:
      return "s:" + formattableText(arg);
  }
}

bool deserializeArgument(const tstring& field, icu::Formattable& arg) {
  if (field.size() < 2 || field[1] != ':') {
    return false;
  }
  tstring value = field.substr(2);
  int64_t number = 0;
  double real = 0;
  switch (field[0]) {
    case 's':
      arg = icu::Formattable(CFiIcuMessage::textOfBytes(value));
      return true;
    case 'l':
      if (!parseInt64(value, number) || number < INT32_MIN || number > INT32_MAX) {
        return false;
      }
      arg = icu::Formattable(static_cast<int32_t>(number));
      return true;
    case 'i':
      if (!parseInt64(value, number)) {
        return false;
      }
      arg = icu::Formattable(static_cast<int64_t>(number));
      return true;
    case 'd':
      if (!parseDouble(value, real)) {
        return false;
      }
      arg = icu::Formattable(real);
      return true;
    case 't':
      if (!parseDouble(value, real)) {
        return false;
      }
      arg = icu::Formattable(real, icu::Formattable::kIsDate);
      return true;
    default:
      return false;
  }
}

// The numbered arguments of a pattern: the highest number (-1 when it names
// none), and those that stand only at plain {n} places.
struct PatternArguments {
  int highest = -1;
  std::set<int> plainOnly;
};

PatternArguments patternArguments(const icu::UnicodeString& pattern) {
  PatternArguments found;
  UErrorCode status = U_ZERO_ERROR;
  icu::MessagePattern parsed(pattern, nullptr, status);
  if (U_FAILURE(status)) {
    return found;
  }
  std::set<int> plain;
  std::set<int> typed;
  for (int32_t i = 0; i + 1 < parsed.countParts(); ++i) {
    const icu::MessagePattern::Part& start = parsed.getPart(i);
    const icu::MessagePattern::Part& number = parsed.getPart(i + 1);
    if (start.getType() != UMSGPAT_PART_TYPE_ARG_START ||
        number.getType() != UMSGPAT_PART_TYPE_ARG_NUMBER) {
      continue;
    }
    found.highest = std::max(found.highest, number.getValue());
    (start.getArgType() == UMSGPAT_ARG_TYPE_NONE ? plain : typed).insert(number.getValue());
  }
  std::set_difference(plain.begin(), plain.end(), typed.begin(), typed.end(),
                      std::inserter(found.plainOnly, found.plainOnly.end()));
  return found;
}

tstring catalogFolder(const tstring& folder) {
  const char* env = std::getenv("QZFI_CATALOG_DIR");
  if (env != nullptr && *env != '\0') {
    return env;
  }
  return folder.empty() ? getInstallFolder(CFiInstallFolder::catalogs) : folder;
}

UResourceBundle* bundleOf(void* handle) {
  return static_cast<UResourceBundle*>(handle);
}

char* duplicate(const tstring& text) {
  return strdup(text.c_str());
}

void freeMsgInfo(qfi_msg_info* info) {
  if (info->args != nullptr) {
    for (int32_t i = 0; i < info->nargs; ++i) {
      std::free(info->args[i]);
    }
  }
  std::free(info->args);
  std::free(info->id);
  std::free(info->text);
  std::free(info->source);
  std::free(info);
}

bool fillArguments(qfi_msg_info* info, const CFiIcuMessage& message) {
  size_t count = message.getArguments().size();
  // One more slot than needed: the array is also null-terminated.
  info->args = static_cast<char**>(std::calloc(count + 1, sizeof(char*)));
  if (info->args == nullptr) {
    return false;
  }
  info->nargs = static_cast<int32_t>(count);
  for (size_t i = 0; i < count; ++i) {
    info->args[i] = duplicate(message.argumentText(i));
    if (info->args[i] == nullptr) {
      return false;
    }
  }
  return true;
}

}  // namespace

// CFiIcuMessage

CFiIcuMessage::CFiIcuMessage(const char* identifier, const icu::Formattable* args, int nargs,
                             int severity, const char* sourceFile, int line)
    : m_identifier(identifier != nullptr ? identifier : ""),
      m_severity(severity),
      m_sourceFile(sourceFile != nullptr ? sourceFile : ""),
      m_line(line) {
  if (args != nullptr && nargs > 0) {
    m_args.assign(args, args + nargs);
  }
}

tstring CFiIcuMessage::argumentText(size_t i) const {
  return i < m_args.size() ? formattableText(m_args[i]) : tstring();
}

icu::UnicodeString CFiIcuMessage::textOfBytes(const tstring& bytes) {
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto length = static_cast<int32_t>(bytes.size());
  icu::UnicodeString text;
  for (int32_t at = 0; at < length;) {
    const int32_t start = at;
    UChar32 c = 0;
    U8_NEXT(data, at, length, c);
    if (c >= 0) {
      text.append(c);
      continue;
    }
    // An ill-formed sequence: every byte of it on its own.
    for (int32_t i = start; i < at; ++i) {
      text.append(static_cast<char16_t>(kByteEscape + data[i]));
    }
  }
  return text;
}

tstring CFiIcuMessage::bytesOfText(const icu::UnicodeString& text) {
  tstring bytes;
  for (int32_t at = 0; at < text.length();) {
    UChar32 c = text.char32At(at);
    at += U16_LENGTH(c);
    if (c >= kFirstEscapedByte && c <= kLastEscapedByte) {
      bytes += static_cast<char>(c - kByteEscape);
      continue;
    }
    if (U_IS_SURROGATE(c)) {
      c = 0xFFFD;
    }
    char encoded[U8_MAX_LENGTH];
    int32_t used = 0;
    U8_APPEND_UNSAFE(encoded, used, c);
    bytes.append(encoded, used);
  }
  return bytes;
}

tstring CFiIcuMessage::serialize() const {
  tstring text = kSerialTag;
  for (const tstring& field : {m_identifier, std::to_string(m_severity), m_sourceFile,
                               std::to_string(m_line), std::to_string(m_args.size())}) {
    text += kFieldSeparator + escapeField(field);
  }
  for (const icu::Formattable& arg : m_args) {
    text += kFieldSeparator + escapeField(serializeArgument(arg));
  }
  return text;
}

bool CFiIcuMessage::deserialize(const tstring& text) {
  std::vector<tstring> fields;
  const size_t kFixed = 6;
  if (!splitFields(text, fields) || fields.size() < kFixed || fields[0] != kSerialTag) {
    return false;
  }
  int severity = 0;
  int line = 0;
  int nargs = 0;
  if (!parseInt(fields[2], severity) || !parseInt(fields[4], line) || !parseInt(fields[5], nargs) ||
      nargs < 0 || fields.size() != kFixed + nargs) {
    return false;
  }
  std::vector<icu::Formattable> args(nargs);
  for (int i = 0; i < nargs; ++i) {
    if (!deserializeArgument(fields[kFixed + i], args[i])) {
      return false;
    }
  }
  m_identifier = fields[1];
  m_severity = severity;
  m_sourceFile = fields[3];
  m_line = line;
  m_args.swap(args);
  return true;
}

// CFiMessageCatalogFactory

CFiMessageCatalogFactory::CFiMessageCatalogFactory(const tstring& bundle, const tstring& provider,
                                                   const tstring& folder)
    : m_bundleName(bundle), m_provider(provider), m_folder(catalogFolder(folder)) {
  // A trailing separator makes ICU read the package path as a folder that
  // holds "<bundle>.res".
  tstring package = m_folder + "/" + m_provider + "/";
  UErrorCode status = U_ZERO_ERROR;
  UResourceBundle* opened = ures_open(package.c_str(), m_bundleName.c_str(), &status);
  if (U_SUCCESS(status)) {
    m_bundle = opened;
  } else {
    ures_close(opened);
  }
}

CFiMessageCatalogFactory::~CFiMessageCatalogFactory() {
  if (m_bundle != nullptr) {
    ures_close(bundleOf(m_bundle));
  }
}

bool CFiMessageCatalogFactory::format(const CFiIcuMessage& message, const tstring& language,
                                      tstring& text) const {
  if (m_bundle == nullptr) {
    return false;
  }
  UErrorCode status = U_ZERO_ERROR;
  int32_t length = 0;
  const UChar* found =
      ures_getStringByKey(bundleOf(m_bundle), message.getIdentifier().c_str(), &length, &status);
  if (U_FAILURE(status)) {
    return false;
  }
  icu::UnicodeString pattern(found, length);
  icu::Locale locale = language.empty() ? icu::Locale::getRoot() : icu::Locale(language.c_str());
  icu::MessageFormat formatter(pattern, locale, status);
  if (U_FAILURE(status)) {
    return false;
  }
  // Places the caller gave no argument for stay empty rather than showing
  // their "{n}".
  std::vector<icu::Formattable> args = message.getArguments();
  const PatternArguments places = patternArguments(pattern);
  if (static_cast<int>(args.size()) <= places.highest) {
    args.resize(places.highest + 1, icu::Formattable(icu::UnicodeString()));
  }
  for (int n : places.plainOnly) {
    if (args[n].isNumeric()) {
      args[n] = icu::Formattable(CFiIcuMessage::textOfBytes(formattableText(args[n])));
    }
  }
  icu::UnicodeString result;
  icu::FieldPosition position;
  formatter.format(args.data(), static_cast<int32_t>(args.size()), result, position, status);
  if (U_FAILURE(status)) {
    return false;
  }
  text = CFiIcuMessage::bytesOfText(result);
  return true;
}

int CFiMessageCatalogFactory::indexOf(const tstring& identifier) const {
  if (m_bundle == nullptr) {
    return -1;
  }
  UResourceBundle* entry = nullptr;
  int32_t size = ures_getSize(bundleOf(m_bundle));
  int index = -1;
  for (int32_t i = 0; i < size && index < 0; ++i) {
    UErrorCode status = U_ZERO_ERROR;
    entry = ures_getByIndex(bundleOf(m_bundle), i, entry, &status);
    const char* key = U_SUCCESS(status) ? ures_getKey(entry) : nullptr;
    if (key != nullptr && identifier == key) {
      index = i;
    }
  }
  ures_close(entry);
  return index;
}

// CFiMessageCatalogManager

void CFiMessageCatalogManager::registerFactory(const CFiMessageCatalogFactoryPtr& factory) {
  if (!factory) {
    return;
  }
  std::lock_guard<std::mutex> guard(m_mutex);
  m_factories.push_back(factory);
}

void CFiMessageCatalogManager::setNativeLanguage(const tstring& language) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_language = language;
}

tstring CFiMessageCatalogManager::getLocalizedMessage(const CFiIcuMessage& message) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  tstring text;
  for (const CFiMessageCatalogFactoryPtr& factory : m_factories) {
    if (factory->format(message, m_language, text)) {
      return text;
    }
  }
  return fallbackText(message);
}

int CFiMessageCatalogManager::getMessageNumber(const CFiIcuMessage& message) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  for (const CFiMessageCatalogFactoryPtr& factory : m_factories) {
    int index = factory->indexOf(message.getIdentifier());
    if (index >= 0) {
      return static_cast<int>(m_offset + index);
    }
  }
  return -1;
}

// CFiErrorHandler

CFiErrorHandler::CFiErrorHandler(qfi_startup*, const tstring&,
                                 const CFiMessageCatalogManagerPtr& catalog)
    : m_catalog(catalog) {}

qfi_msg_info* CFiErrorHandler::toMsgInfo(const CFiIcuMessage& message) const {
  auto* info = static_cast<qfi_msg_info*>(std::calloc(1, sizeof(qfi_msg_info)));
  if (info == nullptr) {
    return nullptr;
  }
  info->msgid = m_catalog ? m_catalog->getMessageNumber(message) : -1;
  info->severity = message.getSeverity();
  info->line = message.getLine();
  info->id = duplicate(message.getIdentifier());
  info->text =
      duplicate(m_catalog ? m_catalog->getLocalizedMessage(message) : fallbackText(message));
  info->source = duplicate(message.getSourceFile());
  bool complete = fillArguments(info, message) && info->id != nullptr && info->text != nullptr &&
                  info->source != nullptr;
  if (!complete) {
    freeMsgInfo(info);
    return nullptr;
  }
  return info;
}

// CFiErrorManager

void CFiErrorManager::registerHandler(const CFiErrorHandlerPtr& handler) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_handler = handler;
}

void CFiErrorManager::pushError(const CFiIcuMessagePtr& message) {
  if (!message) {
    return;
  }
  std::lock_guard<std::mutex> guard(m_mutex);
  m_stack.push_back(message);
}

std::vector<CFiIcuMessagePtr> CFiErrorManager::errors() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_stack;
}

size_t CFiErrorManager::count() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_stack.size();
}

void CFiErrorManager::clear() {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_stack.clear();
}

int CFiErrorManager::getLastError(qfi_msg_info** out) {
  if (out == nullptr) {
    return QFI_E_INVALID;
  }
  std::lock_guard<std::mutex> guard(m_mutex);
  // Without a registered handler the texts are the identifiers with their
  // arguments.
  CFiErrorHandlerPtr handler = m_handler;
  if (!handler) {
    handler = CFiErrorHandlerPtr(new CFiErrorHandler(nullptr, tstring(), {}));
  }
  qfi_msg_info* head = nullptr;
  for (const CFiIcuMessagePtr& message : m_stack) {
    qfi_msg_info* info = handler->toMsgInfo(*message);
    if (info == nullptr) {
      delLastError(&head);
      return QFI_E_NOMEM;
    }
    info->next = head;
    head = info;
  }
  m_stack.clear();
  *out = head;
  return QFI_SUCCESS;
}

int CFiErrorManager::delLastError(qfi_msg_info** list) {
  if (list == nullptr) {
    return QFI_E_INVALID;
  }
  qfi_msg_info* info = *list;
  while (info != nullptr) {
    qfi_msg_info* next = info->next;
    freeMsgInfo(info);
    info = next;
  }
  *list = nullptr;
  return QFI_SUCCESS;
}

}  // namespace qzfi_pdk_4_4

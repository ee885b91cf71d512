// The framework's trace log and function scopes.
#include "qzfi/trace.h"

#include "qzfi/folders.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace qzfi_pdk_4_4 {

namespace {

FILE* asFile(void* file) {
  return static_cast<FILE*>(file);
}

tstring logDirectory(const tstring& dir) {
  if (!dir.empty()) {
    return dir;
  }
  return getInstallFolder(CFiInstallFolder::logs);
}

// QZFI_TRACE_LEVEL wins over the caller's level when it holds a number.
int traceThreshold(int level) {
  const char* fromEnv = std::getenv("QZFI_TRACE_LEVEL");
  if (fromEnv == nullptr) {
    return level;
  }
  char* end = nullptr;
  long value = std::strtol(fromEnv, &end, 10);
  return end != fromEnv && value >= 0 && value <= 1000 ? static_cast<int>(value) : level;
}

// mkdir -p: the log folder may not exist on a fresh machine.
void makeDirectories(const tstring& dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    tstring prefix = dir.substr(0, slash);
    if (!prefix.empty() && mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      return;
    }
    if (slash == tstring::npos) {
      return;
    }
  }
}

tstring timeStamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char buf[64];
  size_t len = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
  std::snprintf(buf + len, sizeof buf - len, ".%03ld", now.tv_nsec / 1000000);
  return buf;
}

tstring formatText(const char* format, va_list args) {
  va_list sizing;
  va_copy(sizing, args);
  int len = std::vsnprintf(nullptr, 0, format, sizing);
  va_end(sizing);
  if (len <= 0) {
    return tstring();
  }
  tstring text(static_cast<size_t>(len) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(len));
  return text;
}

}  // namespace

CFiTraceLog::CFiTraceLog() : m_level(QZFI_TRACE_INFO), m_file(nullptr) {}

CFiTraceLog::~CFiTraceLog() {
  if (m_file != nullptr) {
    std::fclose(asFile(m_file));
  }
}

int CFiTraceLog::initialize(const tstring& name, const tstring& dir, const tstring& file, int level,
                            bool truncate) {
  tstring folder = logDirectory(dir);
  tstring path = folder + "/" + (file.empty() ? name + ".log" : file);
  makeDirectories(folder);
  FILE* opened = std::fopen(path.c_str(), truncate ? "w" : "a");
  int result = opened != nullptr ? 0 : (errno != 0 ? errno : -1);

  std::lock_guard<std::mutex> guard(m_mutex);
  if (m_file != nullptr) {
    std::fclose(asFile(m_file));
  }
  m_file = opened;
  m_name = name;
  m_path = path;
  m_level = traceThreshold(level);
  return result;
}

void CFiTraceLog::trace(int level, const char* format, ...) {
  if (level > m_level || format == nullptr) {
    return;
  }
  va_list args;
  va_start(args, format);
  tstring text = formatText(format, args);
  va_end(args);
  write(level, text);
}

void CFiTraceLog::setSink(Sink sink) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_sink = std::move(sink);
}

void CFiTraceLog::write(int level, const tstring& text) {
  Sink sink;
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_file != nullptr) {
      FILE* out = asFile(m_file);
      bool ended = !text.empty() && text.back() == '\n';
      std::fprintf(out, "%s [%ld] %d %s%s", timeStamp().c_str(), static_cast<long>(getpid()), level,
                   text.c_str(), ended ? "" : "\n");
      // Flushed per line so that a crash, or a reader in a test, sees it all.
      std::fflush(out);
    }
    sink = m_sink;
  }
  // Called outside the lock so that a sink may trace again.
  if (sink) {
    sink(level, text);
  }
}

CFiTraceLogFunction::CFiTraceLogFunction(const CFiTraceLogPtr& log, const char* function, int line,
                                         const char* file, int level)
    : m_log(log),
      m_function(function != nullptr ? function : ""),
      m_line(line),
      m_file(file != nullptr ? file : ""),
      m_level(level) {
  if (m_log) {
    m_log->trace(m_level, "Entering Function %s [%d, %s]", m_function, m_line, m_file);
  }
}

CFiTraceLogFunction::~CFiTraceLogFunction() {
  if (m_log) {
    m_log->trace(m_level, "Exiting Function %s [%d, %s]", m_function, m_line, m_file);
  }
}

}  // namespace qzfi_pdk_4_4

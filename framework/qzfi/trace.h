// The framework's trace log: one file per provider, filtered by level.
#ifndef QZFI_TRACE_H
#define QZFI_TRACE_H

#include <functional>
#include <mutex>
#include <string>

#include "errors.h"
#include "refcount.h"

namespace qzfi_pdk_4_4 {

// Levels used by plug-ins.
enum { QZFI_TRACE_ERROR = 1, QZFI_TRACE_WARNING = 2, QZFI_TRACE_INFO = 3, QZFI_TRACE_DETAIL = 6 };

class CFiTraceLog : public virtual CFiRefCount {
 public:
  // Receives each line that passes the level filter: level and text.
  using Sink = std::function<void(int, const tstring&)>;

  CFiTraceLog();
  ~CFiTraceLog() override;

  // Opens "<dir>/<name>.log". An empty dir means the trace folder of
  // qzfi/folders.h (QZFI_LOG_DIR, /var/log/qzfi, or a build tree's own); an empty file name means
  // "<name>.log". The level threshold comes from QZFI_TRACE_LEVEL when set, else from level.
  int initialize(const tstring& name, const tstring& dir, const tstring& file, int level,
                 bool truncate);

  // printf-style; written when level <= the threshold. Each line holds the
  // time, the process id, the level and the text.
  void trace(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  int getLevel() const { return m_level; }
  void setLevel(int level) { m_level = level; }
  const tstring& getFileName() const { return m_path; }
  const tstring& getName() const { return m_name; }

  // Every traced line also goes to the sink (tests read the trace this way).
  void setSink(Sink sink);

 private:
  void write(int level, const tstring& text);

  std::mutex m_mutex;
  tstring m_name;
  tstring m_path;
  int m_level;
  void* m_file;  // FILE*, kept opaque so that <cstdio> stays out of the header
  Sink m_sink;
};

using CFiTraceLogPtr = CFiSmartPtr<CFiTraceLog>;

// Holds the trace log of an object; registerTraceLog sets it.
class CFiTraceable : public virtual CFiRefCount {
 public:
  virtual void registerTraceLog(const CFiTraceLogPtr& log) { m_traceLog = log; }
  const CFiTraceLogPtr& getTraceLog() const { return m_traceLog; }

 protected:
  CFiTraceLogPtr m_traceLog;
};

// A function scope: "Entering Function %s [%d, %s]" when it opens and
// "Exiting Function %s [%d, %s]" when it closes. A null log writes nothing.
class CFiTraceLogFunction {
 public:
  CFiTraceLogFunction(const CFiTraceLogPtr& log, const char* function, int line, const char* file,
                      int level = QZFI_TRACE_DETAIL);
  ~CFiTraceLogFunction();
  CFiTraceLogFunction(const CFiTraceLogFunction&) = delete;
  CFiTraceLogFunction& operator=(const CFiTraceLogFunction&) = delete;

 private:
  CFiTraceLogPtr m_log;
  const char* m_function;
  int m_line;
  const char* m_file;
  int m_level;
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_TRACE_H

// CQzVMSupport itself: its construction, the one way in which it runs a
// tool, its tracing and its caches. The operations live in the files named
// for what they do.
#include "support/qzvm_support.h"

#include <cstdarg>
#include <cstdio>

#include "report.h"

using qzvmfi_report::pluginTraceLog;

CQzVMSupport::CQzVMSupport() {
  registerTraceLog(pluginTraceLog());
  CQzVMConfiguration configuration;
  configuration.checkConfigFile(1);
  configuration.importCliPathInfo(m_cliPath);
}

CQzVMSupport::~CQzVMSupport() = default;

void CQzVMSupport::clearCaches() {
  m_dgInfo.clear();
  m_disksInfo.clear();
  m_dmpPathInfo.clear();
  m_scannedDevices.clear();
}

size_t CQzVMSupport::cachedEntries() const {
  return m_dgInfo.size() + m_disksInfo.size() + m_dmpPathInfo.size() + m_scannedDevices.size();
}

void CQzVMSupport::registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) {
  CFiTraceable::registerTraceLog(log);
  m_cliTool.registerTraceLog(log);
}

const std::string& CQzVMSupport::commandDir() const {
  return m_cliPath.commandDir;
}

const std::string& CQzVMSupport::supportToolDir() const {
  return m_cliPath.supportDir;
}

int CQzVMSupport::run(const CQzVMCommandLine& command, std::vector<std::string>& output) {
  return m_cliTool.run(command, output);
}

void CQzVMSupport::trace(int level, const char* format, ...) {
  // The log would drop the line anyway; the formatting is spared.
  if (!m_traceLog || level > m_traceLog->getLevel()) {
    return;
  }
  va_list args;
  va_start(args, format);
  std::vector<char> text(1024);
  va_list again;
  va_copy(again, args);
  int needed = std::vsnprintf(text.data(), text.size(), format, args);
  if (needed >= static_cast<int>(text.size())) {
    text.resize(needed + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
  }
  va_end(again);
  va_end(args);
  m_traceLog->trace(level, "%s", text.data());
}

bool CQzVMSupport::fromCache(const std::vector<std::string>& cached,
                             std::vector<std::string>& lines, const char* operation) {
  // An empty entry counts as not cached: the command runs again.
  if (cached.empty()) {
    return false;
  }
  trace(3, "Debug: %s returned value from map", operation);
  lines = cached;
  return true;
}

// Framework configuration files: INI text held in an ACE configuration heap.
#include "qzfi/configuration.h"

#include "qzfi/folders.h"

#include <ace/Configuration_Import_Export.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

namespace qzfi_pdk_4_4 {

namespace {

bool isReadableFile(const tstring& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && access(path.c_str(), R_OK) == 0;
}

bool isDirectory(const tstring& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

CFiConfiguration::CFiConfiguration() {
  // An in-memory heap; should it fail to open, every later call fails and
  // reports it, so the result is not kept here.
  m_heap.open();
}

CFiConfiguration::~CFiConfiguration() = default;

int CFiConfiguration::importConfig(const tstring& path) {
  CFiTraceLogFunction scope(m_traceLog, "importConfig", __LINE__, "configuration");
  // Remembered even when the file is missing, so that a caller can create
  // it with exportConfig() at the same place.
  m_path = path;
  if (!isReadableFile(path)) {
    return -1;
  }
  ACE_Ini_ImpExp ini(m_heap);
  int result = ini.import_config(path.c_str());
  if (result != 0 && m_traceLog) {
    m_traceLog->trace(QZFI_TRACE_WARNING, "CFiConfiguration::importConfig cannot read %s",
                      path.c_str());
  }
  return result;
}

int CFiConfiguration::exportConfig(const tstring& path) {
  CFiTraceLogFunction scope(m_traceLog, "exportConfig", __LINE__, "configuration");
  const tstring& target = path.empty() ? m_path : path;
  if (target.empty()) {
    return -1;
  }
  ACE_Ini_ImpExp ini(m_heap);
  int result = ini.export_config(target.c_str());
  if (result != 0 && m_traceLog) {
    m_traceLog->trace(QZFI_TRACE_WARNING, "CFiConfiguration::exportConfig cannot write %s",
                      target.c_str());
  }
  return result;
}

int CFiConfiguration::openSection(const ACE_TString& name, int create,
                                  ACE_Configuration_Section_Key& key) {
  return m_heap.open_section(m_heap.root_section(), name.c_str(), create, key);
}

int CFiConfiguration::getStringValue(const ACE_Configuration_Section_Key& key,
                                     const ACE_TString& name, ACE_TString& value) {
  return m_heap.get_string_value(key, name.c_str(), value);
}

int CFiConfiguration::setStringValue(const ACE_Configuration_Section_Key& key,
                                     const ACE_TString& name, const ACE_TString& value) {
  return m_heap.set_string_value(key, name.c_str(), value);
}

int CFiConfigurationPathTool::getConfigFileInfo(const tstring& provider, tstring& path,
                                                tstring& folder) {
  folder = getInstallFolder(CFiInstallFolder::config);
  path = folder + "/" + provider + ".conf";
  return isDirectory(folder) ? 0 : 1;
}

}  // namespace qzfi_pdk_4_4

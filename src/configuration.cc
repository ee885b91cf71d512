#include "configuration.h"

#include "report.h"

using qzfi_pdk_4_4::CFiConfigurationPathTool;
using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzfi_pdk_4_4::tstring;

namespace {

const char kSection[] = "CLI_TOOL_INFO";
const char kCommandDirKey[] = "FILEPATH_QzVM";
const char kDefaultCommandDir[] = "/usr/sbin/";
const char kDefaultSupportDir[] = "/usr/lib/qzvm/bin/";

void setDefaults(SQzVMCliPath& path) {
  path.commandDir = kDefaultCommandDir;
  path.supportDir = kDefaultSupportDir;
}

}  // namespace

CQzVMConfiguration::CQzVMConfiguration() {
  registerTraceLog(qzvmfi_report::pluginTraceLog());
}

int CQzVMConfiguration::checkConfigFile(int createIfMissing) {
  CFiTraceLogFunction scope(m_traceLog, "checkConfigFile", __LINE__, "configuration");
  tstring path;
  tstring folder;
  if (CFiConfigurationPathTool::getConfigFileInfo("qzvmfi", path, folder) != 0) {
    throw qzfi_pdk_4_4::CFiError(
        tstring(),
        "Serious error, the directory for the config file could not be determined or doesn't "
        "exist.",
        "../configuration:checkConfigFile", __LINE__);
  }
  // Remembered first so that createConfigFile writes where the import looked.
  setConfigPath(path);
  const int imported = importConfig(path);
  if (imported != 0 && createIfMissing != 0) {
    return createConfigFile();
  }
  return imported;
}

int CQzVMConfiguration::createConfigFile() {
  CFiTraceLogFunction scope(m_traceLog, "createConfigFile", __LINE__, "configuration");
  QZ_TRACE(m_traceLog, 1, "Creating default config file.");
  ACE_Configuration_Section_Key key;
  openSection(kSection, 1, key);
  setStringValue(key, kCommandDirKey, kDefaultCommandDir);
  return exportConfig();
}

void CQzVMConfiguration::importCliPathInfo(SQzVMCliPath& out) {
  CFiTraceLogFunction scope(m_traceLog, "importCliPathInfo", __LINE__, "configuration");
  try {
    setDefaults(out);
    ACE_Configuration_Section_Key key;
    if (openSection(kSection, 1, key) == 0) {
      QZ_TRACE(m_traceLog, 3,
               "CQzVMConfiguration::importCliPathInfo inside IF after openSection\n");
      ACE_TString value;
      if (getStringValue(key, kCommandDirKey, value) == 0) {
        out.commandDir = value.c_str();
      } else {
        QZ_TRACE(m_traceLog, 3,
                 "CQzVMConfiguration::importCliPathInfo failed at getStringValue hence seting "
                 "default");
        setDefaults(out);
      }
    }
    if (out.commandDir.empty() || out.commandDir.back() != '/') {
      out.commandDir += '/';
    }
  } catch (...) {
    QZ_TRACE(m_traceLog, 3, "CQzVMConfiguration::importCliPathInfo catch hence seting default");
    setDefaults(out);
  }
}

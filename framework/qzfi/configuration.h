// Framework configuration files: INI text held in an ACE configuration heap.
#ifndef QZFI_CONFIGURATION_H
#define QZFI_CONFIGURATION_H

#include <ace/Configuration.h>
#include <ace/SString.h>

#include "trace.h"

namespace qzfi_pdk_4_4 {

class CFiConfiguration : public virtual CFiTraceable {
 public:
  CFiConfiguration();
  ~CFiConfiguration() override;

  // Reads an INI file into the heap and remembers its path; 0 on success,
  // non-zero when the file is missing or unreadable.
  int importConfig(const tstring& path);
  // Writes the heap as INI to path (empty: the remembered path); 0 on success.
  int exportConfig(const tstring& path = tstring());

  int openSection(const ACE_TString& name, int create, ACE_Configuration_Section_Key& key);
  int getStringValue(const ACE_Configuration_Section_Key& key, const ACE_TString& name,
                     ACE_TString& value);
  int setStringValue(const ACE_Configuration_Section_Key& key, const ACE_TString& name,
                     const ACE_TString& value);

  const tstring& getConfigPath() const { return m_path; }
  void setConfigPath(const tstring& path) { m_path = path; }
  ACE_Configuration_Heap& heap() { return m_heap; }

 private:
  ACE_Configuration_Heap m_heap;
  tstring m_path;
};

class CFiConfigurationPathTool {
 public:
  // path: "<folder>/<provider>.conf", folder: the configuration folder of
  // qzfi/folders.h (QZFI_CONFIG_DIR, /etc/qzfi, or a build tree's own).
  // 0 when the folder exists (it is not created), non-zero otherwise.
  static int getConfigFileInfo(const tstring& provider, tstring& path, tstring& folder);
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_CONFIGURATION_H

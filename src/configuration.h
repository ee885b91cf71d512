// The plug-in's configuration file (section CLI_TOOL_INFO) and the tool
// directories read from it.
#ifndef QZVMFI_CONFIGURATION_H
#define QZVMFI_CONFIGURATION_H

#include <qzfi/pdk.h>

// Directories from which the full path of each tool is formed.
struct SQzVMCliPath {
  qzfi_pdk_4_4::tstring supportDir;  // the volume manager's private tools
  qzfi_pdk_4_4::tstring commandDir;  // qzdg, qzdisk, qzprint and the other main tools
  qzfi_pdk_4_4::tstring otherDir;    // no import fills it
};

class CQzVMConfiguration : public virtual qzfi_pdk_4_4::CFiConfiguration {
 public:
  CQzVMConfiguration();

  // Loads the file; when it cannot be loaded and createIfMissing is set,
  // writes the default file instead. Throws CFiError when the folder of the
  // file cannot be determined.
  int checkConfigFile(int createIfMissing);
  int createConfigFile();
  // Never fails: what cannot be read keeps its default.
  void importCliPathInfo(SQzVMCliPath& out);
};

#endif  // QZVMFI_CONFIGURATION_H

// The per-node split configuration kept in the node private data. This
// plug-in has no split settings: every operation is a traced no-op.
#ifndef QZVMFI_CONFIG_H
#define QZVMFI_CONFIG_H

#include <qzfi/pdk.h>

struct SSplitConfig {};

class CQzVMConfig {
 public:
  CQzVMConfig() = default;
  ~CQzVMConfig();
  CQzVMConfig(const CQzVMConfig&) = default;
  CQzVMConfig& operator=(const CQzVMConfig&) = default;

  int getParameters(const qfi_domain* node, char* name, qfi_confspec* confspec);
  int get(const qfi_domain* node, char* name, qfi_confspec* confspec);
  int set(const qfi_domain* node, char* name, qfi_confspec* confspec);
  int reaccess(const qfi_domain* node, qfi_confspec* confspec);
  int getDefaultConfig(const char* name, SSplitConfig& config);
  int getSplitConfig(SSplitConfig& config);
  int isValidNodeSplitConfig();
  int extract_from_blob(qfi_blob* blob);
  int createblob(qfi_blob* blob);
  int reset();
  int resetSplitConfig();
};

#endif  // QZVMFI_CONFIG_H

// Provider state: the node private data saved into the framework's blob and
// restored from it.
//
// Until it is written, the operation keeps the framework's base behaviour
// (nothing to do).
#include "qzvm_plugin.h"

int CQzVMPlugin::processProviderState(qfi_domain* node, qfi_blob* blob, qfi_op_providerstate op) {
  QZ_PLUGIN_SCOPE("processProviderState");
  return CFiPluginBase::processProviderState(node, blob, op);
}

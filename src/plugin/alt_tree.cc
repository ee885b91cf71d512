// Alternate tree construction: the copied volume rebuilt or imported on the
// split disks, where they appear.
//
// Until they are written, the operations here keep the framework's base
// behaviour (nothing to do).
#include "qzvm_plugin.h"

int CQzVMPlugin::importTreeNode(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary,
                                int count, qzfi_objid** out) {
  QZ_PLUGIN_SCOPE("importTreeNode");
  return CFiPluginBase::importTreeNode(node, primary, secondary, count, out);
}

int CQzVMPlugin::initAltNode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode, bool flag) {
  QZ_PLUGIN_SCOPE("initAltNode");
  return CFiPluginBase::initAltNode(node, parent, altNode, flag);
}

int CQzVMPlugin::buildAltTree(qfi_domain* node, char* splitType, qzfi_objid** primary,
                              qzfi_objid** secondary, int count, qzfi_objid** out) {
  QZ_PLUGIN_SCOPE("buildAltTree");
  return CFiPluginBase::buildAltTree(node, splitType, primary, secondary, count, out);
}

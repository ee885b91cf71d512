// Claim and node discovery: which objects are the volume manager's, whether
// they still exist, and the nodes and sub-objects made of them.
//
// Until they are written, the operations here keep the framework's base
// behaviour (nothing to do).
#include "qzvm_plugin.h"

int CQzVMPlugin::claim(qzfi_objid* object, qzfi_objid*** secondaryObjects, int* secondaryCount) {
  QZ_PLUGIN_SCOPE("claim");
  return CFiPluginBase::claim(object, secondaryObjects, secondaryCount);
}

int CQzVMPlugin::initNode(qfi_domain* node, qfi_domain** parents, int parentCount,
                          qzfi_objid* object) {
  QZ_PLUGIN_SCOPE("initNode");
  return CFiPluginBase::initNode(node, parents, parentCount, object);
}

int CQzVMPlugin::checkNodeExistence(qfi_domain* node, int* exists) {
  QZ_PLUGIN_SCOPE("checkNodeExistence");
  return CFiPluginBase::checkNodeExistence(node, exists);
}

int CQzVMPlugin::AddSubObjects(qfi_domain* /*node*/, CQzVMData* /*data*/) {
  QZ_PLUGIN_SCOPE("AddSubObjects");
  return 0;
}

// Deport, access and disposition: disk groups released and taken back as the
// framework moves split disks between hosts, and the copies disposed of.
//
// Until they are written, the operations here keep the framework's base
// behaviour (nothing to do).
#include "qzvm_plugin.h"

int CQzVMPlugin::deportTree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access) {
  QZ_PLUGIN_SCOPE("deportTree");
  return CFiPluginBase::deportTree(node, altNode, access);
}

int CQzVMPlugin::dispose(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* target,
                         qfi_disposition disposition) {
  QZ_PLUGIN_SCOPE("dispose");
  return CFiPluginBase::dispose(node, altNode, target, disposition);
}

int CQzVMPlugin::online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
                        qfi_disposition disposition) {
  QZ_PLUGIN_SCOPE("online");
  return CFiPluginBase::online(node, altNode, bringOnline, disposition);
}

int CQzVMPlugin::enableAccess(qfi_node_subobj_list* list, long flags, int reserved, int options) {
  QZ_PLUGIN_SCOPE("enableAccess");
  return CFiPluginBase::enableAccess(list, flags, reserved, options);
}

int CQzVMPlugin::disableAccess(qfi_node_subobj_list* list, long flags) {
  QZ_PLUGIN_SCOPE("disableAccess");
  return CFiPluginBase::disableAccess(list, flags);
}

int CQzVMPlugin::postDeport(qfi_domain* node, qfi_domain* altNode) {
  QZ_PLUGIN_SCOPE("postDeport");
  return CFiPluginBase::postDeport(node, altNode);
}

int CQzVMPlugin::deportAndDestroyDG(const qfi_domain* /*node*/) {
  QZ_PLUGIN_SCOPE("deportAndDestroyDG");
  return 0;
}

int CQzVMPlugin::disableAccessOptimize(const std::string& /*diskGroup*/,
                                       const std::string& /*volume*/) {
  QZ_PLUGIN_SCOPE("disableAccessOptimize");
  return 0;
}

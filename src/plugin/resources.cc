// Resource formatting and onlining: plain disks turned into a volume of the
// volume manager and back.
//
// Until they are written, the operations here keep the framework's base
// behaviour (nothing to do).
#include "qzvm_plugin.h"

int CQzVMPlugin::format(char** disks, int count, char* name, char* type, char* options, int flags,
                        char*** paths, int* pathCount) {
  QZ_PLUGIN_SCOPE("format");
  return CFiPluginBase::format(disks, count, name, type, options, flags, paths, pathCount);
}

int CQzVMPlugin::onlineResource(char** disks, int count, char* a, char* b, char* c, char* d,
                                int flags, char*** paths, int* pathCount) {
  QZ_PLUGIN_SCOPE("onlineResource");
  return CFiPluginBase::onlineResource(disks, count, a, b, c, d, flags, paths, pathCount);
}

int CQzVMPlugin::isParentPgn(char* disk, int* isParent, int flags) {
  QZ_PLUGIN_SCOPE("isParentPgn");
  return CFiPluginBase::isParentPgn(disk, isParent, flags);
}

int CQzVMPlugin::unformat(char** disks, int count, int flags) {
  QZ_PLUGIN_SCOPE("unformat");
  return CFiPluginBase::unformat(disks, count, flags);
}

int CQzVMPlugin::isParentPgnOptimized(char* disk, int* isParent, int flags) {
  QZ_PLUGIN_SCOPE("isParentPgnOptimized");
  return CFiPluginBase::isParentPgn(disk, isParent, flags);
}

int CQzVMPlugin::onlineResourceOptimized(std::vector<std::string> /*osDisks*/,
                                         std::vector<std::string>& /*paths*/) {
  QZ_PLUGIN_SCOPE("onlineResourceOptimized");
  return 0;
}

// Where an installation of the framework keeps its plug-ins and catalogues.
#ifndef QZFI_FOLDERS_H
#define QZFI_FOLDERS_H

#include "errors.h"

namespace qzfi_pdk_4_4 {

enum class CFiInstallFolder {
  library,   // the folder of libqzfi_pdk.so
  plugins,   // "<library>/qzfi/plugins": lib<name>.so of each installed plug-in
  catalogs,  // "<prefix>/share/qzfi/catalog": the message catalogues, one folder per provider
  config,    // the plug-ins' configuration files: QZFI_CONFIG_DIR, or /etc/qzfi
  logs,      // the trace files: QZFI_LOG_DIR, or /var/log/qzfi
};

// The machine's folders of configuration and trace files, and the
// variables that name others.
constexpr char kMachineConfigFolder[] = "/etc/qzfi";
constexpr char kMachineLogFolder[] = "/var/log/qzfi";
constexpr char kConfigFolderVariable[] = "QZFI_CONFIG_DIR";
constexpr char kLogFolderVariable[] = "QZFI_LOG_DIR";

// The folder as an absolute path without a trailing slash, found at run time
// from where libqzfi_pdk.so itself was loaded, so that an installed tree works
// under any prefix and a build tree, laid out the same way, finds its own
// plug-ins and catalogues. Empty when the library's location is unknown.
//
// config and logs: the variable's folder when it is set; otherwise the
// machine's folder, except in a build tree (a tree whose prefix holds
// "etc/qzfi" and "var/log/qzfi", as the build folder does) on a machine
// without that folder, where the tree's own is used. These are not made
// here and need not exist.
tstring getInstallFolder(CFiInstallFolder folder);

// Of a machine's folder and a tree's own (empty when the tree has none):
// the machine's when it exists or the tree has none, else the tree's.
tstring chooseFolder(const tstring& machine, const tstring& tree);

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_FOLDERS_H

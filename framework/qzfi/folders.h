// Where an installation of the framework keeps its plug-ins and catalogues.
#ifndef QZFI_FOLDERS_H
#define QZFI_FOLDERS_H

#include "errors.h"

namespace qzfi_pdk_4_4 {

enum class CFiInstallFolder {
  library,   // the folder of libqzfi_pdk.so
  plugins,   // "<library>/qzfi/plugins": lib<name>.so of each installed plug-in
  catalogs,  // "<prefix>/share/qzfi/catalog": the message catalogues, one folder per provider
};

// The folder as an absolute path without a trailing slash, found at run time
// from where libqzfi_pdk.so itself was loaded, so that an installed tree works
// under any prefix and a build tree, laid out the same way, finds its own
// plug-ins and catalogues. Empty when the library's location is unknown.
tstring getInstallFolder(CFiInstallFolder folder);

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_FOLDERS_H

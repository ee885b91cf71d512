// Folders of the framework's installation, relative to the library itself.
#include "qzfi/folders.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

// QZFI_LIBRARY_TO_PLUGINS and QZFI_LIBRARY_TO_CATALOGS, the folders' paths
// relative to the library's folder, come from the build's install layout.

namespace qzfi_pdk_4_4 {

namespace {

// Resolved, so that a library reached through a linked folder (/lib on a
// merged-/usr system) still finds the prefix it was installed under.
tstring libraryFolder() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&getInstallFolder), &info) == 0 || info.dli_fname == nullptr) {
    return tstring();
  }
  char resolved[PATH_MAX];
  if (realpath(info.dli_fname, resolved) == nullptr) {
    return tstring();
  }
  tstring path(resolved);
  return path.substr(0, path.rfind('/'));
}

tstring joinFolder(const tstring& folder, const char* relative) {
  return (std::filesystem::path(folder) / relative).lexically_normal().string();
}

}  // namespace

tstring getInstallFolder(CFiInstallFolder folder) {
  static const tstring library = libraryFolder();
  if (library.empty()) {
    return library;
  }
  switch (folder) {
    case CFiInstallFolder::plugins:
      return joinFolder(library, QZFI_LIBRARY_TO_PLUGINS);
    case CFiInstallFolder::catalogs:
      return joinFolder(library, QZFI_LIBRARY_TO_CATALOGS);
    case CFiInstallFolder::library:
      break;
  }
  return library;
}

}  // namespace qzfi_pdk_4_4

// Folders of the framework's installation, relative to the library itself.
#include "qzfi/folders.h"

#include <dlfcn.h>

#include <climits>
#include <cstdlib>
#include <filesystem>

// QZFI_LIBRARY_TO_PLUGINS, QZFI_LIBRARY_TO_CATALOGS and QZFI_LIBRARY_TO_PREFIX,
// the folders' paths relative to the library's folder, come from the build's
// install layout.

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

bool isDirectory(const tstring& path) {
  std::error_code error;
  return !path.empty() && std::filesystem::is_directory(path, error);
}

// The tree's own folder at relative under its prefix, when it has one.
tstring treeFolder(const tstring& library, const char* relative) {
  if (library.empty()) {
    return tstring();
  }
  const tstring folder = joinFolder(joinFolder(library, QZFI_LIBRARY_TO_PREFIX), relative);
  return isDirectory(folder) ? folder : tstring();
}

tstring configuredFolder(const char* variable, const char* machine, const tstring& library,
                         const char* relative) {
  const char* fromEnv = std::getenv(variable);
  if (fromEnv != nullptr && *fromEnv != '\0') {
    return fromEnv;
  }
  return chooseFolder(machine, treeFolder(library, relative));
}

}  // namespace

tstring chooseFolder(const tstring& machine, const tstring& tree) {
  return tree.empty() || isDirectory(machine) ? machine : tree;
}

tstring getInstallFolder(CFiInstallFolder folder) {
  static const tstring library = libraryFolder();
  if (folder == CFiInstallFolder::config) {
    return configuredFolder(kConfigFolderVariable, kMachineConfigFolder, library, "etc/qzfi");
  }
  if (folder == CFiInstallFolder::logs) {
    return configuredFolder(kLogFolderVariable, kMachineLogFolder, library, "var/log/qzfi");
  }
  if (library.empty()) {
    return library;
  }
  switch (folder) {
    case CFiInstallFolder::plugins:
      return joinFolder(library, QZFI_LIBRARY_TO_PLUGINS);
    case CFiInstallFolder::catalogs:
      return joinFolder(library, QZFI_LIBRARY_TO_CATALOGS);
    case CFiInstallFolder::library:
    case CFiInstallFolder::config:
    case CFiInstallFolder::logs:
      break;
  }
  return library;
}

}  // namespace qzfi_pdk_4_4

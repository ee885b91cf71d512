// The C library's sleep and chown as the plug-in library loaded by these
// tests meets them: the program's own definitions come first in the
// process. Every pause is counted and none is slept; an owner change fails
// where a test asks for it, as a device node that will not change would.
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <set>

#include "plugin_library.h"

namespace qzvmfi_it {

namespace {

std::set<std::string>& refusedOwnerChanges() {
  static std::set<std::string> paths;
  return paths;
}

}  // namespace

std::vector<unsigned>& libraryPauses() {
  static std::vector<unsigned> pauses;
  return pauses;
}

void refuseOwnerChange(const std::string& path) {
  refusedOwnerChanges().insert(path);
}

void allowOwnerChanges() {
  refusedOwnerChanges().clear();
}

}  // namespace qzvmfi_it

extern "C" unsigned int sleep(unsigned int seconds) {
  qzvmfi_it::libraryPauses().push_back(seconds);
  return 0;
}

extern "C" int chown(const char* path, uid_t owner, gid_t group) {
  if (qzvmfi_it::refusedOwnerChanges().count(path) != 0) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fchownat, AT_FDCWD, path, owner, group, 0));
}

// Loaded before qzfi in the end-to-end tests: every sleep() of the process
// returns at once and appends the seconds it was asked for to the file that
// QZ_E2E_SLEEP_LOG names, so that a wait of the plug-in is seen, not spent.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" unsigned int sleep(unsigned int seconds) {
  const char* log = std::getenv("QZ_E2E_SLEEP_LOG");
  if (log == nullptr) {
    return 0;
  }
  const int fd = ::open(log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0) {
    char line[16];
    const int length = std::snprintf(line, sizeof line, "%u\n", seconds);
    if (::write(fd, line, static_cast<size_t>(length)) != length) {
      std::perror("instant_sleep");
    }
    ::close(fd);
  }
  return 0;
}

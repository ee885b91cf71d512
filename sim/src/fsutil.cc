#include "fsutil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qzsim {

std::vector<std::string> listDir(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (!d)
    return names;
  while (dirent* e = readdir(d)) {
    if (strcmp(e->d_name, ".") && strcmp(e->d_name, ".."))
      names.push_back(e->d_name);
  }
  closedir(d);
  return names;
}

bool readFile(const std::string& path, std::string* text) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return false;
  text->clear();
  char buf[65536];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) text->append(buf, static_cast<size_t>(n));
  close(fd);
  return n == 0;
}

bool writeFile(const std::string& path, const std::string& text, mode_t mode) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0)
    return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok;
}

bool makeDirs(const std::string& path) {
  for (size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos == path.size() || path[pos] == '/') {
      std::string part = path.substr(0, pos);
      if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
        return false;
    }
  }
  return true;
}

void removeTree(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0)
    return;
  if (S_ISDIR(st.st_mode)) {
    for (const std::string& n : listDir(path)) removeTree(path + "/" + n);
    rmdir(path.c_str());
  } else {
    unlink(path.c_str());
  }
}

Fd& Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0)
      close(fd_);
    fd_ = other.release();
  }
  return *this;
}

Fd::~Fd() {
  if (fd_ >= 0)
    close(fd_);
}

int Fd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

namespace {

Fd openPlainFolder(int at, const std::string& name) {
  return Fd(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

Fd openFolderPart(int at, const std::string& name, bool create) {
  Fd fd = openPlainFolder(at, name);
  if (fd.ok() || !create)
    return fd;
  if (errno != ENOENT)
    removeAt(at, name);  // a link or a file where the folder belongs
  if (mkdirat(at, name.c_str(), 0755) != 0 && errno != EEXIST)
    return Fd();
  return openPlainFolder(at, name);
}

}  // namespace

Fd openFolderAt(int at, const std::string& rel, bool create) {
  Fd folder(fcntl(at, F_DUPFD_CLOEXEC, 0));
  size_t start = 0;
  while (folder.ok() && start < rel.size()) {
    size_t end = rel.find('/', start);
    if (end == std::string::npos)
      end = rel.size();
    const std::string part = rel.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".")
      continue;
    if (part == "..")
      return Fd();
    folder = openFolderPart(folder.get(), part, create);
  }
  return folder;
}

std::vector<Entry> listFolder(int folder) {
  std::vector<Entry> entries;
  DIR* d = fdopendir(fcntl(folder, F_DUPFD_CLOEXEC, 0));
  if (!d)
    return entries;
  while (dirent* e = readdir(d)) {
    if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, ".."))
      continue;
    bool plain = e->d_type == DT_REG;
    if (e->d_type == DT_UNKNOWN) {
      struct stat st;
      plain = fstatat(folder, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
    }
    entries.push_back({e->d_name, plain});
  }
  closedir(d);
  return entries;
}

void removeAt(int folder, const std::string& name) {
  if (unlinkat(folder, name.c_str(), 0) == 0 || (errno != EISDIR && errno != EPERM))
    return;
  Fd sub = openPlainFolder(folder, name);
  if (sub.ok()) {
    for (const Entry& e : listFolder(sub.get())) removeAt(sub.get(), e.name);
  }
  unlinkat(folder, name.c_str(), AT_REMOVEDIR);
}

bool copySparse(const std::string& from, const std::string& to) {
  int in = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0)
    return false;
  int out = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) {
    close(in);
    return false;
  }
  struct stat st;
  bool ok = fstat(in, &st) == 0 && ftruncate(out, st.st_size) == 0;
  // Only the written extents are copied so that the copy stays sparse.
  off_t pos = 0;
  static char buf[1 << 16];
  while (ok) {
    off_t data = lseek(in, pos, SEEK_DATA);
    if (data < 0)
      break;
    off_t hole = lseek(in, data, SEEK_HOLE);
    for (off_t p = data; ok && p < hole;) {
      size_t want = static_cast<size_t>(std::min<off_t>(hole - p, sizeof buf));
      ssize_t n = pread(in, buf, want, p);
      ok = n > 0 && pwrite(out, buf, static_cast<size_t>(n), p) == n;
      p += n > 0 ? n : 0;
    }
    pos = hole;
  }
  close(in);
  return close(out) == 0 && ok;
}

}  // namespace qzsim

// Small file-system helpers for the simulation root.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace qzsim {

std::vector<std::string> listDir(const std::string& dir);  // names, "." and ".." left out
bool readFile(const std::string& path, std::string* text);
bool writeFile(const std::string& path, const std::string& text, mode_t mode = 0644);
bool makeDirs(const std::string& path);
void removeTree(const std::string& path);
bool copySparse(const std::string& from, const std::string& to);

// Folders that a sandbox can write into (a host's device-node folders) are
// only ever changed through descriptors opened without following links: a
// link planted there is a name like any other, never a way out.

// An open descriptor, closed with its owner.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd();
  int get() const { return fd_; }
  bool ok() const { return fd_ >= 0; }
  int release();

 private:
  int fd_;
};

// The folder rel ("a/b") below the folder at, each part opened without
// following a link. With create, a missing part is made, and a part that is
// not a plain folder (a link, a file) is removed and made as a folder.
Fd openFolderAt(int at, const std::string& rel, bool create);

// A plain entry of a folder listing: name and whether it is a plain file
// (rather than a folder, link or anything else).
struct Entry {
  std::string name;
  bool plainFile;
};
std::vector<Entry> listFolder(int folder);

// Removes name from folder: a folder with all it holds, anything else by
// its own name (a link, never what it points to).
void removeAt(int folder, const std::string& name);

}  // namespace qzsim

// A temporary folder for one test, removed with everything in it, and a
// scoped environment variable: host tests never use the machine's folders.
#ifndef QZ_TESTS_HOST_TEMPDIR_H
#define QZ_TESTS_HOST_TEMPDIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>

namespace qztest {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qzfi_host_XXXXXX").string();
    if (mkdtemp(&pattern[0]) != nullptr) {
      m_path = pattern;
    }
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return m_path; }
  std::string file(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

class ScopedEnv {
 public:
  // value nullopt: the variable is unset for the scope.
  ScopedEnv(std::string name, const std::optional<std::string>& value) : m_name(std::move(name)) {
    if (const char* old = getenv(m_name.c_str())) {
      m_old = old;
    }
    set(value);
  }
  ~ScopedEnv() { set(m_old); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const std::optional<std::string>& value) {
    if (value) {
      setenv(m_name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(m_name.c_str());
    }
  }

  std::string m_name;
  std::optional<std::string> m_old;
};

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace qztest

#endif  // QZ_TESTS_HOST_TEMPDIR_H

// Test surroundings of the plug-in's units: private configuration and log
// folders, the plug-in's trace log read through its sink, an empty error
// stack, commands answered by the exec seam instead of being run, and the
// plug-in's temporary files in a scratch folder (the seam does not run the
// command that would remove them).
#ifndef QZVMFI_TESTS_PLUGIN_ENV_H
#define QZVMFI_TESTS_PLUGIN_ENV_H

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "../host/tempdir.h"
#include "clitool.h"
#include "context.h"

namespace qzvmfi_test {

struct TraceLine {
  int level;
  std::string text;
  bool operator==(const TraceLine& other) const {
    return level == other.level && text == other.text;
  }
};

inline std::ostream& operator<<(std::ostream& out, const TraceLine& line) {
  return out << line.level << " '" << line.text << "'";
}

// A pushed message as tests compare it: identifier, source and argument
// texts.
struct Pushed {
  std::string id;
  std::string source;
  std::vector<std::string> args;
  bool operator==(const Pushed& other) const {
    return id == other.id && source == other.source && args == other.args;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Pushed& pushed) {
  out << pushed.id << " from " << pushed.source << ":";
  for (const std::string& arg : pushed.args) {
    out << " [" << arg << "]";
  }
  return out;
}

using qztest::readFile;
using qztest::ScopedEnv;
using qztest::TempDir;

inline void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The plug-in's singletons exist only inside one test.
class PluginEnv : public ::testing::Test {
 protected:
  void SetUp() override {
    m_configDir = std::make_unique<TempDir>();
    m_logDir = std::make_unique<TempDir>();
    m_tmpDir = std::make_unique<TempDir>();
    m_oldTmpFolder = CFiMyTempFile::setFolder(m_tmpDir->path() + "/");
    m_configEnv = std::make_unique<ScopedEnv>("QZFI_CONFIG_DIR", m_configDir->path());
    m_logEnv = std::make_unique<ScopedEnv>("QZFI_LOG_DIR", m_logDir->path());
    auto log = qzvmfi_ctx::TraceLog::instance();
    log->setLevel(6);
    auto* lines = &m_trace;
    log->setSink([lines](int level, const std::string& text) { lines->push_back({level, text}); });
    qzvmfi_ctx::ErrorManager::instance()->clear();
    qzfi_pdk_4_4::CFiExecSeam::enable();
  }

  void TearDown() override {
    qzfi_pdk_4_4::CFiExecSeam::disable();
    qzvmfi_ctx::ErrorManager::instance(true);
    qzvmfi_ctx::TraceLog::instance(true);
    m_configEnv.reset();
    m_logEnv.reset();
    CFiMyTempFile::setFolder(m_oldTmpFolder);
    m_tmpDir.reset();
    m_configDir.reset();
    m_logDir.reset();
  }

  // Trace lines whose text begins with prefix.
  std::vector<TraceLine> traced(const std::string& prefix = std::string()) const {
    std::vector<TraceLine> lines;
    for (const TraceLine& line : m_trace) {
      if (line.text.compare(0, prefix.size(), prefix) == 0) {
        lines.push_back(line);
      }
    }
    return lines;
  }

  bool wasTraced(int level, const std::string& text) const {
    for (const TraceLine& line : m_trace) {
      if (line.level == level && line.text == text) {
        return true;
      }
    }
    return false;
  }

  std::vector<qzfi_pdk_4_4::CFiIcuMessagePtr> errors() const {
    return qzvmfi_ctx::ErrorManager::instance()->errors();
  }

  // The pushed messages, oldest first.
  std::vector<Pushed> pushed() const {
    std::vector<Pushed> messages;
    for (const qzfi_pdk_4_4::CFiIcuMessagePtr& message : errors()) {
      Pushed entry{message->getIdentifier(), message->getSourceFile(), {}};
      for (size_t i = 0; i < message->getArguments().size(); ++i) {
        entry.args.push_back(message->argumentText(i));
      }
      messages.push_back(entry);
    }
    return messages;
  }

  const std::string& configDir() const { return m_configDir->path(); }
  std::string configFile() const { return m_configDir->file("qzvmfi.conf"); }
  // Where the plug-in's temporary files go, with its trailing slash.
  std::string tmpFolder() const { return m_tmpDir->path() + "/"; }

  std::vector<TraceLine> m_trace;

 private:
  std::unique_ptr<TempDir> m_configDir;
  std::unique_ptr<TempDir> m_logDir;
  std::unique_ptr<TempDir> m_tmpDir;
  std::string m_oldTmpFolder;
  std::unique_ptr<ScopedEnv> m_configEnv;
  std::unique_ptr<ScopedEnv> m_logEnv;
};

}  // namespace qzvmfi_test

#endif  // QZVMFI_TESTS_PLUGIN_ENV_H

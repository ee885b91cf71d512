// Running the volume manager's tools, and temporary files that are removed
// by a command when their owner goes.
#ifndef QZVMFI_CLITOOL_H
#define QZVMFI_CLITOOL_H

#include <exception>
#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "configuration.h"

// The command layer's own exception; the plug-in's operations map it to
// status 6 without reporting anything.
class CQzVMCliException : public std::exception {
 public:
  explicit CQzVMCliException(std::string text) : m_text(std::move(text)) {}
  const char* what() const noexcept override { return m_text.c_str(); }

 private:
  std::string m_text;
};

class CQzVMCliTool : public virtual qzfi_pdk_4_4::CFiTraceable {
 public:
  CQzVMCliTool();
  ~CQzVMCliTool() override;

  // Runs one complete command line. output is cleared, then holds the lines
  // the command printed (also when it failed). 0 on success, else the
  // command's status (a failure is also pushed as MSG_ERROR_COMMAND_FAILED),
  // or 1 when the command could not be started.
  int executeCommand(const char* command, std::vector<std::string>& output);

  const SQzVMCliPath& cliPath() const { return m_cliPath; }

 private:
  SQzVMCliPath m_cliPath;
};

// Hands out temporary file names and removes the files when destroyed.
class CFiMyTempFile {
 public:
  CFiMyTempFile() = default;
  ~CFiMyTempFile();
  CFiMyTempFile(const CFiMyTempFile&) = delete;
  CFiMyTempFile& operator=(const CFiMyTempFile&) = delete;

  // A fresh name in /tmp/ beginning with "tpu_fi"; empty on failure (then
  // lastError() says why). The file itself is not created.
  std::string getTmpFile();

  const std::vector<std::string>& files() const { return m_files; }
  const std::string& lastError() const { return m_lastError; }

 private:
  std::vector<std::string> m_files;
  SQzVMCliPath m_cliPath;
  std::string m_lastError;
};

#endif  // QZVMFI_CLITOOL_H

// Running the volume manager's tools: the one way a command line is built
// (CQzVMCommandLine, which checks every name that enters it) and run
// (CQzVMCliTool), and temporary files that are removed by a command when
// their owner goes.
#ifndef QZVMFI_CLITOOL_H
#define QZVMFI_CLITOOL_H

#include <stdio.h>

#include <exception>
#include <string>
#include <string_view>
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

// The longest object name the volume manager accepts.
inline constexpr size_t kQzVMMaxNameLength = 31;

// Why name is not one the volume manager accepts as the name of an object
// (disk group, volume, volume set, disk, disk medium, multipath node, group
// or disk id, usage type, geometry value): 1 to 31 letters, digits, "_",
// "-" and ".", not beginning with "-" or "."; null when it is. Such a name
// means the same to every shell and can name no file outside its folder.
const char* qzvmNameFault(std::string_view name);
// The same for a file of the plug-in's own: an absolute path whose every
// part is such a name (of any length), at most 4095 characters in all.
const char* qzvmPathFault(std::string_view path);
// The same for the path of an object the framework names (a volume's device
// path, a disk's): every part is a name of at most 31 characters, so that
// the group and volume it names are names the volume manager accepts.
const char* qzvmObjectPathFault(std::string_view path);

// One command line of a tool: the tool's directory and name, then fragments
// of the system's own text, which carry their own blanks (" -g ", " list "),
// and names that come from elsewhere (groups, disks, volumes, files). Every
// command of the plug-in is built here, so that all that enters a command
// line passes one check: a name that fails it is left out and marks the
// line refused, and a refused line is never run.
class CQzVMCommandLine {
 public:
  // A file of the plug-in's own, such as a temporary file.
  struct File {
    const std::string& path;
  };

  // tool carries its own trailing blanks ("qzdg  ").
  CQzVMCommandLine(const std::string& directory, const char* tool);

  // Appends the pieces in order: literals are the system's own text,
  // strings are names from elsewhere, numbers are written in decimal.
  template <typename... Pieces>
  CQzVMCommandLine& add(const Pieces&... pieces) {
    (append(pieces), ...);
    return *this;
  }

  const std::string& text() const { return m_text; }
  // The tool's path, without its blanks.
  std::string toolPath() const;

  // The first name that failed the check, and why; refusal() is null while
  // every name passed.
  const char* refusal() const { return m_refusal; }
  const std::string& refusedName() const { return m_refusedName; }

 private:
  void append(const char* fragment);
  void append(const std::string& name);
  void append(const File& file);
  void append(unsigned long long number);
  void appendChecked(const std::string& name, const char* fault);

  std::string m_text;
  size_t m_toolEnd;
  const char* m_refusal = nullptr;
  std::string m_refusedName;
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

  // How the plug-in runs its commands: a line that holds a refused name is
  // not run; the refusal is traced and pushed as MSG_ERROR_INVALID_NAME and
  // the result is 1 with no output. Any other line goes to executeCommand.
  int run(const CQzVMCommandLine& command, std::vector<std::string>& output);

  const SQzVMCliPath& cliPath() const { return m_cliPath; }

 private:
  SQzVMCliPath m_cliPath;
};

// Traces (level 1, when log is set) and pushes MSG_ERROR_INVALID_NAME: name
// is refused for why, and what (a tool or a file) is left alone.
void reportRefusedName(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const std::string& name,
                       const char* why, const std::string& what);

// Hands out temporary files and removes them when destroyed. Each file is
// created when it is handed out (mode 0600, owned by this process, under a
// name that nobody could know before), so that nobody else can put anything
// at its name first.
class CFiMyTempFile {
 public:
  CFiMyTempFile() = default;
  ~CFiMyTempFile();
  CFiMyTempFile(const CFiMyTempFile&) = delete;
  CFiMyTempFile& operator=(const CFiMyTempFile&) = delete;

  // A new empty file in the temporary folder whose name begins with
  // "tpu_fi"; its path, or empty on failure (then lastError() says why).
  std::string getTmpFile();

  const std::vector<std::string>& files() const { return m_files; }
  const std::string& lastError() const { return m_lastError; }

  // Opens one of the plug-in's own files without following a symbolic link
  // at its name: for writing (created 0600 when missing, emptied) or for
  // reading. Null, with errno set, when it cannot be opened or is not a
  // regular file of this process's user with a single name.
  static FILE* openForWriting(const std::string& path);
  static FILE* openForReading(const std::string& path);

  // The folder of the temporary files, "/tmp/"; tests put it in a scratch
  // folder of theirs (with its trailing slash). Returns the previous one.
  static std::string setFolder(const std::string& folder);
  static const std::string& folder();

 private:
  std::vector<std::string> m_files;
  SQzVMCliPath m_cliPath;
  std::string m_lastError;
};

#endif  // QZVMFI_CLITOOL_H

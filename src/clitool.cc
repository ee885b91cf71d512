#include "clitool.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "report.h"

using qzfi_pdk_4_4::CFiExecPipePosix;
using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzfi_pdk_4_4::EFiExecPipe;
using qzfi_pdk_4_4::tstring;
using qzvmfi_report::joinLines;

namespace {

bool isNameChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '-' || c == '.';
}

// The rule of a name, whatever its length.
const char* partFault(std::string_view name) {
  if (name.empty()) {
    return "it is empty";
  }
  if (name[0] == '-' || name[0] == '.') {
    return "it begins with '-' or '.'";
  }
  for (char c : name) {
    if (!isNameChar(c)) {
      return "it holds a character other than letters, digits, '_', '-' and '.'";
    }
  }
  return nullptr;
}

const size_t kMaxPathLength = 4095;

}  // namespace

const char* qzvmNameFault(std::string_view name) {
  if (name.size() > kQzVMMaxNameLength) {
    return "it is longer than 31 characters";
  }
  return partFault(name);
}

namespace {

// An absolute path of at most 4095 characters whose every part passes
// partRule.
const char* pathFault(std::string_view path, const char* (*partRule)(std::string_view)) {
  if (path.size() > kMaxPathLength) {
    return "it is longer than 4095 characters";
  }
  if (path.empty() || path[0] != '/') {
    return "it is not an absolute path";
  }
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos) {
      end = path.size();
    }
    if (const char* fault = partRule(path.substr(start, end - start))) {
      return fault;
    }
    start = end + 1;
  }
  return nullptr;
}

}  // namespace

const char* qzvmPathFault(std::string_view path) {
  return pathFault(path, partFault);
}

const char* qzvmObjectPathFault(std::string_view path) {
  return pathFault(path, qzvmNameFault);
}

CQzVMCommandLine::CQzVMCommandLine(const std::string& directory, const char* tool)
    : m_text(directory + tool), m_toolEnd(m_text.find_last_not_of(' ') + 1) {}

std::string CQzVMCommandLine::toolPath() const {
  return m_text.substr(0, m_toolEnd);
}

void CQzVMCommandLine::append(const char* fragment) {
  m_text += fragment;
}

void CQzVMCommandLine::append(const std::string& name) {
  appendChecked(name, qzvmNameFault(name));
}

void CQzVMCommandLine::append(const File& file) {
  appendChecked(file.path, qzvmPathFault(file.path));
}

void CQzVMCommandLine::append(unsigned long long number) {
  m_text += std::to_string(number);
}

// A refused name never enters the text, so no line built here ever holds
// one, run or not.
void CQzVMCommandLine::appendChecked(const std::string& name, const char* fault) {
  if (fault == nullptr) {
    m_text += name;
  } else if (m_refusal == nullptr) {
    m_refusal = fault;
    m_refusedName = name;
  }
}

void reportRefusedName(const qzfi_pdk_4_4::CFiTraceLogPtr& log, const std::string& name,
                       const char* why, const std::string& what) {
  QZ_TRACE(log, 1, "CQzVMCliTool::run - refused the name '%s' (%s); %s was left alone.",
           name.c_str(), why, what.c_str());
  qzvmfi_report::pushError("MSG_ERROR_INVALID_NAME", {"run", name, why, what}, "clitool", __LINE__);
}

CQzVMCliTool::CQzVMCliTool() {
  registerTraceLog(qzvmfi_report::pluginTraceLog());
  CQzVMConfiguration().importCliPathInfo(m_cliPath);
}

CQzVMCliTool::~CQzVMCliTool() = default;

int CQzVMCliTool::run(const CQzVMCommandLine& command, std::vector<std::string>& output) {
  if (command.refusal() == nullptr) {
    return executeCommand(command.text().c_str(), output);
  }
  output.clear();
  reportRefusedName(m_traceLog, command.refusedName(), command.refusal(), command.toolPath());
  return 1;
}

int CQzVMCliTool::executeCommand(const char* command, std::vector<std::string>& output) {
  const std::string text(command);
  CFiExecPipePosix pipe(1);
  pipe.registerTraceLog(m_traceLog);
  output.clear();
  QZ_TRACE(m_traceLog, 3, "CQzVMCliTool::executeCommand command: %s", text.c_str());
  int status = 1;
  try {
    status = pipe.Exec(text, output, tstring(), 600, tstring(), tstring(), tstring());
  } catch (const EFiExecPipe&) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMCliTool::executeCommand - exception thrown in command execution.");
    return status;
  }
  if (status != 0) {
    const std::string joined = joinLines(output);
    qzvmfi_report::pushError("MSG_ERROR_COMMAND_FAILED", {"executeCommand", text, joined},
                             "clitool", 51);
    QZ_TRACE(m_traceLog, 2, "Warning - failed with message='%s' and error no '%d'.", joined.c_str(),
             status);
    return status;
  }
  if (!output.empty()) {
    QZ_TRACE(m_traceLog, 6, "CQzVMCliTool::executeCommand passed with output '%s'",
             joinLines(output).c_str());
  }
  return 0;
}

namespace {

std::string& tempFolder() {
  static std::string folder = "/tmp/";
  return folder;
}

// The file at fd is one the plug-in may use: a regular file of this
// process's user with no other name.
bool isOwnFile(int fd) {
  struct stat status;
  if (fstat(fd, &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode) || status.st_uid != geteuid() || status.st_nlink != 1) {
    errno = EPERM;
    return false;
  }
  return true;
}

FILE* openOwnFile(const std::string& path, int flags, const char* mode) {
  int fd = open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) {
    return nullptr;
  }
  if (!isOwnFile(fd) || ((flags & O_WRONLY) != 0 && ftruncate(fd, 0) != 0)) {
    const int error = errno;
    close(fd);
    errno = error;
    return nullptr;
  }
  FILE* file = fdopen(fd, mode);
  if (file == nullptr) {
    close(fd);
  }
  return file;
}

}  // namespace

std::string CFiMyTempFile::setFolder(const std::string& folder) {
  std::string previous = tempFolder();
  tempFolder() = folder;
  return previous;
}

const std::string& CFiMyTempFile::folder() {
  return tempFolder();
}

FILE* CFiMyTempFile::openForWriting(const std::string& path) {
  // Emptied only once it is known to be ours.
  return openOwnFile(path, O_WRONLY | O_CREAT, "w");
}

FILE* CFiMyTempFile::openForReading(const std::string& path) {
  return openOwnFile(path, O_RDONLY, "r");
}

std::string CFiMyTempFile::getTmpFile() {
  std::string name = tempFolder() + "tpu_fiXXXXXX";
  // mkostemp creates the file, mode 0600, under a name that did not exist.
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd >= 0) {
    close(fd);
  } else {
    m_lastError = qzfi_pdk_4_4::CFiPlatformError::returnErrorMsg(errno);
    name.clear();
  }
  // An empty name is listed too, as a record of the failure; nothing was
  // made under it, so nothing is removed for it.
  m_files.push_back(name);
  return name;
}

CFiMyTempFile::~CFiMyTempFile() {
  CFiTraceLogFunction scope(qzvmfi_report::pluginTraceLog(), "~CFiMyTempFile", __LINE__, "clitool");
  CQzVMCommandLine command("/bin/", "rm  ");
  bool anyFile = false;
  for (const std::string& file : m_files) {
    if (!file.empty()) {
      command.add(" ", CQzVMCommandLine::File{file});
      anyFile = true;
    }
  }
  if (!anyFile) {
    return;
  }
  // A destructor must not throw; a removal that cannot run leaves the files.
  try {
    std::vector<std::string> output;
    CQzVMCliTool().run(command, output);
  } catch (...) {
  }
}

#include "clitool.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include "report.h"

using qzfi_pdk_4_4::CFiExecPipePosix;
using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzfi_pdk_4_4::EFiExecPipe;
using qzfi_pdk_4_4::tstring;
using qzvmfi_report::joinLines;

CQzVMCliTool::CQzVMCliTool() {
  registerTraceLog(qzvmfi_report::pluginTraceLog());
  CQzVMConfiguration().importCliPathInfo(m_cliPath);
}

CQzVMCliTool::~CQzVMCliTool() = default;

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

std::string CFiMyTempFile::getTmpFile() {
  std::string name;
  if (char* made = tempnam("/tmp/", "tpu_fi")) {
    name = made;
    free(made);
  } else {
    m_lastError = qzfi_pdk_4_4::CFiPlatformError::returnErrorMsg(errno);
  }
  // An empty name is listed too: the removal command then holds a blank entry.
  m_files.push_back(name);
  return name;
}

CFiMyTempFile::~CFiMyTempFile() {
  CFiTraceLogFunction scope(qzvmfi_report::pluginTraceLog(), "~CFiMyTempFile", __LINE__, "clitool");
  if (m_files.empty()) {
    return;
  }
  std::string command = std::string("/bin/") + "rm  ";
  for (const std::string& file : m_files) {
    command += ' ';
    command += file;
  }
  // A destructor must not throw; a removal that cannot run leaves the files.
  try {
    std::vector<std::string> output;
    CQzVMCliTool().executeCommand(command.c_str(), output);
  } catch (...) {
  }
}

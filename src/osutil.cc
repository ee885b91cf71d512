#include "osutil.h"

#include <unistd.h>

#include <cctype>
#include <cstring>
#include <vector>

#include <qzfi/pdk.h>

#include "clitool.h"
#include "report.h"

using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzfi_pdk_4_4::CFiTraceLogPtr;

namespace {

using qzvmfi_report::joinLines;
using qzvmfi_report::pluginTraceLog;

bool isDigit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}

QzVMSleepFunction& sleeper() {
  static QzVMSleepFunction current;
  return current;
}

std::string& sysRoot() {
  static std::string root;
  return root;
}

}  // namespace

bool CFiQzVMUtil::isInstalled() {
  CFiTraceLogPtr log = pluginTraceLog();
  CFiTraceLogFunction scope(log, "isInstalled", 20, "osutil");
  const CQzVMCommandLine command = CQzVMCommandLine("/bin/", "rpm").add(" -qa ");
  std::vector<std::string> output;
  CQzVMCliTool tool;
  tool.registerTraceLog(log);
  int status = tool.run(command, output);
  if (status == 0 && qzfi_pdk_4_4::CFiStringTool::find(output, "ZOLKqzvm", 0, false) >= 0) {
    return true;
  }
  // Reported also when rpm ran but does not list the package.
  qzvmfi_report::pushError("MSG_ERROR_COMMAND_FAILED",
                           {"isInstalled", command.text(), joinLines(output)}, "osutil", __LINE__);
  QZ_TRACE(log, 3, "CFiQzVMUtil::isInstalled - qzvm not installed.");
  return false;
}

void CFiQzVMUtil::removeDevPrefix(std::string& name) {
  if (name.compare(0, 5, "/dev/") == 0) {
    name.erase(0, 5);
  }
}

std::string CFiQzVMUtil::makeCompleteDevName(const std::string& name) {
  return "/dev/" + name;
}

void CFiQzVMUtil::removeSliceFromDisk(std::string& name) {
  CFiTraceLogFunction scope(pluginTraceLog(), "removeSliceFromDisk", __LINE__, "osutil");
  if (name.size() <= 1) {
    return;
  }
  // The walk never cuts at the first character: a name made only of digits
  // stays whole.
  for (size_t i = name.size() - 1; i > 0; --i) {
    if (!isDigit(name[i])) {
      name.erase(i + 1);
      return;
    }
  }
}

int CFiQzVMUtil::cleanupOtherLVMOnDisk(const std::string& /*disk*/) {
  return 0;
}

void makeBlockToRawPath(const std::string& block, std::string& raw) {
  // Block and raw disk nodes share their name on this platform.
  if (block.find("/dev/") != std::string::npos) {
    raw = "/dev/" + block.substr(5);
  } else {
    raw = block;
  }
}

void convertBlockToRaw(const char* block, char* raw) {
  CFiTraceLogPtr log = pluginTraceLog();
  QZ_TRACE(log, 3, "Entering convertBlockToRaw with [%s]\n", block);
  size_t length = std::strlen(block);
  std::memset(raw, 0, length + 2);
  // Position 8 is the length of "/dev/qz/": "dsk" becomes "rdsk".
  const size_t prefix = 8;
  std::strncpy(raw, block, length < prefix ? length : prefix);
  std::strcat(raw, "r");
  if (length > prefix) {
    std::strcat(raw, block + prefix);
  }
  QZ_TRACE(log, 3, "convertBlockToRaw Done: [%s] converted to [%s]\n", block, raw);
}

QzVMSleepFunction setQzVMSleep(QzVMSleepFunction replacement) {
  QzVMSleepFunction previous = std::move(sleeper());
  sleeper() = std::move(replacement);
  return previous;
}

void qzvmSleep(unsigned seconds) {
  if (sleeper()) {
    sleeper()(seconds);
  } else {
    ::sleep(seconds);
  }
}

void setQzVMSysRoot(const std::string& root) {
  sysRoot() = root;
}

std::string qzvmSysPath(const std::string& path) {
  return sysRoot() + path;
}

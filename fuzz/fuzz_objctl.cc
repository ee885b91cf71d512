// The argument text of objctl on arbitrary input: the reader accepts or
// refuses it without harm; what it accepts reads back the same once written
// as input records, and once written by the plug-in's output writer; the
// plug-in's export always answers with a list and stores the status.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <qzfi/cfiapiexport.h>

#include "fuzz_env.h"

#include "plugin/exports.h"
#include "plugin/qzvm_plugin.h"

namespace {

using qzfi_pdk_4_4::CFiObjctlArgs;
using Export = qzfi_pdk_4_4::CFiApiExport<CQzVMPlugin, qzvmfi>;

bool sameArgs(const std::vector<CFiObjctlArgs::Arg>& a, const std::vector<CFiObjctlArgs::Arg>& b) {
  if (a.size() != b.size()) {
    return false;
  }
  for (size_t i = 0; i < a.size(); ++i) {
    if (a[i].name != b[i].name || a[i].value != b[i].value || a[i].type != b[i].type) {
      return false;
    }
  }
  return true;
}

std::string inputText(const std::vector<CFiObjctlArgs::Arg>& args) {
  std::string text = "<OBJCTL_ARG_LIST>";
  for (const CFiObjctlArgs::Arg& arg : args) {
    text += " <OBJCTL_INPUT arg=\"" + arg.name + "\" value=\"" + arg.value + "\" type=\"" +
            arg.type + "\" />";
  }
  return text + " </OBJCTL_ARG_LIST>";
}

// The output writer puts values as they are: a value in quotes of its own
// would lose them when read back.
bool quoted(const std::string& text) {
  return text.size() >= 2 && text.front() == '"' && text.back() == '"';
}

void checkOutputReadsBack(const CFiObjctlArgs& parsed) {
  CFiObjctlArgs written;
  for (const CFiObjctlArgs::Arg& arg : parsed.inputs()) {
    if (quoted(arg.name) || quoted(arg.value) || quoted(arg.type)) {
      return;
    }
    written.addOutput(arg.name, arg.value, arg.type);
  }
  std::string text = Export::objctlOutput(written);
  // Values hold no blank, so a record begins wherever this does.
  const std::string output = " <OBJCTL_OUTPUT arg=";
  for (std::string::size_type at; (at = text.find(output)) != std::string::npos;) {
    text.replace(at, output.size(), " <OBJCTL_INPUT arg=");
  }
  CFiObjctlArgs again;
  if (again.importArgs(text.c_str()) != 0 || !sameArgs(again.inputs(), written.outputs())) {
    abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  qzvmfi_fuzz::privateFolder();
  // The argument text is a C string.
  const std::string text = qzvmfi_fuzz::textOf(bytes, size).c_str();

  CFiObjctlArgs parsed;
  const int imported = parsed.importArgs(text.c_str());
  if (imported == 0) {
    for (const CFiObjctlArgs::Arg& arg : parsed.inputs()) {
      if (arg.name.empty() ||
          (arg.name + arg.value + arg.type).find_first_of(" \t\r\n") != std::string::npos) {
        abort();
      }
    }
    CFiObjctlArgs again;
    if (again.importArgs(inputText(parsed.inputs()).c_str()) != 0 ||
        !sameArgs(again.inputs(), parsed.inputs())) {
      abort();
    }
    checkOutputReadsBack(parsed);
  }

  char* output = nullptr;
  int64_t result = -1;
  if (qzvmfi_fi_pgn_objctl("query", text.c_str(), &output, &result) != 0 || output == nullptr ||
      std::string(output) != "<OBJCTL_ARG_LIST> </OBJCTL_ARG_LIST> " ||
      result != (imported == 0 ? 0 : 3)) {
    abort();
  }
  free(output);
  // The first call made the plug-in and its engine: they are torn down at
  // exit as a framework does, before the engine's own end.
  static const int finiAtExit = std::atexit([] { qzvmfi_fi_pgn_fini(); });
  (void)finiAtExit;
  return 0;
}

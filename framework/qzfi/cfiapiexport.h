// The exported-entry template: the shape every exported C entry point of a
// plug-in shares. It lives in the header and is compiled into each plug-in,
// whose singletons (Plugin and Tag) it reaches.
#ifndef QZFI_CFIAPIEXPORT_H
#define QZFI_CFIAPIEXPORT_H

#include <stdint.h>
#include <string.h>

#include <cstdio>
#include <cstdlib>

#include <ace/SString.h>

#include "messages.h"
#include "records.h"
#include "refcount.h"
#include "session.h"
#include "stringtool.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

// The source name under which the entry points trace their scopes.
constexpr char kCfiApiExportSource[] = "pdk/include/cfiapiexport";

template <class Plugin, class Tag>
class CFiApiExport {
 public:
  using PluginSingleton = CFiContextSingleton<Plugin, Tag>;
  using TraceLogSingleton = CFiContextSingleton<CFiTraceLog, Tag>;
  using SessionManagerSingleton = CFiContextSingleton<CFiSessionManager, Tag>;

  // The plug-in singleton, created on first use.
  static Plugin& plugin() { return *PluginSingleton::instance(); }

  // An entry point that runs the plug-in's delayed initialisation first: a
  // trace scope named name, the gate (1 when it fails), then body().
  template <class Body>
  static int gated(const char* name, Body body) {
    CFiTraceLogFunction scope(TraceLogSingleton::instance(), name, __LINE__, kCfiApiExportSource);
    if (!passGate()) {
      return 1;
    }
    return body();
  }

  // An entry point without the gate.
  template <class Body>
  static int plain(const char* name, Body body) {
    CFiTraceLogFunction scope(TraceLogSingleton::instance(), name, __LINE__, kCfiApiExportSource);
    return body();
  }

  // The delayed initialisation runs once, at the first gated entry; when it
  // fails, that entry fails and later ones go on without retrying it.
  static bool passGate() {
    Plugin& gate = plugin();
    if (gate.delayedInitRun()) {
      return true;
    }
    gate.setDelayedInitRun();
    // Once per plug-in object: a process that keeps the plug-in loaded
    // shows one such line for its whole life.
    TraceLogSingleton::instance()->trace(QZFI_TRACE_INFO,
                                         "CFiApiExport - delayed initialisation of the plug-in");
    return gate.delayedInit() == 0;
  }

  // Entry points that take one node and an array of nodes with a count pass
  // the array on; without an array, the single node becomes an array of one
  // (pointing at node, which must outlive the call). A missing array with a
  // count stops the process.
  template <class Node>
  struct NodeList {
    Node** nodes;
    int count;
  };

  template <class Node>
  static NodeList<Node> nodeList(Node*& node, Node** nodes, int count) {
    if (nodes == nullptr && count != 0) {
      std::fprintf(stderr, "%s: node array missing for %d nodes\n", kCfiApiExportSource, count);
      std::fflush(stderr);
      std::abort();
    }
    if (nodes == nullptr && node != nullptr) {
      return {&node, 1};
    }
    return {nodes, count};
  }

  // select, prepare and make: the classic operation first; when it answers
  // 4, it wants its session variant, which gets the session manager's
  // session with the split nodes added. make then hands back the session's
  // snapshots as identities. Any other answer stands.
  static int selectWithSession(char* text, qfi_splitnode** nodes, int count) {
    return withSession(
        plugin().select(text, nodes, count), nodes, count,
        [](const CFiSessionPtr& session) { return plugin().selectSnapshots(session); });
  }

  static int prepareWithSession(char* text, qfi_splitnode** nodes, int count, int flags) {
    return withSession(
        plugin().prepare(text, nodes, count, flags), nodes, count,
        [](const CFiSessionPtr& session) { return plugin().prepareSnapshots(session); });
  }

  static int makeWithSession(char* text, qfi_splitnode** nodes, int count, qzfi_objid*** ids,
                             int* idCount) {
    return withSession(
        plugin().make(text, nodes, count, ids, idCount), nodes, count,
        [&](const CFiSessionPtr& session) {
          const int status = plugin().makeSnapshots(session);
          return status != 0 ? status : session->exportSnapshotList(nodes, count, ids, idCount);
        });
  }

  // objctl with its argument texts: the input text parsed (a malformed one
  // makes the result 3 without a call), the operation's status stored in
  // result, and the output arguments written to a strdup'd text in output.
  static int objctl(const char* name, const char* input, char** output, int64_t* result) {
    CFiObjctlArgs args;
    const int status = args.importArgs(input) == 0
                           ? plugin().objctl(ACE_TString(name != nullptr ? name : ""), args)
                           : static_cast<int>(QFI_E_INVALID);
    if (result != nullptr) {
      *result = status;
    }
    if (output != nullptr) {
      *output = strdup(objctlOutput(args).c_str());
    }
    return QFI_SUCCESS;
  }

  // The output text of objctl: the output arguments as records of a list,
  // values as they are.
  static tstring objctlOutput(const CFiObjctlArgs& args) {
    tstring text = "<OBJCTL_ARG_LIST>";
    for (const CFiObjctlArgs::Arg& arg : args.outputs()) {
      text +=
          " <OBJCTL_OUTPUT arg=" + arg.name + " value=" + arg.value + " type=" + arg.type + " />";
    }
    return text + " </OBJCTL_ARG_LIST> ";
  }

 private:
  template <class Variant>
  static int withSession(int classic, qfi_splitnode** nodes, int count, Variant variant) {
    if (classic != QFI_E_SESSION) {
      return classic;
    }
    CFiSessionPtr session = SessionManagerSingleton::instance()->getSession();
    session->addNodes(nodes, count);
    return variant(session);
  }
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_CFIAPIEXPORT_H

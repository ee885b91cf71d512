// The smallest plug-in the framework allows: it claims the paths under
// /dev/tiny/ and traces each claim to its trace file.
#include <qzfi/pdk.h>

#include <cstring>

using namespace qzfi_pdk_4_4;

namespace {

class CTinyPlugin : public CFiPluginBase {
 public:
  CTinyPlugin() {
    setProviderName("tinyfi");
    CFiTraceLogPtr log(new CFiTraceLog());
    log->initialize(getProviderName(), "", "", QZFI_TRACE_INFO, false);
    registerTraceLog(log);
  }

  int claim(qzfi_objid* id, qzfi_objid*** subobjs, int* count) override {
    CFiPluginBase::claim(id, subobjs, count);
    if (id == nullptr || id->name == nullptr) {
      return QFI_E_INVALID;
    }
    bool mine = std::strncmp(id->name, kPrefix, sizeof kPrefix - 1) == 0;
    m_traceLog->trace(QZFI_TRACE_INFO, "CTinyPlugin::claim %s %s", id->name,
                      mine ? "claimed" : "not claimed");
    return mine ? QFI_CLAIMED : QFI_SUCCESS;
  }

 private:
  static constexpr char kPrefix[] = "/dev/tiny/";
};

}  // namespace

extern "C" {

__attribute__((visibility("default"))) extern const char cfi_pgn_name_str[] = "tinyfi";

__attribute__((visibility("default"))) int tinyfi_fi_pgn_claim(qzfi_objid* id,
                                                               qzfi_objid*** subobjs, int* count) {
  static CTinyPlugin plugin;
  return plugin.claim(id, subobjs, count);
}
}

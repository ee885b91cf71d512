// Provider state: the node private data saved into the framework's blob and
// restored from it.
#include "door.h"
#include "qzvm_plugin.h"

using qzvmfi_report::reportingExceptions;

int CQzVMPlugin::processProviderState(qfi_domain* node, qfi_blob* blob, qfi_op_providerstate op) {
  QZ_PLUGIN_SCOPE("processProviderState");
  if (node == nullptr) {
    // Without a trace log the check answers success: the framework then has
    // nothing to report it to either.
    if (!m_traceLog) {
      return 0;
    }
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::processProviderState invalid input");
    return 3;
  }
  return reportingExceptions(
      {"processProviderState", kQzVMPluginSource, __LINE__},
      [&] {
        int result = 3;
        if (op == QFI_PS_RESTORE) {
          result = restoreProviderState(node, blob);
        } else if (op == QFI_PS_SAVE) {
          result = saveProviderState(node, blob);
        } else {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::processProviderState not valid providerstate operation");
        }
        if (result != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::processProviderState blob null or private data invalid");
        }
        return result;
      },
      [this](bool) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::processProviderState failed");
        return 6;
      });
}

// A blob that names what no command may carry, whose counts run past its
// end, or that is another object's (another group's) is refused whole: the
// node keeps nothing of it.
int CQzVMPlugin::restoreProviderState(qfi_domain* node, qfi_blob* blob) {
  if (int refused = refuseProviderState(node, blob)) {
    return refused;
  }
  CQzVMData* data = GetPrivateData(node);
  if (data == nullptr) {
    data = createPrivateData(node, 0);
  }
  if (data == nullptr) {
    return 3;
  }
  data->extractFromBlob(blob);
  return 0;
}

// The blob is read into private data of its own first, which the door
// checks: 0, or 3 once the refusal is reported.
int CQzVMPlugin::refuseProviderState(qfi_domain* node, qfi_blob* blob) {
  if (blob == nullptr || blob->data == nullptr) {
    return 0;
  }
  CQzVMData staged(node->objid, false);
  // The node's own reading traces what the blob holds.
  staged.registerTraceLog(qzfi_pdk_4_4::CFiTraceLogPtr());
  const bool brokeOff = staged.extractFromBlob(blob) == 1;
  qzvmfi_door::SRefusal refusal = qzvmfi_door::checkProviderState(staged, m_support, brokeOff);
  if (!refusal) {
    refusal = qzvmfi_door::checkStateObject(staged, objectPathOf(node));
  }
  return refusal ? qzvmfi_door::refuse(m_traceLog, "processProviderState", refusal) : 0;
}

// A node without private data has nothing to save: the blob stays as it was.
int CQzVMPlugin::saveProviderState(qfi_domain* node, qfi_blob* blob) {
  CQzVMData* data = GetPrivateData(node);
  if (blob == nullptr) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMPlugin::processProviderState - invalid input. provider state blob null.");
    return 3;
  }
  if (data == nullptr) {
    return 0;
  }
  return data->createBlob(blob);
}

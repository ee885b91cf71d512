// The source host's flows: whether the plug-in claims an object, the node
// prepared before the split, the deport after it, and access off and on.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "flows.h"

namespace qzfi_host {

namespace {}  // namespace

int CFlows::claim() {
  m_report.begin("claim " + m_options.path);
  startPlugin();
  qzfi_objid* object = qzfi_get_objid(
      m_options.path.c_str(), static_cast<int>(m_options.path.size() + 1), QZFI_OBJID_SUBOBJ);
  qzfi_objid** secondary = nullptr;
  int count = 0;
  StepOutcome outcome =
      runStep("claim", [&] { return m_plugin->call().claim(object, &secondary, &count); });
  qzfi_free_objid(object);
  const int status = outcome.status;
  if (status != QFI_CLAIMED && status != QFI_SUCCESS) {
    finishStep(std::move(outcome), false,
               "the plug-in could not tell (status " + std::to_string(status) + ")");
  }
  const bool claimed = status == QFI_CLAIMED;
  const std::string answer = (claimed ? "claimed by " : "not claimed by ") + m_plugin->name();
  finishStep(std::move(outcome), true, m_options.path + " " + answer);
  m_report.answer("claimed", claimed, m_options.path + ": " + answer);
  return m_report.finish(claimed ? kExitDone : kExitNotClaimed);
}

int CFlows::prepare() {
  // The new record is created whole and locked, in one step, at the end; a
  // symbolic link to nothing is refused before anything runs.
  CSnapshotRecord::checkWritable(m_options.record, true);
  realRecordFile(m_options.record);
  m_report.begin("prepare " + m_options.path + " (record " + m_options.record + ")");
  startPlugin();
  CNode& node = newNode(NodeRole::source, m_options.path);

  qzfi_objid** secondary = nullptr;
  int count = 0;
  StepOutcome claimed =
      runStep("claim", [&] { return m_plugin->call().claim(node.objid(), &secondary, &count); });
  const bool isClaimed = claimed.status == QFI_CLAIMED;
  finishStep(std::move(claimed), isClaimed,
             isClaimed ? "claimed " + m_options.path
                       : m_options.path + " is not claimed by " + m_plugin->name());

  requireSuccess(
      "initNode",
      [&] { return m_plugin->call().initNode(node.domain(), nullptr, 0, node.objid()); },
      "node of " + m_options.path + " initialised",
      "the node of " + m_options.path + " could not be initialised");

  std::vector<std::string> subObjects;
  StepOutcome listed = runStep("subobjList", [&] { return node.subObjects(subObjects); });
  const bool listedOk = listed.status == 0 && !subObjects.empty();
  finishStep(std::move(listed), listedOk,
             listedOk ? std::to_string(subObjects.size()) + " sub-objects: " + joined(subObjects)
                      : "the node has no sub-objects");

  struct stat device {};
  if (stat(m_options.path.c_str(), &device) != 0) {
    throw Failure{kExitFailed,
                  "the device node " + m_options.path + " cannot be examined: " + strerror(errno)};
  }

  CSnapshotRecord record;
  record.plugin = m_plugin->name();
  record.object = m_options.path;
  record.step = RecordStep::prepared;
  record.ownerUid = device.st_uid;
  record.ownerGid = device.st_gid;
  record.subObjects = subObjects;
  // The source's host: deport and access run here.
  record.sourceHost = thisHost();
  record.state = saveNode(node, "provider state");
  saveRecord(record,
             "claimed and initialised; owner " + std::to_string(device.st_uid) + ":" +
                 std::to_string(device.st_gid) + "; sub-objects " + joined(subObjects),
             true);
  return m_report.finish(kExitDone);
}

int CFlows::deport() {
  CSnapshotRecord record = loadRecord({RecordStep::prepared});
  m_report.begin("deport " + record.object + " (record " + m_options.record + ")");
  startPlugin();
  CNode& node = recordNode(NodeRole::source, record.object, record.state, "provider state");

  qfi_accessnode access{};
  access.node = node.domain();
  access.objid = node.objid();
  access.disposition = QFI_DISP_NONE;
  StepOutcome deported = runStep(
      "deportTree", [&] { return m_plugin->call().deportTree(node.domain(), nullptr, &access); });
  const std::string named = node.accessObject();
  const int status = deported.status;
  finishStep(std::move(deported), status == 0,
             status == 0
                 ? "configuration kept; deported object " + (named.empty() ? "-" : named)
                 : "the configuration could not be kept (status " + std::to_string(status) + ")");

  requireSuccess(
      "postDeport", [&] { return m_plugin->call().postDeport(node.domain(), nullptr); },
      "disks rescanned", "the disks could not be rescanned");

  record.state = saveNode(node, "provider state");
  record.deportedObject = named;
  record.step = RecordStep::deported;
  saveRecord(record, "configuration kept after the split; deported object " + named, false);
  return m_report.finish(kExitDone);
}

int CFlows::access() {
  CSnapshotRecord record =
      loadRecord({RecordStep::prepared, RecordStep::deported, RecordStep::imported,
                  RecordStep::moved, RecordStep::released});
  const bool on = m_options.accessOn;
  if (record.sourceAccess == on) {
    throw Failure{kExitRecord, "access to " + record.object + " is " + (on ? "on" : "off") +
                                   " already (record " + m_options.record +
                                   "); nothing was changed"};
  }
  m_report.begin(std::string("access ") + (on ? "on " : "off ") + record.object + " (record " +
                 m_options.record + ")");
  startPlugin();
  CNode& node = recordNode(NodeRole::source, record.object, record.state, "provider state");
  CNodeSubobjList list(node, record.subObjects);
  if (on) {
    requireSuccess(
        "enableAccess", [&] { return m_plugin->call().enableAccess(list.get(), 0, 0, 0); },
        record.object + " back in use on this host", record.object + " could not be brought back");
  } else {
    requireSuccess(
        "disableAccess",
        [&] { return m_plugin->call().disableAccess(list.get(), m_options.accessFlags); },
        record.object + " taken out of use on this host",
        record.object + " could not be taken out of use");
  }
  record.sourceAccess = on;
  saveRecord(record, on ? "access on" : "access off", false);
  return m_report.finish(kExitDone);
}

}  // namespace qzfi_host

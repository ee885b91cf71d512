// The alternate host's flows: the copy imported or built on the split disks,
// moved on intact to another host, and released when the backup is done.
#include <sys/stat.h>

#include <set>

#include "flows.h"
#include "host_tools.h"

namespace qzfi_host {

namespace {

std::string ownerText(long long uid, long long gid) {
  return std::to_string(uid) + ":" + std::to_string(gid);
}

// The owner of a device node as "uid:gid", or "missing".
std::string ownerOf(const std::string& path) {
  struct stat device {};
  if (stat(path.c_str(), &device) != 0) {
    return "missing";
  }
  return ownerText(device.st_uid, device.st_gid);
}

bool deviceExists(const std::string& path) {
  struct stat device {};
  return stat(path.c_str(), &device) == 0;
}

// The disks that exist on this host.
std::vector<std::string> presentDisks(const std::vector<std::string>& disks) {
  std::vector<std::string> present;
  for (const std::string& disk : disks) {
    if (deviceExists(disk)) {
      present.push_back(disk);
    }
  }
  return present;
}

// What a failed import did to the split disks that were there before it:
// an import or build that fails once they were shown to be the copies takes
// them out of the host's view (the volume manager's and the operating
// system's), and only a rescan of the host's disks brings them back. Empty
// when none went.
std::string disksTakenAway(const std::vector<std::string>& before) {
  std::vector<std::string> gone;
  for (const std::string& disk : before) {
    if (!deviceExists(disk)) {
      gone.push_back(disk);
    }
  }
  if (gone.empty()) {
    return std::string();
  }
  return "; the plug-in took the split disks " + joined(gone) +
         " out of this host's view when the import failed: a rescan of the host's disks brings "
         "them back (echo \"- - -\" > /sys/class/scsi_host/HOST/scan for each SCSI host), then "
         "run import again";
}

}  // namespace

void CFlows::proveCopyHere(const CSnapshotRecord& record) {
  if (m_hostProven) {
    return;
  }
  const std::string group = groupOfVolumePath(record.alternate.object);
  bool imported = false;
  std::vector<std::string> bare, grouped, missing;
  std::string unreadable;
  StepOutcome outcome = runStep("copyOnThisHost", [&] {
    std::vector<std::string> lines;
    const int listed = runTool("/usr/sbin/qzdg list", lines);
    if (listed != 0) {
      unreadable = "qzdg list failed (status " + std::to_string(listed) + ")";
      return listed;
    }
    for (size_t i = 1; i < lines.size(); ++i) {
      imported = imported || firstWord(lines[i]) == group;
    }
    if (imported) {
      return 0;
    }
    for (const std::string& disk : record.alternate.secondary) {
      if (!plainName(disk) || runTool("/usr/sbin/qzdisk list " + disk, lines) != 0) {
        missing.push_back(disk);
        continue;
      }
      const std::string on = groupOnDisk(lines);
      if (on.empty()) {
        bare.push_back(disk);
      } else {
        grouped.push_back(disk + " (group " + on + ")");
      }
    }
    return 0;
  });
  if (!unreadable.empty()) {
    finishStep(std::move(outcome), false,
               "what this host holds of the copy " + group + " could not be read: " + unreadable +
                   "; nothing was changed");
  }
  if (imported) {
    finishStep(std::move(outcome), true,
               "the copy's group " + group + " is imported on this host " + m_host.name);
    return;
  }
  if (missing.empty() && grouped.empty()) {
    finishStep(std::move(outcome), true,
               "the copy's group " + group + " is gone: its disks " + joined(bare, ", ") +
                   " are on this host and carry no group");
    return;
  }
  std::string found;
  if (!missing.empty()) {
    found += "; its disks " + joined(missing, ", ") + " are not here";
  }
  if (!grouped.empty()) {
    found += std::string(missing.empty() ? "; its disks " : "; and ") + joined(grouped, ", ") +
             " carry another group here";
  }
  const std::string importer = m_recordedHost.known() ? hostText(m_recordedHost)
                                                      : std::string("the record does not name it");
  const std::string why = "the copy " + group + " is not imported on this host " +
                          hostText(m_host) + found + ": release it on the host that imported it (" +
                          importer + "); nothing was changed (record " + m_options.record + ")";
  outcome.ok = false;
  outcome.detail = why;
  m_report.step(std::move(outcome));
  throw Failure{kExitRecord, why};
}

void CFlows::checkSecondaryDisks(const CSnapshotRecord& record) const {
  const std::vector<std::string>& given = m_options.secondary;
  if (given.size() != record.subObjects.size()) {
    throw Failure{kExitRecord,
                  "the record " + m_options.record + " has " +
                      std::to_string(record.subObjects.size()) + " sub-objects (" +
                      joined(record.subObjects) + ") but " + std::to_string(given.size()) +
                      " secondary disks were given: give one split disk per sub-object, in the "
                      "same order; nothing was changed"};
  }
  std::set<std::string> seen;
  for (const std::string& disk : given) {
    if (!seen.insert(disk).second) {
      throw Failure{kExitUsage, "the secondary disk " + disk +
                                    " is given twice: each sub-object has its own split disk"};
    }
  }
}

std::string CFlows::ownerOfDevices(const CSnapshotRecord& record, const std::string& block) {
  const std::string raw = rawDevicePath(block);
  const std::string source = ownerText(record.ownerUid, record.ownerGid);
  const std::string blockOwner = ownerOf(block);
  const std::string rawOwner = raw == block ? blockOwner : ownerOf(raw);
  m_report.result("owner", {{"block", blockOwner}, {"raw", rawOwner}, {"source", source}});
  if (blockOwner == source && rawOwner == source) {
    return "owner " + source + " on " + block + (raw == block ? "" : " and " + raw) +
           ", as the source's";
  }
  return "owner " + blockOwner + " on " + block +
         (raw == block ? "" : ", " + rawOwner + " on " + raw) + "; the source's is " + source;
}

int CFlows::importCopy() {
  CSnapshotRecord record = loadRecord({RecordStep::deported, RecordStep::moved});
  checkSecondaryDisks(record);
  const bool intact = record.step == RecordStep::moved;
  m_report.begin("import " + record.object + " on " + joined(m_options.secondary) + " (record " +
                 m_options.record + ")");
  startPlugin();
  CNode& node = recordNode(NodeRole::source, record.object, record.state, "provider state");

  CObjidList primary(record.subObjects);
  CObjidList secondary(m_options.secondary);
  CObjidOutput out;
  const std::vector<std::string> presentBefore = presentDisks(m_options.secondary);
  StepOutcome imported = runStep("importTreeNode", [&] {
    return m_plugin->call().importTreeNode(node.domain(), primary.get(), secondary.get(),
                                           primary.count(), out.get());
  });
  const std::string copy = out.first();
  const int status = imported.status;
  // The copy stands even when its device nodes could not be given the
  // source's owner: it goes into the record, so that release finds it.
  const bool ownerFailed = status == QFI_E_SETOWNER && !copy.empty();
  const bool built = (status == 0 && !copy.empty()) || ownerFailed;
  const std::string how =
      intact ? "the intact group imported: " : "a group built on the split disks: ";
  if (!built) {
    finishStep(std::move(imported), false,
               "no copy of " + record.object + " (status " + std::to_string(status) + ")" +
                   disksTakenAway(presentBefore));
  }
  imported.ok = !ownerFailed;
  imported.detail = how + copy + (ownerFailed ? "; its owner could not be set (status 1091)" : "");
  m_report.step(std::move(imported));

  CNode& alternate = newNode(NodeRole::copy, copy);
  requireSuccess(
      "initAltNode",
      [&] {
        return m_plugin->call().initAltNode(node.domain(), nullptr, alternate.domain(), false);
      },
      "alternate node of " + copy + " initialised",
      "the alternate node of " + copy +
          " could not be initialised (the plug-in takes the new "
          "group away)");
  std::vector<std::string> copyDisks;
  StepOutcome listed = runStep("subobjList", [&] { return alternate.subObjects(copyDisks); });
  const int listStatus = listed.status;
  finishStep(std::move(listed), listStatus == 0,
             listStatus == 0 ? std::to_string(copyDisks.size()) +
                                   " sub-objects of the copy: " + joined(copyDisks)
                             : "the copy's sub-objects could not be listed (status " +
                                   std::to_string(listStatus) + ")");

  const ProviderState nodeState = saveNode(node, "provider state");
  const ProviderState copyState = saveNode(alternate, "provider state of the copy");
  const std::string owner = ownerOfDevices(record, copy);

  if (record.hasAlternate) {
    record.earlierCopies.push_back(record.alternate);
  }
  record.hasAlternate = true;
  // The host that imported the copy holds it: move and release run there.
  record.alternate = {copy, m_options.secondary, copyState, thisHost()};
  record.state = nodeState;
  record.step = RecordStep::imported;
  saveRecord(record, how + copy + " on " + joined(m_options.secondary) + "; " + owner, false);

  const std::string device = m_options.raw ? rawDevicePath(copy) : copy;
  m_report.result("owner_check", owner, owner);
  m_report.result("block_device", copy);
  m_report.result("raw_device", rawDevicePath(copy));
  m_report.answer("device", device, device);
  if (ownerFailed) {
    return m_report.finish(kExitFailed, "the copy " + copy +
                                            " was made but its device nodes' owner could not "
                                            "be set; it is in the record: release it when done");
  }
  return m_report.finish(kExitDone);
}

int CFlows::move() {
  CSnapshotRecord record = loadRecord({RecordStep::imported});
  const std::string copy = record.alternate.object;
  m_report.begin("move " + copy + " (record " + m_options.record + ")");
  startPlugin();
  CNode& node = recordNode(NodeRole::source, record.object, record.state, "provider state");
  CNode& alternate =
      recordNode(NodeRole::copy, copy, record.alternate.state, "provider state of the copy");

  qfi_accessnode access{};
  access.node = alternate.domain();
  access.objid = alternate.objid();
  access.disposition = QFI_DISP_DEPORT;
  requireSuccess(
      "deportTree",
      [&] { return m_plugin->call().deportTree(node.domain(), alternate.domain(), &access); },
      "the group of " + copy + " deported intact, its disks out of this host's view",
      "the group of " + copy + " could not be deported");

  record.state = saveNode(node, "provider state");
  record.step = RecordStep::moved;
  saveRecord(record, "the group of " + copy + " deported intact, to be imported elsewhere", false);
  return m_report.finish(kExitDone);
}

int CFlows::release() {
  CSnapshotRecord record = loadRecord({RecordStep::imported});
  const std::string copy = record.alternate.object;
  const auto disposition = static_cast<qfi_disposition>(m_options.disposition);
  m_report.begin("release " + copy + " (record " + m_options.record + ", disposition " +
                 std::to_string(m_options.disposition) + ")");
  proveCopyHere(record);
  startPlugin();
  CNode& node = recordNode(NodeRole::source, record.object, record.state, "provider state");
  CNode& alternate =
      recordNode(NodeRole::copy, copy, record.alternate.state, "provider state of the copy");

  requireSuccess(
      "online",
      [&] { return m_plugin->call().online(node.domain(), alternate.domain(), 2, disposition); },
      copy + " taken offline", copy + " could not be taken offline");

  qfi_splitnode target{};
  target.node = alternate.domain();
  target.objid = alternate.objid();
  target.disposition = disposition;
  const bool deletes = disposition == QFI_DISP_DELETE;
  requireSuccess(
      "dispose",
      [&] {
        return m_plugin->call().dispose(node.domain(), alternate.domain(), &target, disposition);
      },
      deletes ? copy + " deleted: its group destroyed, its disks out of this host's view"
              : "nothing deleted (disposition " + std::to_string(disposition) + ")",
      copy + " could not be disposed of");
  if (!deletes) {
    CNodeSubobjList list(alternate, record.alternate.secondary);
    requireSuccess(
        "disableAccess", [&] { return m_plugin->call().disableAccess(list.get(), 0); },
        "the group of " + copy + " deported, its disks out of this host's view",
        "the group of " + copy + " could not be deported");
  }

  record.step = RecordStep::released;
  saveRecord(record,
             copy + (deletes ? " deleted" : " deported, kept on its disks") + " (disposition " +
                 std::to_string(disposition) + ")",
             false);
  return m_report.finish(kExitDone);
}

}  // namespace qzfi_host

// Resource formatting and onlining: plain disks turned into a volume of the
// volume manager and back.
#include "osutil.h"
#include "qzvm_plugin.h"

using qzfi_pdk_4_4::CFiFormatOptionList;
using qzfi_pdk_4_4::CFiStringTool;
using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;
using Names = std::vector<std::string>;

namespace {

// The disks stay visible to this host: no waiting, no refresh.
const int kPersistentDisks = 0x200;
// format: bring an existing volume on the disks online; make a fresh group
// and volume on them.
const int kOnlineExisting = 0x2;
const int kCreateFresh = 0x1;

const char kDefaultVolume[] = "ssod_vol";
const char kBlanks[] = " \n\t\r";

// A disk as the framework names it, without blanks around it and without
// its device folder.
std::string osDiskName(const char* disk) {
  std::string name = disk;
  CFiStringTool::trim(name, kBlanks);
  CFiQzVMUtil::removeDevPrefix(name);
  return name;
}

// The OS disks of a framework array; false at a null entry.
bool osDiskList(char** disks, int count, Names& osDisks) {
  for (int i = 0; i < count; ++i) {
    if (disks[i] == nullptr) {
      return false;
    }
    std::string name = disks[i];
    CFiQzVMUtil::removeDevPrefix(name);
    osDisks.push_back(name);
  }
  return true;
}

}  // namespace

int CQzVMPlugin::isParentPgn(char* disk, int* isParent, int flags) {
  QZ_PLUGIN_SCOPE("isParentPgn");
  QZ_TRACE(m_traceLog, 6, "isParentPgn - flag = [%x]", static_cast<unsigned>(flags));
  if (disk == nullptr || isParent == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::isParentPgn - invalid inputs.");
    return 3;
  }
  std::string trimmed = disk;
  CFiStringTool::trim(trimmed, kBlanks);
  if (trimmed.find("/dev/") != 0) {
    QZ_TRACE(m_traceLog, 3, "'%s' is not a disk.", trimmed.c_str());
    *isParent = 0;
    return 0;
  }
  if ((flags & kPersistentDisks) != 0) {
    QZ_TRACE(m_traceLog, 3,
             "Disk is persistently available to the host. Calling optimized QzVM operations.");
    return isParentPgnOptimized(disk, isParent, flags);
  }
  const std::string name = osDiskName(disk);
  return reportingExceptions({"isParentPgn", kQzVMPluginSource, __LINE__}, 6, [&] {
    QZ_TRACE(m_traceLog, 3,
             "Disk is newly imported to the host. Calling detailed QzVM operations.");
    // What the volume manager knew of the disk may be stale: it looks again.
    Names nodes;
    m_support.getQzVMDiskForOSDiskHandler_Waited({name}, nodes);
    m_support.refreshDisks(nodes);
    nodes.clear();
    if (m_support.getQzVMDiskForOSDiskHandler_Waited({name}, nodes) != 0 || nodes.empty()) {
      *isParent = 0;
      QZ_TRACE(m_traceLog, 2, "Unable to get dmp disk name for os disks.");
      return 0;
    }
    if (m_support.isDisksInQzVMDB(nodes, false) != 0) {
      QZ_TRACE(m_traceLog, 2, "Disk failed to come in qzvm db.");
      return 6;
    }
    bool isQzVM = false;
    if (int status = m_support.isQzVMDisk(name, nodes.front(), isQzVM, true)) {
      QZ_TRACE(m_traceLog, 2, "check disk for qzvm or other lvm.");
      return status;
    }
    *isParent = isQzVM ? 1 : 0;
    // A disk that is not the volume manager's leaves its view again.
    if (!isQzVM) {
      m_support.removeDisksFromQzVM(nodes, false);
    }
    return 0;
  });
}

// Disks that stayed visible need no refresh, and nothing leaves the volume
// manager's view.
int CQzVMPlugin::isParentPgnOptimized(char* disk, int* isParent, int /*flags*/) {
  QZ_PLUGIN_SCOPE("isParentPgnOptimized");
  if (disk == nullptr || isParent == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::isParentPgn - invalid inputs.");
    return 3;
  }
  const std::string name = osDiskName(disk);
  return reportingExceptions({"isParentPgnOptimized", kQzVMPluginSource, __LINE__}, 6, [&] {
    QZ_TRACE(m_traceLog, 3,
             "Disk is persistently available to the host. Getting DMP node directly.");
    Names nodes;
    const int found = m_support.getQzVMDiskForOSDiskHandler({name}, nodes);
    QZ_TRACE(m_traceLog, 3, "Skiping device refresh as disks are not newly inported.");
    if (found != 0 || nodes.empty()) {
      *isParent = 0;
      QZ_TRACE(m_traceLog, 2, "isParentPgnOptimized - Unable to get dmp disk name for os disks.");
      return 0;
    }
    if (m_support.isDisksInQzVMDB(nodes, true) != 0) {
      *isParent = 0;
      QZ_TRACE(m_traceLog, 2, "Disk failed to come under qzvm database.");
      return 6;
    }
    bool isQzVM = false;
    if (int status = m_support.isQzVMDisk(name, nodes.front(), isQzVM, false)) {
      *isParent = 0;
      QZ_TRACE(m_traceLog, 2, "check disk for qzvm or other lvm.");
      return status;
    }
    *isParent = isQzVM ? 1 : 0;
    return 0;
  });
}

// Whether the disks carry the volume manager is asked of the first disk:
// the disks of one call are taken to be of one group, and the answer stands
// for each of them. It is asked once, since the first deletion takes that
// disk away.
int CQzVMPlugin::unformat(char** disks, int count, int flags) {
  QZ_PLUGIN_SCOPE("unformat");
  Names osDisks;
  if (disks == nullptr || count <= 0 || !osDiskList(disks, count, osDisks)) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::onlineResource - invalid input.");
    return 3;
  }
  return reportingExceptions({"unformat", kQzVMPluginSource, __LINE__}, 6, [&] {
    const bool persistent = (flags & kPersistentDisks) != 0;
    Names nodes;
    int status = 0;
    if (persistent) {
      QZ_TRACE(m_traceLog, 3,
               "Disk is persistently available to the host. Getting DMP node directly.");
      QZ_TRACE(m_traceLog, 3, "Skiping device refresh as disks are not newly imported.");
      status = m_support.getQzVMDiskForOSDiskHandler(osDisks, nodes);
    } else {
      status = m_support.getQzVMDiskForOSDiskHandler_Waited(osDisks, nodes);
    }
    if (status != 0) {
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::unformat - getQzVMDiskForOSDiskHandler(_Waited)() failed");
      return 6;
    }
    if (!persistent) {
      m_support.refreshDisks(nodes);
    }
    bool isQzVM = false;
    if (!nodes.empty()) {
      if (int checked = m_support.isQzVMDisk(osDisks.front(), nodes.front(), isQzVM, true)) {
        return checked;
      }
    }
    for (size_t i = 0; i < nodes.size(); ++i) {
      const std::string& node = nodes[i];
      // The first disk was just read and found in its group.
      if (isQzVM && (i == 0 ? m_support.deleteQzVMDisk(node) : deleteLaterDisk(node)) != 0) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::unformat - deleteQzVMDisk() failed");
        return 6;
      }
      // An unformat stopped after it destroyed the group (its process
      // killed) leaves the disks it had not cleared yet with a private
      // region and no group; the first disk may be plain already.
      if (!isQzVM && leftWithoutGroup(node) && clearPrivateRegion(node) != 0) {
        return 6;
      }
    }
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::unformat - successful.");
    return 0;
  });
}

// The deletion of the group's first disk destroys the group on all its
// disks: the others then keep only their private regions, which go.
int CQzVMPlugin::deleteLaterDisk(const std::string& node) {
  std::string dgid;
  std::string dgName;
  if (m_support.dgIdNameOnDisk(node, dgid, dgName) != 0 || !dgid.empty()) {
    return m_support.deleteQzVMDisk(node);
  }
  QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::unformat - disk '%s' is in no disk group any more.",
           node.c_str());
  return clearPrivateRegion(node);
}

int CQzVMPlugin::clearPrivateRegion(const std::string& node) {
  if (m_support.qzDiskUnsetup(node) || m_support.removeDisksFromQzVM({node}, false) != 0) {
    return 6;
  }
  return 0;
}

bool CQzVMPlugin::leftWithoutGroup(const std::string& node) {
  std::vector<vol_pvt_info> records;
  if (m_support.getVolPrivInfo({node}, records) != 0 || records.empty()) {
    return false;
  }
  const vol_pvt_info& record = records.front();
  return record.vpi_dgid.empty() && !record.vpi_format.empty() && record.vpi_format != "none";
}

int CQzVMPlugin::onlineResource(char** disks, int count, char* /*a*/, char* /*b*/, char* /*c*/,
                                char* /*d*/, int flags, char*** paths, int* pathCount) {
  QZ_PLUGIN_SCOPE("onlineResource");
  QZ_TRACE(m_traceLog, 6, "onlineResource - flags = [%d]", flags);
  Names osDisks;
  if (disks == nullptr || count <= 0 || paths == nullptr || pathCount == nullptr ||
      !osDiskList(disks, count, osDisks)) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::onlineResource - invalid input.");
    return 3;
  }
  return reportingExceptions(
      {"onlineResource", kQzVMPluginSource, __LINE__},
      [&] {
        if ((flags & kPersistentDisks) != 0) {
          return onlinePersistentResource(osDisks, paths, pathCount);
        }
        QZ_TRACE(m_traceLog, 3,
                 "onlineResource - Disk is newly imported to the host. Calling detailed QzVM "
                 "operations.");
        Names nodes;
        if (m_support.getQzVMDiskForOSDiskHandler_Waited(osDisks, nodes) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMEngine::onlineResource - unable to get dmp disk name for os disks.");
          return 6;
        }
        std::string dg;
        std::string volume;
        if (m_support.regenerateQzVMFromDisk(nodes, dg, volume) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMEngine::onlineResource - unable to recreate qzvm dg and volume from "
                   "given disk.");
          return 6;
        }
        if (m_support.startDCOVols(dg, {volume}, "") != 0) {
          QZ_TRACE(m_traceLog, 1, "CQzVMEngine::onlineResource - unable to start qzvm dg '%s'.",
                   dg.c_str());
          return 6;
        }
        if (createPathAndAllocBuffer(dg, volume, paths, pathCount) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::onlineResource - Failed to allocate memory for new device.");
          return 6;
        }
        QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::onlineResource - successful.");
        return 0;
      },
      [this](bool reported) {
        if (reported) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::onlineResource - failed.");
        }
        return 6;
      });
}

int CQzVMPlugin::onlinePersistentResource(const Names& osDisks, char*** paths, int* pathCount) {
  QZ_TRACE(m_traceLog, 3,
           "onlineResource - Disk is persistently available to the host. Calling optimized QzVM "
           "operations.");
  Names found;
  if (onlineResourceOptimized(osDisks, found) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::onlineResource - Optimized onlining of stack failed.");
    return 6;
  }
  if (found.empty()) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMPlugin::onlineResource - Optimized onlining of stack did not return any valid "
             "device.");
    return 6;
  }
  if (allocBuffer(found.front(), paths, pathCount) != 0) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMPlugin::onlineResource - Failed to allocate memory for new device.");
    return 6;
  }
  QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::onlineResource - successful.");
  return 0;
}

int CQzVMPlugin::onlineResourceOptimized(Names osDisks, Names& paths) {
  QZ_PLUGIN_SCOPE("onlineResourceOptimized");
  return reportingExceptions(
      {"onlineResourceOptimized", kQzVMPluginSource, __LINE__},
      [&] {
        Names nodes;
        if (m_support.getQzVMDiskForOSDiskHandler(osDisks, nodes) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "onlineResourceOptimized - unable to get dmp disk name for os disks.");
          return 6;
        }
        std::string dg;
        std::string volume;
        if (m_support.regenerateQzVMFromDisk(nodes, dg, volume) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "onlineResourceOptimized - unable to find qzvm dg and volume from given disk.");
          return 6;
        }
        if (m_support.startDCOVols(dg, {volume}, "") != 0) {
          QZ_TRACE(m_traceLog, 1, "onlineResourceOptimized - unable to start qzvm dg '%s'.",
                   dg.c_str());
          return 6;
        }
        CFiStringTool::trim(dg, kBlanks);
        CFiStringTool::trim(volume, kBlanks);
        paths.push_back(std::string("/dev/qz/dsk") + "/" + dg + "/" + volume);
        QZ_TRACE(m_traceLog, 3, "onlineResourceOptimized - successful.");
        return 0;
      },
      [this](bool) {
        QZ_TRACE(m_traceLog, 1,
                 "CQzVMPlugin::onlineResourceOptimized - Exception occured in "
                 "onlineResourceOptimized.");
        return 6;
      });
}

// The first text argument names the volume; the "diskGroup" option names
// the group. The second text argument has no use here.
int CQzVMPlugin::format(char** disks, int count, char* name, char* /*type*/, char* options,
                        int flags, char*** paths, int* pathCount) {
  QZ_PLUGIN_SCOPE("format");
  if (disks == nullptr || count <= 0 || paths == nullptr || pathCount == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - invalid inputs.");
    return 3;
  }
  Names osDisks;
  if (!osDiskList(disks, count, osDisks)) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - invalid input.");
    return 3;
  }
  return reportingExceptions(
      {"format", kQzVMPluginSource, __LINE__},
      [&] {
        std::string dg;
        if (options != nullptr && diskGroupOption(options, dg) != 0) {
          return 3;
        }
        if (dg.empty()) {
          QZ_TRACE(m_traceLog, 3,
                   "CQzVMPlugin::format diskgroup name not specified. creating own dgName.");
        }
        std::string volume = name != nullptr ? name : "";
        if ((flags & kOnlineExisting) != 0 &&
            m_support.ssodOnlineVolume(dg, volume, osDisks) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::format - unable to bring dg '%s' and volume '%s' online on "
                   "disks.",
                   dg.c_str(), volume.c_str());
          return 6;
        }
        if ((flags & kCreateFresh) != 0 && createFreshVolume(dg, volume, osDisks) != 0) {
          return 6;
        }
        if (createPathAndAllocBuffer(dg, volume, paths, pathCount) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::format - unable to create path for dg '%s' and volume '%s'.",
                   dg.c_str(), volume.c_str());
          return 6;
        }
        QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::format - successful.");
        return 0;
      },
      [this](bool reported) {
        if (reported) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - failed.");
        }
        return 6;
      });
}

// Option text that cannot be read is refused: taking it for no options
// would make a group under a name of the plug-in's choosing.
int CQzVMPlugin::diskGroupOption(const char* options, std::string& dg) {
  CFiFormatOptionList list;
  if (list.parse(options) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - unable to read the format options '%s'.",
             options);
    pushError("MSG_ERROR_INVALID_FORMAT_OPTIONS", {"format", options}, kQzVMPluginSource, __LINE__);
    return 3;
  }
  list.getOption("diskGroup", dg);
  return 0;
}

// A group of its own name, or of a name that no group has yet, with one
// volume over all the disks.
int CQzVMPlugin::createFreshVolume(std::string& dg, std::string& volume, const Names& osDisks) {
  if (volume.empty()) {
    volume = kDefaultVolume;
  }
  if (dg.empty()) {
    m_support.getNewDGName(dg);
  } else {
    Names groups;
    bool volumeMade = false;
    if (m_support.getAllDGNames(groups) != 0) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - unable to get unique dg name.");
      return 6;
    }
    if (!isUniqueInVector(groups, dg)) {
      if (!leftByStoppedFormat(dg, volume, osDisks, volumeMade)) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::format - unable to get unique dg name.");
        return 6;
      }
      if (volumeMade) {
        return m_support.isVolStarted(dg, volume) ? 0 : m_support.startDCOVols(dg, {volume}, "");
      }
      QZ_TRACE(m_traceLog, 2,
               "CQzVMPlugin::format - dg '%s' was left without its volume by a format that "
               "stopped; making it again.",
               dg.c_str());
      if (m_support.destroyDG(dg, false) != 0) {
        return 6;
      }
    }
  }
  if (m_support.createNewVolumeOnOSDisks(dg, volume, osDisks) != 0) {
    QZ_TRACE(m_traceLog, 1,
             "CQzVMPlugin::format - unable to create fresh dg '%s' and volume '%s' on disks.",
             dg.c_str(), volume.c_str());
    // No group had the name before: what was made of the group holds no
    // data yet and is destroyed, so that the disks are free for the next
    // attempt.
    m_support.destroyDG(dg, true);
    return 6;
  }
  return 0;
}

bool CQzVMPlugin::leftByStoppedFormat(const std::string& dg, const std::string& volume,
                                      const Names& osDisks, bool& volumeMade) {
  Names members;
  Names nodes;
  if (m_support.getDisksForDG(dg.c_str(), members) != 0 || members.empty() ||
      m_support.getQzVMDiskForOSDiskHandler(osDisks, nodes) != 0 ||
      !checkVectorMatch(members, nodes, false)) {
    return false;
  }
  // A group without volumes cannot be listed: it holds none.
  Names volumes;
  m_support.getVolumesFromDG(dg, volumes, false);
  if (volumes.size() > 1 ||
      (volumes.size() == 1 && (volumes.front() != volume || members.size() != nodes.size()))) {
    return false;
  }
  volumeMade = volumes.size() == 1;
  return true;
}

// A group or volume without a name has no device path.
int CQzVMPlugin::createPathAndAllocBuffer(const std::string& dg, const std::string& volume,
                                          char*** paths, int* count) {
  QZ_PLUGIN_SCOPE("createPathAndAllocBuffer");
  if (dg.empty() || volume.empty()) {
    return 3;
  }
  return allocBuffer(std::string("/dev/qz/dsk") + "/" + dg + "/" + volume, paths, count);
}

// A one-entry array of the framework's allocator, null terminated.
int CQzVMPlugin::allocBuffer(const std::string& path, char*** paths, int* count) {
  QZ_PLUGIN_SCOPE("allocBuffer");
  char** list = CFiStringTool::tstrduplist({path});
  if (list == nullptr) {
    return 5;
  }
  *paths = list;
  *count = 1;
  return 0;
}

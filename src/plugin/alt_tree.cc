// Alternate tree construction: the copied volume rebuilt or imported on the
// split disks, where they appear.
#include <cstring>
#include <memory>
#include <new>

#include "osutil.h"
#include "qzvm_plugin.h"

using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;
using Names = std::vector<std::string>;

namespace {

// The status of a copy whose device nodes could not be given the primary
// volume's owner: the copy itself stands.
const int kOwnerNotSet = 1091;

// Split disks that do not pair with the primaries are refused (3) before
// any of them is changed; any other failure of the engine is 6.
int refusedOr6(int engineStatus) {
  return engineStatus == 3 ? 3 : 6;
}

// A disk path of the framework without its device folder.
std::string diskName(const qzfi_objid* id) {
  std::string name = id->name != nullptr ? id->name : "";
  CFiQzVMUtil::removeDevPrefix(name);
  return name;
}

}  // namespace

// The trace texts of one operation that gives a new volume the primary
// volume's owner, and its status when the raw path cannot be made.
struct CQzVMPlugin::OwnerTexts {
  const char* blockCall;  // path, uid, gid
  const char* convert;    // path
  const char* rawCall;    // path, uid, gid
  const char* failed;     // path
  const char* noMemory;
  int noMemoryStatus;
};

const CQzVMPlugin::OwnerTexts CQzVMPlugin::kBuildOwnerTexts = {
    "Calling setOwnerIds for [%s] with UID=[%ld] and GID=[%ld]",
    "CQzVMPlugin::buildAltTree calling convertBlockToRaw for %s",
    "Calling setOwnerIds for [%s] with UID=[%ld] and GID=[%ld]",
    "CQzVMPlugin::buildAltTree setOwnerIds call failed for %s",
    "CQzVMPlugin::buildAltTree memory allocation failed",
    5,
};

const CQzVMPlugin::OwnerTexts CQzVMPlugin::kImportOwnerTexts = {
    "CQzVMPlugin::importTreeNode - Calling setOwnerIds on [%s] with UID=[%ld] and GID=[%ld]",
    "CQzVMPlugin::importTreeNode calling convertBlockToRaw for %s",
    "CQzVMPlugin::importTreeNode - Calling setOwnerIds for [%s] with UID=[%ld] and GID=[%ld]",
    "CQzVMPlugin::importTreeNode setOwnerIds call failed for %s",
    "CQzVMPlugin::importTreeNode memory allocation failed for target",
    kOwnerNotSet,
};

// The alternate node is the new volume: a node of this plug-in, with the
// copy's disks as its sub-objects. Without them the new group is taken away
// again.
int CQzVMPlugin::initAltNode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode, bool flag) {
  QZ_PLUGIN_SCOPE("initAltNode");
  if (altNode == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::initAltNode invalid inputs.");
    return 3;
  }
  QZ_TRACE(m_traceLog, 6, "CQzVMPlugin:: initAltNode called for target %s",
           objectPathOf(altNode).c_str());
  return reportingExceptions(
      {"initAltNode", kQzVMPluginSource, __LINE__},
      [&] {
        CQzVMData* data = createPrivateData(altNode, 1);
        if (data != nullptr) {
          data->init(node, parent, altNode, flag);
        }
        writeNodeRecord(altNode, altNode->objid);
        if (AddSubObjects(altNode, data) != 0) {
          deportAndDestroyDG(altNode);
          return 6;
        }
        return 0;
      },
      [&](bool) {
        deportAndDestroyDG(altNode);
        return 6;
      });
}

int CQzVMPlugin::buildAltTree(qfi_domain* node, char* /*splitType*/, qzfi_objid** primary,
                              qzfi_objid** secondary, int count, qzfi_objid** out) {
  QZ_PLUGIN_SCOPE("buildAltTree");
  if (out == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::buildAltTree - invalid inputs.");
    pushError("MSG_ERROR_NO_OBJECT_TO_RECREATE_STORAGE_STACK", {}, kQzVMPluginSource, __LINE__);
    return 3;
  }
  const std::string path = objectPathOf(node);
  return reportingExceptions({"buildAltTree", kQzVMPluginSource, __LINE__}, 6, [&] {
    std::string dgName;
    std::string vol;
    m_support.extractDGAndVol(path, dgName, vol);
    QZ_ASSERT(dgName.length() && vol.length(), kQzVMPluginSource);
    CQzVMData* data = GetPrivateData(node);
    if (count < 1 || primary == nullptr || primary[0] == nullptr) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::buildAltTree - invalid input.");
      return 3;
    }
    Names vecPriDisks;
    for (int i = 0; i < count && primary[i] != nullptr; ++i) {
      if (data == nullptr) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::buildAltTree - null private data.");
        return 6;
      }
      QZ_TRACE(m_traceLog, 3,
               "CQzVMPlugin::buildAltTree - Calling CFiQzVMUtil::removeDevPrefix for [%s].",
               primary[i]->name != nullptr ? primary[i]->name : "");
      const std::string disk = diskName(primary[i]);
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::buildAltTree - Calling getDiskDMPMap for [%s].",
               disk.c_str());
      std::string dmp;
      data->getDiskDMPMap(disk, dmp);
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::buildAltTree - got DMP as [%s] for [%s].", dmp.c_str(),
               disk.c_str());
      vecPriDisks.push_back(dmp);
    }
    Names vecPriDMs;
    if (m_support.getDMsFromDG(dgName, vecPriDisks, vecPriDMs) != 0) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::buildAltTree - unable to get dm for disk name.");
      pushError("MSG_ERROR_UNABLE_TO_GET_DMNAME_FROM_DG", {}, kQzVMPluginSource, __LINE__);
      return 6;
    }
    QZ_ASSERT(vecPriDisks.size() == vecPriDMs.size(), kQzVMPluginSource);
    Names secondaryDisks;
    for (int i = 0; secondary != nullptr && i < count && secondary[i] != nullptr; ++i) {
      secondaryDisks.push_back(diskName(secondary[i]));
    }
    std::string newDG;
    m_support.getNewDGName(dgName, newDG);
    if (m_engine->setQzVMConfigInPD(path, data) != 0) {
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::buildAltTree - unable to get qzdg's configuration for object=%s.",
               path.c_str());
      return 6;
    }
    if (int status = m_engine->buildAltTree(out, newDG, secondaryDisks, path, data, vecPriDisks,
                                            vecPriDMs)) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::buildAltTree - building alternate tree failed.");
      return refusedOr6(status);
    }
    if (int status = giveOwnerOfPrimary(*out, data, kBuildOwnerTexts)) {
      return status;
    }
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::buildAltTree - successful.");
    return 0;
  });
}

// An intact group that deportTree left deported is imported by its id;
// otherwise a group is built on the split disks from the recorded
// configuration. Either way under a new name.
int CQzVMPlugin::importTreeNode(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary,
                                int count, qzfi_objid** out) {
  QZ_PLUGIN_SCOPE("importTreeNode");
  // Without an output list the new volume could not be handed back.
  if (count < 1 || out == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::importTreeNode - invalid input");
    pushError("MSG_ERROR_NO_OBJECT_TO_RECREATE_STORAGE_STACK", {}, kQzVMPluginSource, __LINE__, 2);
    return 3;
  }
  if (primary == nullptr || secondary == nullptr || primary[0] == nullptr ||
      secondary[0] == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::importTreeNode - invalid input.");
    return 3;
  }
  return reportingExceptions({"importTreeNode", kQzVMPluginSource, __LINE__}, 6, [&] {
    Names secondaryDisks;
    Names primaryDisks;
    for (int i = 0; i < count && primary[i] != nullptr && secondary[i] != nullptr; ++i) {
      const std::string aStr = diskName(secondary[i]);
      const std::string pStr = diskName(primary[i]);
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::aStr=[%s], pStr=[%s]", aStr.c_str(), pStr.c_str());
      secondaryDisks.push_back(aStr);
      primaryDisks.push_back(pStr);
    }
    CQzVMData* data = GetPrivateData(node);
    if (data == nullptr) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::importTreeNode  got null provider state.");
      return 3;
    }
    std::string volumePath = data->getAltVol();
    std::string newDG;
    if (!volumePath.empty()) {
      std::string dg;
      std::string volume;
      m_support.extractDGAndVol(volumePath, dg, volume);
      m_support.getNewDGName(dg, newDG);
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::importTreeNode volPath=[%s] set, getting newDGName=[%s]",
               volumePath.c_str(), newDG.c_str());
    } else {
      volumePath = objectPathOf(node);
      m_support.getNewDGName(newDG);
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::importTreeNode volPath  not set, getting unique newDGName=[%s]",
               newDG.c_str());
    }
    Names primaryNodes;
    for (const std::string& disk : primaryDisks) {
      QZ_TRACE(m_traceLog, 6,
               "CQzVMPlugin::importTreeNode - Getting primary DMP information for [%s]",
               disk.c_str());
      std::string dmp;
      data->getDiskDMPMap(disk, dmp);
      QZ_TRACE(m_traceLog, 6, "CQzVMPlugin::importTreeNode - Got primary DMP information as [%s]",
               dmp.c_str());
      primaryNodes.push_back(dmp);
    }
    if (data->getDeported() == 1) {
      if (int status =
              m_engine->importQzVM(out, newDG, primaryNodes, secondaryDisks, volumePath, data)) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::importTreeNode - qzvm import failed.");
        return refusedOr6(status);
      }
      // The new group keeps the recorded disk-media names.
    } else if (int status = m_engine->buildAltTree(out, newDG, secondaryDisks, volumePath, data,
                                                   primaryNodes, Names())) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::importTreeNode - qzvm import [ buildalttree ] failed.");
      return refusedOr6(status);
    }
    return giveOwnerOfPrimary(*out, data, kImportOwnerTexts);
  });
}

// The new volume's block device, and its raw device beside it, get the
// owner that the primary volume's device node had. A failure leaves the new
// objects in place.
int CQzVMPlugin::giveOwnerOfPrimary(const qzfi_objid* made, CQzVMData* data,
                                    const OwnerTexts& texts) {
  if (made == nullptr || made->name == nullptr) {
    QZ_TRACE(m_traceLog, 1, texts.failed, "");
    return kOwnerNotSet;
  }
  const char* path = made->name;
  const long uid = static_cast<long>(data->getOwnerUid());
  const long gid = static_cast<long>(data->getOwnerGid());
  QZ_TRACE(m_traceLog, 3, texts.blockCall, path, uid, gid);
  if (setOwnerIds(path, uid, gid) != 0) {
    QZ_TRACE(m_traceLog, 3, texts.failed, path);
    return kOwnerNotSet;
  }
  if (std::string(path).compare(0, 11, "/dev/qz/dsk") != 0) {
    return 0;
  }
  // One more byte for the letter of the raw folder, one for the terminator.
  std::unique_ptr<char[]> raw(new (std::nothrow) char[std::strlen(path) + 2]);
  if (!raw) {
    QZ_TRACE(m_traceLog, 1, "%s", texts.noMemory);
    return texts.noMemoryStatus;
  }
  QZ_TRACE(m_traceLog, 3, texts.convert, path);
  convertBlockToRaw(path, raw.get());
  QZ_TRACE(m_traceLog, 3, texts.rawCall, raw.get(), uid, gid);
  if (setOwnerIds(raw.get(), uid, gid) != 0) {
    QZ_TRACE(m_traceLog, 3, texts.failed, raw.get());
    return kOwnerNotSet;
  }
  return 0;
}

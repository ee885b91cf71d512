// Claim and node discovery: which objects are the volume manager's, whether
// they still exist, and the nodes and sub-objects made of them.
#include <sys/stat.h>

#include "osutil.h"
#include "qzvm_plugin.h"

using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;
using Names = std::vector<std::string>;

namespace {

// The type word of a node that this plug-in has initialised.
const uint32_t kQzVMNodeType = 0x1002;

}  // namespace

std::string CQzVMPlugin::objectPathOf(const qfi_domain* node) {
  if (node == nullptr || node->objid == nullptr || node->objid->name == nullptr) {
    return std::string();
  }
  return node->objid->name;
}

void CQzVMPlugin::writeNodeRecord(qfi_domain* node, const qzfi_objid* object) {
  node->type = kQzVMNodeType;
  node->name = object != nullptr ? object->name : nullptr;
  node->state = 0;
  node->stamp = 0;
}

CQzVMData* CQzVMPlugin::createPrivateData(qfi_domain* node, int flag) {
  if (!getPrivateDataManager()) {
    return nullptr;
  }
  auto* data = dynamic_cast<CQzVMData*>(getPrivateDataManager()->create(node, flag));
  if (data != nullptr) {
    data->registerTraceLog(m_traceLog);
  }
  return data;
}

int CQzVMPlugin::claim(qzfi_objid* object, qzfi_objid*** /*secondaryObjects*/,
                       int* secondaryCount) {
  QZ_PLUGIN_SCOPE("claim");
  if (object == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::claim invalid input");
    return 3;
  }
  // Never any secondary objects: the list is left as it is.
  if (secondaryCount != nullptr) {
    *secondaryCount = 0;
  }
  const std::string path = object->name != nullptr ? object->name : "";
  return reportingExceptions({"claim", kQzVMPluginSource, __LINE__}, 6, [&] {
    if (!m_support.isValidZOLKPath(path)) {
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::claim not valid path for ZOLK volumes.  object='%s'",
               path.c_str());
      return 0;
    }
    if (!m_support.isVolume(path) && !m_support.isVSet(path)) {
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::claim not a volume or volume set. object='%s'",
               path.c_str());
      return 0;
    }
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::claimed as secondary object= %s", path.c_str());
    return 1;
  });
}

int CQzVMPlugin::checkNodeExistence(qfi_domain* node, int* exists) {
  QZ_PLUGIN_SCOPE("checkNodeExistence");
  if (node == nullptr || node->objid == nullptr || exists == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::checkNodeExistence invalid input");
    return 3;
  }
  const std::string path = objectPathOf(node);
  return reportingExceptions(
      {"checkNodeExistence", kQzVMPluginSource, __LINE__},
      [&] {
        // A deported disk group shows neither: the node is then gone.
        *exists = m_support.isVolume(path) || m_support.isVSet(path) ? 1 : 0;
        return 0;
      },
      [this](bool reported) {
        if (reported) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::checkNodeExistence failed");
        }
        return 6;
      });
}

// The framework names the object both in the node and as an argument; the
// argument is the one that is initialised.
int CQzVMPlugin::initNode(qfi_domain* node, qfi_domain** parents, int parentCount,
                          qzfi_objid* object) {
  QZ_PLUGIN_SCOPE("initNode");
  if (node == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::initNode invalid input");
    return 3;
  }
  const qzfi_objid* named = object != nullptr ? object : node->objid;
  const std::string path = named != nullptr && named->name != nullptr ? named->name : "";
  return reportingExceptions({"initNode", kQzVMPluginSource, __LINE__}, 6, [&] {
    CQzVMData* data = createPrivateData(node, 0);
    if (data != nullptr) {
      data->init(node, parents, parentCount, object);
    }
    writeNodeRecord(node, named);
    if (m_engine->getQzVMObjects(path, data) != 0) {
      QZ_TRACE(m_traceLog, 1,
               " CQzVMPlugin::initNode - unable to get volumes or volume sets from object=%s",
               path.c_str());
      pushError("MSG_ERROR_CANNOT_OBTAIN_OBJECTS_IN_DISKGROUP", {"initNode", path},
                kQzVMPluginSource, __LINE__);
      QZ_TRACE(m_traceLog, 1, " CQzVMPlugin::initNode - could not initialize the node");
      return 6;
    }
    // Neither result stops the node: each operation has traced its failure.
    m_engine->setQzVMConfigInPD(path, data);
    AddSubObjects(node, data);
    struct stat device {};
    if (stat(path.c_str(), &device) == -1) {
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::initNode stat call failed for %s", path.c_str());
      return 18;
    }
    data->setOwnerUidGid(device.st_uid, device.st_gid);
    QZ_TRACE(m_traceLog, 3, " CQzVMPlugin::initNode - successful.");
    return 0;
  });
}

// A long-lived host (the agent) frees a record's nodes once its part is
// done. The listings cached for them name that record's disks and groups,
// which a later record does not meet again: kept, they would grow with
// every backup until the caches' cap. Emptying them costs a later command
// tool runs only.
int CQzVMPlugin::deInitNode(qfi_domain* node) {
  const int result = CFiPluginBase::deInitNode(node);
  if (getPrivateDataManager() && getPrivateDataManager()->size() == 0) {
    m_support.clearCaches();
    m_engine->forgetListings();
  }
  return result;
}

int CQzVMPlugin::AddSubObjects(qfi_domain* node, CQzVMData* data) {
  QZ_PLUGIN_SCOPE("AddSubObjects");
  if (node == nullptr || data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::AddSubObjects - invalid input.");
    return 3;
  }
  const std::string path = objectPathOf(node);
  // The node's sub-objects are the disks found now: a node initialised
  // again does not list its disks twice.
  clearSubObjects(node);
  return reportingExceptions(
      {"AddSubObjects", kQzVMPluginSource, __LINE__},
      [&] {
        Names dmpNodes;
        if (m_support.getDisksForVolume(path, dmpNodes) != 0) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::AddSubObjects - Error in getting disks for volume");
          return 6;
        }
        Names osDisks;
        if (m_support.getOSDiskHandleForQzVMDisk(dmpNodes, osDisks, false, false) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::AddSubObjects -   unable to convert dmp disk to os namespace. "
                   "object=%s",
                   path.c_str());
          return 6;
        }
        QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::AddSubObjects - number of subobjects = %d",
                 static_cast<int>(osDisks.size()));
        for (const std::string& osDisk : osDisks) {
          const std::string device = CFiQzVMUtil::makeCompleteDevName(osDisk);
          addSubObject(node,
                       qzfi_get_objid(device.c_str(), static_cast<int>(device.size() + 1), 3));
        }
        if (storeDiskDMPMapInPrivateData(node, osDisks, dmpNodes) != 0) {
          QZ_TRACE(m_traceLog, 1,
                   "CQzVMPlugin::AddSubObjects - failed to store disk, dmp mapping in private "
                   "data.");
          return 6;
        }
        QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::AddSubObjects - successful.");
        return 0;
      },
      [this](bool reported) {
        if (reported) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::AddSubObjects - failed.");
        }
        return 6;
      });
}

// Bounded by the first list: the second is never shorter.
int CQzVMPlugin::storeDiskDMPMapInPrivateData(qfi_domain* node, const Names& osDisks,
                                              const Names& dmpNodes) {
  QZ_PLUGIN_SCOPE("storeDiskDMPMapInPrivateData");
  CQzVMData* data = GetPrivateData(node);
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::storeDiskDMPMapInPrivateData - null private data.");
    return 6;
  }
  for (size_t i = 0; i < osDisks.size(); ++i) {
    QZ_TRACE(m_traceLog, 6,
             "CQzVMPlugin::storeDiskDMPMapInPrivateData - Setting primary DMP data as [%s] for "
             "[%s].",
             dmpNodes[i].c_str(), osDisks[i].c_str());
    data->setDiskDMPMap(osDisks[i], dmpNodes[i]);
  }
  return 0;
}

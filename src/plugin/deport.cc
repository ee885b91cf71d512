// Deport, access and disposition: disk groups released and taken back as the
// framework moves split disks between hosts, and the copies disposed of.
#include "osutil.h"
#include "qzvm_plugin.h"

using qzvmfi_report::pushError;
using qzvmfi_report::reportingExceptions;
using Names = std::vector<std::string>;

namespace {

// Bits of disableAccess's flags: a single-site off-host split whose disks
// are about to be masked, and disks that stay visible to this host.
const long kDisksToBeMasked = 0x8000;
const long kDisksStayVisible = 0x400;

// Severity of the failures that the framework may work around.
const int kWarning = 2;

const int kDeleteSnapshot = 1;

// The status of a group or disk that the evidence does not show to be the
// copy: nothing was changed.
const int kNotTheCopy = 3;

// The copy proven, or its group gone from this host: what may go on.
bool provenOrGone(int proof) {
  return proof == CQzVMEngine::kCopyProven || proof == CQzVMEngine::kCopyAbsent;
}

// A copy's node records its disks but no configuration of its own: the
// configuration is the source's.
bool isCopyNode(const CQzVMData& data) {
  return data.hasRecordedDisks() && data.dgConfigLines().empty();
}

}  // namespace

// Unless the access says otherwise, nothing is deported: the copy's
// configuration is kept so that another host can build the group again.
int CQzVMPlugin::deportTree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access) {
  QZ_PLUGIN_SCOPE("deportTree");
  if (node == nullptr || node->objid == nullptr || access == nullptr) {
    return noObjectToDeport(3);
  }
  const std::string path = objectPathOf(node);
  return reportingExceptions({"deportTree", kQzVMPluginSource, __LINE__}, 6, [&] {
    CQzVMData* data = GetPrivateData(node);
    if (data == nullptr) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::deportTree no providerdata available for object %s",
               path.c_str());
      return 3;
    }
    if (node->access == nullptr) {
      return noObjectToDeport(3);
    }
    // A node kept across operations is deported again (its copy moved on,
    // then moved again): the id of the earlier deport is replaced. It is the
    // framework's, which may still hold it, and the framework frees it.
    node->access->objid = qzfi_get_objid(path.c_str(), static_cast<int>(path.size() + 1), 3);
    if (node->access->objid == nullptr) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::deportTree - Bad allocation for objid.");
      return 5;
    }
    if (access->disposition == 0) {
      if (keepConfiguration(path, data) != 0) {
        return 6;
      }
      QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::deportTree - successful with none disposition.");
      return 0;
    }
    if (altNode == nullptr) {
      if (keepConfiguration(path, data) != 0) {
        return 6;
      }
      QZ_TRACE(m_traceLog, 3,
               "CQzVMPlugin::deportTree - successful with null alternate node and "
               "disposition=%d.",
               access->disposition);
      return 0;
    }
    if (altNode->objid == nullptr) {
      return noObjectToDeport(kWarning);
    }
    const std::string altPath = objectPathOf(altNode);
    const int proof =
        m_engine->proveRecordedCopy("deportTree", altPath, path, data, GetPrivateData(altNode));
    if (!provenOrGone(proof)) {
      return proof;
    }
    data->setAltVol(altPath);
    if (m_support.deportDGAndRemoveDisks(altPath, true, false) != 0) {
      QZ_TRACE(m_traceLog, 1, "deportDGAndRemoveDisks() failed");
      return 6;
    }
    data->setDeported(1);
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::deportTree successful");
    return 0;
  });
}

int CQzVMPlugin::noObjectToDeport(int severity) {
  QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::deportTree invalid inputs");
  pushError("MSG_ERROR_NO_OBJECT_TO_DEPORT", {}, kQzVMPluginSource, __LINE__, severity);
  return 3;
}

// The configuration is recorded, and the node's own object named as the
// one whose group another host is to build.
int CQzVMPlugin::keepConfiguration(const std::string& path, CQzVMData* data) {
  if (m_engine->setQzVMConfigInPD(path, data) != 0) {
    QZ_TRACE(m_traceLog, 3,
             "CQzVMPlugin::deportTree - unable to get qzdg's configuration for object=%s.",
             path.c_str());
    return 6;
  }
  data->setAltVol(path);
  return 0;
}

// A failure stops the walk: earlier entries stay deported, later ones are
// not touched.
int CQzVMPlugin::disableAccess(qfi_node_subobj_list* list, long flags) {
  QZ_PLUGIN_SCOPE("disableAccess");
  QZ_TRACE(m_traceLog, 6, "disableAccess - flags = [%ld]", flags);
  return reportingExceptions({"disableAccess", kQzVMPluginSource, __LINE__}, 6, [&] {
    for (qfi_node_subobj_list* entry = list; entry != nullptr; entry = entry->next) {
      if (entry->node == nullptr || entry->node->objid == nullptr) {
        break;
      }
      const std::string path = objectPathOf(entry->node);
      std::string dg;
      std::string volume;
      m_support.extractDGAndVol(path, dg, volume);
      CQzVMData* data = GetPrivateData(entry->node);
      if (data == nullptr) {
        QZ_TRACE(m_traceLog, 3, "Got null provider state.");
        return 0;
      }
      if (!data->hasRecordedDisks()) {
        // The volume was not split from disks of this plug-in: its group
        // only goes, whatever the flags.
        if (entry->node->related != nullptr) {
          GetPrivateData(entry->node->related);
        }
        if (m_support.deportDG(dg, true)) {
          QZ_TRACE(m_traceLog, 1, "Deport of diskgroup failed. dg=%s volume=%s", dg.c_str(),
                   volume.c_str());
          pushError("MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", {"disableAccess", path},
                    kQzVMPluginSource, __LINE__, kWarning);
          return 6;
        }
      } else if (const int proof = isCopyNode(*data) ? m_engine->proveRecordedCopy(
                                                           "disableAccess", path, "", nullptr, data)
                                                     : CQzVMEngine::kCopyProven;
                 !provenOrGone(proof)) {
        return proof;
      } else if ((flags & kDisksToBeMasked) != 0) {
        if ((flags & kDisksStayVisible) != 0) {
          QZ_TRACE(m_traceLog, 3,
                   "Disk is persistently available to the host. Calling optimized QzVM disable "
                   "operations");
          return disableAccessOptimize(dg, volume);
        }
        QZ_TRACE(m_traceLog, 3, "Offline of volume for ssod with disk to be masked.");
        if (m_support.offlineVolume(dg, volume, nullptr) != 0) {
          pushError("MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", {"disableAccess", path},
                    kQzVMPluginSource, __LINE__, kWarning);
          return 6;
        }
        if (deportAndRemoveDisks(path) != 0) {
          return 6;
        }
      } else if ((flags & kDisksStayVisible) != 0) {
        if (m_support.deportDG(dg, true)) {
          QZ_TRACE(m_traceLog, 1, "deportDG() failed");
          return 6;
        }
      } else if (deportAndRemoveDisks(path) != 0) {
        return 6;
      }
    }
    return 0;
  });
}

int CQzVMPlugin::deportAndRemoveDisks(const std::string& path) {
  if (m_support.deportDGAndRemoveDisks(path, true, false) != 0) {
    QZ_TRACE(m_traceLog, 1, "deportDGAndRemoveDisks() failed");
    return 6;
  }
  return 0;
}

// The disks stay in the volume manager's view: only the group goes.
int CQzVMPlugin::disableAccessOptimize(const std::string& diskGroup, const std::string& volume) {
  QZ_PLUGIN_SCOPE("disableAccessOptimize");
  return reportingExceptions({"disableAccessOptimize", kQzVMPluginSource, __LINE__}, 6, [&] {
    if (m_support.offlineVolume(diskGroup, volume, nullptr) != 0) {
      pushError("MSG_ERROR_UNABLE_TO_OFFLINE_VOLUME_FOR_DISKGROUP",
                {"disableAccessOptimize", diskGroup, volume}, kQzVMPluginSource, __LINE__,
                kWarning);
      return 6;
    }
    if (!m_support.isDGPresent(diskGroup)) {
      QZ_TRACE(m_traceLog, 3, "diskgroup [%s] is already deported.", diskGroup.c_str());
      return 0;
    }
    if (m_support.deportDG(diskGroup, false)) {
      QZ_TRACE(m_traceLog, 1, "disableAccessOptimize failed to deport disk group [%s].",
               diskGroup.c_str());
      pushError("MSG_ERROR_UNABLE_TO_DEPORT_DISKGROUP", {"disableAccessOptimize", diskGroup},
                kQzVMPluginSource, __LINE__);
      return 6;
    }
    return 0;
  });
}

// A failure stops the walk: earlier entries stay enabled, later ones are not
// touched. The device nodes get back the owner recorded when the node was
// initialised. A failed re-creation undoes nothing: what it made of the
// group is found again by the next call, which goes on from there.
int CQzVMPlugin::enableAccess(qfi_node_subobj_list* list, long /*flags*/, int /*reserved*/,
                              int options) {
  QZ_PLUGIN_SCOPE("enableAccess");
  if ((options & 1) != 0 || list == nullptr) {
    return 0;
  }
  return reportingExceptions({"enableAccess", kQzVMPluginSource, __LINE__}, 6, [&] {
    for (qfi_node_subobj_list* entry = list; entry != nullptr; entry = entry->next) {
      if (entry->node == nullptr || entry->node->objid == nullptr) {
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::enableAccess invalid input");
        return 3;
      }
      const int status = enableEntry(*entry);
      if (status != 0) {
        // A node without provider state ends the walk with success.
        return status < 0 ? 0 : status;
      }
    }
    return 0;
  });
}

// 0, or the failure status of enableAccess; -1 when the node has no
// provider state.
int CQzVMPlugin::enableEntry(const qfi_node_subobj_list& entry) {
  qfi_domain* node = entry.node;
  std::string path = objectPathOf(node);
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  CQzVMData* data = GetPrivateData(node);
  if (data == nullptr) {
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::enableAccess  got null provider state.");
    return -1;
  }
  const long uid = data->getOwnerUid();
  const long gid = data->getOwnerGid();
  if (!data->hasRecordedDisks()) {
    // The volume was not split from disks of this plug-in: its group is
    // imported again under its own name.
    if (node->related != nullptr) {
      data = GetPrivateData(node->related);
      path = objectPathOf(node->related);
    }
    if (m_support.isDGPresent(dg)) {
      QZ_TRACE(m_traceLog, 3,
               "CQzVMPlugin::enableAccess dg '%s' is already deported. Not importing again",
               dg.c_str());
    } else if (m_support.importDG("", dg)) {
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::enableAccess import of diskgroup failed. dg=%s volume=%s", dg.c_str(),
               volume.c_str());
      return 6;
    }
    if (onlineVolume(node, objectPathOf(node), data) != 0) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::enableAccess online of volume failed. dg=%s volume=%s",
               dg.c_str(), volume.c_str());
      return 6;
    }
  } else {
    Names restoredDisks;
    for (int i = 0; i < entry.nsubobjs && entry.subobjs != nullptr; ++i) {
      if (entry.subobjs[i] == nullptr || entry.subobjs[i]->name == nullptr) {
        continue;
      }
      std::string disk = entry.subobjs[i]->name;
      CFiQzVMUtil::removeDevPrefix(disk);
      restoredDisks.push_back(disk);
    }
    const int recreated = m_engine->recreateDG(path, restoredDisks, data);
    if (recreated == kNotTheCopy) {
      return kNotTheCopy;
    }
    if (recreated != 0) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::enableAccess recreate dg on restored disks failed.");
      pushError("MSG_ERROR_UNABLE_TO_CREATE_DISKGROUP", {}, kQzVMPluginSource, __LINE__);
      return 6;
    }
  }
  QZ_TRACE(m_traceLog, 3,
           "CQzVMPlugin::enableAccess - Calling setOwnerIds on [%s] with UID=[%ld] and GID=[%ld]",
           path.c_str(), uid, gid);
  if (setOwnerIds(path.c_str(), uid, gid) != 0) {
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::enableAccess setOwnerIds call failed for %s",
             path.c_str());
  }
  return 0;
}

// A group that is deported but cannot be destroyed is left so, and said so:
// that is not a failure.
int CQzVMPlugin::deportAndDestroyDG(const qfi_domain* node) {
  QZ_PLUGIN_SCOPE("deportAndDestroyDG");
  if (node == nullptr || node->objid == nullptr || node->objid->name == nullptr) {
    return 0;
  }
  const std::string path = objectPathOf(node);
  return reportingExceptions({"deportAndDestroyDG", kQzVMPluginSource, __LINE__}, 6, [&] {
    std::string dg;
    std::string volume;
    m_support.extractDGAndVol(path, dg, volume);
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::deportAndDestroyDG - Deporting and Destroying DG - [%s]",
             dg.c_str());
    if (m_support.deportDGAndRemoveDisks(path, true, false) != 0) {
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::deportDGAndRemoveDisks() - failed to deport, please deport and "
               "destroy manually DG - [%s]",
               dg.c_str());
      return 6;
    }
    if (m_support.destroyDG(dg, true) != 0) {
      QZ_TRACE(m_traceLog, 1,
               "CQzVMPlugin::deportAndDestroyDG() - Deported the DG, but failed to destroy it, "
               "please destroy DG - [%s] manually",
               dg.c_str());
      return 0;
    }
    QZ_TRACE(m_traceLog, 1,
             "CQzVMPlugin::deportAndDestroyDG() - successfully deported & destroyed the DG - "
             "[%s].",
             dg.c_str());
    return 0;
  });
}

// The first deport of the plug-in's life has the volume manager look at its
// disks again; later ones find nothing new to see.
int CQzVMPlugin::postDeport(qfi_domain* /*node*/, qfi_domain* /*altNode*/) {
  QZ_PLUGIN_SCOPE("postDeport");
  if (m_rescanPending) {
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::postDeport - start' qzdisk scandisks'");
    reportingExceptions({"postDeport", kQzVMPluginSource, __LINE__}, 6,
                        [this] { return m_support.qzvmScanDisks(false); });
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::postDeport - scanning complete.");
    m_rescanPending = false;
  }
  return 0;
}

// Each of onlineVolume and offlineResource reports its own failure: online
// goes on to the disposition whatever they return.
int CQzVMPlugin::online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
                        qfi_disposition disposition) {
  QZ_PLUGIN_SCOPE("online");
  if (altNode == nullptr || altNode->objid == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::online - invalid input");
    return 3;
  }
  const std::string path = objectPathOf(altNode);
  return reportingExceptions({"online", kQzVMPluginSource, __LINE__}, 6, [&] {
    CQzVMData* data = GetPrivateData(node);
    // The volumes stopped are those of a copy that an import made (its
    // node records the copy's disks): never the source's.
    CQzVMData* copy = GetPrivateData(altNode);
    if (bringOnline != 1 && copy != nullptr && isCopyNode(*copy) &&
        m_engine->proveRecordedCopy("online", path, objectPathOf(node), data, copy, false) ==
            kNotTheCopy) {
      return kNotTheCopy;
    }
    if (bringOnline == 1) {
      onlineVolume(altNode, path, data);
    } else {
      offlineResource(altNode, path, data);
    }
    if (dispose(node, altNode, nullptr, disposition) != 0) {
      QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::online dispose failed");
      pushError("MSG_ERROR_UNABLE_APPLY_DISPOSITION",
                {"online", path, std::to_string(static_cast<int>(disposition))}, kQzVMPluginSource,
                __LINE__);
      return 6;
    }
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::online - successful");
    return 0;
  });
}

int CQzVMPlugin::onlineVolume(qfi_domain* /*node*/, const std::string& path, CQzVMData* data) {
  QZ_PLUGIN_SCOPE("onlineVolume");
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  if (m_engine->activeVol(dg, volume, data) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::onlineVolume - unable to online  object=%s",
             path.c_str());
    pushError("MSG_ERROR_UNABLE_TO_ONLINE_DEVICE", {"onlineVolume", path}, kQzVMPluginSource,
              __LINE__);
    return 6;
  }
  return 0;
}

int CQzVMPlugin::offlineResource(qfi_domain* /*node*/, const std::string& path, CQzVMData* data) {
  QZ_PLUGIN_SCOPE("offlineResource");
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  if (m_engine->deactiveVol(dg, volume, data) != 0) {
    QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::offlineResource - unable to offline  object=%s",
             path.c_str());
    pushError("MSG_ERROR_UNABLE_TO_OFFLINE_DEVICE", {"offlineResource", path}, kQzVMPluginSource,
              __LINE__);
    return 6;
  }
  return 0;
}

// Only a deletion is the plug-in's to do; every other disposition leaves the
// copy as it is.
int CQzVMPlugin::dispose(qfi_domain* node, qfi_domain* /*altNode*/, qfi_splitnode* target,
                         qfi_disposition disposition) {
  QZ_PLUGIN_SCOPE("dispose");
  if (target == nullptr) {
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::dispose - targetNode null.");
    return 0;
  }
  if (disposition != kDeleteSnapshot) {
    return 0;
  }
  if (target->objid == nullptr) {
    QZ_TRACE(m_traceLog, 3, "CQzVMPlugin::dispose - targetNode null.");
    return 3;
  }
  const std::string path = target->objid->name != nullptr ? target->objid->name : "";
  return reportingExceptions(
      {"dispose", kQzVMPluginSource, __LINE__},
      [&] {
        // A removal stopped after the destroy is finished from the disks
        // the copy recorded: the group that listed them is gone.
        CQzVMData* copy = target->node != nullptr ? GetPrivateData(target->node) : nullptr;
        CQzVMData* source = node != nullptr ? GetPrivateData(node) : nullptr;
        const int proof =
            m_engine->proveRecordedCopy("dispose", path, objectPathOf(node), source, copy);
        if (proof == kNotTheCopy) {
          return kNotTheCopy;
        }
        if (proof == CQzVMEngine::kCopyAbsent) {
          return disposeOfRemovedCopy(path, copy);
        }
        if (proof == CQzVMEngine::kCopyProven && m_support.removeSnapshot(path, true) == 0) {
          return 0;
        }
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::dispose - unable to dispose object =%s",
                 path.c_str());
        pushError("MSG_ERROR_UNABLE_TO_DELETE_OBJECT", {"dispose", path}, kQzVMPluginSource,
                  __LINE__);
        QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::dispose - failed");
        return 6;
      },
      [this](bool reported) {
        if (reported) {
          QZ_TRACE(m_traceLog, 1, "CQzVMPlugin::dispose - failed");
        }
        return 6;
      });
}

// The copy's group is gone (a release stopped after its destroy): the disks
// that the copy's node recorded are cleaned when none of them is in a group
// again; a recorded disk in a group is not the copy's any more, and then
// nothing is changed.
int CQzVMPlugin::disposeOfRemovedCopy(const std::string& path, const CQzVMData* copy) {
  QZ_TRACE(m_traceLog, 3, " snapshot dg of '%s' is already removed.", path.c_str());
  if (copy == nullptr) {
    return 0;
  }
  std::string disk;
  std::string group;
  if (m_support.removeDisksLeftByDestroy(copy->recordedNodes(), disk, group) == 0) {
    return 0;
  }
  std::string dg;
  std::string volume;
  m_support.extractDGAndVol(path, dg, volume);
  QZ_TRACE(m_traceLog, 1,
           "CQzVMPlugin::dispose - the disk %s that the copy recorded is in the disk group %s: "
           "not the copy's. Nothing was changed.",
           disk.c_str(), group.c_str());
  pushError("MSG_ERROR_NOT_THE_COPY",
            {"dispose", dg,
             "its group is gone and the disk " + disk +
                 " that the copy recorded is in the disk group " + group},
            kQzVMPluginSource, __LINE__);
  return kNotTheCopy;
}

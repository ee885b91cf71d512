// The plug-in base class: the base behaviour of every operation and the
// services the framework offers plug-ins.
#include "qzfi/pluginbase.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace qzfi_pdk_4_4 {

namespace {

const char kSource[] = "pluginbase";

// Empties an output the caller may leave null.
template <class T>
void clearOut(T* out) {
  if (out != nullptr) {
    *out = T();
  }
}

std::atomic<bool>& shuttingDown() {
  static std::atomic<bool> flag{false};
  return flag;
}

struct StatusText {
  int code;
  const char* text;
};

const StatusText kStatusTexts[] = {
    {QFI_SUCCESS, "Success"},
    {QFI_CLAIMED, "Object claimed, or a step of the operation failed"},
    {QFI_E_INVALID, "Invalid input"},
    {QFI_E_SESSION, "The operation asks for its session variant"},
    {QFI_E_NOMEM, "Out of memory, or a tool failed inside an engine step"},
    {QFI_E_FAILED, "Operation failed"},
    {QFI_E_NOVERSION, "No version record"},
    {QFI_E_STAT, "The device node could not be examined"},
    {QFI_E_INIT, "Initialisation failed"},
    {QFI_E_NOOBJID, "No object id could be made"},
    {QFI_E_SETOWNER, "The owner of the device node could not be set"},
};

const char kUnknownStatus[] = "Unknown status";

// A message rebuilt from a framework record: its identifier and its
// arguments as texts.
CFiIcuMessage messageOf(const qfi_msg_info& info) {
  std::vector<icu::Formattable> args;
  for (int32_t i = 0; info.args != nullptr && i < info.nargs; ++i) {
    const char* arg = info.args[i] != nullptr ? info.args[i] : "";
    args.emplace_back(CFiIcuMessage::textOfBytes(arg));
  }
  return CFiIcuMessage(info.id, args.data(), static_cast<int>(args.size()), info.severity,
                       info.source, info.line);
}

qzfi_objid* copyObjid(const qzfi_objid* id) {
  if (id == nullptr || id->name == nullptr) {
    return nullptr;
  }
  return qzfi_get_objid(id->name, static_cast<int>(std::strlen(id->name) + 1), id->kind);
}

}  // namespace

CFiPluginBase::CFiPluginBase() = default;

CFiPluginBase::~CFiPluginBase() {
  for (auto& entry : m_subObjects) {
    for (qzfi_objid* id : entry.second) {
      qzfi_free_objid(id);
    }
  }
}

// Slots in declaration order.

int CFiPluginBase::delayedInit() {
  return QFI_SUCCESS;
}

int CFiPluginBase::globalConfigInfoList(int, bool) {
  return QFI_SUCCESS;
}

int CFiPluginBase::init() {
  return QFI_SUCCESS;
}

int CFiPluginBase::fini() {
  return QFI_SUCCESS;
}

int CFiPluginBase::claim(qzfi_objid*, qzfi_objid*** subobjs, int* count) {
  clearOut(subobjs);
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::supportsFiType(qfi_domain*, char*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::deportTree(qfi_domain*, qfi_domain*, qfi_accessnode*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::importTreeNode(qfi_domain*, qzfi_objid**, qzfi_objid**, int, qzfi_objid** out) {
  clearOut(out);
  return QFI_SUCCESS;
}

int CFiPluginBase::initNode(qfi_domain*, qfi_domain**, int, qzfi_objid*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::config(qfi_domain*, int, char*, qfi_confspec*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::initAltNode(qfi_domain*, qfi_domain*, qfi_domain*, bool) {
  return QFI_SUCCESS;
}

int CFiPluginBase::reAccessTmpObj(qfi_domain*, qzfi_objid*, char*, qfi_domain*, char*, qfi_intent) {
  return QFI_SUCCESS;
}

int CFiPluginBase::reAccessAltNode(qfi_domain*, qzfi_objid*, qzfi_objid*, char*, qzfi_objid**,
                                   qzfi_objid**, int, qfi_intent) {
  return QFI_SUCCESS;
}

int CFiPluginBase::deInitNode(qfi_domain* node) {
  CFiTraceLogFunction scope(m_traceLog, "deInitNode", __LINE__, kSource);
  if (node == nullptr) {
    return QFI_E_INVALID;
  }
  if (m_privateDataManager) {
    m_privateDataManager->drop(node);
  }
  clearSubObjects(node);
  return QFI_SUCCESS;
}

int CFiPluginBase::dispose(qfi_domain*, qfi_domain*, qfi_splitnode*, qfi_disposition) {
  return QFI_SUCCESS;
}

int CFiPluginBase::online(qfi_domain*, qfi_domain*, int, qfi_disposition) {
  return QFI_SUCCESS;
}

int CFiPluginBase::subobjList(qfi_domain* node, qzfi_objid*** subobjs, int* count) {
  CFiTraceLogFunction scope(m_traceLog, "subobjList", __LINE__, kSource);
  if (node == nullptr || subobjs == nullptr || count == nullptr) {
    return QFI_E_INVALID;
  }
  *subobjs = nullptr;
  *count = 0;
  std::vector<qzfi_objid*> recorded = getSubObjects(node);
  if (recorded.empty()) {
    return QFI_SUCCESS;
  }
  // The framework owns what it is handed, so it gets copies: the recorded
  // ids stay the base's until the node is released.
  size_t size = recorded.size() * sizeof(qzfi_objid*);
  auto** list = static_cast<qzfi_objid**>(qzfi_alloc_buf(size));
  if (list == nullptr) {
    return QFI_E_NOMEM;
  }
  for (size_t i = 0; i < recorded.size(); ++i) {
    list[i] = copyObjid(recorded[i]);
    if (list[i] == nullptr) {
      for (size_t j = 0; j < i; ++j) {
        qzfi_free_objid(list[j]);
      }
      qzfi_free_buf(list, size);
      return QFI_E_NOOBJID;
    }
  }
  *subobjs = list;
  *count = static_cast<int>(recorded.size());
  return QFI_SUCCESS;
}

int CFiPluginBase::errMsg(int code, char const** text) {
  if (text == nullptr) {
    return QFI_E_INVALID;
  }
  *text = kUnknownStatus;
  for (const StatusText& entry : kStatusTexts) {
    if (entry.code == code) {
      *text = entry.text;
    }
  }
  return QFI_SUCCESS;
}

int CFiPluginBase::buildAltTree(qfi_domain*, char*, qzfi_objid**, qzfi_objid**, int,
                                qzfi_objid** out) {
  clearOut(out);
  return QFI_SUCCESS;
}

namespace {

// The base marks the nodes it is given, so that a framework can tell which
// were quiesced.
void markQuiesced(qfi_quiescenode** nodes, int count, int32_t state) {
  for (int i = 0; nodes != nullptr && i < count; ++i) {
    if (nodes[i] != nullptr) {
      nodes[i]->state = state;
    }
  }
}

}  // namespace

int CFiPluginBase::quiesce(qfi_quiescenode** nodes, int count, char*) {
  markQuiesced(nodes, count, 1);
  return QFI_SUCCESS;
}

int CFiPluginBase::unquiesce(qfi_quiescenode** nodes, int count) {
  markQuiesced(nodes, count, 0);
  return QFI_SUCCESS;
}

int CFiPluginBase::make(char*, qfi_splitnode**, int, qzfi_objid*** ids, int* nids) {
  clearOut(ids);
  clearOut(nids);
  return QFI_SUCCESS;
}

int CFiPluginBase::makeSnapshots(CFiSessionPtr) {
  return QFI_SUCCESS;
}

int CFiPluginBase::prepare(char*, qfi_splitnode**, int, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::prepareSnapshots(CFiSessionPtr) {
  return QFI_SUCCESS;
}

int CFiPluginBase::select(char*, qfi_splitnode**, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::selectSnapshots(CFiSessionPtr) {
  return QFI_SUCCESS;
}

int CFiPluginBase::isReady(char*, qfi_splitnode**, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::cacheDisable(qfi_domain*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::cacheEnable(qfi_domain*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::cacheFlush(qfi_domain*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::interpose(qfi_domain*, qzfi_objid**, qzfi_objid*** ids, int* count) {
  clearOut(ids);
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::getAttr(qfi_domain*, qfi_domain*, qfi_splitnode*, qfi_attributes* attributes) {
  clearOut(attributes);
  return QFI_SUCCESS;
}

int CFiPluginBase::getProviderInfo(qfi_provider_list**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateNodes(qfi_node_list**, int* count, int, char*) {
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateAssociations(qfi_assoc_list**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateGroupNodes(qfi_group_node_list**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateFims(qfi_fim_list**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::isValidNodeAssociation(qfi_assoc*, int* valid) {
  clearOut(valid);
  return QFI_SUCCESS;
}

int CFiPluginBase::getAssociatedNodes(qfi_node*, qfi_node_list**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::checkNodeExistence(qfi_domain*, int* exists) {
  clearOut(exists);
  return QFI_SUCCESS;
}

int CFiPluginBase::objctl(const ACE_TString&, CFiObjctlArgs&) {
  return QFI_SUCCESS;
}

int CFiPluginBase::processProviderState(qfi_domain*, qfi_blob*, qfi_op_providerstate) {
  return QFI_SUCCESS;
}

int CFiPluginBase::getLastError(qfi_msg_info** list) {
  CFiTraceLogFunction scope(m_traceLog, "getLastError", __LINE__, kSource);
  if (list == nullptr) {
    return QFI_E_INVALID;
  }
  if (!m_errorManager) {
    *list = nullptr;
    return QFI_SUCCESS;
  }
  return m_errorManager->getLastError(list);
}

int CFiPluginBase::delLastError(qfi_msg_info** list) {
  CFiTraceLogFunction scope(m_traceLog, "delLastError", __LINE__, kSource);
  return CFiErrorManager::delLastError(list);
}

int CFiPluginBase::getLocaleMessage(int* code, qfi_msg_info* info, char const*, char** text) {
  CFiTraceLogFunction scope(m_traceLog, "getLocaleMessage", __LINE__, kSource);
  if (info == nullptr || text == nullptr || info->id == nullptr) {
    return QFI_E_INVALID;
  }
  CFiIcuMessage message = messageOf(*info);
  tstring resolved = m_catalogManager ? m_catalogManager->getLocalizedMessage(message)
                                      : tstring(info->text != nullptr ? info->text : info->id);
  *text = strdup(resolved.c_str());
  if (*text == nullptr) {
    return QFI_E_NOMEM;
  }
  if (code != nullptr) {
    *code = m_catalogManager ? m_catalogManager->getMessageNumber(message) : info->msgid;
  }
  return QFI_SUCCESS;
}

int CFiPluginBase::delLocaleMessage(char** text) {
  if (text == nullptr) {
    return QFI_E_INVALID;
  }
  std::free(*text);
  *text = nullptr;
  return QFI_SUCCESS;
}

int CFiPluginBase::enableAccess(qfi_node_subobj_list*, long, int, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::disableAccess(qfi_node_subobj_list*, long) {
  return QFI_SUCCESS;
}

int CFiPluginBase::restore(qzfi_objid**, qzfi_objid**, long, char*, char*, char*** paths,
                           long* npaths, long, long* status) {
  clearOut(paths);
  clearOut(npaths);
  clearOut(status);
  return QFI_SUCCESS;
}

int CFiPluginBase::resync(qzfi_objid**, qzfi_objid**, long, char*, char*, long, long* status) {
  clearOut(status);
  return QFI_SUCCESS;
}

int CFiPluginBase::getStatus(qzfi_objid**, qzfi_objid**, long, char*, long, long* status) {
  clearOut(status);
  return QFI_SUCCESS;
}

int CFiPluginBase::prePrepare(qfi_domain*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::queryValidSecondaries(char*, qzfi_objid*** ids, long* count) {
  clearOut(ids);
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::resourceStatus(qzfi_objid*, long, long* status, qfi_msg_info** info) {
  clearOut(status);
  clearOut(info);
  return QFI_SUCCESS;
}

int CFiPluginBase::revisitPluginNodes(qfi_pgn_node_list*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::verifyQSCombos(qfi_splitnode**, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::setImportOptions(qfi_splitnode**, int, qfi_host_infn*, int, void*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::startBuildAltTree(qfi_domain*, qzfi_objid**, void*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::translateResourceNames(char**, int, char**) {
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateEnclosures(qfi_enclosure_node_list**, int* count, char*) {
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::importResource(char**, char*, char*, char*, int, char** out, char*) {
  clearOut(out);
  return QFI_SUCCESS;
}

int CFiPluginBase::format(char**, int, char*, char*, char*, int, char*** paths, int* pathCount) {
  clearOut(paths);
  clearOut(pathCount);
  return QFI_SUCCESS;
}

int CFiPluginBase::enumerateHostNodes(qfi_host_node_list**, int* count, char*) {
  clearOut(count);
  return QFI_SUCCESS;
}

int CFiPluginBase::onlineResource(char**, int, char*, char*, char*, char*, int, char*** paths,
                                  int* pathCount) {
  clearOut(paths);
  clearOut(pathCount);
  return QFI_SUCCESS;
}

int CFiPluginBase::deportResource(char*, char*, char*, char*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::isParentPgn(char*, int* isParent, int) {
  clearOut(isParent);
  return QFI_SUCCESS;
}

int CFiPluginBase::unformat(char**, int, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::preDeportResource(char*, int, char*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::refreshTree(qfi_domain*, int, int, qfi_resource*, int, int* result, void*, int) {
  clearOut(result);
  return QFI_SUCCESS;
}

int CFiPluginBase::getBackupset(qfi_domain*, int, char**, int, qfi_bkupset* set) {
  clearOut(set);
  return QFI_SUCCESS;
}

int CFiPluginBase::getAppStatus(qfi_domain*, int, void*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::setOpStatus(qfi_domain*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::setCompStatus(qfi_domain*, int, char*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::setRestorepaths(qfi_domain*, char*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::createSnapReplicaNode(qfi_domain*, qfi_snapreplica_ele*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::updateSnapshotId(qfi_domain*, qfi_domain*, qfi_snapreplica_ele*, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::getSnapshotSetId(qfi_domain*, char** id) {
  clearOut(id);
  return QFI_SUCCESS;
}

int CFiPluginBase::preselect(qfi_splitnode*, char*, qfi_splitnode**, int) {
  return QFI_SUCCESS;
}

int CFiPluginBase::updateSnapshotHandle(CFiSessionPtr, qfi_snapreplica_ele*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::getSnapdiff(qfi_domain*, qfi_snapreplica_ele*, qfi_snapreplica_ele*,
                               qfi_trie_node*) {
  return QFI_SUCCESS;
}

int CFiPluginBase::postDeport(qfi_domain*, qfi_domain*) {
  return QFI_SUCCESS;
}

// Services.

void CFiPluginBase::setMessageIndexOffset(long offset) {
  m_messageIndexOffset = offset;
  if (m_catalogManager) {
    m_catalogManager->setMessageIndexOffset(offset);
  }
}

// The offset may be set before the catalogue is registered; it follows the
// catalogue either way.
void CFiPluginBase::registerCatalogManager(const CFiMessageCatalogManagerPtr& manager) {
  m_catalogManager = manager;
  if (m_catalogManager) {
    m_catalogManager->setMessageIndexOffset(m_messageIndexOffset);
  }
}

bool CFiPluginBase::isShuttingDown(bool set) {
  if (set) {
    shuttingDown().store(true);
  }
  return shuttingDown().load();
}

int CFiPluginBase::setOwnerIds(const char* path, long uid, long gid) {
  CFiTraceLogFunction scope(m_traceLog, "setOwnerIds", __LINE__, kSource);
  if (path == nullptr) {
    return EINVAL;
  }
  if (chown(path, static_cast<uid_t>(uid), static_cast<gid_t>(gid)) != 0) {
    int err = errno;
    if (m_traceLog) {
      m_traceLog->trace(QZFI_TRACE_ERROR, "CFiPluginBase::setOwnerIds chown of %s to %ld:%ld: %s",
                        path, uid, gid, CFiPlatformError::returnErrorMsg(err).c_str());
    }
    return err;
  }
  return QFI_SUCCESS;
}

void CFiPluginBase::addSubObject(qfi_domain* node, qzfi_objid* id) {
  if (node == nullptr) {
    // Taken over all the same: the caller lets go of the id either way.
    qzfi_free_objid(id);
    return;
  }
  if (id != nullptr) {
    m_subObjects[node].push_back(id);
  }
}

std::vector<qzfi_objid*> CFiPluginBase::getSubObjects(const qfi_domain* node) const {
  auto found = m_subObjects.find(node);
  return found != m_subObjects.end() ? found->second : std::vector<qzfi_objid*>();
}

void CFiPluginBase::clearSubObjects(const qfi_domain* node) {
  auto found = m_subObjects.find(node);
  if (found == m_subObjects.end()) {
    return;
  }
  for (qzfi_objid* id : found->second) {
    qzfi_free_objid(id);
  }
  m_subObjects.erase(found);
}

}  // namespace qzfi_pdk_4_4

// The exported C entry points: each one traces its scope, passes the
// delayed-initialisation gate unless it is plain, checks what its table
// entry checks, and hands on to the plug-in singleton. What an entry point
// throws on its own account (the plug-in's construction reads its
// configuration) is mapped as in any operation.
#include "exports.h"

#include <qzfi/cfiapiexport.h>

#include "door.h"
#include "qzvm_plugin.h"

#ifndef QZVMFI_VERSION
#error "QZVMFI_VERSION (the project's version) must be defined by the build"
#endif

using qzfi_pdk_4_4::CFiApiExport;
using qzfi_pdk_4_4::CFiErrorHandler;
using qzfi_pdk_4_4::CFiErrorHandlerPtr;
using qzfi_pdk_4_4::CFiErrorManager;
using qzfi_pdk_4_4::CFiPluginBase;
using qzfi_pdk_4_4::CFiTraceLogFunction;
using qzfi_pdk_4_4::kCfiApiExportSource;
using qzvmfi_door::SRefusal;
using qzvmfi_report::reportingExceptions;
using Names = std::vector<std::string>;

extern "C" {

std::string cfi_pgn_name_str(kQzVMPluginName);
std::string cfi_pgn_name_tstr(kQzVMPluginName);
std::wstring cfi_pgn_name_wstr(kQzVMPluginName, kQzVMPluginName + sizeof kQzVMPluginName - 1);
const char TP_STATIC_RELEASE_STR[] = "\n@(#) Brovik_" QZVMFI_VERSION;

}  // extern "C"

namespace {

using Export = CFiApiExport<CQzVMPlugin, qzvmfi>;

// The plug-in interface version that init writes back.
const qfi_version kInterfaceVersion = {7, 0, 0, 0};
const long kMessageIndexOffset = 6000;

CQzVMPlugin& plugin() {
  return Export::plugin();
}

template <class Body>
int32_t gated(const char* name, Body body) {
  return reportingExceptions({name, kCfiApiExportSource, __LINE__}, 6,
                             [&] { return Export::gated(name, body); });
}

template <class Body>
int32_t plain(const char* name, Body body) {
  return reportingExceptions({name, kCfiApiExportSource, __LINE__}, 6,
                             [&] { return Export::plain(name, body); });
}

// The door of the entry points: the object paths and disk lists that the
// framework hands in are checked before the operation runs; a refusal is
// reported and the status is 3, with nothing run.
namespace door {

const char* pathOf(const qfi_domain* node) {
  return node != nullptr && node->objid != nullptr ? node->objid->name : nullptr;
}

const char* pathOf(const qzfi_objid* id) {
  return id != nullptr ? id->name : nullptr;
}

// An object-id list as the operations read it: up to count entries, up to
// the first null one.
Names namesOf(qzfi_objid** ids, int count) {
  Names names;
  for (int i = 0; ids != nullptr && i < count && ids[i] != nullptr; ++i) {
    names.emplace_back(ids[i]->name != nullptr ? ids[i]->name : "");
  }
  return names;
}

Names namesOf(char** disks, int count) {
  Names names;
  for (int i = 0; disks != nullptr && i < count && disks[i] != nullptr; ++i) {
    names.emplace_back(disks[i]);
  }
  return names;
}

// 0, or 3 after reporting the first refusal of the checks.
int refused(const char* operation, std::initializer_list<SRefusal> checks) {
  for (const SRefusal& refusal : checks) {
    if (refusal) {
      return qzvmfi_door::refuse(qzvmfi_report::pluginTraceLog(), operation, refusal);
    }
  }
  return 0;
}

SRefusal objectPath(const qfi_domain* node) {
  return qzvmfi_door::checkObjectPath("the object path", pathOf(node));
}

SRefusal alternatePath(const qfi_domain* node) {
  return qzvmfi_door::checkObjectPath("the alternate object path", pathOf(node));
}

// The primary and secondary disk lists of an alternate tree: each sound,
// and pairing one to one when both are given.
int pairedLists(const char* operation, const qfi_domain* node, qzfi_objid** primary,
                qzfi_objid** secondary, int count) {
  const Names primaryDisks = namesOf(primary, count);
  const Names secondaryDisks = namesOf(secondary, count);
  return refused(operation, {objectPath(node),
                             qzvmfi_door::checkDiskList("the primary disk list", primaryDisks),
                             qzvmfi_door::checkDiskList("the secondary disk list", secondaryDisks),
                             // A missing or empty list is the operation's own invalid input.
                             primaryDisks.empty() || secondaryDisks.empty()
                                 ? SRefusal()
                                 : qzvmfi_door::checkSameLength("the secondary disk list",
                                                                primaryDisks, secondaryDisks)});
}

// Each node of an access list with its sub-objects (its disks).
int accessList(const char* operation, const qfi_node_subobj_list* list) {
  for (const qfi_node_subobj_list* entry = list; entry != nullptr; entry = entry->next) {
    if (int status = refused(
            operation, {objectPath(entry->node),
                        qzvmfi_door::checkDiskList("the sub-object list",
                                                   namesOf(entry->subobjs, entry->nsubobjs))})) {
      return status;
    }
  }
  return 0;
}

// The disks of a resource operation.
int diskList(const char* operation, char** disks, int count) {
  return refused(operation, {qzvmfi_door::checkDiskList("the disk list", namesOf(disks, count))});
}

// The names that format gives the new group and volume.
int formatNames(char** disks, int count, const char* volume, const char* options) {
  std::string group;
  if (options != nullptr) {
    qzfi_pdk_4_4::CFiFormatOptionList list;
    if (list.parse(options) == 0) {
      list.getOption("diskGroup", group);
    }
  }
  const auto name = [](const char* where, const std::string& text) {
    const char* fault = text.empty() ? nullptr : qzvmNameFault(text);
    return fault == nullptr ? SRefusal() : SRefusal{where, text, fault, true};
  };
  return refused("format", {qzvmfi_door::checkDiskList("the disk list", namesOf(disks, count)),
                            name("the volume name", volume != nullptr ? volume : ""),
                            name("the option diskGroup", group)});
}

// A path that no volume-manager object can have is not the plug-in's:
// asked about it, the plug-in answers no without looking further.
bool nameableByVolumeManager(const char* operation, const char* path) {
  const SRefusal refusal = qzvmfi_door::checkObjectPath("the path", path);
  if (refusal) {
    QZ_TRACE(qzvmfi_report::pluginTraceLog(), 3, "%s - '%s' is not the volume manager's: %s.",
             operation, refusal.value.c_str(), refusal.why.c_str());
  }
  return !refusal;
}

}  // namespace door

// The plug-in singleton, or null when it cannot be built (its
// configuration file cannot be read or made): init has reported why, and
// the entries that only answer the framework answer without it.
CQzVMPlugin* builtPlugin() {
  try {
    return &plugin();
  } catch (...) {
    return nullptr;
  }
}

// The framework's managers made first, with the error handler, so that a
// plug-in that cannot be built still reports why; then the plug-in,
// registered with them, initialises itself.
int startPlugin(qfi_startup* startup, const char* fimName) {
  auto catalog = qzvmfi_ctx::CatalogManager::instance();
  auto log = qzvmfi_ctx::TraceLog::instance();
  auto errors = qzvmfi_ctx::ErrorManager::instance();
  auto privateData = qzvmfi_ctx::PrivateDataManager::instance();
  auto sessions = qzvmfi_ctx::SessionManager::instance();
  log->initialize(cfi_pgn_name_tstr, "", "", 1, false);
  std::string language;
  if (startup != nullptr && startup->locale != nullptr &&
      startup->locale->native_language != nullptr) {
    language = startup->locale->native_language;
    catalog->setNativeLanguage(language);
  }
  errors->registerHandler(CFiErrorHandlerPtr(new CFiErrorHandler(startup, language, catalog)));
  CQzVMPlugin& started = plugin();
  started.setProviderName(cfi_pgn_name_tstr);
  started.setFimName(fimName != nullptr ? fimName : "");
  started.setMessageIndexOffset(kMessageIndexOffset);
  started.registerTraceLog(log);
  started.registerErrorManager(errors);
  started.registerCatalogManager(catalog);
  started.registerPrivateDataManager(privateData);
  started.registerSessionManager(sessions);
  return started.init();
}

}  // namespace

extern "C" {

int32_t qzvmfi_fi_pgn_post_deport(qfi_domain* node, qfi_domain* altNode) {
  return gated(__func__, [&] { return plugin().postDeport(node, altNode); });
}

int32_t qzvmfi_fi_pgn_get_snapdiff(qfi_domain* node, qfi_snapreplica_ele* a, qfi_snapreplica_ele* b,
                                   qfi_trie_node* trie) {
  return gated(__func__, [&] { return plugin().getSnapdiff(node, a, b, trie); });
}

int32_t qzvmfi_fi_pgn_getSnapshotSetId(qfi_domain* node, char** id) {
  return gated(__func__, [&] { return plugin().getSnapshotSetId(node, id); });
}

int32_t qzvmfi_fi_pgn_update_snapshot_handle(qfi_snapreplica_ele* element) {
  return gated(__func__, [&] {
    return plugin().updateSnapshotHandle(qzvmfi_ctx::SessionManager::instance()->getSession(),
                                         element);
  });
}

int32_t qzvmfi_fi_pgn_update_snapshot_id(qfi_domain* node, qfi_domain* altNode,
                                         qfi_snapreplica_ele* element, int flags) {
  return gated(__func__, [&] { return plugin().updateSnapshotId(node, altNode, element, flags); });
}

int32_t qzvmfi_fi_pgn_createSnapReplicaNode(qfi_domain* node, qfi_snapreplica_ele* element) {
  return gated(__func__, [&] { return plugin().createSnapReplicaNode(node, element); });
}

int32_t qzvmfi_fi_pgn_set_restorepaths(qfi_domain* node, char* paths, int count) {
  return gated(__func__, [&] { return plugin().setRestorepaths(node, paths, count); });
}

int32_t qzvmfi_fi_pgn_set_comp_status(qfi_domain* node, int a, char* b, int c) {
  return gated(__func__, [&] { return plugin().setCompStatus(node, a, b, c); });
}

int32_t qzvmfi_fi_pgn_set_op_status(qfi_domain* node, int status) {
  return gated(__func__, [&] { return plugin().setOpStatus(node, status); });
}

int32_t qzvmfi_fi_pgn_get_app_status(qfi_domain* node, int a, void* b) {
  return gated(__func__, [&] { return plugin().getAppStatus(node, a, b); });
}

int32_t qzvmfi_fi_pgn_get_backupset(qfi_domain* node, int a, char** b, int c, qfi_bkupset* set) {
  return gated(__func__, [&] { return plugin().getBackupset(node, a, b, c, set); });
}

int32_t qzvmfi_fi_pgn_refresh_tree(qfi_domain* node, int a, int b, qfi_resource* resource, int c,
                                   int* d, void* e, int f) {
  return gated(__func__, [&] { return plugin().refreshTree(node, a, b, resource, c, d, e, f); });
}

int32_t qzvmfi_fi_pgn_pre_deport_resource(char* name, int flags, char* text) {
  return gated(__func__, [&] { return plugin().preDeportResource(name, flags, text); });
}

int32_t qzvmfi_fi_pgn_unformat(char** disks, int count, int flags) {
  return gated(__func__, [&] {
    if (int refused = door::diskList("unformat", disks, count)) {
      return refused;
    }
    return plugin().unformat(disks, count, flags);
  });
}

int32_t qzvmfi_fi_pgn_is_parent_pgn(char* disk, int* isParent, int flags) {
  return gated(__func__, [&] {
    std::string path = disk != nullptr ? disk : "";
    qzfi_pdk_4_4::CFiStringTool::trim(path, " \n\t\r");
    if (disk != nullptr && isParent != nullptr && path.compare(0, 5, "/dev/") == 0 &&
        !door::nameableByVolumeManager("isParentPgn", path.c_str())) {
      *isParent = 0;
      return 0;
    }
    return plugin().isParentPgn(disk, isParent, flags);
  });
}

int32_t qzvmfi_fi_pgn_deport_resource(char* a, char* b, char* c, char* d, int flags) {
  return gated(__func__, [&] { return plugin().deportResource(a, b, c, d, flags); });
}

int32_t qzvmfi_fi_pgn_online_resource(char** disks, int count, char* a, char* b, char* c, char* d,
                                      int flags, char*** paths, int* pathCount) {
  return gated(__func__, [&] {
    if (int refused = door::diskList("onlineResource", disks, count)) {
      return refused;
    }
    return plugin().onlineResource(disks, count, a, b, c, d, flags, paths, pathCount);
  });
}

int32_t qzvmfi_fi_pgn_enumerate_host_nodes(qfi_host_node_list** list, int* count, char* text) {
  return plain(__func__, [&] { return plugin().enumerateHostNodes(list, count, text); });
}

int32_t qzvmfi_fi_pgn_format(char** disks, int count, char* name, char* type, char* options,
                             int flags, char*** paths, int* pathCount) {
  return gated(__func__, [&] {
    if (int refused = door::formatNames(disks, count, name, options)) {
      return refused;
    }
    return plugin().format(disks, count, name, type, options, flags, paths, pathCount);
  });
}

int32_t qzvmfi_fi_pgn_import_resource(char** names, char* a, char* b, char* c, int flags,
                                      char** out, char* d) {
  return gated(__func__, [&] { return plugin().importResource(names, a, b, c, flags, out, d); });
}

int32_t qzvmfi_fi_pgn_enumerate_enclosures(qfi_enclosure_node_list** list, int* count, char* text) {
  return plain(__func__, [&] { return plugin().enumerateEnclosures(list, count, text); });
}

int32_t qzvmfi_fi_pgn_translate_resource_names(char** names, int count, char** out) {
  return gated(__func__, [&] {
    if (count < 0 || (count > 0 && (names == nullptr || out == nullptr))) {
      return static_cast<int>(QFI_E_INVALID);
    }
    return plugin().translateResourceNames(names, count, out);
  });
}

int32_t qzvmfi_fi_pgn_start_build_alttree(qfi_domain* node, qzfi_objid** ids, void* context) {
  return gated(__func__, [&] { return plugin().startBuildAltTree(node, ids, context); });
}

int32_t qzvmfi_fi_pgn_revisit_pgn_nodes(qfi_pgn_node_list* list) {
  return plain(__func__, [&] { return plugin().revisitPluginNodes(list); });
}

int32_t qzvmfi_fi_pgn_res_status(qzfi_objid* id, long flags, long* status, qfi_msg_info** info) {
  return gated(__func__, [&] { return plugin().resourceStatus(id, flags, status, info); });
}

int32_t qzvmfi_fi_pgn_query_valid_secondaries(char* text, qzfi_objid*** ids, long* count) {
  return gated(__func__, [&] { return plugin().queryValidSecondaries(text, ids, count); });
}

int32_t qzvmfi_fi_pgn_get_status(qzfi_objid** a, qzfi_objid** b, long count, char* c, long d,
                                 long* e) {
  return gated(__func__, [&] { return plugin().getStatus(a, b, count, c, d, e); });
}

int32_t qzvmfi_fi_pgn_resync(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d, long e,
                             long* f) {
  return gated(__func__, [&] { return plugin().resync(a, b, count, c, d, e, f); });
}

int32_t qzvmfi_fi_pgn_restore(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d,
                              char*** e, long* f, long g, long* h) {
  return gated(__func__, [&] { return plugin().restore(a, b, count, c, d, e, f, g, h); });
}

int32_t qzvmfi_fi_pgn_disable_access(qfi_node_subobj_list* list, long flags) {
  return gated(__func__, [&] {
    if (int refused = door::accessList("disableAccess", list)) {
      return refused;
    }
    return plugin().disableAccess(list, flags);
  });
}

int32_t qzvmfi_fi_pgn_enable_access(qfi_node_subobj_list* list, long flags, int reserved,
                                    int options) {
  return gated(__func__, [&] {
    if (int refused = door::accessList("enableAccess", list)) {
      return refused;
    }
    return plugin().enableAccess(list, flags, reserved, options);
  });
}

int32_t qzvmfi_fi_pgn_del_locale_message(char** text) {
  return plain(__func__, [&] { return plugin().delLocaleMessage(text); });
}

int32_t qzvmfi_fi_pgn_get_locale_message(int* code, qfi_msg_info* info, char const* language,
                                         char** text) {
  return plain(__func__, [&] { return plugin().getLocaleMessage(code, info, language, text); });
}

int32_t qzvmfi_fi_pgn_del_last_error(qfi_msg_info** list) {
  return plain(__func__, [&] {
    CQzVMPlugin* built = builtPlugin();
    return built != nullptr ? built->delLastError(list) : CFiErrorManager::delLastError(list);
  });
}

// Without a plug-in, the messages that init pushed are still there to read.
int32_t qzvmfi_fi_pgn_get_last_error(qfi_msg_info** list) {
  return plain(__func__, [&] {
    CQzVMPlugin* built = builtPlugin();
    if (built != nullptr) {
      return built->getLastError(list);
    }
    return list == nullptr ? static_cast<int>(QFI_E_INVALID)
                           : qzvmfi_ctx::ErrorManager::instance()->getLastError(list);
  });
}

int32_t qzvmfi_fi_pgn_check_node_existence(qfi_domain* node, int* exists) {
  return gated(__func__, [&] {
    if (int refused = door::refused("checkNodeExistence", {door::objectPath(node)})) {
      return refused;
    }
    return plugin().checkNodeExistence(node, exists);
  });
}

int32_t qzvmfi_fi_pgn_get_associated_nodes(qfi_node* node, qfi_node_list** list) {
  return gated(__func__, [&] { return plugin().getAssociatedNodes(node, list); });
}

int32_t qzvmfi_fi_pgn_isvalid_node_association(qfi_assoc* assoc, int* valid) {
  return gated(__func__, [&] { return plugin().isValidNodeAssociation(assoc, valid); });
}

int32_t qzvmfi_fi_pgn_enumerate_associations(qfi_assoc_list** list) {
  return gated(__func__, [&] { return plugin().enumerateAssociations(list); });
}

int32_t qzvmfi_fi_pgn_enumerate_fims(qfi_fim_list** list) {
  return plain(__func__, [&] { return plugin().enumerateFims(list); });
}

int32_t qzvmfi_fi_pgn_enumerate_group_nodes(qfi_group_node_list** list) {
  return gated(__func__, [&] { return plugin().enumerateGroupNodes(list); });
}

int32_t qzvmfi_fi_pgn_enumerate_nodes(qfi_node_list** list, int* count, int flags, char* text) {
  return plain(__func__, [&] {
    return list == nullptr ? static_cast<int>(QFI_E_INVALID)
                           : plugin().enumerateNodes(list, count, flags, text);
  });
}

int32_t qzvmfi_fi_pgn_get_provider_info(qfi_provider_list** list) {
  return plain(__func__, [&] {
    return list == nullptr ? static_cast<int>(QFI_E_INVALID) : plugin().getProviderInfo(list);
  });
}

int32_t qzvmfi_fi_pgn_process_providerstate(qfi_domain* node, qfi_blob* blob,
                                            qfi_op_providerstate op) {
  return gated(__func__, [&] { return plugin().processProviderState(node, blob, op); });
}

int32_t qzvmfi_fi_pgn_getattr(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* split,
                              qfi_attributes* attributes) {
  return gated(__func__, [&] { return plugin().getAttr(node, altNode, split, attributes); });
}

int32_t qzvmfi_fi_pgn_interpose(qfi_domain* node, qzfi_objid** id, qzfi_objid*** ids, int* count) {
  return gated(__func__, [&] { return plugin().interpose(node, id, ids, count); });
}

int32_t qzvmfi_fi_pgn_cache_enable(qfi_domain* node, int flags) {
  return plain(__func__, [&] { return plugin().cacheEnable(node, flags); });
}

int32_t qzvmfi_fi_pgn_cache_disable(qfi_domain* node, int flags) {
  return gated(__func__, [&] { return plugin().cacheDisable(node, flags); });
}

int32_t qzvmfi_fi_pgn_build_alttree(qfi_domain* node, char* splitType, qzfi_objid** primary,
                                    qzfi_objid** secondary, int count, qzfi_objid** out) {
  return gated(__func__, [&] {
    if (int refused = door::pairedLists("buildAltTree", node, primary, secondary, count)) {
      return refused;
    }
    return plugin().buildAltTree(node, splitType, primary, secondary, count, out);
  });
}

int32_t qzvmfi_fi_pgn_subobj_list(qfi_domain* node, qzfi_objid*** subobjs, int* count) {
  return gated(__func__, [&] {
    return node == nullptr || subobjs == nullptr || count == nullptr
               ? static_cast<int>(QFI_E_INVALID)
               : plugin().subobjList(node, subobjs, count);
  });
}

int32_t qzvmfi_fi_pgn_online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
                             qfi_disposition disposition) {
  return gated(__func__, [&] {
    if (int refused =
            door::refused("online", {door::objectPath(node), door::alternatePath(altNode)})) {
      return refused;
    }
    return plugin().online(node, altNode, bringOnline, disposition);
  });
}

int32_t qzvmfi_fi_pgn_dispose(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* target,
                              qfi_disposition disposition) {
  return gated(__func__, [&] {
    if (int refused = door::refused(
            "dispose",
            {door::objectPath(node), door::alternatePath(altNode),
             qzvmfi_door::checkObjectPath(
                 "the target path", target != nullptr ? door::pathOf(target->objid) : nullptr)})) {
      return refused;
    }
    return plugin().dispose(node, altNode, target, disposition);
  });
}

int32_t qzvmfi_fi_pgn_deinit_node(qfi_domain* node) {
  return plain(__func__, [&] { return plugin().deInitNode(node); });
}

int32_t qzvmfi_fi_pgn_config(qfi_domain* node, int op, char* name, qfi_confspec* confspec) {
  return gated(__func__, [&] {
    return node == nullptr || confspec == nullptr ? static_cast<int>(QFI_E_INVALID)
                                                  : plugin().config(node, op, name, confspec);
  });
}

int32_t qzvmfi_fi_pgn_reaccess_altnode(qfi_domain* node, qzfi_objid* a, qzfi_objid* b, char* text,
                                       qzfi_objid** primary, qzfi_objid** secondary, int count,
                                       qfi_intent intent) {
  return gated(__func__, [&] {
    return plugin().reAccessAltNode(node, a, b, text, primary, secondary, count, intent);
  });
}

int32_t qzvmfi_fi_pgn_reaccess_tmpobj(qfi_domain* node, qzfi_objid* id, char* a, qfi_domain* tmp,
                                      char* b, qfi_intent intent) {
  return plain(__func__, [&] { return plugin().reAccessTmpObj(node, id, a, tmp, b, intent); });
}

int32_t qzvmfi_fi_pgn_pre_prepare(qfi_domain* node) {
  return gated(__func__, [&] { return plugin().prePrepare(node); });
}

int32_t qzvmfi_fi_pgn_import_tree(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary,
                                  int count, qzfi_objid** out) {
  return gated(__func__, [&] {
    if (int refused = door::pairedLists("importTreeNode", node, primary, secondary, count)) {
      return refused;
    }
    return plugin().importTreeNode(node, primary, secondary, count, out);
  });
}

int32_t qzvmfi_fi_pgn_deport_tree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access) {
  return gated(__func__, [&] {
    if (int refused =
            door::refused("deportTree", {door::objectPath(node), door::alternatePath(altNode)})) {
      return refused;
    }
    return plugin().deportTree(node, altNode, access);
  });
}

int32_t qzvmfi_fi_pgn_init_remnode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode,
                                   bool flag) {
  return gated(__func__, [&] {
    if (int refused =
            door::refused("initAltNode", {door::objectPath(node), door::alternatePath(altNode)})) {
      return refused;
    }
    return plugin().initAltNode(node, parent, altNode, flag);
  });
}

int32_t qzvmfi_fi_pgn_init_altnode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode,
                                   bool flag) {
  return gated(__func__, [&] { return plugin().initAltNode(node, parent, altNode, flag); });
}

int32_t qzvmfi_fi_pgn_init_node(qfi_domain* node, qfi_domain** parents, int count,
                                qzfi_objid* object) {
  return gated(__func__, [&] {
    if (int refused = door::refused(
            "initNode", {door::objectPath(node),
                         qzvmfi_door::checkObjectPath("the object path", door::pathOf(object))})) {
      return refused;
    }
    return plugin().initNode(node, parents, count, object);
  });
}

// 0 in every case, also when the plug-in cannot be built.
int32_t qzvmfi_fi_pgn_supports_fitype(qfi_domain* node, char* fiType) {
  return plain(__func__, [&] {
    CQzVMPlugin* built = builtPlugin();
    return built != nullptr ? built->supportsFiType(node, fiType) : 0;
  });
}

int32_t qzvmfi_fi_pgn_claim(qzfi_objid* object, qzfi_objid*** secondaryObjects,
                            int* secondaryCount) {
  return plain(__func__, [&] {
    return object == nullptr || secondaryObjects == nullptr || secondaryCount == nullptr ||
                   !door::nameableByVolumeManager("claim", door::pathOf(object))
               ? 0
               : plugin().claim(object, secondaryObjects, secondaryCount);
  });
}

int32_t qzvmfi_fi_pgn_errmsg(int code, char const** text) {
  return plain(__func__, [&] { return plugin().errMsg(code, text); });
}

int32_t qzvmfi_fi_pgn_preselect(qfi_splitnode* node, char* /*text*/, qfi_splitnode** nodes,
                                int count) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    qzvmfi_ctx::SessionManager::instance()->getSession()->addNodes(list.nodes, list.count);
    return 0;
  });
}

int32_t qzvmfi_fi_pgn_set_import_options(qfi_splitnode* node, qfi_splitnode** nodes, int count,
                                         qfi_host_infn* host, int flags, void* options) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return plugin().setImportOptions(list.nodes, list.count, host, flags, options);
  });
}

int32_t qzvmfi_fi_pgn_verify_qscombos(qfi_splitnode* node, qfi_splitnode** nodes, int count) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return plugin().verifyQSCombos(list.nodes, list.count);
  });
}

int32_t qzvmfi_fi_pgn_isready(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return plugin().isReady(text, list.nodes, list.count);
  });
}

int32_t qzvmfi_fi_pgn_select(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return Export::selectWithSession(text, list.nodes, list.count);
  });
}

int32_t qzvmfi_fi_pgn_prepare(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count,
                              int flags) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return Export::prepareWithSession(text, list.nodes, list.count, flags);
  });
}

void qzvmfi_fi_pgn_unquiesce(qfi_quiescenode* node, qfi_quiescenode** nodes, int count) {
  plain(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    plugin().unquiesce(list.nodes, list.count);
    return 0;
  });
}

int32_t qzvmfi_fi_pgn_quiesce(qfi_quiescenode* node, qfi_quiescenode** nodes, int count,
                              char* text) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return plugin().quiesce(list.nodes, list.count, text);
  });
}

int32_t qzvmfi_fi_pgn_objctl(const char* name, const char* input, char** output, int64_t* result) {
  return gated(__func__, [&] { return Export::objctl(name, input, output, result); });
}

void qzvmfi_fi_pgn_fini(void) {
  const CFiTraceLogFunction scope(qzvmfi_ctx::TraceLog::instance(), __func__, __LINE__,
                                  kCfiApiExportSource);
  CFiPluginBase::isShuttingDown(true);
  if (Export::PluginSingleton::exists()) {
    reportingExceptions({__func__, kCfiApiExportSource, __LINE__}, 6,
                        [] { return plugin().fini(); });
  }
  Export::PluginSingleton::instance(true);
  qzvmfi_ctx::CatalogManager::instance(true);
  qzvmfi_ctx::TraceLog::instance(true);
  qzvmfi_ctx::ErrorManager::instance(true);
  qzvmfi_ctx::PrivateDataManager::instance(true);
  qzvmfi_ctx::SessionManager::instance(true);
}

int32_t qzvmfi_fi_pgn_init(qfi_startup* startup, qfi_version* version, const char* fimName) {
  if (version == nullptr) {
    return QFI_E_NOVERSION;
  }
  *version = kInterfaceVersion;
  const CFiTraceLogFunction scope(qzvmfi_ctx::TraceLog::instance(), __func__, __LINE__,
                                  kCfiApiExportSource);
  return reportingExceptions(
      {__func__, kCfiApiExportSource, __LINE__}, [&] { return startPlugin(startup, fimName); },
      [](bool reported) {
        // Its own init registers the catalogue: without a plug-in, the
        // reason pushed here still reads in it.
        if (!Export::PluginSingleton::exists()) {
          CQzVMPlugin::registerMessageCatalog(qzvmfi_ctx::CatalogManager::instance(),
                                              cfi_pgn_name_tstr);
        }
        return CQzVMPlugin::initFailed(reported);
      });
}

int32_t qzvmfi_fi_pgn_make(char* text, qfi_splitnode* node, qfi_splitnode** nodes, int count,
                           qzfi_objid*** ids, int* idCount) {
  return gated(__func__, [&] {
    const auto list = Export::nodeList(node, nodes, count);
    return Export::makeWithSession(text, list.nodes, list.count, ids, idCount);
  });
}

}  // extern "C"

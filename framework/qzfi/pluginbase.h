// The base class of every plug-in: the framework calls these operations in
// slot order; a plug-in overrides the ones it implements.
#ifndef QZFI_PLUGINBASE_H
#define QZFI_PLUGINBASE_H

#include <ace/SString.h>

#include <map>
#include <vector>

#include "messages.h"
#include "privatedata.h"
#include "records.h"
#include "refcount.h"
#include "session.h"
#include "stringtool.h"
#include "trace.h"

namespace qzfi_pdk_4_4 {

class CFiPluginBase : public virtual CFiTraceable {
 public:
  CFiPluginBase();
  ~CFiPluginBase() override;

  // Slots 1..82. The base behaviour of an operation a plug-in does not
  // implement is "nothing to do": it returns 0 and leaves outputs empty,
  // except where a comment says otherwise.
  virtual int delayedInit();
  virtual int globalConfigInfoList(int kind, bool defaults);
  virtual int init();
  virtual int fini();
  virtual int claim(qzfi_objid* id, qzfi_objid*** subobjs, int* count);
  virtual int supportsFiType(qfi_domain* node, char* fiType);
  virtual int deportTree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access);
  virtual int importTreeNode(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary,
                             int count, qzfi_objid** out);
  virtual int initNode(qfi_domain* node, qfi_domain** parents, int count, qzfi_objid* id);
  virtual int config(qfi_domain* node, int op, char* name, qfi_confspec* confspec);
  virtual int initAltNode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode, bool flag);
  virtual int reAccessTmpObj(qfi_domain* node, qzfi_objid* id, char* a, qfi_domain* tmp, char* b,
                             qfi_intent intent);
  virtual int reAccessAltNode(qfi_domain* node, qzfi_objid* a, qzfi_objid* b, char* text,
                              qzfi_objid** primary, qzfi_objid** secondary, int count,
                              qfi_intent intent);
  // Base: drops the node's private data and recorded sub-objects.
  virtual int deInitNode(qfi_domain* node);
  virtual int dispose(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* target,
                      qfi_disposition disposition);
  virtual int online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
                     qfi_disposition disposition);
  // Base: the sub-objects recorded with addSubObject, copied into an array
  // from qzfi_alloc_buf.
  virtual int subobjList(qfi_domain* node, qzfi_objid*** subobjs, int* count);
  // Base: a static text naming the code.
  virtual int errMsg(int code, char const** text);
  virtual int buildAltTree(qfi_domain* node, char* splitType, qzfi_objid** primary,
                           qzfi_objid** secondary, int count, qzfi_objid** out);
  // The base sets each node's state: 1 quiesced, 0 again after unquiesce.
  virtual int quiesce(qfi_quiescenode** nodes, int count, char* text);
  virtual int unquiesce(qfi_quiescenode** nodes, int count);
  virtual int make(char* text, qfi_splitnode** nodes, int count, qzfi_objid*** ids, int* nids);
  virtual int makeSnapshots(CFiSessionPtr session);
  virtual int prepare(char* text, qfi_splitnode** nodes, int count, int flags);
  virtual int prepareSnapshots(CFiSessionPtr session);
  virtual int select(char* text, qfi_splitnode** nodes, int count);
  virtual int selectSnapshots(CFiSessionPtr session);
  virtual int isReady(char* text, qfi_splitnode** nodes, int count);
  virtual int cacheDisable(qfi_domain* node, int flags);
  virtual int cacheEnable(qfi_domain* node, int flags);
  virtual int cacheFlush(qfi_domain* node, int flags);
  virtual int interpose(qfi_domain* node, qzfi_objid** id, qzfi_objid*** ids, int* count);
  virtual int getAttr(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* split,
                      qfi_attributes* attributes);
  virtual int getProviderInfo(qfi_provider_list** list);
  virtual int enumerateNodes(qfi_node_list** list, int* count, int flags, char* text);
  virtual int enumerateAssociations(qfi_assoc_list** list);
  virtual int enumerateGroupNodes(qfi_group_node_list** list);
  virtual int enumerateFims(qfi_fim_list** list);
  virtual int isValidNodeAssociation(qfi_assoc* assoc, int* valid);
  virtual int getAssociatedNodes(qfi_node* node, qfi_node_list** list);
  virtual int checkNodeExistence(qfi_domain* node, int* exists);
  virtual int objctl(const ACE_TString& name, CFiObjctlArgs& args);
  virtual int processProviderState(qfi_domain* node, qfi_blob* blob, qfi_op_providerstate op);
  // Base: the error manager's pushed messages (CFiErrorManager::getLastError).
  virtual int getLastError(qfi_msg_info** list);
  virtual int delLastError(qfi_msg_info** list);
  // Base: the catalogue text of the message in a strdup'd string.
  virtual int getLocaleMessage(int* code, qfi_msg_info* info, char const* language, char** text);
  virtual int delLocaleMessage(char** text);
  virtual int enableAccess(qfi_node_subobj_list* list, long flags, int reserved, int options);
  virtual int disableAccess(qfi_node_subobj_list* list, long flags);
  virtual int restore(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d, char*** e,
                      long* f, long g, long* h);
  virtual int resync(qzfi_objid** a, qzfi_objid** b, long count, char* c, char* d, long e, long* f);
  virtual int getStatus(qzfi_objid** a, qzfi_objid** b, long count, char* c, long d, long* e);
  virtual int prePrepare(qfi_domain* node);
  virtual int queryValidSecondaries(char* text, qzfi_objid*** ids, long* count);
  virtual int resourceStatus(qzfi_objid* id, long flags, long* status, qfi_msg_info** info);
  virtual int revisitPluginNodes(qfi_pgn_node_list* list);
  virtual int verifyQSCombos(qfi_splitnode** nodes, int count);
  virtual int setImportOptions(qfi_splitnode** nodes, int count, qfi_host_infn* host, int flags,
                               void* options);
  virtual int startBuildAltTree(qfi_domain* node, qzfi_objid** ids, void* context);
  virtual int translateResourceNames(char** names, int count, char** out);
  virtual int enumerateEnclosures(qfi_enclosure_node_list** list, int* count, char* text);
  virtual int importResource(char** names, char* a, char* b, char* c, int flags, char** out,
                             char* d);
  virtual int format(char** disks, int count, char* name, char* type, char* options, int flags,
                     char*** paths, int* pathCount);
  virtual int enumerateHostNodes(qfi_host_node_list** list, int* count, char* text);
  virtual int onlineResource(char** names, int count, char* a, char* b, char* c, char* d, int flags,
                             char*** paths, int* pathCount);
  virtual int deportResource(char* a, char* b, char* c, char* d, int flags);
  virtual int isParentPgn(char* name, int* isParent, int flags);
  virtual int unformat(char** names, int count, int flags);
  virtual int preDeportResource(char* name, int flags, char* text);
  virtual int refreshTree(qfi_domain* node, int a, int b, qfi_resource* resource, int c, int* d,
                          void* e, int f);
  virtual int getBackupset(qfi_domain* node, int a, char** b, int c, qfi_bkupset* set);
  virtual int getAppStatus(qfi_domain* node, int a, void* b);
  virtual int setOpStatus(qfi_domain* node, int status);
  virtual int setCompStatus(qfi_domain* node, int a, char* b, int c);
  virtual int setRestorepaths(qfi_domain* node, char* paths, int count);
  virtual int createSnapReplicaNode(qfi_domain* node, qfi_snapreplica_ele* element);
  virtual int updateSnapshotId(qfi_domain* node, qfi_domain* altNode, qfi_snapreplica_ele* element,
                               int flags);
  virtual int getSnapshotSetId(qfi_domain* node, char** id);
  virtual int preselect(qfi_splitnode* node, char* text, qfi_splitnode** nodes, int count);
  virtual int updateSnapshotHandle(CFiSessionPtr session, qfi_snapreplica_ele* element);
  virtual int getSnapdiff(qfi_domain* node, qfi_snapreplica_ele* a, qfi_snapreplica_ele* b,
                          qfi_trie_node* trie);
  virtual int postDeport(qfi_domain* node, qfi_domain* altNode);

  // Framework services for plug-ins.
  void setProviderName(const tstring& name) { m_providerName = name; }
  const tstring& getProviderName() const { return m_providerName; }
  void setFimName(const tstring& name) { m_fimName = name; }
  const tstring& getFimName() const { return m_fimName; }
  void setMessageIndexOffset(long offset);
  long getMessageIndexOffset() const { return m_messageIndexOffset; }
  void registerErrorManager(const CFiErrorManagerPtr& manager) { m_errorManager = manager; }
  void registerCatalogManager(const CFiMessageCatalogManagerPtr& manager);
  void registerPrivateDataManager(const CFiPrivateDataManagerPtr& manager) {
    m_privateDataManager = manager;
  }
  void registerSessionManager(const CFiSessionManagerPtr& manager) { m_sessionManager = manager; }
  const CFiErrorManagerPtr& getErrorManager() const { return m_errorManager; }
  const CFiMessageCatalogManagerPtr& getCatalogManager() const { return m_catalogManager; }
  const CFiPrivateDataManagerPtr& getPrivateDataManager() const { return m_privateDataManager; }
  const CFiSessionManagerPtr& getSessionManager() const { return m_sessionManager; }

  // Process-wide flag: set true by a plug-in's fini entry point; a call
  // without argument change (the default) only reads it.
  static bool isShuttingDown(bool set = false);

  // Gives the device node at path the owner uid and group gid; 0 on success,
  // errno otherwise.
  int setOwnerIds(const char* path, long uid, long gid);

  // Records a sub-object of the node (subobjList hands them out). The id
  // becomes the base's; it is freed with the node's sub-objects.
  void addSubObject(qfi_domain* node, qzfi_objid* id);
  std::vector<qzfi_objid*> getSubObjects(const qfi_domain* node) const;
  void clearSubObjects(const qfi_domain* node);

 private:
  tstring m_providerName;
  tstring m_fimName;
  long m_messageIndexOffset = 0;
  CFiErrorManagerPtr m_errorManager;
  CFiMessageCatalogManagerPtr m_catalogManager;
  CFiPrivateDataManagerPtr m_privateDataManager;
  CFiSessionManagerPtr m_sessionManager;
  std::map<const qfi_domain*, std::vector<qzfi_objid*>> m_subObjects;
};

}  // namespace qzfi_pdk_4_4

#endif  // QZFI_PLUGINBASE_H

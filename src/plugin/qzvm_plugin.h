// The QzVM snapshot plug-in: the operations the framework calls on the
// volume manager's layer of a storage stack. One class, defined over the
// files of this folder, each named for what it holds:
//   plugin.cc          construction, init and fini, and the small operations
//   exports.cc         the exported C entry points (exports.h)
//   claim.cc           claim and node discovery
//   alt_tree.cc        alternate tree construction
//   deport.cc          deport, access and disposition
//   provider_state.cc  provider state
//   resources.cc       resource formatting and onlining
// Every operation opens its trace scope (QZ_PLUGIN_SCOPE) first, and those
// that can fail run their body under qzvmfi_report::reportingExceptions.
#ifndef QZVMFI_PLUGIN_QZVM_PLUGIN_H
#define QZVMFI_PLUGIN_QZVM_PLUGIN_H

#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "engine.h"
#include "node.h"
#include "support/qzvm_support.h"
#include "report.h"

// The plug-in's name: its provider name and its exported name strings.
inline constexpr char kQzVMPluginName[] = "qzvmfi";

// The source name under which the plug-in's operations trace and report.
inline constexpr char kQzVMPluginSource[] = "../plugin";

// The function trace scope of a plug-in operation: "Entering Function ..."
// now, "Exiting Function ..." when the operation returns.
#define QZ_PLUGIN_SCOPE(name)                                                       \
  const qzfi_pdk_4_4::CFiTraceLogFunction qzPluginScope(m_traceLog, name, __LINE__, \
                                                        kQzVMPluginSource)

class CQzVMPlugin : public qzfi_pdk_4_4::CFiPluginBase {
 public:
  // Takes the engine singleton and builds the plug-in's own support object
  // (which reads the tool directories: it throws CFiError when their
  // configuration folder cannot be determined).
  CQzVMPlugin();
  ~CQzVMPlugin() override;

  // The framework's operations, in its slot order, under the file that
  // defines them. Slots not listed keep the framework's base behaviour.
  // plugin.cc
  int init() override;
  int fini() override;
  // claim.cc
  int claim(qzfi_objid* object, qzfi_objid*** secondaryObjects, int* secondaryCount) override;
  // plugin.cc
  int supportsFiType(qfi_domain* node, char* fiType) override;
  // deport.cc
  int deportTree(qfi_domain* node, qfi_domain* altNode, qfi_accessnode* access) override;
  // alt_tree.cc
  int importTreeNode(qfi_domain* node, qzfi_objid** primary, qzfi_objid** secondary, int count,
                     qzfi_objid** out) override;
  // claim.cc
  int initNode(qfi_domain* node, qfi_domain** parents, int parentCount,
               qzfi_objid* object) override;
  // plugin.cc
  int config(qfi_domain* node, int op, char* name, qfi_confspec* confspec) override;
  // alt_tree.cc
  int initAltNode(qfi_domain* node, qfi_domain* parent, qfi_domain* altNode, bool flag) override;
  // claim.cc
  // The base's, then, once the plug-in holds no node's private data any
  // more, the command layer's caches emptied (its own and the engine's).
  int deInitNode(qfi_domain* node) override;
  // deport.cc
  int dispose(qfi_domain* node, qfi_domain* altNode, qfi_splitnode* target,
              qfi_disposition disposition) override;
  int online(qfi_domain* node, qfi_domain* altNode, int bringOnline,
             qfi_disposition disposition) override;
  // alt_tree.cc
  int buildAltTree(qfi_domain* node, char* splitType, qzfi_objid** primary, qzfi_objid** secondary,
                   int count, qzfi_objid** out) override;
  // plugin.cc
  int make(char* text, qfi_splitnode** nodes, int count, qzfi_objid*** ids, int* idCount) override;
  int select(char* text, qfi_splitnode** nodes, int count) override;
  int isReady(char* text, qfi_splitnode** nodes, int count) override;
  int getProviderInfo(qfi_provider_list** list) override;
  int enumerateNodes(qfi_node_list** list, int* count, int flags, char* text) override;
  int enumerateFims(qfi_fim_list** list) override;
  // claim.cc
  int checkNodeExistence(qfi_domain* node, int* exists) override;
  // provider_state.cc
  int processProviderState(qfi_domain* node, qfi_blob* blob, qfi_op_providerstate op) override;
  // deport.cc
  int enableAccess(qfi_node_subobj_list* list, long flags, int reserved, int options) override;
  int disableAccess(qfi_node_subobj_list* list, long flags) override;
  // resources.cc
  int format(char** disks, int count, char* name, char* type, char* options, int flags,
             char*** paths, int* pathCount) override;
  int onlineResource(char** disks, int count, char* a, char* b, char* c, char* d, int flags,
                     char*** paths, int* pathCount) override;
  int isParentPgn(char* disk, int* isParent, int flags) override;
  int unformat(char** disks, int count, int flags) override;
  // deport.cc
  int postDeport(qfi_domain* node, qfi_domain* altNode) override;

  // The plug-in's own operations, after the framework's slots, in this
  // order; only the plug-in's operations call them.
  // claim.cc
  virtual int AddSubObjects(qfi_domain* node, CQzVMData* data);
  // deport.cc
  virtual int deportAndDestroyDG(const qfi_domain* node);
  // resources.cc
  virtual int isParentPgnOptimized(char* disk, int* isParent, int flags);
  virtual int onlineResourceOptimized(std::vector<std::string> osDisks,
                                      std::vector<std::string>& paths);
  // deport.cc
  virtual int disableAccessOptimize(const std::string& diskGroup, const std::string& volume);

  // The gate of the exported entry points: whether the framework's delayed
  // initialisation has run.
  bool delayedInitRun() const { return m_delayedInitRun != 0; }
  void setDelayedInitRun() { m_delayedInitRun = 1; }

  // init's status after an exception: 6 after the command layer's own;
  // after a reported one, MSG_ERROR_INITIALIZATION_FAILED is pushed and the
  // status is 30. The init entry point fails this way too.
  static int initFailed(bool reported);
  // Registers the plug-in's message catalogue, "root" of provider, with the
  // catalogue manager (none: nothing to do).
  static void registerMessageCatalog(const qzfi_pdk_4_4::CFiMessageCatalogManagerPtr& manager,
                                     const std::string& provider);

  // The node's private data, with the plug-in's trace log registered; null
  // without node or private data. The framework's private-data manager
  // keeps it: callers never free it.
  CQzVMData* GetPrivateData(qfi_domain* node);

 private:
  // Helpers of each file go under its name, in the order of the file.
  // claim.cc
  // The path name of the node's object; empty when it has none.
  static std::string objectPathOf(const qfi_domain* node);
  // Marks the node as this plug-in's: its type word, its name (object's
  // path name, the same buffer) and its cleared state words.
  static void writeNodeRecord(qfi_domain* node, const qzfi_objid* object);
  // The node's new private data (flag 1: an alternate node), with the
  // plug-in's trace log; null without a private-data factory.
  CQzVMData* createPrivateData(qfi_domain* node, int flag);
  // Pairs osDisks[i] with dmpNodes[i] both ways in the node's private data:
  // 0, or 6 when the node has none.
  int storeDiskDMPMapInPrivateData(qfi_domain* node, const std::vector<std::string>& osDisks,
                                   const std::vector<std::string>& dmpNodes);
  // alt_tree.cc
  struct OwnerTexts;
  static const OwnerTexts kBuildOwnerTexts;
  static const OwnerTexts kImportOwnerTexts;
  // Gives the new volume's block device, and its raw device beside it, the
  // owner recorded for the primary volume: 0, 1091 when an owner cannot be
  // set, or the texts' status when the raw path cannot be made.
  int giveOwnerOfPrimary(const qzfi_objid* made, CQzVMData* data, const OwnerTexts& texts);
  // deport.cc
  int noObjectToDeport(int severity);
  int keepConfiguration(const std::string& path, CQzVMData* data);
  int deportAndRemoveDisks(const std::string& path);
  int disposeOfRemovedCopy(const std::string& path, const CQzVMData* copy);
  int enableEntry(const qfi_node_subobj_list& entry);
  // Start, or stop, the volume of path (with its DCO volumes and volume
  // sets): 0, or 6 after reporting the failure.
  int onlineVolume(qfi_domain* node, const std::string& path, CQzVMData* data);
  int offlineResource(qfi_domain* node, const std::string& path, CQzVMData* data);
  // provider_state.cc
  int restoreProviderState(qfi_domain* node, qfi_blob* blob);
  int refuseProviderState(qfi_domain* node, qfi_blob* blob);
  int saveProviderState(qfi_domain* node, qfi_blob* blob);
  // resources.cc
  // Takes the volume-manager identity away from a disk after the first,
  // whose group the first deletion may have destroyed: 0, or non-zero when
  // it stays.
  int deleteLaterDisk(const std::string& node);
  // Takes a disk's private region and the disk itself out of the view.
  int clearPrivateRegion(const std::string& node);
  // Whether the disk carries a private region of no group.
  bool leftWithoutGroup(const std::string& node);
  // Whether dg is what a format stopped half-way (its process killed) left
  // on these disks: none but them in it, no volume but the one asked for;
  // its volume is then there or not.
  bool leftByStoppedFormat(const std::string& dg, const std::string& volume,
                           const std::vector<std::string>& osDisks, bool& volumeMade);
  int onlinePersistentResource(const std::vector<std::string>& osDisks, char*** paths,
                               int* pathCount);
  // The "diskGroup" option of format's option text into dg: 0, or 3 after
  // reporting text that cannot be read.
  int diskGroupOption(const char* options, std::string& dg);
  int createFreshVolume(std::string& dg, std::string& volume,
                        const std::vector<std::string>& osDisks);
  // "/dev/qz/dsk/<dg>/<volume>" handed out by allocBuffer; 3 when a name is
  // empty.
  int createPathAndAllocBuffer(const std::string& dg, const std::string& volume, char*** paths,
                               int* count);
  // A one-entry, null-terminated array of the framework's allocator holding
  // path, and count 1: 0, or 5 when memory runs out.
  int allocBuffer(const std::string& path, char*** paths, int* count);

  // Plug-in state.
  unsigned char m_delayedInitRun = 0;
  CQzVMEngine* m_engine;
  CQzVMSupport m_support;
  // Set until the first postDeport has had the disks rescanned.
  bool m_rescanPending = true;
};

#endif  // QZVMFI_PLUGIN_QZVM_PLUGIN_H

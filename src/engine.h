// The split-image engine: records a disk group at the source, and imports or
// rebuilds the split copy of it where the split disks appear, then starts
// the copied volume.
#ifndef QZVMFI_ENGINE_H
#define QZVMFI_ENGINE_H

#include <map>
#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "clitool.h"
#include "configuration.h"
#include "node.h"
#include "support/qzvm_support.h"

class CQzVMEngine : public virtual qzfi_pdk_4_4::CFiTraceable {
 public:
  // The one engine of the process, alive until the library is unloaded.
  static CQzVMEngine* getInstance();

  // The engine, its command runner and its support object trace into log.
  void registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) override;
  ~CQzVMEngine() override;

  // Reads the tool directories (writing the default file when missing).
  // 0, or 6 after reporting what was thrown.
  int initEngine();

  // Appends the volume sets, volumes and DCO volumes of the volume at path
  // to the private data. 0; 5 when they cannot be listed; 6 without data.
  int getQzVMObjects(const std::string& path, CQzVMData* data);
  // Starts, or stops, the volume sets, DCO volumes and volumes of a volume.
  int activeVol(const std::string& dg, const std::string& volume, CQzVMData* data);
  int deactiveVol(const std::string& dg, const std::string& volume, CQzVMData* data);
  // 0; 5 when the set will not change state; else the status of the check.
  int onlineVSet(const std::string& dg, const std::string& vset, CQzVMData* data);
  int offlineVSet(const std::string& dg, const std::string& vset, CQzVMData* data);
  // activeVol, then the object id of the volume's device path: 0, 6 when the
  // volume will not start, 1024 when no id could be made.
  int activeVolAndCreateObjid(const std::string& dg, const std::string& volume, CQzVMData* data,
                              qzfi_objid** objid, bool raw);
  // A kind-2 object id of "/dev/qz/[r]dsk/<dg>/<volume>"; nothing is stored
  // when dg or volume is empty or the volume is already a path.
  void init_internal_objid(qzfi_objid** objid, const std::string& dg, const std::string& volume,
                           bool raw);

  // The operations below return 0 or 6; importQzVM, buildAltTree and
  // buildQzVM return 3 when the split disks do not pair with the primaries,
  // before any disk is changed.

  // Source host: the group's disks, their disk-media names and private
  // regions, and the group's configuration dump, into the private data.
  int setQzVMConfigInPD(const std::string& path, CQzVMData* data);
  // Imports an intact split group by its recorded id under newDG.
  int importQzVM(qzfi_objid** objid, const std::string& newDG,
                 const std::vector<std::string>& primaryDisks,
                 const std::vector<std::string>& osDisks, const std::string& path, CQzVMData* data);
  // Builds newDG on the split disks unless they already carry the volume;
  // the private data's group id becomes the new group's.
  int buildAltTree(qzfi_objid** objid, const std::string& newDG,
                   const std::vector<std::string>& osDisks, const std::string& path,
                   CQzVMData* data, const std::vector<std::string>& primaryDisks,
                   const std::vector<std::string>& primaryDMs);
  int buildQzVM(qzfi_objid** objid, const std::string& newDG,
                const std::vector<std::string>& splitDisks, const std::string& path,
                CQzVMData* data, const std::vector<std::string>& primaryDisks,
                const std::vector<std::string>& primaryDMs);
  // Same host: re-creates a group taken away earlier, under its own name and
  // disk-media names.
  int recreateDG(const std::string& path, const std::vector<std::string>& osDisks, CQzVMData* data);

  // Before the copy of a record is stopped, deported or destroyed: evidence,
  // read from this host's volume manager, that the group of copyPath is the
  // copy that the record's import made. Its name is not the source's group
  // (of source's configuration, else of sourcePath); it holds exactly the
  // disks that the copy's node recorded and no volume that the record does
  // not name; it has the group id that the import recorded in source's
  // data. kCopyProven; kCopyAbsent when no group of that name is imported
  // here; 3 when it is not the copy, reported with what was found.
  static const int kCopyProven = 0;
  static const int kCopyAbsent = 1;
  // readHost false: the name check alone, with no tool run, for a step that
  // only stops the copy's volumes.
  int proveRecordedCopy(const char* operation, const std::string& copyPath,
                        const std::string& sourcePath, CQzVMData* source, CQzVMData* copy,
                        bool readHost = true);

  const SQzVMCliPath& cliPath() const { return m_cliPath; }
  // Groups that buildAltTree left holding a copy, with the path it copies.
  const std::map<std::string, std::string>& builtGroups() const { return m_builtGroups; }

  // The engine outlives every node: a long-lived host would keep the
  // listings and built groups of each record it ever met. Once the
  // plug-in holds no node, its command layer's caches are emptied and the
  // built groups forgotten; what is asked next is read from the tools.
  void forgetListings();
  // The entries of the engine's command-layer caches.
  size_t cachedEntries() const { return m_support.cachedEntries(); }

 protected:
  // Tests build engines of their own; the plug-in uses getInstance.
  CQzVMEngine();

 private:
  // The split disks as the volume manager names them and as the operating
  // system does.
  struct SplitDisks {
    std::vector<std::string> dmpNodes;
    std::vector<std::string> osHandles;
  };
  struct SourceRecords;
  struct RebuildTexts;
  static const RebuildTexts kBuildTexts;
  static const RebuildTexts kRecreateTexts;

  int startExisting(const std::string& dg, const std::string& volume, CQzVMData* data,
                    qzfi_objid** objid, bool raw, const char* failure);
  void cleanUp(const std::string& importedDG, const SplitDisks& disks);
  // A group that a stopped build left on the split disks without the
  // volume, proven this record's: 0 deported; kNothingLeft when there is
  // none; 3 when the group there is not the copy (reported); 6 when its
  // deport failed.
  static const int kNothingLeft = 1;
  int deportUnfinishedGroup(const std::string& foundDG, const std::string& sourceDG,
                            const SplitDisks& disks, const std::vector<std::string>& primaryDisks,
                            CQzVMData* data);
  int importById(qzfi_objid** objid, const std::string& newDG, const std::string& volume,
                 CQzVMData* data, bool raw, const SplitDisks& disks);
  int takeNewGroupId(const qzfi_objid* objid, CQzVMData* data, const std::string& path);
  // What a build that failed left, for its clean-up to go by.
  struct BuildLeft {
    // The group made, once it stands (source.newDG, or the name chosen again
    // when another backup took that one meanwhile).
    std::string createdDG;
    // The split disks were shown to be the copies (or the restored disks
    // the record's) before the first change to them.
    bool disksShown = false;
  };
  int buildGroup(SourceRecords& source, CQzVMData* data, const RebuildTexts& texts,
                 BuildLeft& left);
  int buildOnSplitDisks(qzfi_objid** objid, const std::string& newDG,
                        const std::vector<std::string>& splitDisks, const std::string& path,
                        CQzVMData* data, const std::vector<std::string>& primaryDisks,
                        const std::vector<std::string>& primaryDMs, BuildLeft& left);
  // Creates dg on the disks; with mayRename, under a name chosen again when
  // dg was taken meanwhile. 0 or 1; made: dg stands on the split disks,
  // made by this call before a later disk failed to join it.
  int createGroup(std::string& dg, const std::vector<std::string>& disks,
                  const std::vector<std::string>& dms, bool cds, bool mayRename, bool& made);
  // ours: the group of that name stands on the first split disk.
  bool chooseAgain(std::string& dg, const std::vector<std::string>& splitDisks,
                   bool* ours = nullptr);
  int runVSetCommand(const std::string& dg, const std::string& vset, const char* action);
  // Before the first change to a split disk: false, after reporting the
  // pair, when a split disk is not the copy of its primary (build) or does
  // not carry the recorded group (import).
  bool splitDisksPairWithPrimaries(const std::vector<std::string>& primaryDisks,
                                   const std::vector<std::string>& splitDisks,
                                   const std::vector<std::vector<std::string>>& splitListings,
                                   CQzVMData* data);
  bool splitDisksCarryGroup(const std::vector<std::string>& primaryDisks,
                            const std::vector<std::string>& splitDisks,
                            const std::vector<std::vector<std::string>>& splitListings,
                            const std::string& dgid);

  // What the volume manager lists of one group now.
  struct GroupSeen {
    std::vector<std::string> disks;
    std::vector<std::string> dms;  // of disks[i]
    std::vector<std::string> volumes;
  };
  bool readGroup(const std::string& dg, GroupSeen& seen);
  // Reports why group is not the copy and that nothing was changed: false.
  bool notTheCopy(const char* operation, const std::string& group, const std::string& why);
  // The same, as the status 3 of a refusal.
  int refused(const char* operation, const std::string& group, const std::string& why);
  // Traces what of group could not be read: the failure 6, nothing changed.
  int unreadable(const char* operation, const std::string& group, const std::string& what);
  static std::string differenceFromRecord(const GroupSeen& seen,
                                          const std::vector<std::string>& disks,
                                          const std::vector<std::string>& dms,
                                          const std::vector<std::string>& volumes, bool whole);
  // A group found on the split disks is the copy that this record's import
  // (intact) or build made, whole or stopped half-way: kCopyProven, 3
  // (reported), or 6 when what it holds could not be read. The same for
  // provenRecreation.
  // pathDG: the group of the source's path; listings: the split disks'
  // private regions when the caller has just read them.
  int provenCopyOnSplitDisks(const char* operation, const std::string& foundDG,
                             const std::string& pathDG, const SplitDisks& disks,
                             const std::vector<std::string>& primaryDisks, CQzVMData* data,
                             bool intact,
                             const std::vector<std::vector<std::string>>* listings = nullptr);
  // The group dg on the restored disks was made by a re-creation of this record.
  int provenRecreation(const std::string& dg, const std::vector<std::string>& disks,
                       CQzVMData* data);
  bool isSourceGroup(const std::string& copyPath, const std::string& sourcePath, CQzVMData* source);
  bool restoredDisksCarryRecord(const std::string& dg, const std::vector<std::string>& disks,
                                const std::vector<std::vector<std::string>>& listings);

  CQzVMCliTool m_cliTool;
  SQzVMCliPath m_cliPath;
  CQzVMSupport m_support;
  std::map<std::string, std::string> m_builtGroups;
  int m_nameChoices = 0;  // new names chosen again by the current build or import
};

#endif  // QZVMFI_ENGINE_H

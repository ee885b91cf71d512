// The volume-manager command layer: the text helpers that take the tools'
// output apart, and CQzVMSupport, which runs the tools. The definitions live
// beside this header, one file per concern, as the sections below name them;
// construction and command running are in qzvm_support.cc.
#ifndef QZVMFI_SUPPORT_QZVM_SUPPORT_H
#define QZVMFI_SUPPORT_QZVM_SUPPORT_H

#include <stdio.h>

#include <map>
#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "clitool.h"
#include "configuration.h"
#include "node.h"

// --- text helpers (text.cc, with fgetline and putVectorInFile) ---

// The token at a 0-based position, tokens being runs of non-white characters;
// empty when the line has fewer.
std::string getToken(const std::string& line, int index);
// The value of "key=value" in text (ended by a blank or a comma), or empty.
// A value that begins with a comma stops the process.
std::string getValForKey(const std::string& text, const std::string& key);
// The first line holding key, with key removed and trimmed, into value: 0;
// 1 (value untouched) when no line holds it.
int getMetaValForkey(const std::vector<std::string>& lines, const std::string& key,
                     std::string& value);
bool hasVal(const std::string& text, const std::string& key);
bool hasDAName(const std::string& text);
bool hasDMName(const std::string& text);
bool hasPathVal(const std::string& text);
// Replaces the first occurrence of what at or after from: 0; 1 when none.
int replaceString(std::string& text, std::string::size_type from, const std::string& what,
                  const std::string& with);
// Every wanted entry is present (and, with sameSize, the lists are as long).
bool checkVectorMatch(const std::vector<std::string>& wanted,
                      const std::vector<std::string>& present, bool sameSize);
bool isUniqueInVector(const std::vector<std::string>& names, const std::string& name);
// name becomes name_<i> for the first free i (cut to the volume manager's
// limit); empty when 1024 tries are all taken.
void createUniqueInVector(const std::vector<std::string>& names, std::string& name);
// Keeps the last 31 characters: the volume manager's longest object name.
void MAKE_NAME_RFIT(std::string& name);
// Appends the lines of text, without their line feeds.
void multiLinesToVector(const std::string& text, std::vector<std::string>& lines);
void printList4(const std::vector<std::string>& lines);

// Cache entry of one disk group.
struct SDGInfo {
  std::string name;
  std::vector<std::string> disks;   // as getDisksForDG listed them
  std::vector<std::string> config;  // the "qzprint -m" dump
};

// Cache entry of one disk (or, in the node-to-path cache, one DMP node).
struct SDisksInfo {
  std::string name;
  std::vector<std::string> listing;  // "qzdisk list" output
  std::string osName;                // OS path found for the node
};

class CQzVMSupport : public virtual qzfi_pdk_4_4::CFiTraceable {
 public:
  // Reads the tool directories, writing the default configuration file when
  // there is none. Throws CFiError when its folder cannot be determined.
  CQzVMSupport();
  ~CQzVMSupport() override;

  // The support object and its command runner trace into log.
  void registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) override;

  // One whole line of any length, line feed kept; empty at end of file.
  // Always 0.
  static int fgetline(std::string& line, FILE* stream);
  // Writes the lines as they are (they carry their own line feeds): 0; 1 when
  // the file cannot be opened or there is nothing to write (the file is then
  // left empty).
  static int putVectorInFile(const std::vector<std::string>& lines, const std::string& path);

  const SQzVMCliPath& cliPath() const { return m_cliPath; }

  // --- the caches of tool listings (group configurations and disks, disks'
  // private regions, multipath nodes' paths, scanned devices) ---
  // The most entries one cache keeps: a long-lived process (the host's
  // agent) meets new group and disk names with every backup, and a cache
  // that reaches this starts afresh before it takes a new name. Far above
  // what one command on a thousand-disk host uses.
  static constexpr size_t kMaxCachedEntries = 4096;
  // Every cache dropped: what is asked next is read from the tools again.
  void clearCaches();
  // The entries of all the caches together.
  size_t cachedEntries() const;

  // --- installation probes and device names (install.cc) ---
  bool isInstalled();
  bool isCommandAvailable(const std::string& directory, const std::string& tool);
  bool isQzDMPInstalled();
  bool isVSetAvailable();
  bool isCDSSupported();
  int cleanupOtherLVMOnDisk(const std::vector<std::string>& disks);
  int removePartitionSuffix(std::vector<std::string>& devices);
  bool isValidZOLKPath(const std::string& path);
  bool isVolumeRaw(const std::string& path);
  bool isGuid(const std::string& line);
  bool isRegion(const std::string& line, const std::string& tag);
  bool isDM(const std::string& line);
  bool isDG(const std::string& line);
  void removeDevicesFromOSDeviceTree(const std::vector<std::string>& devices);

  // --- disk groups (diskgroups.cc) ---
  bool isDGPresent(const std::string& dg);
  bool isDGExist(const std::string& dg);
  bool isDGEnabled(const std::string& dg);
  int getAllDGNames(std::vector<std::string>& names);
  void getNewDGName(const std::string& base, std::string& name);
  int getNewDGName(std::string& name);
  int createDG(const std::string& dg, const std::vector<std::string>& disks, bool cds);
  int createDG(const std::string& dg, const std::vector<std::string>& disks,
               const std::vector<std::string>& dms, bool cds);
  bool importDG(const std::string& newName, const std::string& dg);
  // The flag is unused: every caller deports the same way whatever it passes.
  bool deportDG(const std::string& dg, bool flag = false);
  // checkFirst by value so that callers may pass literals.
  int destroyDG(const std::string& dg, bool checkFirst);
  bool flushDGConfig(const std::string& dg);
  bool onlineDG(const std::string& dg, bool start);
  int enableDG(const std::string& dg);
  bool diskClearImport(const std::vector<std::string>& disks);
  int getDGID(const std::string& volumePath, std::string& dgid);
  int getDGSize(const std::string& dg, unsigned long long& size);
  int getDisksForDG(const char* dg, std::vector<std::string>& disks);
  // Every disk in this host's view with its group as listed: "-" for
  // none, the name in brackets for a deported group.
  int getGroupOfListedDisks(std::map<std::string, std::string>& groupOf);
  // The disks in this host's view that carry the deported group dg.
  int getDisksOfDeportedDG(const std::string& dg, std::vector<std::string>& disks);
  // dms[i] is the disk-media name of disks[i]: the engine and buildAltTree
  // need the names in the order of their own disk lists.
  int getDMsFromDG(const std::string& dg, const std::vector<std::string>& disks,
                   std::vector<std::string>& dms);
  // The disks of dg and their disk-media names as the volume manager lists
  // them now, never from a cache: what a check before a change reads.
  int getDisksAndDMsOfDG(const std::string& dg, std::vector<std::string>& disks,
                         std::vector<std::string>& dms);
  // The volumes and volume sets of dg, without enabling the group.
  int getVolumeNamesOfDG(const std::string& dg, std::vector<std::string>& names);
  // removeDisks: also drop the group's disks from the volume manager's view
  // (callers pass true); disableDmp: disable their paths as well (callers
  // pass false).
  int deportDGAndRemoveDisks(const std::string& object, bool removeDisks, bool disableDmp);

  // --- disks and multipath nodes (disks.cc) ---
  int qzvmScanDisks(bool newOnly);
  int qzvmScanDisks(const std::vector<std::string>& devices);
  int getQzVMDiskForOSDiskHandler(const std::vector<std::string>& osDisks,
                                  std::vector<std::string>& dmpNodes);
  int getQzVMDiskForOSDiskHandler_Waited(const std::vector<std::string>& osDisks,
                                         std::vector<std::string>& dmpNodes);
  int getOSDiskHandleForQzVMDisk(const std::vector<std::string>& dmpNodes,
                                 std::vector<std::string>& osDisks, bool allPaths, bool skipCache);
  int enableOSDisk(const std::string& osDisk);
  int disableOSDisk(const std::string& osDisk);
  int enableDMP(const std::string& node);
  int disableDMP(const std::string& node);
  int getDMPPathIfValid(const std::string& osDisk, std::string& dmpPath);
  int qzDiskSetup(const std::vector<std::string>& disks);
  bool qzDiskUnsetup(const std::string& disk);
  bool isCDSDisk(const std::vector<vol_pvt_info>& records);
  int createSUNLabel(const std::vector<std::string>& osDisks);
  // disableDmp by value so that callers may pass literals.
  int removeDisksFromQzVM(const std::vector<std::string>& disks, bool disableDmp = false);
  int refreshDisks(const std::vector<std::string>& disks);
  int isDisksInQzVMDB(const std::vector<std::string>& disks, bool optimized);
  // The same, handing back the "qzdisk list" lines of each disk, in order.
  int isDisksInQzVMDB(const std::vector<std::string>& disks, bool optimized,
                      std::vector<std::vector<std::string>>& listings);
  bool isDiskShared(const std::vector<std::string>& lines);
  int checkQzVMDiskAgainstDG(const std::vector<std::string>& dgs,
                             const std::vector<std::string>& disks, bool& belongs);
  int deleteQzVMDisk(const std::string& disk);
  // cleanFirst: the volume manager's view may be stale (a newly presented
  // disk), so deport and re-import the group found on the disk before the
  // final answer.
  int isQzVMDisk(const std::string& osDisk, const std::string& node, bool& answer, bool cleanFirst);

  // --- volumes and volume sets (volumes.cc) ---
  int onlineVolume(const std::string& dg, const std::string& volume, const std::string& useType);
  int onOffVolume(const std::string& dg, const std::string& volume, const std::string& operation);
  int createVolume(const std::string& volume, const std::string& dg, unsigned long long size);
  int offlineVolume(const std::string& dg, const std::string& volume, void* unused = nullptr);
  bool isVolStarted(const std::string& dg, const std::string& volume);
  bool isVolume(const std::string& path);
  bool isVSet(const std::string& path);
  int isVsetOn(const std::string& dg, const std::string& vset, bool& on);
  int getVolumesFromDG(const std::string& dg, std::vector<std::string>& names, bool vsets);
  int checkVolumeInDG(const std::string& dg, const std::string& name, bool& found, bool vsets);
  // printed, when given, receives the lines that qzprint printed, for the
  // caller's report of a failure.
  int getQzVMObjects(std::vector<std::string>& vsets, std::vector<std::string>& volumes,
                     std::vector<std::string>& dcoVolumes, const std::string& dg,
                     const std::string& volume, std::vector<std::string>* printed = nullptr);
  int getDisksForVolume(const std::string& path, std::vector<std::string>& disks);
  void extractDGAndVol(const std::string& path, std::string& dg, std::string& volume);
  bool isVolOrPlexOrSubdiskOrDCO(const std::string& line);
  int stopDCOVols(const std::string& dg, const std::vector<std::string>& volumes);
  int startDCOVols(const std::string& dg, const std::vector<std::string>& volumes,
                   const std::string& useType);
  int verifySubObjects(const std::string& dg, const std::string& volume,
                       const std::vector<std::string>& osDisks, bool unused, bool& same);
  int ssodOnlineVolume(const std::string& dg, const std::string& volume,
                       const std::vector<std::string>& osDisks);
  int createNewVolumeOnOSDisks(const std::string& dg, const std::string& volume,
                               const std::vector<std::string>& osDisks);
  int removeSnapshot(const std::string& path, bool destroy);
  // What a removal stopped after the destroy (its process killed) left of
  // the copy's recorded disks: those in the view without a group leave it,
  // and the OS devices of all of them go. 0; 1, with nothing changed, when
  // a recorded disk (inGroup) is in a group (group) again.
  int removeDisksLeftByDestroy(const std::vector<std::string>& recorded, std::string& inGroup,
                               std::string& group);

  // --- private regions and configuration rewriting (privregions.cc) ---
  int getVolPrivInfoPerAltDisk(const std::string& disk, std::vector<std::string>& lines);
  int getVolPrivInfoPerDisk(const std::string& disk, std::vector<std::string>& lines);
  int getVolPrivInfo(const std::vector<std::string>& disks, std::vector<vol_pvt_info>& records);
  int getVolPrivInfoUnformatted(const std::vector<std::string>& disks,
                                std::vector<std::vector<std::string>>& listings);
  int parseVolPrivInfo(const std::vector<std::string>& lines, vol_pvt_info& record);
  // The disk id of a "qzdisk list" listing ("disk: ... id=..."); empty when
  // it has none.
  static std::string diskIdOf(const std::vector<std::string>& lines);
  // The unique disk id of the LUN, and the configuration's update sequence
  // number ("update: seqno=..."), of a listing; empty when it has none.
  static std::string udidOf(const std::vector<std::string>& lines);
  static std::string seqnoOf(const std::vector<std::string>& lines);
  int dgIdNameOnDisk(const std::string& disk, std::string& dgid, std::string& dgName);
  int defineDisksInQzVM(const std::vector<std::string>& disks,
                        const std::vector<vol_pvt_info>& records);
  int initDisks(const std::vector<std::string>& disks, const std::vector<vol_pvt_info>& records,
                bool removeFirst);
  int getDGConfigInVector(const std::string& dg, std::vector<std::string>& lines);
  int getDGConfig(const std::string& dg, const std::string& filePath);
  void replacePattern(const std::string& line, const std::string& oldDG, const std::string& newDG,
                      const std::vector<std::string>& vecPriDisks,
                      const std::vector<std::string>& vecAltDisks,
                      const std::vector<std::string>& vecPriDMs,
                      const std::vector<std::string>& vecAltDMs, std::string& out);
  int reconfig(const std::string& inFile, const std::string& oldDG, const std::string& newDG,
               const std::vector<std::string>& vecPriDisks,
               const std::vector<std::string>& vecAltDisks,
               const std::vector<std::string>& vecPriDMs, const std::vector<std::string>& vecAltDMs,
               const std::string& outFile);
  int applyVolConfig(const std::string& dg, const std::string& file);
  int regenerateDGFromDisk(const std::vector<std::string>& disks, std::string& dgName);
  int regenerateQzVMFromDisk(const std::vector<std::string>& disks, std::string& dgName,
                             std::string& volume);
  // created: the group named on the first disk is imported here, enabled,
  // with every disk in it; imported: the same, whatever disks it holds.
  int getDGFromQzVMDiskIfRecreated(const std::vector<std::string>& disks, bool& created,
                                   std::string& dgName, bool* imported = nullptr);
  int checkForVolFromQzVMDiskIfRecreatedAndGetDG(const std::vector<std::string>& disks,
                                                 const std::string& volume, std::string& dgName,
                                                 bool& found, bool vsets, bool* imported = nullptr);
  // halfMade: the disks carry dg imported here without every disk or
  // without the volume.
  int checkForVolPathFromQzVMDiskIfRecreated(const std::vector<std::string>& disks,
                                             const std::string& dg, const std::string& volume,
                                             bool& found, bool vsets, bool* halfMade = nullptr);

 protected:
  CQzVMCliTool m_cliTool;
  SQzVMCliPath m_cliPath;

 private:
  // --- running the tools (qzvm_support.cc) ---
  // Command directory and support-tool directory of the path record.
  const std::string& commandDir() const;
  const std::string& supportToolDir() const;
  // A command line of a tool of the command directory, or of the
  // support-tool directory, with its pieces.
  template <typename... Pieces>
  CQzVMCommandLine tool(const char* name, const Pieces&... pieces) const {
    return CQzVMCommandLine(commandDir(), name).add(pieces...);
  }
  template <typename... Pieces>
  CQzVMCommandLine supportTool(const char* name, const Pieces&... pieces) const {
    return CQzVMCommandLine(supportToolDir(), name).add(pieces...);
  }
  // Every command of the support object runs here, through the runner's
  // run: a line holding a name that failed CQzVMCommandLine's check is not
  // run and fails with 1.
  int run(const CQzVMCommandLine& command, std::vector<std::string>& output);
  void trace(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  int dmpAdmRows(const CQzVMCommandLine& command, std::vector<std::string>& output);
  int pathsOfNode(const std::string& node, std::vector<std::string>& osDisks, bool allPaths);
  int setDMPPaths(const std::string& node, bool enable);
  int runOnce(const std::vector<CQzVMCommandLine>& commands);
  // "qzdg deport" of a group known to be present; true when it failed.
  bool runDeport(const std::string& dg);
  int printRecordsOf(const CQzVMCommandLine& command, std::vector<std::string>& output);
  // A cached listing copied into lines, with the "returned value from map"
  // trace of operation; false when nothing is cached.
  bool fromCache(const std::vector<std::string>& cached, std::vector<std::string>& lines,
                 const char* operation);

  // The entry of key in cache, made when missing; a full cache is emptied
  // first. A reference taken here is used before the next one is taken.
  template <class Map>
  typename Map::mapped_type& cacheEntry(Map& cache, const std::string& key) {
    if (cache.size() >= kMaxCachedEntries && cache.find(key) == cache.end()) {
      cache.clear();
    }
    return cache[key];
  }

  std::map<std::string, SDGInfo> m_dgInfo;
  std::map<std::string, SDisksInfo> m_disksInfo;
  // Node-to-path cache: DMP node name to the record holding its OS path.
  std::map<std::string, SDisksInfo> m_dmpPathInfo;
  std::map<std::string, std::string> m_scannedDevices;
};

#endif  // QZVMFI_SUPPORT_QZVM_SUPPORT_H

// The simulated storage network as one tool run sees it: the host it runs
// as, the disks that host sees, and the disk groups imported there.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "config.h"
#include "db.h"

namespace qzsim {

// A tool's failure: printed as "QZVM <tool> ERROR Q-5-1-<code> <text>" with
// the exit status.
struct ToolError {
  int status;
  int code;
  std::string text;
};

// Exit statuses and message numbers, one per kind of failure.
enum Err {
  kUsage,
  kNotInstalled,
  kNoDisk,
  kDiskNotInit,
  kDiskInUse,
  kBadGeometry,
  kNoGroup,
  kGroupExists,
  kImportNoDisks,
  kImportLocked,
  kNoObject,
  kObjectExists,
  kNoSpace,
  kVolBusy,
  kVolCannotStart,
  kUsageType,
  kNoPath,
  kBadName,
  kGroupDisabled,
  kBadRecord,
};
[[noreturn]] void fail(Err kind, const std::string& text);

// Refuses a name outside the volume manager's rules; kind starts the
// sentence ("Disk group", "Volume", ...). Returns the name.
const std::string& requireName(const std::string& kind, const std::string& name);

struct Host {
  std::string name, version;
  bool installed = true, dmp = true, vset = true, cds = true;
  int64_t hideScans = 0;
  int64_t syncedGen = 0;  // the change generation its device nodes reflect
};

struct Disk {
  int64_t id = 0;
  std::string lun, enclosure, image;
  int64_t enclIndex = 0, size = 0;
  std::string ptype = "auto", pformat = "none";
  int64_t privslice = 9999, pubslice = 9999, privoffset = 0, privlen = 0, puboffset = 0, publen = 0,
          configlen = 0, loglen = 0, nconfig = 0, nlog = 0;
  std::string diskid, dmname, dgname, dgid, hostlock;
  int64_t seqno = 0;
  // The group's configuration copy: read by loadDisk only (it holds the
  // whole group, so a disk read for its names leaves it out); saveDisk
  // writes it only when it was read or set.
  std::string config;
  bool configLoaded = false;
  int64_t configId = 0;    // the stored text config is, when it is one (0: store it)
  bool hasConfig = false;  // the copy is not empty
  // The unique device id of the LUN the private region was written on: an
  // array copy carries its source's, which marks it as a clone.
  std::string udid;
  int64_t copyOf = 0;  // the LUN an array copy was made from

  std::string node() const { return enclosure + "_" + std::to_string(enclIndex); }
  bool initialized() const { return pformat != "none"; }
  std::string ownUdid() const { return "QZARR%5F" + enclosure + "%5F" + lun; }
  bool isClone() const { return initialized() && !udid.empty() && udid != ownUdid(); }
};

struct OsPath {
  std::string osname;
  int64_t disk = 0;
  bool enabled = true;
};

// Folders of the simulation root.
std::string dbPath(const std::string& root);
std::string hostDir(const std::string& root, const std::string& host);

class Sim {
 public:
  Sim(Db& db, const std::string& root, const std::string& host);

  Db& db;
  std::string root;
  Host host;
  std::string out, err;

  static Host loadHost(Db& db, const std::string& name);
  static Disk loadDisk(Db& db, int64_t id);
  // The disk without its configuration copy.
  static Disk loadDiskLight(Db& db, int64_t id);
  static void saveDisk(Db& db, const Disk& d);
  // Stores a configuration text that disks will carry; its id.
  static int64_t storeConfig(Db& db, const std::string& config);

  // Disks and paths as this host sees them.
  std::vector<OsPath> paths(int64_t disk);
  std::string daName(const Disk& d);
  std::string dmpPath(const Disk& d);
  std::vector<Disk> viewDisks();
  // Finds a discovered disk by its QzVM name or one of its OS names
  // (with or without "/dev/"); 0 when there is none.
  int64_t findDisk(const std::string& name, bool requireView);
  int64_t requireViewDisk(const std::string& name);
  bool inView(int64_t disk);
  // A disk that lost every path stays in the view, listed in state error,
  // until it is taken out of it (qzdisk rm); then the host forgets it.
  void setView(int64_t disk, bool discovered, bool inview);
  bool hasPath(int64_t disk);
  // Refuses a disk without a path: nothing can be read from it or written to it.
  void requirePath(int64_t disk, const std::string& name);

  // Disk groups imported on this host. The host keeps the configuration it
  // imported (and changed since) and which disk holds each disk medium; a
  // disk that carries the same identity, such as an array copy, never
  // becomes part of the group by showing up.
  struct Group {
    std::string dgid;
    GroupConfig cfg;
    std::map<std::string, int64_t> dmDisk;  // dm name -> disk, when present
    bool shared = false, disabled = false;
  };
  std::vector<std::pair<std::string, std::string>> imports();  // (dgid, name)
  bool findGroup(const std::string& name, Group* g);
  Group requireGroup(const std::string& name);
  // requireGroup for changes and volume starts: a disabled group refuses them.
  Group requireEnabledGroup(const std::string& name);
  bool loadImported(const std::string& dgid, Group* g);
  // Records a new import of g under its configuration's name.
  void addImport(Group& g);
  // Writes the configuration to this host's import (and every other host's
  // that shares the group) and to the private region of every present disk.
  void saveGroup(Group& g);
  std::string groupOfDisk(int64_t disk);  // imported group name holding it, or ""
  DumpView dumpView(const Group& g);
  // A group whose disks all lost their paths is disabled until deported.
  void setDisabled(const std::string& dgid);

  bool isStarted(const std::string& dgid, const std::string& obj);
  void setStarted(const std::string& dgid, const std::string& obj, bool on);
  bool isHeld(const std::string& dgid, const std::string& vol);

  std::string newGuid();
  std::string newId();  // disk and group ids

  // Takes an OS path away from the host, as the kernel does when its SCSI
  // device is deleted; false when the host has no such path.
  bool deleteOsPath(const std::string& osname);
  // After a run (changed: it changed the model), brings the host's device
  // nodes up to date unless nothing changed anywhere since they last were.
  void sync(bool changed);
  // Makes the host's device nodes match the model: /dev/qz (volumes, volume
  // sets, DMP nodes) and the OS disks, keeping each node's owner and mode,
  // and disables groups that lost every disk.
  void syncHostFiles();

  // A run whose every change concerns the disks and groups it names here,
  // each named before it is changed, brings up to date only their device
  // nodes (when the host's nodes were up to date before it): a delete, a
  // scan or an import on a host of a thousand disks costs what it changes.
  void touchDisk(int64_t disk);
  void touchGroup(const std::string& dgid);

  // A device node the host should have: its key in the nodes table (stable
  // across renames and re-imports), its path below the host folder and the
  // mode it starts with.
  struct WantedNode {
    std::string key, path;
    unsigned mode;
  };
  // The nodes the model gives the host (a full sync's list); disableLost:
  // disables the groups that lost every disk on the way.
  std::vector<WantedNode> wantedNodes(bool disableLost);

 private:
  // Links /dev/sdX for osnames; only: the names to look at (all of /dev
  // when null).
  void syncSandboxDisks(const std::set<std::string>& osnames, const std::set<std::string>* only);
  void syncTouched();
  void dmpNodes(const Disk& d, std::vector<WantedNode>* out);
  void disableIfUnreachable(const Group& g);
  std::vector<WantedNode> diskNodes(int64_t disk);
  std::vector<WantedNode> groupNodes(const std::string& dgid);
  std::map<int64_t, std::vector<WantedNode>> touchedDisks_;  // nodes before the change
  std::map<std::string, std::vector<WantedNode>> touchedGroups_;
  std::map<std::string, GroupConfig> parsedConfigs_;  // by configuration text
};

// Per-host folders below the simulation root.
std::string devQzDir(const std::string& root, const std::string& host);  // shown as /dev/qz
std::string devOsDir(const std::string& root, const std::string& host);  // OS disk nodes
// The host's machine id (32 lowercase hex digits and a newline), shown as
// /etc/machine-id in its sandbox.
std::string machineIdFile(const std::string& root, const std::string& host);
// Writes a new random machine id for the host, as an installation does;
// false when it cannot.
bool newMachineId(const std::string& root, const std::string& host);
// Makes the host's machine id when it has none yet (a host added before
// hosts had one); false when it cannot.
bool ensureMachineId(const std::string& root, const std::string& host);
// Where a sandbox shows the current host's OS disk nodes; /dev/sdX there are
// links into it.
constexpr const char* kSandboxOsDir = "/dev/.qzsim-os";

}  // namespace qzsim

// The simulated storage network as one tool run sees it: the host it runs
// as, the disks that host sees, and the disk groups imported there.
#pragma once

#include <cstdint>
#include <map>
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
};
[[noreturn]] void fail(Err kind, const std::string& text);

struct Host {
  std::string name, version;
  bool installed = true, dmp = true, vset = true, cds = true;
  int64_t hideScans = 0;
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
  std::string config;

  std::string node() const { return enclosure + "_" + std::to_string(enclIndex); }
  bool initialized() const { return pformat != "none"; }
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
  static void saveDisk(Db& db, const Disk& d);

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
  void setView(int64_t disk, bool discovered, bool inview);

  // Disk groups imported on this host.
  struct Group {
    std::string dgid;
    GroupConfig cfg;
    std::map<std::string, int64_t> dmDisk;  // dm name -> disk, when present
  };
  std::vector<std::pair<std::string, std::string>> imports();  // (dgid, name)
  bool findGroup(const std::string& name, Group* g);
  Group requireGroup(const std::string& name);
  // Reads a group's newest configuration copy from the disks that carry it.
  bool loadGroupById(const std::string& dgid, Group* g);
  // Writes the configuration to the private region of every disk of the group.
  void saveGroup(Group& g);
  std::string groupOfDisk(int64_t disk);  // imported group name holding it, or ""
  DumpView dumpView(const Group& g);

  bool isStarted(const std::string& dgid, const std::string& obj);
  void setStarted(const std::string& dgid, const std::string& obj, bool on);
  bool isHeld(const std::string& dgid, const std::string& vol);

  std::string newGuid();
  std::string newId();  // disk and group ids

  // Applies writes of "1" to the host's /sys/block/NAME/device/delete files.
  void applyDeletes();
  // Makes the host's /dev/qz and /sys/block folders match the model.
  void syncHostFiles();
};

}  // namespace qzsim

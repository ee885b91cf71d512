// A disk group's configuration: the objects it holds and the dump text
// ("qzprint -m") in which it is printed, replayed by "qzmake -d" and kept as
// the configuration copy in the private region of each of its disks.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qzsim {

struct DgRec {
  std::string name, dgid, guid;
  bool cds = false;
  int64_t seqno = 0;
};
struct DmRec {
  std::string name, diskid, guid;
};
struct VolRec {
  std::string name, usetype = "fsgen", guid;
  uint64_t len = 0;
};
struct PlexRec {
  std::string name, vol, guid;
  uint64_t len = 0;
};
struct SdRec {
  std::string name, plex, dm, guid;
  uint64_t dmOffset = 0, plOffset = 0, len = 0;
};
struct DcoRec {
  std::string name, parentVol, logVol, guid;
};
struct VsetRec {
  std::string name, guid;
  std::vector<std::string> vols;
};

struct GroupConfig {
  DgRec dg;
  std::vector<DmRec> dms;
  std::vector<VolRec> vols;
  std::vector<PlexRec> plexes;
  std::vector<SdRec> sds;
  std::vector<DcoRec> dcos;
  std::vector<VsetRec> vsets;

  const DmRec* findDm(const std::string& name) const;
  const VolRec* findVol(const std::string& name) const;
  const VsetRec* findVset(const std::string& name) const;
  std::vector<const PlexRec*> plexesOf(const std::string& vol) const;
  std::vector<const SdRec*> sdsOf(const std::string& plex) const;
  const DcoRec* dcoOf(const std::string& vol) const;
  // True when any object (of any kind) already has this name.
  bool hasName(const std::string& name) const;
};

// One record of a dump: its kind, name and attributes in file order.
struct DumpRecord {
  std::string kind, name;
  std::vector<std::pair<std::string, std::string>> attrs;
  std::string get(const std::string& key) const;
};

// Reads records; lines before the first record and blank lines are ignored.
std::vector<DumpRecord> parseDump(const std::string& text);

// What the dump shows that depends on the host that prints it.
struct DumpView {
  std::function<std::string(const std::string& dm)> daName;  // empty when unknown
  std::function<std::string(const std::string& dm)> path;
  std::function<bool(const std::string& obj)> enabled;
};

// Which record kinds a dump holds; dg and dm records are always printed.
struct DumpSelect {
  bool vols = true, plexes = true, sds = true, dcos = true, vsets = true;
};

std::string writeDump(const GroupConfig& cfg, const DumpView& view, const DumpSelect& sel);
// Rebuilds a configuration from a full dump (the copy kept on disks).
bool configFromDump(const std::string& text, GroupConfig* cfg, std::string* error);

}  // namespace qzsim

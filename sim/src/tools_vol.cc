// qzvol, qzinfo, qzassist, qzvset and qzmake: volumes, their layout and
// volume sets.
#include <algorithm>
#include <set>

#include "fsutil.h"
#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

const VolRec& requireVol(const Sim::Group& g, const std::string& vol) {
  const VolRec* v = g.cfg.findVol(requireName("Volume", vol));
  if (!v)
    fail(kNoObject, "Volume " + vol + " not found in disk group " + g.cfg.dg.name);
  return *v;
}

bool diskUsable(Sim& s, const Sim::Group& g, const std::string& dm) {
  auto it = g.dmDisk.find(dm);
  if (it == g.dmDisk.end() || !s.inView(it->second))
    return false;
  for (const auto& p : s.paths(it->second))
    if (p.enabled)
      return true;
  return false;
}

bool plexComplete(Sim& s, const Sim::Group& g, const PlexRec& p) {
  auto sds = g.cfg.sdsOf(p.name);
  if (sds.empty())
    return false;
  for (const SdRec* sd : sds)
    if (!diskUsable(s, g, sd->dm))
      return false;
  return true;
}

// The -g group; changes and starts need it enabled.
Sim::Group groupArg(Sim& s, const Opts& o, const std::string& tool, bool toChange) {
  if (!o.has('g'))
    fail(kUsage, tool + ": no disk group given (-g DG)");
  return toChange ? s.requireEnabledGroup(o.get('g')) : s.requireGroup(o.get('g'));
}

}  // namespace

void startVolume(Sim& s, Sim::Group& g, const std::string& vol, const std::string& useType) {
  const VolRec& v = requireVol(g, vol);
  if (g.disabled)
    fail(kGroupDisabled,
         "Volume " + vol + " cannot start: disk group " + g.cfg.dg.name + " is disabled");
  if (!useType.empty() && requireName("Usage type", useType) != v.usetype)
    fail(kUsageType, "Volume " + vol + " has usage type " + v.usetype + ", not " + useType);
  bool complete = false;
  for (const PlexRec* p : g.cfg.plexesOf(vol)) complete = complete || plexComplete(s, g, *p);
  if (!complete)
    fail(kVolCannotStart, "Volume " + vol + " has no complete plex; cannot start");
  s.setStarted(g.dgid, vol, true);
}

void stopVolume(Sim& s, Sim::Group& g, const std::string& vol) {
  requireVol(g, vol);
  if (inUse(s, g, vol))
    fail(kVolBusy, "Volume " + vol + " in disk group " + g.cfg.dg.name + " is busy");
  s.setStarted(g.dgid, vol, false);
}

void toolQzvol(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "gU");
  if (o.words.empty())
    fail(kUsage, "Usage: qzvol -g DG [-U TYPE] start|stop VOL ... | startall | stopall");
  const std::string& cmd = o.words[0];
  std::vector<std::string> vols(o.words.begin() + 1, o.words.end());
  if (cmd == "startall" || cmd == "stopall") {
    std::vector<std::string> names;
    if (o.has('g'))
      names.push_back(o.get('g'));
    else
      for (const auto& imp : s.imports()) names.push_back(imp.second);
    for (const auto& n : names) {
      Sim::Group g = s.requireGroup(n);
      // Without -g, startall leaves disabled groups alone.
      if (cmd == "startall" && g.disabled && !o.has('g'))
        continue;
      for (const auto& v : g.cfg.vols)
        cmd == "startall" ? startVolume(s, g, v.name, "") : stopVolume(s, g, v.name);
    }
    return;
  }
  Sim::Group g = groupArg(s, o, "qzvol", false);
  if (vols.empty())
    fail(kUsage, cmd + ": no volume given");
  for (const auto& v : vols) {
    if (cmd == "start")
      startVolume(s, g, v, o.get('U'));
    else if (cmd == "stop")
      stopVolume(s, g, v);
    else
      fail(kUsage, "unknown operation " + cmd);
  }
}

void toolQzinfo(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "g");
  Sim::Group g = groupArg(s, o, "qzinfo", false);
  std::vector<std::vector<std::string>> rows;
  std::vector<std::string> vols = o.words;
  if (vols.empty())
    for (const auto& v : g.cfg.vols) vols.push_back(v.name);
  for (const auto& name : vols) {
    const VolRec& v = requireVol(g, name);
    bool complete = false;
    for (const PlexRec* p : g.cfg.plexesOf(name)) complete = complete || plexComplete(s, g, *p);
    complete = complete && !g.disabled;
    std::string st = s.isStarted(g.dgid, name) ? "Started" : complete ? "Startable" : "Unstartable";
    rows.push_back({v.name, v.usetype, st});
  }
  s.out += formatTable(rows);
}

namespace {

struct Extent {
  uint64_t offset, len;
};

uint64_t publicLength(Sim& s, const Sim::Group& g, const std::string& dm) {
  auto it = g.dmDisk.find(dm);
  return it == g.dmDisk.end() ? 0 : static_cast<uint64_t>(Sim::loadDisk(s.db, it->second).publen);
}

std::vector<Extent> freeExtents(Sim& s, const Sim::Group& g, const std::string& dm) {
  std::vector<Extent> used;
  for (const auto& sd : g.cfg.sds)
    if (sd.dm == dm)
      used.push_back({sd.dmOffset, sd.len});
  std::sort(used.begin(), used.end(),
            [](const Extent& x, const Extent& y) { return x.offset < y.offset; });
  std::vector<Extent> gaps;
  uint64_t pos = 0, end = publicLength(s, g, dm);
  for (const auto& u : used) {
    if (u.offset > pos)
      gaps.push_back({pos, u.offset - pos});
    pos = std::max(pos, u.offset + u.len);
  }
  if (end > pos)
    gaps.push_back({pos, end - pos});
  return gaps;
}

uint64_t freeSpace(Sim& s, const Sim::Group& g, const std::vector<std::string>& dms) {
  uint64_t total = 0;
  for (const auto& dm : dms)
    for (const auto& e : freeExtents(s, g, dm)) total += e.len;
  return total;
}

std::string newSdName(const Sim::Group& g, const std::string& dm) {
  for (int n = 1;; ++n) {
    std::string name = dm + "-" + (n < 10 ? "0" : "") + std::to_string(n);
    if (!g.cfg.hasName(name))
      return requireName("Subdisk", name);
  }
}

// Lays a concat plex of len sectors over the given disks, first fit.
void allocatePlex(Sim& s, Sim::Group& g, const std::string& plex, uint64_t len,
                  const std::vector<std::string>& dms) {
  uint64_t placed = 0;
  for (const auto& dm : dms) {
    for (const auto& e : freeExtents(s, g, dm)) {
      if (placed == len)
        return;
      uint64_t take = std::min(e.len, len - placed);
      g.cfg.sds.push_back({newSdName(g, dm), plex, dm, s.newGuid(), e.offset, placed, take});
      placed += take;
    }
  }
  if (placed < len)
    fail(kNoSpace, "Cannot allocate space for " + std::to_string(len) + " block volume");
}

struct MakeArgs {
  std::string vol, usetype = "fsgen";
  uint64_t len = 0;
  int nmirror = 1;
  bool dco = false;
  std::vector<std::string> disks;
};

MakeArgs parseMake(const Opts& o) {
  if (o.words.size() < 3)
    fail(kUsage,
         "Usage: qzassist -g DG make VOL LENGTH [nmirror=N] [logtype=dco] [usetype=T] [disk ...]");
  MakeArgs m;
  m.vol = requireName("Volume", o.words[1]);
  if (!parseLength(o.words[2], &m.len) || m.len == 0)
    fail(kUsage, "invalid length " + o.words[2]);
  for (size_t i = 3; i < o.words.size(); ++i) {
    std::string key, value;
    uint64_t n = 0;
    if (!splitKeyValue(o.words[i], &key, &value))
      m.disks.push_back(requireName("Disk media", o.words[i]));
    else if (key == "nmirror" && parseUint(value, &n) && n >= 1)
      m.nmirror = static_cast<int>(n);
    else if (key == "logtype" && value == "dco")
      m.dco = true;
    else if (key == "usetype")
      m.usetype = requireName("Usage type", value);
    else if (key != "layout")
      fail(kUsage, "unexpected argument " + o.words[i]);
  }
  return m;
}

void makeVolume(Sim& s, Sim::Group& g, const std::string& vol, const std::string& usetype,
                uint64_t len, int nmirror, std::vector<std::string> dms) {
  if (g.cfg.hasName(requireName("Volume", vol)))
    fail(kObjectExists, "Volume " + vol + " already exists");
  g.cfg.vols.push_back({vol, usetype, s.newGuid(), len});
  for (int m = 1; m <= nmirror; ++m) {
    std::string plex = requireName("Plex", vol + "-0" + std::to_string(m));
    g.cfg.plexes.push_back({plex, vol, s.newGuid(), len});
    size_t before = g.cfg.sds.size();
    allocatePlex(s, g, plex, len, dms);
    // Mirrors never share a disk.
    for (size_t i = before; i < g.cfg.sds.size(); ++i)
      dms.erase(std::remove(dms.begin(), dms.end(), g.cfg.sds[i].dm), dms.end());
  }
}

void assistMake(Sim& s, Sim::Group& g, const MakeArgs& m) {
  std::vector<std::string> dms = m.disks;
  if (dms.empty())
    for (const auto& dm : g.cfg.dms) dms.push_back(dm.name);
  for (const auto& dm : dms)
    if (!g.cfg.findDm(dm))
      fail(kNoDisk, "Disk media " + dm + " not found in disk group " + g.cfg.dg.name);
  makeVolume(s, g, m.vol, m.usetype, m.len, m.nmirror, dms);
  if (m.dco) {
    std::string log = requireName("Volume", m.vol + "_dcl");
    std::vector<std::string> all;
    for (const auto& dm : g.cfg.dms) all.push_back(dm.name);
    makeVolume(s, g, log, "gen", 1024, 1, all);
    g.cfg.dcos.push_back({requireName("DCO", m.vol + "_dco"), m.vol, log, s.newGuid()});
  }
  s.saveGroup(g);
  startVolume(s, g, m.vol, "");
  if (m.dco)
    startVolume(s, g, m.vol + "_dcl", "");
}

}  // namespace

void toolQzassist(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "g");
  bool make = !o.words.empty() && o.words[0] == "make";
  Sim::Group g = groupArg(s, o, "qzassist", make);
  if (o.words.empty())
    fail(kUsage, "Usage: qzassist -g DG [-p] maxsize | make VOL LENGTH ...");
  if (o.words[0] == "maxsize") {
    std::vector<std::string> dms;
    for (const auto& dm : g.cfg.dms) dms.push_back(dm.name);
    uint64_t free = freeSpace(s, g, dms);
    if (free == 0)
      fail(kNoSpace, "No volume can be created within the given constraints");
    s.out += std::to_string(free) + "\n";
    return;
  }
  if (o.words[0] == "make")
    return assistMake(s, g, parseMake(o));
  fail(kUsage, "unknown operation " + o.words[0]);
}

namespace {

void vsetStart(Sim& s, Sim::Group& g, const VsetRec& vs) {
  for (const auto& v : vs.vols)
    if (!s.isStarted(g.dgid, v))
      startVolume(s, g, v, "");
  s.setStarted(g.dgid, vs.name, true);
}

void vsetStop(Sim& s, Sim::Group& g, const VsetRec& vs) {
  if (inUse(s, g, vs.name))
    fail(kVolBusy, "Volume set " + vs.name + " in disk group " + g.cfg.dg.name + " is busy");
  for (const auto& v : vs.vols) stopVolume(s, g, v);
  s.setStarted(g.dgid, vs.name, false);
}

void vsetMake(Sim& s, Sim::Group& g, const std::vector<std::string>& words) {
  if (words.size() < 3)
    fail(kUsage, "Usage: qzvset -g DG make SET VOL ...");
  if (g.cfg.hasName(requireName("Volume set", words[1])))
    fail(kObjectExists, "Volume set " + words[1] + " already exists");
  VsetRec vs{words[1], s.newGuid(), {}};
  for (size_t i = 2; i < words.size(); ++i) {
    requireVol(g, words[i]);
    for (const auto& other : g.cfg.vsets)
      if (std::count(other.vols.begin(), other.vols.end(), words[i]))
        fail(kDiskInUse, "Volume " + words[i] + " already belongs to volume set " + other.name);
    vs.vols.push_back(words[i]);
  }
  g.cfg.vsets.push_back(vs);
  s.saveGroup(g);
  vsetStart(s, g, vs);
}

void vsetList(Sim& s, const Sim::Group& g) {
  std::vector<std::vector<std::string>> rows = {{"NAME", "GROUP", "NVOLS", "KSTATE"}};
  for (const auto& vs : g.cfg.vsets)
    rows.push_back({vs.name, g.cfg.dg.name, std::to_string(vs.vols.size()),
                    s.isStarted(g.dgid, vs.name) ? "ENABLED" : "DISABLED"});
  s.out += formatTable(rows);
}

}  // namespace

void toolQzvset(Sim& s, const Args& a) {
  if (!s.host.vset)
    fail(kNotInstalled, "volume sets are not available on this host");
  Opts o = parseOpts(a, "g");
  const std::string cmd = o.words.empty() ? "" : o.words[0];
  Sim::Group g = groupArg(s, o, "qzvset", cmd == "make" || cmd == "start");
  if (o.words.empty())
    fail(kUsage, "Usage: qzvset -g DG start|stop|make|list ...");
  if (cmd == "make")
    return vsetMake(s, g, o.words);
  if (cmd == "list")
    return vsetList(s, g);
  if (o.words.size() != 2)
    fail(kUsage, "Usage: qzvset -g DG " + cmd + " SET");
  const VsetRec* vs = g.cfg.findVset(requireName("Volume set", o.words[1]));
  if (!vs)
    fail(kNoObject, "Volume set " + o.words[1] + " not found in disk group " + g.cfg.dg.name);
  VsetRec copy = *vs;
  if (cmd == "start")
    return vsetStart(s, g, copy);
  if (cmd == "stop")
    return vsetStop(s, g, copy);
  fail(kUsage, "unknown operation " + cmd);
}

namespace {

const char* kindName(const std::string& kind) {
  if (kind == "vol")
    return "Volume";
  if (kind == "plex")
    return "Plex";
  if (kind == "sd")
    return "Subdisk";
  if (kind == "dco")
    return "DCO";
  if (kind == "vset")
    return "Volume set";
  fail(kUsage, "unknown record kind " + kind);
}

void checkNew(const GroupConfig& cfg, std::set<std::string>& seen, const DumpRecord& r) {
  requireName(kindName(r.kind), r.name);
  if (cfg.hasName(r.name) || !seen.insert(r.name).second)
    fail(kObjectExists, "Record " + r.name + " already exists in disk group " + cfg.dg.name);
}

// The attributes "qzprint -m" prints for each kind of record that qzmake
// makes; a real qzmake refuses any other.
const std::map<std::string, std::set<std::string>> kRecordAttrs = {
    {"vol", {"use_type", "len", "kstate", "guid"}},
    {"plex", {"vol", "layout", "len", "guid"}},
    {"sd", {"plex", "dm_name", "da_name", "path", "dm_offset", "pl_offset", "len", "guid"}},
    {"dco", {"parent_vol", "log_vol", "guid"}},
    {"vset", {"vols", "guid"}},
};

void checkAttributes(const DumpRecord& r) {
  const std::string where = std::string(kindName(r.kind)) + " " + r.name + ": ";
  const std::set<std::string>& known = kRecordAttrs.at(r.kind);
  for (const auto& kv : r.attrs)
    if (!known.count(kv.first))
      fail(kBadRecord, where + "unknown attribute " + kv.first + "=" + kv.second + ".");
  if (r.kind == "plex" && !r.get("layout").empty() && r.get("layout") != "CONCAT")
    fail(kBadRecord, where + "layout=" + r.get("layout") + " is not a layout this host makes.");
}

// A numeric attribute; a missing one is 0 unless it is required.
uint64_t num(const DumpRecord& r, const std::string& key, bool required = true) {
  std::string text = r.get(key);
  uint64_t v = 0;
  if (text.empty() && !required)
    return 0;
  if (!parseUint(text, &v))
    fail(kBadRecord, std::string(kindName(r.kind)) + " " + r.name + ": " + key + "=" + text +
                         " is not a number.");
  return v;
}

// The length of a volume or plex: it must have one.
uint64_t length(const DumpRecord& r) {
  if (r.get("len").empty() || num(r, "len") == 0)
    fail(kBadRecord, std::string(kindName(r.kind)) + " " + r.name + " has no length.");
  return num(r, "len");
}

// The disk medium a subdisk lies on, checked against every name the record
// gives for it: a dump rewritten for other disks must name this group's.
std::string sdDiskMedia(Sim& s, const Sim::Group& g, const DumpRecord& r) {
  const std::string where = "Subdisk " + r.name + ": ";
  std::string dm = r.get("dm_name"), da = r.get("da_name"), path = r.get("path");
  if (dm.empty() && da.empty())
    fail(kBadRecord, where + "the record names no disk (dm_name or da_name).");
  if (dm.empty()) {
    for (const auto& dd : g.dmDisk)
      if (s.daName(Sim::loadDisk(s.db, dd.second)) == da)
        dm = dd.first;
    if (dm.empty())
      fail(kNoDisk, where + "disk " + da + " is not a disk of disk group " + g.cfg.dg.name);
  }
  if (!g.cfg.findDm(requireName("Disk media", dm)))
    fail(kNoDisk, where + "disk media " + dm + " not found in disk group " + g.cfg.dg.name);
  auto it = g.dmDisk.find(dm);
  if (it == g.dmDisk.end())
    fail(kNoDisk, where + "disk media " + dm + " has no disk on this host");
  Disk disk = Sim::loadDisk(s.db, it->second);
  if (!da.empty() && da != s.daName(disk))
    fail(kBadRecord, where + "da_name=" + da + " is not the disk of disk media " + dm +
                         " in disk group " + g.cfg.dg.name + " (that is " + s.daName(disk) + ").");
  if (!path.empty() && path != s.dmpPath(disk))
    fail(kBadRecord, where + "path=" + path + " is not the path of disk media " + dm +
                         " (that is " + s.dmpPath(disk) + ").");
  return dm;
}

// Each plex must map every sector of its volume exactly once.
void checkCoverage(const Sim::Group& g, const PlexRec& p) {
  const VolRec& v = requireVol(g, p.vol);
  auto sds = g.cfg.sdsOf(p.name);
  std::sort(sds.begin(), sds.end(),
            [](const SdRec* a, const SdRec* b) { return a->plOffset < b->plOffset; });
  const std::string where = "Plex " + p.name + " does not cover volume " + v.name + ": ";
  uint64_t pos = 0;
  for (const SdRec* sd : sds) {
    if (sd->plOffset != pos)
      fail(kBadRecord, where +
                           (sd->plOffset > pos ? "nothing maps sectors from "
                                               : "subdisks "
                                                 "overlap at ") +
                           std::to_string(pos) + ".");
    pos += sd->len;
  }
  if (pos != v.len)
    fail(kBadRecord, where + "its subdisks map " + std::to_string(pos) + " of " +
                         std::to_string(v.len) + " sectors.");
  if (p.len != v.len)
    fail(kBadRecord, where + "its length is " + std::to_string(p.len) + ", the volume's " +
                         std::to_string(v.len) + ".");
}

// Adds the records of a dump to the group, in dependency order.
void addRecords(Sim& s, Sim::Group& g, const std::vector<DumpRecord>& recs) {
  std::set<std::string> seen;
  for (const auto& r : recs)
    if (r.kind != "dg" && r.kind != "dm") {
      checkNew(g.cfg, seen, r);
      checkAttributes(r);
    }
  for (const auto& r : recs)
    if (r.kind == "vol") {
      std::string use = r.get("use_type").empty() ? "fsgen" : r.get("use_type");
      g.cfg.vols.push_back({r.name, requireName("Usage type", use), s.newGuid(), length(r)});
    }
  std::set<std::string> newPlexes;
  for (const auto& r : recs)
    if (r.kind == "plex") {
      requireVol(g, r.get("vol"));
      newPlexes.insert(r.name);
      g.cfg.plexes.push_back({r.name, r.get("vol"), s.newGuid(), length(r)});
    }
  for (const auto& r : recs)
    if (r.kind == "sd") {
      bool plexFound = false;
      for (const auto& p : g.cfg.plexes) plexFound = plexFound || p.name == r.get("plex");
      if (!plexFound)
        fail(kNoObject, "Subdisk " + r.name + ": plex " + r.get("plex") + " not found");
      std::string dm = sdDiskMedia(s, g, r);
      SdRec sd{r.name,       r.get("plex"),       dm,
               s.newGuid(),  num(r, "dm_offset"), num(r, "pl_offset", false),
               num(r, "len")};
      bool fits = false;
      for (const auto& e : freeExtents(s, g, dm))
        fits = fits || (sd.dmOffset >= e.offset && sd.len <= e.len &&
                        sd.dmOffset - e.offset <= e.len - sd.len);
      if (!fits || sd.len == 0)
        fail(kNoSpace, "Subdisk " + r.name + " does not fit on disk media " + dm);
      g.cfg.sds.push_back(sd);
    }
  for (const auto& p : g.cfg.plexes)
    if (newPlexes.count(p.name))
      checkCoverage(g, p);
  for (const auto& r : recs) {
    if (r.kind == "dco") {
      requireVol(g, r.get("parent_vol"));
      requireVol(g, r.get("log_vol"));
      g.cfg.dcos.push_back({r.name, r.get("parent_vol"), r.get("log_vol"), s.newGuid()});
    } else if (r.kind == "vset") {
      VsetRec vs{r.name, s.newGuid(), splitChar(r.get("vols"), ',')};
      for (const auto& v : vs.vols) requireVol(g, v);
      g.cfg.vsets.push_back(vs);
    }
  }
}

}  // namespace

void toolQzmake(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "gd");
  if (!o.has('d') || !o.words.empty())
    fail(kUsage, "Usage: qzmake -g DG -d FILE");
  Sim::Group g = groupArg(s, o, "qzmake", true);
  std::string text;
  if (!readFile(o.get('d'), &text))
    fail(kUsage, "cannot read description file " + o.get('d'));
  addRecords(s, g, parseDump(text));
  s.saveGroup(g);
}

}  // namespace qzsim

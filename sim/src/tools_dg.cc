// qzdg: disk groups.
#include <set>

#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

std::string stateOf(const Sim::Group& g) {
  std::string state = g.disabled ? "disabled" : "enabled";
  if (g.shared)
    state += ",shared";
  if (g.cfg.dg.cds)
    state += ",cds";
  return state;
}

void listGroups(Sim& s) {
  std::vector<std::vector<std::string>> rows = {{"NAME", "STATE", "ID"}};
  for (const auto& imp : s.imports()) {
    Sim::Group g;
    rows.push_back(
        {imp.second, s.loadImported(imp.first, &g) ? stateOf(g) : "disabled", imp.first});
  }
  s.out += formatTable(rows);
}

void showGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireGroup(name);
  std::vector<std::string> flags;
  for (const auto& f : splitChar(stateOf(g), ','))
    if (f != "enabled")
      flags.push_back(f);
  std::string& o = s.out;
  o += keyLine("Group", g.cfg.dg.name);
  o += keyLine("dgid", g.dgid);
  o += keyLine("flags", flags.empty() ? "-" : join(flags, " "));
  o += keyLine("copies", "nconfig=default nlog=default");
  o += keyLine("config", "seqno=0." + std::to_string(g.cfg.dg.seqno));
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    std::string da = it == g.dmDisk.end() ? "-" : s.daName(Sim::loadDiskLight(s.db, it->second));
    o += "config disk " + da +
         " copy 1 state=" + (it == g.dmDisk.end() ? "failed" : "clean online") + "\n";
  }
}

// A disk argument is "da" or "dm=da".
void parseDiskArg(const std::string& word, std::string* dm, std::string* da) {
  if (!splitKeyValue(word, dm, da))
    *dm = *da = word;
  if (dm->empty() || da->empty())
    fail(kUsage, "invalid disk argument " + word);
  requireName("Disk media", *dm);
}

void addDiskToGroup(Sim& s, Sim::Group& g, const std::string& word) {
  std::string dm, da;
  parseDiskArg(word, &dm, &da);
  int64_t id = s.requireViewDisk(da);
  s.requirePath(id, da);
  Disk d = Sim::loadDisk(s.db, id);
  if (!d.initialized() || d.ptype == "nopriv")
    fail(kDiskNotInit, "Disk " + da + " is not initialized with a private region");
  if (!d.dgid.empty()) {
    std::string other = s.groupOfDisk(id);
    fail(kDiskInUse, "Disk " + da + " belongs to disk group " +
                         (other.empty() ? d.dgname + " (not imported here)" : other));
  }
  if (g.cfg.hasName(dm))
    fail(kObjectExists, "Disk media name " + dm + " is already in use");
  if (g.cfg.dg.cds && d.pformat != "cdsdisk")
    fail(kUsage,
         "Disk " + da + " is not a cdsdisk and cannot join cds disk group " + g.cfg.dg.name);
  g.cfg.dms.push_back({dm, d.diskid, s.newGuid()});
  g.dmDisk[dm] = id;
}

void initGroup(Sim& s, const std::vector<std::string>& words, bool shared) {
  if (words.size() < 3)
    fail(kUsage, "Usage: qzdg [-s] init DG [dm=]disk ... [cds=on|off]");
  const std::string& name = requireName("Disk group", words[1]);
  Sim::Group g;
  if (s.findGroup(name, &g))
    fail(kGroupExists, "Disk group " + name + " exists and is imported");
  g = Sim::Group();
  g.cfg.dg.name = name;
  g.shared = shared;
  std::vector<std::string> disks;
  std::string cds;
  for (size_t i = 2; i < words.size(); ++i) {
    std::string key, value;
    if (splitKeyValue(words[i], &key, &value) && key == "cds")
      cds = value;
    else
      disks.push_back(words[i]);
  }
  if (disks.empty())
    fail(kUsage, "init: no disk given");
  if (!cds.empty() && cds != "on" && cds != "off")
    fail(kUsage, "cds must be on or off");
  bool allCds = true;
  for (const auto& w : disks) {
    std::string dm, da;
    parseDiskArg(w, &dm, &da);
    int64_t id = s.requireViewDisk(da);
    allCds = allCds && Sim::loadDiskLight(s.db, id).pformat == "cdsdisk";
  }
  g.cfg.dg.cds = cds.empty() ? (allCds && s.host.cds) : cds == "on";
  g.dgid = s.newId();
  g.cfg.dg.dgid = g.dgid;
  g.cfg.dg.guid = s.newGuid();
  for (const auto& w : disks) addDiskToGroup(s, g, w);
  s.addImport(g);
}

struct ImportArgs {
  std::string target, newName;
  bool clearLocks = false, shared = false;
};

// "1700000039.3.A": time, sequence and host, as group and disk ids read.
bool isIdShaped(const std::string& text) {
  auto parts = splitChar(text, '.');
  uint64_t n = 0;
  return parts.size() >= 3 && parseUint(parts[0], &n) && parseUint(parts[1], &n) &&
         !parts[2].empty();
}

// The id of the only group on visible disks that has this id or name.
std::string findGroupId(Sim& s, const std::string& target) {
  if (!isIdShaped(target))
    requireName("Disk group", target);
  std::set<std::string> byName;
  for (const Disk& d : s.viewDisks()) {
    if (d.dgid.empty() || !s.hasPath(d.id))
      continue;
    if (d.dgid == target)
      return d.dgid;
    if (d.dgname == target)
      byName.insert(d.dgid);
  }
  if (byName.empty())
    fail(kImportNoDisks,
         "Disk group " + target + ": import failed: No valid disk found containing disk group");
  if (byName.size() > 1)
    fail(kGroupExists, "Disk group " + target +
                           ": import failed: several disk groups have this name; import by id");
  return *byName.begin();
}

// Visible disks with a path that carry the group and belong to no group
// imported here.
std::vector<Disk> freeCarriers(Sim& s, const std::string& dgid) {
  std::vector<Disk> out;
  for (const Disk& d : s.viewDisks())
    if (d.dgid == dgid && s.hasPath(d.id) && s.groupOfDisk(d.id).empty())
      out.push_back(d);
  return out;
}

// The disk that holds a disk medium: the disk with its identity, and a clone
// of it only when the original is not there.
const Disk* diskFor(const std::string& target, const DmRec& dm, const std::vector<Disk>& carriers) {
  std::vector<const Disk*> originals, clones;
  for (const Disk& d : carriers)
    if (d.diskid == dm.diskid)
      (d.isClone() ? clones : originals).push_back(&d);
  const auto& pick = originals.empty() ? clones : originals;
  if (pick.size() > 1)
    fail(kImportNoDisks, "Disk group " + target + ": import failed: disks " + pick[0]->lun +
                             " and " + pick[1]->lun + " both carry disk media " + dm.name +
                             "; take one of them out of view (qzdisk rm) and import again");
  return pick.empty() ? nullptr : pick[0];
}

Sim::Group groupOnDisks(Sim& s, const std::string& target, const std::string& dgid,
                        const std::vector<Disk>& carriers) {
  const Disk* newest = nullptr;
  for (const Disk& d : carriers)
    if (d.hasConfig && (!newest || d.seqno > newest->seqno))
      newest = &d;
  Sim::Group g;
  std::string error;
  if (!newest || !configFromDump(Sim::loadDisk(s.db, newest->id).config, &g.cfg, &error))
    fail(kImportNoDisks,
         "Disk group " + target + ": import failed: No valid configuration copy found");
  g.dgid = dgid;
  for (const auto& dm : g.cfg.dms) {
    const Disk* d = diskFor(target, dm, carriers);
    if (!d)
      fail(kImportNoDisks,
           "Disk group " + target + ": import failed: Disk for media " + dm.name + " not found");
    g.dmDisk[dm.name] = d->id;
  }
  return g;
}

bool importedShared(Sim& s, const std::string& host, const std::string& dgid) {
  return s.db.queryInt("SELECT count(*) FROM imports WHERE host=? AND dgid=? AND shared=1",
                       {host, dgid}, 0) > 0;
}

void checkLocks(Sim& s, const Sim::Group& g, const ImportArgs& ia) {
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    bool sharing = ia.shared && importedShared(s, d.hostlock, g.dgid);
    if (!d.hostlock.empty() && d.hostlock != s.host.name && !ia.clearLocks && !sharing)
      fail(kImportLocked, "Disk group " + ia.target + ": import failed: Disk " + s.daName(d) +
                              " is in use by another host (" + d.hostlock + ")");
  }
}

// Clones imported beside their source get their own group and disk ids, so
// that no two disks of this host carry one identity.
void giveNewIdentity(Sim& s, Sim::Group& g) {
  g.dgid = s.newId();
  g.cfg.dg.dgid = g.dgid;
  for (auto& dm : g.cfg.dms) {
    Disk d = Sim::loadDisk(s.db, g.dmDisk.at(dm.name));
    dm.diskid = d.diskid = s.newId();
    d.udid = d.ownUdid();
    Sim::saveDisk(s.db, d);
  }
}

void importGroup(Sim& s, const ImportArgs& ia) {
  if (!ia.newName.empty())
    requireName("Disk group", ia.newName);
  std::string dgid = findGroupId(s, ia.target);
  bool importedHere =
      s.db.queryInt("SELECT count(*) FROM imports WHERE host=? AND dgid=?", {s.host.name, dgid}, 0);
  std::vector<Disk> carriers = freeCarriers(s, dgid);
  if (importedHere && carriers.empty())
    fail(kGroupExists,
         "Disk group " + ia.target + ": import failed: Disk group is already imported");
  if (importedHere && (!ia.clearLocks || ia.newName.empty()))
    fail(kGroupExists, "Disk group " + ia.target +
                           ": import failed: Disk group is already imported and the other disks "
                           "that carry it are clones; import them as a new disk group with -C "
                           "-n NEWNAME");
  Sim::Group g = groupOnDisks(s, ia.target, dgid, carriers);
  if (!importedHere)
    checkLocks(s, g, ia);
  std::string name = ia.newName.empty() ? g.cfg.dg.name : ia.newName;
  Sim::Group other;
  if (s.findGroup(name, &other))
    fail(kGroupExists, "Disk group " + name + " exists and is imported");
  g.cfg.dg.name = name;
  g.shared = ia.shared;
  if (importedHere)
    giveNewIdentity(s, g);
  s.touchGroup(g.dgid);
  s.addImport(g);
}

void checkNotBusy(Sim& s, const Sim::Group& g, const std::string& op) {
  std::vector<std::pair<std::string, std::string>> objs;  // (kind, name)
  for (const auto& v : g.cfg.vols) objs.emplace_back("Volume", v.name);
  for (const auto& v : g.cfg.vsets) objs.emplace_back("Volume set", v.name);
  for (const auto& obj : objs)
    if (inUse(s, g, obj.second))
      fail(kDiskInUse, "Disk group " + g.cfg.dg.name + ": " + op + " failed: " + obj.first + " " +
                           obj.second + " is open");
}

void forgetImport(Sim& s, const Sim::Group& g) {
  for (const char* table : {"imports", "members", "started", "holds"})
    s.db.exec(std::string("DELETE FROM ") + table + " WHERE host=? AND dgid=?",
              {s.host.name, g.dgid});
}

// Another host that has the group imported shared, or "".
std::string otherSharer(Sim& s, const Sim::Group& g) {
  if (!g.shared)
    return "";
  return s.db.queryText(
      "SELECT host FROM imports WHERE dgid=? AND shared=1 AND host<>? ORDER BY host",
      {g.dgid, s.host.name}, "");
}

void deportGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireGroup(name);
  s.touchGroup(g.dgid);
  checkNotBusy(s, g, "deport");
  // A disabled group has lost its disks: nothing is written to them.
  if (!g.disabled) {
    s.saveGroup(g);
    std::string lock = otherSharer(s, g);
    for (const auto& dd : g.dmDisk) {
      Disk d = Sim::loadDisk(s.db, dd.second);
      d.hostlock = lock;
      Sim::saveDisk(s.db, d);
    }
  }
  forgetImport(s, g);
}

void destroyGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireEnabledGroup(name);
  checkNotBusy(s, g, "destroy");
  std::string sharer = otherSharer(s, g);
  if (!sharer.empty())
    fail(kDiskInUse, "Disk group " + name + ": destroy failed: the group is imported on host " +
                         sharer + " too; deport it there first");
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    d.dgid.clear();
    d.dgname.clear();
    d.dmname.clear();
    d.hostlock.clear();
    d.config.clear();
    d.configId = 0;
    d.seqno = 0;
    Sim::saveDisk(s.db, d);
  }
  forgetImport(s, g);
}

std::string oneGroupArg(const Opts& o, const std::string& cmd) {
  if (o.words.size() != 2)
    fail(kUsage, "Usage: qzdg " + cmd + " DG");
  return o.words[1];
}

}  // namespace

void toolQzdg(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "gno");
  if (o.words.empty())
    fail(kUsage, "Usage: qzdg list|init|adddisk|import|deport|destroy|flush ...");
  const std::string& cmd = o.words[0];
  if (cmd == "list") {
    if (o.words.size() > 1)
      return showGroup(s, o.words[1]);
    if (o.has('g'))
      return showGroup(s, o.get('g'));
    return listGroups(s);
  }
  if (cmd == "init")
    return initGroup(s, o.words, o.has('s'));
  if (cmd == "adddisk") {
    if (!o.has('g') || o.words.size() < 2)
      fail(kUsage, "Usage: qzdg -g DG adddisk [dm=]disk ...");
    Sim::Group g = s.requireEnabledGroup(o.get('g'));
    for (size_t i = 1; i < o.words.size(); ++i) addDiskToGroup(s, g, o.words[i]);
    return s.saveGroup(g);
  }
  if (cmd == "import")
    return importGroup(s, {oneGroupArg(o, cmd), o.get('n'), o.has('C'), o.has('s')});
  if (cmd == "deport")
    return deportGroup(s, oneGroupArg(o, cmd));
  if (cmd == "destroy")
    return destroyGroup(s, oneGroupArg(o, cmd));
  if (cmd == "flush") {
    Sim::Group g = s.requireEnabledGroup(oneGroupArg(o, cmd));
    return s.saveGroup(g);
  }
  fail(kUsage, "unknown operation " + cmd);
}

}  // namespace qzsim

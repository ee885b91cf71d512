// qzdg: disk groups.
#include <set>

#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

void listGroups(Sim& s) {
  std::vector<std::vector<std::string>> rows = {{"NAME", "STATE", "ID"}};
  for (const auto& imp : s.imports()) {
    Sim::Group g;
    std::string state = "enabled";
    if (s.loadGroupById(imp.first, &g) && g.cfg.dg.cds)
      state += ",cds";
    rows.push_back({imp.second, state, imp.first});
  }
  s.out += formatTable(rows);
}

void showGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireGroup(name);
  std::string& o = s.out;
  o += keyLine("Group", g.cfg.dg.name);
  o += keyLine("dgid", g.dgid);
  o += keyLine("flags", g.cfg.dg.cds ? "cds" : "-");
  o += keyLine("copies", "nconfig=default nlog=default");
  o += keyLine("config", "seqno=0." + std::to_string(g.cfg.dg.seqno));
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    std::string da = it == g.dmDisk.end() ? "-" : s.daName(Sim::loadDisk(s.db, it->second));
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
}

void addDiskToGroup(Sim& s, Sim::Group& g, const std::string& word) {
  std::string dm, da;
  parseDiskArg(word, &dm, &da);
  int64_t id = s.requireViewDisk(da);
  Disk d = Sim::loadDisk(s.db, id);
  if (!d.initialized() || d.ptype == "nopriv")
    fail(kDiskNotInit, "Disk " + da + " is not initialized with a private region");
  if (!d.dgid.empty()) {
    std::string other = s.groupOfDisk(id);
    fail(kDiskInUse, "Disk " + da + " belongs to disk group " +
                         (other.empty() ? d.dgname + " (deported)" : other));
  }
  if (g.cfg.hasName(dm))
    fail(kObjectExists, "Disk media name " + dm + " is already in use");
  if (g.cfg.dg.cds && d.pformat != "cdsdisk")
    fail(kUsage,
         "Disk " + da + " is not a cdsdisk and cannot join cds disk group " + g.cfg.dg.name);
  g.cfg.dms.push_back({dm, d.diskid, s.newGuid()});
  g.dmDisk[dm] = id;
}

void initGroup(Sim& s, const std::vector<std::string>& words) {
  if (words.size() < 3)
    fail(kUsage, "Usage: qzdg init DG [dm=]disk ... [cds=on|off]");
  const std::string& name = words[1];
  Sim::Group g;
  if (s.findGroup(name, &g))
    fail(kGroupExists, "Disk group " + name + " exists and is imported");
  g = Sim::Group();
  g.cfg.dg.name = name;
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
    allCds = allCds && Sim::loadDisk(s.db, id).pformat == "cdsdisk";
  }
  g.cfg.dg.cds = cds.empty() ? (allCds && s.host.cds) : cds == "on";
  g.dgid = s.newId();
  g.cfg.dg.dgid = g.dgid;
  g.cfg.dg.guid = s.newGuid();
  for (const auto& w : disks) addDiskToGroup(s, g, w);
  s.db.exec("INSERT INTO imports(host, dgid, dgname) VALUES(?,?,?)", {s.host.name, g.dgid, name});
  s.saveGroup(g);
}

struct ImportArgs {
  std::string target, newName;
  bool clearLocks = false;
};

// The id of the only group on visible disks that has this id or name.
std::string findDeportedGroup(Sim& s, const std::string& target) {
  std::set<std::string> byName;
  for (const Disk& d : s.viewDisks()) {
    if (d.dgid.empty())
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

void checkLocks(Sim& s, const Sim::Group& g, const ImportArgs& ia) {
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    if (it == g.dmDisk.end())
      fail(kImportNoDisks,
           "Disk group " + ia.target + ": import failed: Disk for media " + dm.name + " not found");
    Disk d = Sim::loadDisk(s.db, it->second);
    if (!d.hostlock.empty() && d.hostlock != s.host.name && !ia.clearLocks)
      fail(kImportLocked, "Disk group " + ia.target + ": import failed: Disk " + s.daName(d) +
                              " is in use by another host (" + d.hostlock + ")");
  }
}

void importGroup(Sim& s, const ImportArgs& ia) {
  std::string dgid = findDeportedGroup(s, ia.target);
  if (s.db.queryInt("SELECT count(*) FROM imports WHERE host=? AND dgid=?", {s.host.name, dgid}, 0))
    fail(kGroupExists,
         "Disk group " + ia.target + ": import failed: Disk group is already imported");
  Sim::Group g;
  if (!s.loadGroupById(dgid, &g))
    fail(kImportNoDisks,
         "Disk group " + ia.target + ": import failed: No valid configuration copy found");
  checkLocks(s, g, ia);
  std::string name = ia.newName.empty() ? g.cfg.dg.name : ia.newName;
  Sim::Group other;
  if (s.findGroup(name, &other))
    fail(kGroupExists, "Disk group " + name + " exists and is imported");
  g.cfg.dg.name = name;
  s.db.exec("INSERT INTO imports(host, dgid, dgname) VALUES(?,?,?)", {s.host.name, dgid, name});
  s.saveGroup(g);
}

void checkNotBusy(Sim& s, const Sim::Group& g, const std::string& op) {
  for (const auto& v : g.cfg.vols)
    if (s.isHeld(g.dgid, v.name))
      fail(kDiskInUse,
           "Disk group " + g.cfg.dg.name + ": " + op + " failed: Volume " + v.name + " is open");
}

void forgetImport(Sim& s, const Sim::Group& g) {
  for (const char* table : {"imports", "started", "holds"})
    s.db.exec(std::string("DELETE FROM ") + table + " WHERE host=? AND dgid=?",
              {s.host.name, g.dgid});
}

void deportGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireGroup(name);
  checkNotBusy(s, g, "deport");
  s.saveGroup(g);
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    d.hostlock.clear();
    Sim::saveDisk(s.db, d);
  }
  forgetImport(s, g);
}

void destroyGroup(Sim& s, const std::string& name) {
  Sim::Group g = s.requireGroup(name);
  checkNotBusy(s, g, "destroy");
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    d.dgid.clear();
    d.dgname.clear();
    d.dmname.clear();
    d.hostlock.clear();
    d.config.clear();
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
    return initGroup(s, o.words);
  if (cmd == "adddisk") {
    if (!o.has('g') || o.words.size() < 2)
      fail(kUsage, "Usage: qzdg -g DG adddisk [dm=]disk ...");
    Sim::Group g = s.requireGroup(o.get('g'));
    for (size_t i = 1; i < o.words.size(); ++i) addDiskToGroup(s, g, o.words[i]);
    return s.saveGroup(g);
  }
  if (cmd == "import")
    return importGroup(s, {oneGroupArg(o, cmd), o.get('n'), o.has('C')});
  if (cmd == "deport")
    return deportGroup(s, oneGroupArg(o, cmd));
  if (cmd == "destroy")
    return destroyGroup(s, oneGroupArg(o, cmd));
  if (cmd == "flush") {
    Sim::Group g = s.requireGroup(oneGroupArg(o, cmd));
    return s.saveGroup(g);
  }
  fail(kUsage, "unknown operation " + cmd);
}

}  // namespace qzsim

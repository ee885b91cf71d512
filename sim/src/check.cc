// "qzsim check": verifies that the simulation database is consistent, for
// example after many hosts ran tools at once.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>

#include "fsutil.h"
#include "sim.h"
#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

using Problems = std::vector<std::string>;

void checkLinks(Db& db, Problems& p) {
  for (const auto& r :
       db.query("SELECT host, disk FROM hostdisks WHERE host NOT IN (SELECT name FROM hosts) "
                "OR disk NOT IN (SELECT id FROM disks) OR (inview=0 AND NOT EXISTS (SELECT 1 "
                "FROM paths p WHERE p.host=hostdisks.host AND p.disk=hostdisks.disk))"))
    p.push_back("host " + r[0].s + " keeps disk " + std::to_string(r[1].i) +
                " without a path, outside its view");
  for (const auto& r :
       db.query("SELECT host, osname FROM paths WHERE NOT EXISTS (SELECT 1 FROM hostdisks h "
                "WHERE h.host=paths.host AND h.disk=paths.disk)"))
    p.push_back("path " + r[0].s + ":" + r[1].s + " belongs to no attached disk");
  for (const auto& r :
       db.query("SELECT host, dgname FROM imports GROUP BY host, dgname HAVING count(*) > 1"))
    p.push_back("host " + r[0].s + " has two groups named " + r[1].s);
  for (const auto& r :
       db.query("SELECT host, obj FROM started WHERE NOT EXISTS (SELECT 1 FROM imports i "
                "WHERE i.host=started.host AND i.dgid=started.dgid)"))
    p.push_back("host " + r[0].s + ": started object " + r[1].s + " of a group not imported");
}

void checkExtents(Sim& s, const Sim::Group& g, Problems& p) {
  const std::string where = g.cfg.dg.name + "@" + s.host.name + ": ";
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    if (it == g.dmDisk.end())
      continue;
    Disk d = Sim::loadDisk(s.db, it->second);
    std::vector<std::pair<uint64_t, uint64_t>> ext;
    for (const auto& sd : g.cfg.sds)
      if (sd.dm == dm.name)
        ext.emplace_back(sd.dmOffset, sd.dmOffset + sd.len);
    std::sort(ext.begin(), ext.end());
    for (size_t i = 0; i < ext.size(); ++i) {
      if (ext[i].second > static_cast<uint64_t>(d.publen))
        p.push_back(where + "subdisk beyond public region of " + dm.name);
      if (i && ext[i].first < ext[i - 1].second)
        p.push_back(where + "overlapping subdisks on " + dm.name);
    }
  }
}

void checkName(const std::string& where, const std::string& kind, const std::string& name,
               Problems& p) {
  std::string problem = nameProblem(name);
  if (!problem.empty())
    p.push_back(where + kind + " name '" + name + "' " + problem);
}

void checkNames(const GroupConfig& c, const std::string& where, Problems& p) {
  checkName(where, "disk group", c.dg.name, p);
  for (const auto& d : c.dms) checkName(where, "disk media", d.name, p);
  for (const auto& v : c.vols) {
    checkName(where, "volume", v.name, p);
    checkName(where, "usage type", v.usetype, p);
  }
  for (const auto& pl : c.plexes) checkName(where, "plex", pl.name, p);
  for (const auto& sd : c.sds) checkName(where, "subdisk", sd.name, p);
  for (const auto& d : c.dcos) checkName(where, "DCO", d.name, p);
  for (const auto& vs : c.vsets) checkName(where, "volume set", vs.name, p);
}

// Every plex maps each sector of its volume exactly once.
void checkCoverage(const GroupConfig& c, const std::string& where, Problems& p) {
  for (const auto& pl : c.plexes) {
    const VolRec* v = c.findVol(pl.vol);
    if (!v)
      continue;
    auto sds = c.sdsOf(pl.name);
    std::sort(sds.begin(), sds.end(),
              [](const SdRec* a, const SdRec* b) { return a->plOffset < b->plOffset; });
    uint64_t pos = 0;
    bool contiguous = true;
    for (const SdRec* sd : sds) {
      contiguous = contiguous && sd->plOffset == pos;
      pos = sd->plOffset + sd->len;
    }
    if (!contiguous || pos != v->len || pl.len != v->len)
      p.push_back(where + "plex " + pl.name + " does not cover volume " + v->name);
  }
}

void checkObjects(Sim& s, const Sim::Group& g, Problems& p) {
  const GroupConfig& c = g.cfg;
  const std::string where = c.dg.name + "@" + s.host.name + ": ";
  std::set<std::string> plexes;
  for (const auto& pl : c.plexes) {
    plexes.insert(pl.name);
    if (!c.findVol(pl.vol))
      p.push_back(where + "plex " + pl.name + " without volume");
  }
  for (const auto& sd : c.sds) {
    if (!c.findDm(sd.dm))
      p.push_back(where + "subdisk " + sd.name + " on unknown disk media");
    if (!plexes.count(sd.plex))
      p.push_back(where + "subdisk " + sd.name + " without plex");
  }
  for (const auto& d : c.dcos)
    if (!c.findVol(d.parentVol) || !c.findVol(d.logVol))
      p.push_back(where + "dco " + d.name + " with unknown volumes");
  for (const auto& vs : c.vsets)
    for (const auto& v : vs.vols)
      if (!c.findVol(v))
        p.push_back(where + "volume set " + vs.name + " names unknown volume " + v);
  checkNames(c, where, p);
  checkCoverage(c, where, p);
  checkExtents(s, g, p);
}

// The disks of an imported group: each holds the disk medium it is recorded
// for, and no two carry one identity (a clone never joins its source's group).
void checkMembers(Sim& s, const Sim::Group& g, const std::string& name, Problems& p) {
  const std::string where = name + "@" + s.host.name + ": ";
  std::map<std::string, std::string> byDiskid;  // disk id -> LUN
  for (const auto& r : s.db.query("SELECT m.dm, d.lun, d.diskid FROM members m JOIN disks d ON "
                                  "d.id=m.disk WHERE m.host=? AND m.dgid=? ORDER BY d.id",
                                  {s.host.name, g.dgid})) {
    const DmRec* dm = g.cfg.findDm(r[0].s);
    if (!dm)
      p.push_back(where + r[1].s + " holds disk media " + r[0].s + " that the group lacks");
    else if (dm->diskid != r[2].s)
      p.push_back(where + r[1].s + " holds disk media " + r[0].s + " but carries disk id " +
                  r[2].s + ", not " + dm->diskid);
    auto seen = byDiskid.emplace(r[2].s, r[1].s);
    if (!seen.second)
      p.push_back(where + "the group holds two disks with disk id " + r[2].s + " (" +
                  seen.first->second + " and " + r[1].s + ")");
  }
}

void checkCopies(Sim& s, const Sim::Group& g, const std::string& name, Problems& p) {
  const std::string where = name + "@" + s.host.name + ": ";
  std::string kernel = s.db.queryText("SELECT config FROM imports WHERE host=? AND dgid=?",
                                      {s.host.name, g.dgid}, "");
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    bool lockOk = d.hostlock == s.host.name || g.shared;
    if (d.dgid != g.dgid || d.dgname != name || !lockOk || d.dmname != dd.first)
      p.push_back(where + "private region of " + d.lun + " disagrees with the import");
    if (!g.disabled && d.config != kernel)
      p.push_back(where + "configuration copy on " + d.lun + " differs from the host's");
  }
  if (g.cfg.dg.name != name)
    p.push_back(where + "configuration names group " + g.cfg.dg.name);
}

void checkGroups(Db& db, const std::string& root, Problems& p) {
  for (const auto& r : db.query("SELECT host, dgid, dgname FROM imports")) {
    Sim s(db, root, r[0].s);
    Sim::Group g;
    if (!s.loadImported(r[1].s, &g)) {
      p.push_back(r[2].s + "@" + r[0].s + ": the host's configuration of the group is unreadable");
      continue;
    }
    checkCopies(s, g, r[2].s, p);
    checkMembers(s, g, r[2].s, p);
    checkObjects(s, g, p);
  }
  // A disk imported on two hosts at once is safe only in a shared group.
  for (const auto& r :
       db.query("SELECT lun, group_concat(who, ' ') FROM (SELECT d.lun AS lun, m.disk AS disk, "
                "i.host || ':' || i.dgname AS who, i.shared AS shared FROM members m JOIN "
                "imports i ON i.host=m.host AND i.dgid=m.dgid JOIN disks d ON d.id=m.disk "
                "ORDER BY m.disk, i.host) GROUP BY disk HAVING count(*) > 1 AND min(shared) = 0"))
    p.push_back(r[0].s + " is in groups imported on several hosts without sharing: " + r[1].s);
}

// Private-region geometry within what the tools accept.
void checkDisks(Db& db, Problems& p) {
  for (const auto& r : db.query("SELECT id FROM disks ORDER BY id")) {
    Disk d = Sim::loadDisk(db, r[0].i);
    if (!d.initialized())
      continue;
    const std::string where = d.lun + ": ";
    std::vector<std::pair<const char*, int64_t>> values = {
        {"privoffset", d.privoffset}, {"privlen", d.privlen},     {"puboffset", d.puboffset},
        {"publen", d.publen},         {"configlen", d.configlen}, {"loglen", d.loglen}};
    const size_t before = p.size();
    if (d.size < 0 || d.size > (int64_t{1} << 41))
      p.push_back(where + "size " + std::to_string(d.size) + " is out of range");
    for (const auto& v : values)
      if (v.second < 0 || v.second > d.size)
        p.push_back(where + v.first + "=" + std::to_string(v.second) + " is out of range");
    for (int64_t n : {d.nconfig, d.nlog})
      if (n < 0 || n > 32)
        p.push_back(where + "configuration or log copy count " + std::to_string(n) +
                    " is out of range");
    for (int64_t slice : {d.privslice, d.pubslice})
      if ((slice < 0 || slice > 15) && slice != 9999)
        p.push_back(where + "slice " + std::to_string(slice) + " is out of range");
    // The tests qzdisk init makes, on values in range (no sum can overflow).
    const std::string problem = p.size() == before ? geometryProblem(d) : "";
    if (!problem.empty())
      p.push_back(where + problem);
  }
  for (const auto& r : db.query("SELECT name FROM hosts")) checkName("", "host", r[0].s, p);
}

// The device nodes of every host whose nodes are of the current generation
// (a host behind it brings them up to date at its next run) are what a
// full sync would make: the nodes that runs brought up to date disk by disk
// are checked against the whole model.
void checkNodes(Db& db, const std::string& root, Problems& p) {
  const int64_t gen = db.queryInt("SELECT value FROM seq WHERE name='gen'", {}, 0);
  for (const auto& r : db.query("SELECT name FROM hosts WHERE synced_gen=?", {gen})) {
    Sim s(db, root, r[0].s);
    std::set<std::string> wanted, present;
    for (const auto& w : s.wantedNodes(false)) wanted.insert(w.path);
    const std::string dir = hostDir(root, s.host.name) + "/";
    for (const char* flat : {"dev_qz/dmp", "dev_qz/rdmp", "dev_os"})
      for (const auto& n : listDir(dir + flat)) present.insert(std::string(flat) + "/" + n);
    for (const char* groups : {"dev_qz/dsk", "dev_qz/rdsk"})
      for (const auto& g : listDir(dir + groups)) {
        const std::string folder = std::string(groups) + "/" + g;
        present.insert(folder + "/");
        for (const auto& n : listDir(dir + folder)) present.insert(folder + "/" + n);
      }
    for (const auto& w : wanted) {
      present.erase(w.substr(0, w.rfind('/') + 1));  // its group's folder
      if (!present.erase(w))
        p.push_back("host " + s.host.name + ": device node " + w + " is missing");
    }
    for (const auto& n : present)
      p.push_back("host " + s.host.name + ": " + n + " is not a device node of the host");
  }
}

}  // namespace

int checkMain() {
  const char* root = getenv("QZSIM_ROOT");
  if (!root || access(dbPath(root).c_str(), F_OK) != 0) {
    std::cerr << "qzsim: no simulation at QZSIM_ROOT\n";
    return 2;
  }
  Db db(dbPath(root));
  db.begin();
  Problems p;
  std::string integrity = db.queryText("PRAGMA integrity_check", {}, "");
  if (integrity != "ok")
    p.push_back("database integrity: " + integrity);
  checkLinks(db, p);
  checkDisks(db, p);
  checkGroups(db, root, p);
  checkNodes(db, root, p);
  int64_t runs = db.queryInt("SELECT count(*) FROM runs", {}, 0);
  int64_t groups = db.queryInt("SELECT count(*) FROM imports", {}, 0);
  db.commit();
  for (const auto& line : p) std::cout << "PROBLEM " << line << "\n";
  if (!p.empty())
    return 1;
  std::cout << "OK " << groups << " imported groups, " << runs << " tool runs\n";
  return 0;
}

}  // namespace qzsim

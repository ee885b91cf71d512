// "qzsim check": verifies that the simulation database is consistent, for
// example after many hosts ran tools at once.
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <set>
#include <unistd.h>

#include "sim.h"

namespace qzsim {

namespace {

using Problems = std::vector<std::string>;

void checkLinks(Db& db, Problems& p) {
  for (const auto& r :
       db.query("SELECT host, disk FROM hostdisks WHERE host NOT IN (SELECT name FROM hosts) "
                "OR disk NOT IN (SELECT id FROM disks) OR NOT EXISTS (SELECT 1 FROM paths p "
                "WHERE p.host=hostdisks.host AND p.disk=hostdisks.disk)"))
    p.push_back("host " + r[0].s + " sees disk " + std::to_string(r[1].i) + " without a path");
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
  checkExtents(s, g, p);
}

void checkCopies(Sim& s, const Sim::Group& g, const std::string& name, Problems& p) {
  const std::string where = name + "@" + s.host.name + ": ";
  std::string text;
  for (const auto& dd : g.dmDisk) {
    Disk d = Sim::loadDisk(s.db, dd.second);
    if (d.dgname != name || d.hostlock != s.host.name || d.dmname != dd.first)
      p.push_back(where + "private region of " + d.lun + " disagrees with the import");
    if (!text.empty() && d.config != text)
      p.push_back(where + "configuration copies differ");
    text = d.config;
  }
  if (g.cfg.dg.name != name)
    p.push_back(where + "configuration names group " + g.cfg.dg.name);
}

void checkGroups(Db& db, const std::string& root, Problems& p) {
  for (const auto& r : db.query("SELECT host, dgid, dgname FROM imports")) {
    Sim s(db, root, r[0].s);
    Sim::Group g;
    if (!s.loadGroupById(r[1].s, &g)) {
      p.push_back(r[2].s + "@" + r[0].s + ": no configuration copy on any visible disk");
      continue;
    }
    checkCopies(s, g, r[2].s, p);
    checkObjects(s, g, p);
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
  checkGroups(db, root, p);
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

#include "sim.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>

#include "fsutil.h"
#include "text.h"

namespace qzsim {

namespace {

struct ErrInfo {
  int status;
  int code;
};

ErrInfo errInfo(Err kind) {
  switch (kind) {
    case kUsage:
      return {1, 1};
    case kNotInstalled:
      return {2, 2};
    case kNoDisk:
      return {11, 101};
    case kDiskNotInit:
      return {11, 102};
    case kDiskInUse:
      return {13, 103};
    case kBadGeometry:
      return {14, 104};
    case kNoGroup:
      return {11, 201};
    case kGroupExists:
      return {12, 202};
    case kImportNoDisks:
      return {20, 203};
    case kImportLocked:
      return {20, 204};
    case kNoObject:
      return {11, 301};
    case kObjectExists:
      return {12, 302};
    case kNoSpace:
      return {14, 303};
    case kVolBusy:
      return {31, 304};
    case kVolCannotStart:
      return {15, 305};
    case kUsageType:
      return {1, 306};
    case kNoPath:
      return {11, 401};
  }
  return {1, 1};
}

const char* kDiskCols =
    "id, lun, enclosure, encl_index, size, image, ptype, pformat, privslice, pubslice, "
    "privoffset, privlen, puboffset, publen, configlen, loglen, nconfig, nlog, diskid, dmname, "
    "dgname, dgid, hostlock, seqno, config";

Disk diskFromRow(const Row& r) {
  Disk d;
  d.id = r[0].i;
  d.lun = r[1].s;
  d.enclosure = r[2].s;
  d.enclIndex = r[3].i;
  d.size = r[4].i;
  d.image = r[5].s;
  d.ptype = r[6].s;
  d.pformat = r[7].s;
  int64_t* nums[] = {&d.privslice, &d.pubslice,  &d.privoffset, &d.privlen, &d.puboffset,
                     &d.publen,    &d.configlen, &d.loglen,     &d.nconfig, &d.nlog};
  for (int i = 0; i < 10; ++i) *nums[i] = r[8 + i].i;
  d.diskid = r[18].s;
  d.dmname = r[19].s;
  d.dgname = r[20].s;
  d.dgid = r[21].s;
  d.hostlock = r[22].s;
  d.seqno = r[23].i;
  d.config = r[24].s;
  return d;
}

}  // namespace

void fail(Err kind, const std::string& text) {
  ErrInfo e = errInfo(kind);
  throw ToolError{e.status, e.code, text};
}

std::string dbPath(const std::string& root) {
  return root + "/qzsim.db";
}
std::string hostDir(const std::string& root, const std::string& host) {
  return root + "/hosts/" + host;
}

Sim::Sim(Db& d, const std::string& r, const std::string& h) : db(d), root(r) {
  host = loadHost(db, h);
}

Host Sim::loadHost(Db& db, const std::string& name) {
  auto rows = db.query(
      "SELECT name, installed, version, dmp, vset, cds, hide_scans FROM hosts WHERE name=?",
      {name});
  if (rows.empty())
    throw ToolError{2, 2, "host " + name + " is not part of the simulation"};
  Host h;
  h.name = rows[0][0].s;
  h.installed = rows[0][1].i != 0;
  h.version = rows[0][2].s;
  h.dmp = rows[0][3].i != 0;
  h.vset = rows[0][4].i != 0;
  h.cds = rows[0][5].i != 0;
  h.hideScans = rows[0][6].i;
  return h;
}

Disk Sim::loadDisk(Db& db, int64_t id) {
  auto rows = db.query(std::string("SELECT ") + kDiskCols + " FROM disks WHERE id=?", {id});
  if (rows.empty())
    fail(kNoDisk, "disk " + std::to_string(id) + " does not exist");
  return diskFromRow(rows[0]);
}

void Sim::saveDisk(Db& db, const Disk& d) {
  db.exec(
      "UPDATE disks SET ptype=?, pformat=?, privslice=?, pubslice=?, privoffset=?, privlen=?, "
      "puboffset=?, publen=?, configlen=?, loglen=?, nconfig=?, nlog=?, diskid=?, dmname=?, "
      "dgname=?, dgid=?, hostlock=?, seqno=?, config=? WHERE id=?",
      {d.ptype,  d.pformat,   d.privslice, d.pubslice, d.privoffset, d.privlen, d.puboffset,
       d.publen, d.configlen, d.loglen,    d.nconfig,  d.nlog,       d.diskid,  d.dmname,
       d.dgname, d.dgid,      d.hostlock,  d.seqno,    d.config,     d.id});
}

std::vector<OsPath> Sim::paths(int64_t disk) {
  std::vector<OsPath> out;
  for (const auto& r :
       db.query("SELECT osname, enabled FROM paths WHERE host=? AND disk=? ORDER BY ord",
                {host.name, disk})) {
    out.push_back({r[0].s, disk, r[1].i != 0});
  }
  return out;
}

std::string Sim::daName(const Disk& d) {
  if (host.dmp)
    return d.node();
  auto p = paths(d.id);
  return p.empty() ? d.node() : p[0].osname;
}

std::string Sim::dmpPath(const Disk& d) {
  std::string path = "/dev/qz/dmp/" + daName(d);
  if (d.pubslice != 9999)
    path += "s" + std::to_string(d.pubslice);
  return path;
}

std::vector<Disk> Sim::viewDisks() {
  std::vector<Disk> out;
  for (const auto& r : db.query(std::string("SELECT ") + kDiskCols +
                                    " FROM disks WHERE id IN (SELECT disk FROM hostdisks "
                                    "WHERE host=? AND inview=1)",
                                {host.name})) {
    out.push_back(diskFromRow(r));
  }
  std::sort(out.begin(), out.end(),
            [this](const Disk& a, const Disk& b) { return daName(a) < daName(b); });
  return out;
}

int64_t Sim::findDisk(const std::string& rawName, bool requireView) {
  std::string name = startsWith(rawName, "/dev/") ? rawName.substr(5) : rawName;
  std::string cond = requireView ? "inview=1" : "discovered=1";
  int64_t byOs = db.queryInt(
      "SELECT p.disk FROM paths p JOIN hostdisks h ON h.host=p.host AND h.disk=p.disk "
      "WHERE p.host=? AND p.osname=? AND h." +
          cond,
      {host.name, name}, 0);
  if (byOs)
    return byOs;
  for (const auto& r :
       db.query("SELECT disk FROM hostdisks WHERE host=? AND " + cond, {host.name})) {
    Disk d = loadDisk(db, r[0].i);
    if (daName(d) == name)
      return d.id;
  }
  return 0;
}

int64_t Sim::requireViewDisk(const std::string& name) {
  int64_t id = findDisk(name, true);
  if (!id)
    fail(kNoDisk, "Disk " + name + ": Device not in configuration or not seen yet");
  return id;
}

bool Sim::inView(int64_t disk) {
  return db.queryInt("SELECT inview FROM hostdisks WHERE host=? AND disk=?", {host.name, disk},
                     0) != 0;
}

void Sim::setView(int64_t disk, bool discovered, bool inview) {
  db.exec("UPDATE hostdisks SET discovered=?, inview=? WHERE host=? AND disk=?",
          {discovered ? 1 : 0, inview ? 1 : 0, host.name, disk});
}

std::vector<std::pair<std::string, std::string>> Sim::imports() {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& r :
       db.query("SELECT dgid, dgname FROM imports WHERE host=? ORDER BY dgname", {host.name}))
    out.emplace_back(r[0].s, r[1].s);
  return out;
}

bool Sim::loadGroupById(const std::string& dgid, Group* g) {
  Disk best;
  std::vector<Disk> carriers;
  for (const Disk& d : viewDisks()) {
    if (d.dgid != dgid || d.config.empty())
      continue;
    carriers.push_back(d);
    if (best.id == 0 || d.seqno > best.seqno)
      best = d;
  }
  if (best.id == 0)
    return false;
  std::string error;
  g->dgid = dgid;
  g->dmDisk.clear();
  if (!configFromDump(best.config, &g->cfg, &error))
    return false;
  for (const auto& dm : g->cfg.dms)
    for (const Disk& d : carriers)
      if (d.diskid == dm.diskid)
        g->dmDisk[dm.name] = d.id;
  return true;
}

bool Sim::findGroup(const std::string& name, Group* g) {
  std::string dgid =
      db.queryText("SELECT dgid FROM imports WHERE host=? AND dgname=?", {host.name, name}, "");
  return !dgid.empty() && loadGroupById(dgid, g);
}

Sim::Group Sim::requireGroup(const std::string& name) {
  Group g;
  if (!findGroup(name, &g))
    fail(kNoGroup, "Disk group " + name + ": not found");
  return g;
}

DumpView Sim::dumpView(const Group& g) {
  DumpView v;
  v.daName = [this, &g](const std::string& dm) {
    auto it = g.dmDisk.find(dm);
    return it == g.dmDisk.end() ? std::string() : daName(loadDisk(db, it->second));
  };
  v.path = [this, &g](const std::string& dm) {
    auto it = g.dmDisk.find(dm);
    return it == g.dmDisk.end() ? std::string() : dmpPath(loadDisk(db, it->second));
  };
  std::string dgid = g.dgid;
  v.enabled = [this, dgid](const std::string& obj) { return isStarted(dgid, obj); };
  return v;
}

void Sim::saveGroup(Group& g) {
  g.cfg.dg.seqno++;
  DumpView view;  // the copy on disk holds no host-specific attributes
  std::string text = writeDump(g.cfg, view, DumpSelect());
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    if (it == g.dmDisk.end())
      continue;
    Disk d = loadDisk(db, it->second);
    d.dgid = g.dgid;
    d.dgname = g.cfg.dg.name;
    d.dmname = dm.name;
    d.hostlock = host.name;
    d.seqno = g.cfg.dg.seqno;
    d.config = text;
    saveDisk(db, d);
  }
}

std::string Sim::groupOfDisk(int64_t disk) {
  Disk d = loadDisk(db, disk);
  if (d.dgid.empty())
    return "";
  return db.queryText("SELECT dgname FROM imports WHERE host=? AND dgid=?", {host.name, d.dgid},
                      "");
}

bool Sim::isStarted(const std::string& dgid, const std::string& obj) {
  return db.queryInt("SELECT count(*) FROM started WHERE host=? AND dgid=? AND obj=?",
                     {host.name, dgid, obj}, 0) > 0;
}

void Sim::setStarted(const std::string& dgid, const std::string& obj, bool on) {
  if (on)
    db.exec("INSERT OR IGNORE INTO started(host, dgid, obj) VALUES(?,?,?)", {host.name, dgid, obj});
  else
    db.exec("DELETE FROM started WHERE host=? AND dgid=? AND obj=?", {host.name, dgid, obj});
}

bool Sim::isHeld(const std::string& dgid, const std::string& vol) {
  return db.queryInt("SELECT count(*) FROM holds WHERE host=? AND dgid=? AND vol=?",
                     {host.name, dgid, vol}, 0) > 0;
}

std::string Sim::newGuid() {
  char buf[64];
  snprintf(buf, sizeof buf, "{%08llx-51a1-4e2b-9c0d-%012llx}",
           static_cast<unsigned long long>(db.nextSeq("guid")),
           static_cast<unsigned long long>(db.nextSeq("guid") * 7919));
  return buf;
}

std::string Sim::newId() {
  // Shaped like the volume manager's "time.sequence.host" ids; one counter
  // for disks and groups, so that no two ids look alike.
  int64_t n = db.nextSeq("id");
  return std::to_string(1700000000 + n * 13) + "." + std::to_string(n) + "." + host.name;
}

void Sim::applyDeletes() {
  std::string sys = hostDir(root, host.name) + "/sys_block";
  for (const std::string& name : listDir(sys)) {
    std::string text;
    if (!readFile(sys + "/" + name + "/device/delete", &text) || trim(text) != "1")
      continue;
    int64_t disk =
        db.queryInt("SELECT disk FROM paths WHERE host=? AND osname=?", {host.name, name}, 0);
    db.exec("DELETE FROM paths WHERE host=? AND osname=?", {host.name, name});
    if (disk && paths(disk).empty())
      db.exec("DELETE FROM hostdisks WHERE host=? AND disk=?", {host.name, disk});
    removeTree(sys + "/" + name);
  }
}

void Sim::syncHostFiles() {
  std::string dir = hostDir(root, host.name);
  // /sys/block: one folder per OS path, with its delete control file.
  std::set<std::string> osnames;
  for (const auto& r : db.query("SELECT osname FROM paths WHERE host=?", {host.name}))
    osnames.insert(r[0].s);
  std::string sys = dir + "/sys_block";
  for (const std::string& n : listDir(sys))
    if (!osnames.count(n))
      removeTree(sys + "/" + n);
  for (const std::string& n : osnames) {
    std::string del = sys + "/" + n + "/device/delete";
    if (access(del.c_str(), F_OK) != 0) {
      makeDirs(sys + "/" + n + "/device");
      writeFile(del, "");
    }
  }
  // /dev/qz/dsk and rdsk: one node per volume of each imported group.
  std::map<std::string, std::set<std::string>> wanted;
  for (const auto& imp : imports()) {
    Group g;
    if (!loadGroupById(imp.first, &g))
      continue;
    auto& vols = wanted[imp.second];
    for (const auto& v : g.cfg.vols) vols.insert(v.name);
  }
  for (const char* kind : {"dsk", "rdsk"}) {
    std::string base = dir + "/dev_qz/" + kind;
    makeDirs(base);
    for (const std::string& dg : listDir(base)) {
      auto it = wanted.find(dg);
      if (it == wanted.end()) {
        removeTree(base + "/" + dg);
        continue;
      }
      for (const std::string& v : listDir(base + "/" + dg))
        if (!it->second.count(v))
          unlink((base + "/" + dg + "/" + v).c_str());
    }
    for (const auto& dg : wanted) {
      makeDirs(base + "/" + dg.first);
      for (const std::string& v : dg.second) {
        std::string node = base + "/" + dg.first + "/" + v;
        if (access(node.c_str(), F_OK) != 0)
          writeFile(node, "", 0600);
      }
    }
  }
}

}  // namespace qzsim

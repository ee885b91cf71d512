#include "sim.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

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
    case kBadName:
      return {1, 8};
    case kGroupDisabled:
      return {13, 205};
    case kBadRecord:
      return {16, 307};
  }
  return {1, 1};
}

const char* kDiskCols =
    "id, lun, enclosure, encl_index, size, image, ptype, pformat, privslice, pubslice, "
    "privoffset, privlen, puboffset, publen, configlen, loglen, nconfig, nlog, diskid, dmname, "
    "dgname, dgid, hostlock, seqno, EXISTS (SELECT 1 FROM diskconfigs c WHERE c.disk=disks.id), "
    "udid, copy_of";

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
  d.hasConfig = r[24].i != 0;
  d.udid = r[25].s;
  d.copyOf = r[26].i;
  return d;
}

}  // namespace

void fail(Err kind, const std::string& text) {
  ErrInfo e = errInfo(kind);
  throw ToolError{e.status, e.code, text};
}

const std::string& requireName(const std::string& kind, const std::string& name) {
  std::string problem = nameProblem(name);
  if (!problem.empty())
    fail(kBadName, kind + " name '" + name + "' " + problem + ".");
  return name;
}

std::string dbPath(const std::string& root) {
  return root + "/qzsim.db";
}
std::string hostDir(const std::string& root, const std::string& host) {
  return root + "/hosts/" + host;
}
std::string devQzDir(const std::string& root, const std::string& host) {
  return hostDir(root, host) + "/dev_qz";
}
std::string devOsDir(const std::string& root, const std::string& host) {
  return hostDir(root, host) + "/dev_os";
}
std::string machineIdFile(const std::string& root, const std::string& host) {
  return hostDir(root, host) + "/machine-id";
}
bool newMachineId(const std::string& root, const std::string& host) {
  unsigned char bytes[16] = {};
  std::ifstream random("/dev/urandom", std::ios::binary);
  if (!random.read(reinterpret_cast<char*>(bytes), sizeof bytes))
    return false;
  static const char kHex[] = "0123456789abcdef";
  std::string id;
  for (unsigned char b : bytes) {
    id += kHex[b >> 4];
    id += kHex[b & 15];
  }
  return writeFile(machineIdFile(root, host), id + "\n");
}
bool ensureMachineId(const std::string& root, const std::string& host) {
  return access(machineIdFile(root, host).c_str(), F_OK) == 0 || newMachineId(root, host);
}

Sim::Sim(Db& d, const std::string& r, const std::string& h) : db(d), root(r) {
  host = loadHost(db, h);
}

Host Sim::loadHost(Db& db, const std::string& name) {
  auto rows = db.query(
      "SELECT name, installed, version, dmp, vset, cds, hide_scans, synced_gen FROM hosts "
      "WHERE name=?",
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
  h.syncedGen = rows[0][7].i;
  return h;
}

int64_t Sim::storeConfig(Db& db, const std::string& config) {
  // Texts no disk carries any more go first.
  db.exec("DELETE FROM configtexts WHERE id NOT IN (SELECT text FROM diskconfigs)");
  db.exec("INSERT INTO configtexts(config) VALUES(?)", {config});
  return db.lastInsertId();
}

Disk Sim::loadDiskLight(Db& db, int64_t id) {
  auto rows = db.query(std::string("SELECT ") + kDiskCols + " FROM disks WHERE id=?", {id});
  if (rows.empty())
    fail(kNoDisk, "disk " + std::to_string(id) + " does not exist");
  return diskFromRow(rows[0]);
}

Disk Sim::loadDisk(Db& db, int64_t id) {
  Disk d = loadDiskLight(db, id);
  for (const auto& r : db.query("SELECT t.id, t.config FROM diskconfigs c JOIN configtexts t ON "
                                "t.id=c.text WHERE c.disk=?",
                                {id})) {
    d.configId = r[0].i;
    d.config = r[1].s;
  }
  d.configLoaded = true;
  return d;
}

void Sim::saveDisk(Db& db, const Disk& d) {
  db.exec(
      "UPDATE disks SET ptype=?, pformat=?, privslice=?, pubslice=?, privoffset=?, privlen=?, "
      "puboffset=?, publen=?, configlen=?, loglen=?, nconfig=?, nlog=?, diskid=?, dmname=?, "
      "dgname=?, dgid=?, hostlock=?, seqno=?, udid=? WHERE id=?",
      {d.ptype,  d.pformat,   d.privslice, d.pubslice, d.privoffset, d.privlen, d.puboffset,
       d.publen, d.configlen, d.loglen,    d.nconfig,  d.nlog,       d.diskid,  d.dmname,
       d.dgname, d.dgid,      d.hostlock,  d.seqno,    d.udid,       d.id});
  if (d.configLoaded && d.config.empty()) {
    db.exec("DELETE FROM diskconfigs WHERE disk=?", {d.id});
  } else if (d.configLoaded) {
    const int64_t text = d.configId ? d.configId : storeConfig(db, d.config);
    db.exec("INSERT OR REPLACE INTO diskconfigs(disk, text) VALUES(?,?)", {d.id, text});
  }
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
  if (!p.empty())
    return p[0].osname;
  // A disk listed without its paths keeps the name it had.
  std::string kept =
      db.queryText("SELECT name FROM hostdisks WHERE host=? AND disk=?", {host.name, d.id}, "");
  return kept.empty() ? d.node() : kept;
}

std::string Sim::dmpPath(const Disk& d) {
  std::string path = "/dev/qz/dmp/" + daName(d);
  if (d.pubslice != 9999)
    path += "s" + std::to_string(d.pubslice);
  return path;
}

std::vector<Disk> Sim::viewDisks() {
  std::vector<std::pair<std::string, Disk>> named;
  for (const auto& r : db.query(std::string("SELECT ") + kDiskCols +
                                    " FROM disks WHERE id IN (SELECT disk FROM hostdisks "
                                    "WHERE host=? AND inview=1)",
                                {host.name})) {
    Disk d = diskFromRow(r);
    named.emplace_back(daName(d), d);
  }
  std::sort(named.begin(), named.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<Disk> out;
  for (auto& n : named) out.push_back(std::move(n.second));
  return out;
}

int64_t Sim::findDisk(const std::string& rawName, bool requireView) {
  std::string name = startsWith(rawName, "/dev/") ? rawName.substr(5) : rawName;
  requireName("Disk", name);
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
    Disk d = loadDiskLight(db, r[0].i);
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
  if (!inview && !hasPath(disk))
    db.exec("DELETE FROM hostdisks WHERE host=? AND disk=?", {host.name, disk});
}

bool Sim::hasPath(int64_t disk) {
  return db.queryInt("SELECT count(*) FROM paths WHERE host=? AND disk=?", {host.name, disk}, 0) >
         0;
}

void Sim::requirePath(int64_t disk, const std::string& name) {
  if (!hasPath(disk))
    fail(kNoPath, "Disk " + name + ": the disk has no path (state error)");
}

std::vector<std::pair<std::string, std::string>> Sim::imports() {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& r :
       db.query("SELECT dgid, dgname FROM imports WHERE host=? ORDER BY dgname", {host.name}))
    out.emplace_back(r[0].s, r[1].s);
  return out;
}

bool Sim::loadImported(const std::string& dgid, Group* g) {
  auto rows = db.query("SELECT config, disabled, shared FROM imports WHERE host=? AND dgid=?",
                       {host.name, dgid});
  if (rows.empty())
    return false;
  // A run reads the same configuration several times; it is parsed once.
  auto parsed = parsedConfigs_.find(rows[0][0].s);
  if (parsed == parsedConfigs_.end()) {
    GroupConfig cfg;
    std::string error;
    if (!configFromDump(rows[0][0].s, &cfg, &error))
      return false;
    parsed = parsedConfigs_.emplace(rows[0][0].s, cfg).first;
  }
  g->cfg = parsed->second;
  g->dgid = dgid;
  g->disabled = rows[0][1].i != 0;
  g->shared = rows[0][2].i != 0;
  g->dmDisk.clear();
  for (const auto& r : db.query("SELECT m.dm, m.disk FROM members m JOIN hostdisks h ON "
                                "h.host=m.host AND h.disk=m.disk AND h.inview=1 "
                                "WHERE m.host=? AND m.dgid=? AND EXISTS (SELECT 1 FROM paths p "
                                "WHERE p.host=m.host AND p.disk=m.disk)",
                                {host.name, dgid}))
    g->dmDisk[r[0].s] = r[1].i;
  return true;
}

bool Sim::findGroup(const std::string& name, Group* g) {
  requireName("Disk group", name);
  std::string dgid =
      db.queryText("SELECT dgid FROM imports WHERE host=? AND dgname=?", {host.name, name}, "");
  return !dgid.empty() && loadImported(dgid, g);
}

Sim::Group Sim::requireGroup(const std::string& name) {
  Group g;
  if (!findGroup(name, &g))
    fail(kNoGroup, "Disk group " + name + ": not found");
  return g;
}

Sim::Group Sim::requireEnabledGroup(const std::string& name) {
  Group g = requireGroup(name);
  if (g.disabled)
    fail(kGroupDisabled, "Disk group " + name +
                             " is disabled; deport it and import it again once its disks "
                             "are back");
  return g;
}

void Sim::addImport(Group& g) {
  db.exec("DELETE FROM members WHERE host=? AND dgid=?", {host.name, g.dgid});
  db.exec("INSERT INTO imports(host, dgid, dgname, shared) VALUES(?,?,?,?)",
          {host.name, g.dgid, g.cfg.dg.name, g.shared ? 1 : 0});
  saveGroup(g);
}

DumpView Sim::dumpView(const Group& g) {
  DumpView v;
  v.daName = [this, &g](const std::string& dm) {
    auto it = g.dmDisk.find(dm);
    return it == g.dmDisk.end() ? std::string() : daName(loadDiskLight(db, it->second));
  };
  v.path = [this, &g](const std::string& dm) {
    auto it = g.dmDisk.find(dm);
    return it == g.dmDisk.end() ? std::string() : dmpPath(loadDiskLight(db, it->second));
  };
  std::string dgid = g.dgid;
  v.enabled = [this, dgid](const std::string& obj) { return isStarted(dgid, obj); };
  return v;
}

void Sim::saveGroup(Group& g) {
  g.cfg.dg.seqno++;
  DumpView view;  // the copy on disk holds no host-specific attributes
  std::string text = writeDump(g.cfg, view, DumpSelect());
  std::vector<std::string> hosts = {host.name};
  if (g.shared)
    for (const auto& r : db.query("SELECT host FROM imports WHERE dgid=? AND shared=1 AND host<>?",
                                  {g.dgid, host.name}))
      hosts.push_back(r[0].s);
  parsedConfigs_[text] = g.cfg;
  const int64_t textId = g.dmDisk.empty() ? 0 : storeConfig(db, text);
  for (const auto& h : hosts) {
    db.exec("UPDATE imports SET config=? WHERE host=? AND dgid=?", {text, h, g.dgid});
    for (const auto& dd : g.dmDisk)
      db.exec("INSERT OR REPLACE INTO members(host, dgid, dm, disk) VALUES(?,?,?,?)",
              {h, g.dgid, dd.first, dd.second});
  }
  for (const auto& dm : g.cfg.dms) {
    auto it = g.dmDisk.find(dm.name);
    if (it == g.dmDisk.end())
      continue;
    Disk d = loadDiskLight(db, it->second);
    d.dgid = g.dgid;
    d.dgname = g.cfg.dg.name;
    d.dmname = dm.name;
    d.hostlock = host.name;
    d.seqno = g.cfg.dg.seqno;
    d.config = text;
    d.configId = textId;
    d.configLoaded = true;
    saveDisk(db, d);
  }
}

std::string Sim::groupOfDisk(int64_t disk) {
  return db.queryText(
      "SELECT i.dgname FROM members m JOIN imports i ON i.host=m.host AND i.dgid=m.dgid "
      "WHERE m.host=? AND m.disk=?",
      {host.name, disk}, "");
}

void Sim::setDisabled(const std::string& dgid) {
  db.exec("UPDATE imports SET disabled=1 WHERE host=? AND dgid=?", {host.name, dgid});
  db.exec("DELETE FROM started WHERE host=? AND dgid=?", {host.name, dgid});
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

bool Sim::deleteOsPath(const std::string& osname) {
  int64_t disk =
      db.queryInt("SELECT disk FROM paths WHERE host=? AND osname=?", {host.name, osname}, 0);
  if (!disk)
    return false;
  touchDisk(disk);
  std::string name = daName(loadDiskLight(db, disk));
  db.exec("DELETE FROM paths WHERE host=? AND osname=?", {host.name, osname});
  if (!hasPath(disk)) {
    db.exec("UPDATE hostdisks SET name=? WHERE host=? AND disk=?", {name, host.name, disk});
    setView(disk, true, inView(disk));
  }
  return true;
}

namespace {

using WantedNode = Sim::WantedNode;

struct NodeRow {
  std::string path;
  int64_t uid, gid, mode;
};

std::string folderPart(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}
std::string namePart(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

// The host's device-node folders, each opened once and without following
// links: a sandbox can write there, and whatever it planted is only a name.
class NodeFolders {
 public:
  // wanted: the node files each folder should hold.
  NodeFolders(int host, const std::map<std::string, std::set<std::string>>& wanted)
      : host_(host), wanted_(wanted) {
    for (const char* flat : {"dev_qz/dmp", "dev_qz/rdmp", "dev_os"}) wanted_[flat];
    for (const char* groups : kGroupFolders) open(groups, true);
    for (const auto& folder : wanted_) open(folder.first, true);
  }

  // The folder rel below the host folder; -1 when it is not there (or
  // cannot be made). Made when asked, in place of a link or a file.
  int open(const std::string& rel, bool create) {
    auto it = folders_.find(rel);
    if (it == folders_.end() || (create && !it->second.ok()))
      it = folders_.insert_or_assign(rel, openFolderAt(host_, rel, create)).first;
    return it->second.get();
  }

  // Removes the groups' folders and the files no longer wanted, and what is
  // not a plain file where a node belongs; the nodes already there.
  std::set<std::string> prune() {
    for (const char* groups : kGroupFolders) {
      const int fd = open(groups, true);
      for (const Entry& e : listFolder(fd))
        if (!wanted_.count(std::string(groups) + "/" + e.name))
          removeAt(fd, e.name);
    }
    std::set<std::string> present;
    for (const auto& folder : wanted_) {
      const int fd = open(folder.first, true);
      for (const Entry& e : listFolder(fd)) {
        if (e.plainFile && folder.second.count(e.name))
          present.insert(folder.first + "/" + e.name);
        else
          removeAt(fd, e.name);
      }
    }
    return present;
  }

 private:
  static constexpr const char* kGroupFolders[] = {"dev_qz/dsk", "dev_qz/rdsk"};
  int host_;
  std::map<std::string, std::set<std::string>> wanted_;
  std::map<std::string, Fd> folders_;
};

// Owners and modes changed on the nodes themselves (chown, chmod) are kept,
// so that a node made again later gets them back.
void keepOwners(Db& db, const std::string& host, NodeFolders* folders,
                std::map<std::string, NodeRow>* rows) {
  for (auto& row : *rows) {
    const int folder = folders->open(folderPart(row.second.path), false);
    struct stat st;
    if (folder < 0 ||
        fstatat(folder, namePart(row.second.path).c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISREG(st.st_mode))
      continue;
    NodeRow now{row.second.path, st.st_uid, st.st_gid, st.st_mode & 07777};
    if (now.uid != row.second.uid || now.gid != row.second.gid || now.mode != row.second.mode) {
      db.exec("UPDATE nodes SET uid=?, gid=?, mode=? WHERE host=? AND key=?",
              {now.uid, now.gid, now.mode, host, row.first});
      row.second = now;
    }
  }
}

// Makes a missing node with the owner and mode it had last, or its own
// mode. Never through a link: a name taken meanwhile leaves it unmade.
void makeNodeIn(Db& db, const std::string& host, int folder, const WantedNode& w,
                const std::map<std::string, NodeRow>& rows) {
  int fd = openat(folder, namePart(w.path).c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, w.mode);
  if (fd < 0)
    return;
  auto it = rows.find(w.key);
  struct stat st;
  fstat(fd, &st);
  if (it != rows.end()) {
    // An id that a user namespace cannot map keeps the creator's.
    if (it->second.uid != st.st_uid || it->second.gid != st.st_gid)
      (void)!fchown(fd, static_cast<uid_t>(it->second.uid), static_cast<gid_t>(it->second.gid));
    fchmod(fd, static_cast<mode_t>(it->second.mode));
  } else {
    fchmod(fd, w.mode);
  }
  fstat(fd, &st);
  close(fd);
  db.exec("INSERT OR REPLACE INTO nodes(host, key, path, uid, gid, mode) VALUES(?,?,?,?,?,?)",
          {host, w.key, w.path, static_cast<int64_t>(st.st_uid), static_cast<int64_t>(st.st_gid),
           static_cast<int64_t>(st.st_mode & 07777)});
}

void makeNode(Db& db, const std::string& host, NodeFolders* folders, const WantedNode& w,
              const std::map<std::string, NodeRow>& rows) {
  makeNodeIn(db, host, folders->open(folderPart(w.path), true), w, rows);
}

bool validNames(std::initializer_list<std::string> names) {
  for (const auto& n : names)
    if (!nameProblem(n).empty())
      return false;
  return true;
}

// "sdb", "sdaa", "sdb1": the machine's names of SCSI disks and partitions.
bool isOsDiskName(const std::string& name) {
  size_t i = 2;
  if (!startsWith(name, "sd"))
    return false;
  while (i < name.size() && name[i] >= 'a' && name[i] <= 'z') ++i;
  if (i == 2)
    return false;
  while (i < name.size() && name[i] >= '0' && name[i] <= '9') ++i;
  return i == name.size();
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa, sb;
  return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
         sa.st_ino == sb.st_ino;
}

}  // namespace

void Sim::sync(bool changed) {
  // Any change may concern any host: it starts a new generation, and a host
  // whose files are of an older one syncs at its next run.
  int64_t gen =
      changed ? db.nextSeq("gen") : db.queryInt("SELECT value FROM seq WHERE name='gen'", {}, 0);
  // A run that named everything it changed, on a host whose nodes were up
  // to date before it, brings up to date only what it named.
  const bool scoped = changed && (!touchedDisks_.empty() || !touchedGroups_.empty()) &&
                      gen == host.syncedGen + 1 &&
                      db.queryInt("SELECT count(*) FROM hosts WHERE name=? AND synced_gen=?",
                                  {host.name, host.syncedGen}, 0) > 0;
  if (!changed && gen == host.syncedGen)
    return;
  if (scoped)
    syncTouched();
  else
    syncHostFiles();
  touchedDisks_.clear();
  touchedGroups_.clear();
  db.exec("UPDATE hosts SET synced_gen=? WHERE name=?", {gen, host.name});
  host.syncedGen = gen;
}

namespace {

// The volume and volume-set nodes of a group imported as dgname.
void groupVolNodes(const std::string& dgid, const std::string& dgname, const GroupConfig& cfg,
                   std::vector<WantedNode>* out) {
  std::vector<std::string> objs;
  for (const auto& v : cfg.vols) objs.push_back(v.name);
  for (const auto& v : cfg.vsets) objs.push_back(v.name);
  for (const auto& obj : objs) {
    if (!validNames({dgname, obj}))
      continue;
    for (const char* kind : {"dsk", "rdsk"})
      out->push_back({std::string(kind) + ":" + dgid + ":" + obj,
                      std::string("dev_qz/") + kind + "/" + dgname + "/" + obj, 0600});
  }
}

const char* kDmpDiskCols = "id, enclosure, encl_index, pformat, privslice, pubslice";

Disk dmpDiskFromRow(const Row& r) {
  Disk d;  // what the node names need
  d.id = r[0].i;
  d.enclosure = r[1].s;
  d.enclIndex = r[2].i;
  d.pformat = r[3].s;
  d.privslice = r[4].i;
  d.pubslice = r[5].i;
  return d;
}

void osNode(const std::string& osname, std::vector<WantedNode>* out) {
  if (validNames({osname}))
    out->push_back({"os:" + osname, "dev_os/" + osname, 0660});
}

}  // namespace

void Sim::dmpNodes(const Disk& d, std::vector<WantedNode>* out) {
  std::string da = daName(d);
  std::vector<std::string> names = {da};
  for (int64_t slice : {d.pubslice, d.privslice})
    if (d.initialized() && slice != 9999 && names.back() != da + "s" + std::to_string(slice))
      names.push_back(da + "s" + std::to_string(slice));
  for (const auto& n : names) {
    if (!validNames({n}))
      continue;
    for (const char* kind : {"dmp", "rdmp"})
      out->push_back({std::string(kind) + ":" + n, std::string("dev_qz/") + kind + "/" + n, 0660});
  }
}

std::vector<WantedNode> Sim::wantedNodes(bool disableLost) {
  std::vector<WantedNode> wanted;
  for (const auto& imp : imports()) {
    Group g;
    if (!loadImported(imp.first, &g))
      continue;
    if (disableLost)
      disableIfUnreachable(g);
    groupVolNodes(imp.first, imp.second, g.cfg, &wanted);
  }
  for (const auto& r : db.query("SELECT osname FROM paths WHERE host=?", {host.name}))
    osNode(r[0].s, &wanted);
  for (const auto& r : db.query(std::string("SELECT ") + kDmpDiskCols +
                                    " FROM disks WHERE id IN (SELECT disk FROM hostdisks "
                                    "WHERE host=? AND discovered=1)",
                                {host.name}))
    dmpNodes(dmpDiskFromRow(r), &wanted);
  return wanted;
}

std::vector<WantedNode> Sim::diskNodes(int64_t disk) {
  std::vector<WantedNode> out;
  for (const auto& r :
       db.query("SELECT osname FROM paths WHERE host=? AND disk=?", {host.name, disk}))
    osNode(r[0].s, &out);
  if (db.queryInt("SELECT discovered FROM hostdisks WHERE host=? AND disk=?", {host.name, disk},
                  0) == 0)
    return out;
  for (const auto& r :
       db.query(std::string("SELECT ") + kDmpDiskCols + " FROM disks WHERE id=?", {disk}))
    dmpNodes(dmpDiskFromRow(r), &out);
  return out;
}

std::vector<WantedNode> Sim::groupNodes(const std::string& dgid) {
  std::vector<WantedNode> out;
  std::string name =
      db.queryText("SELECT dgname FROM imports WHERE host=? AND dgid=?", {host.name, dgid}, "");
  Group g;
  if (!name.empty() && loadImported(dgid, &g))
    groupVolNodes(dgid, name, g.cfg, &out);
  return out;
}

void Sim::touchDisk(int64_t disk) {
  if (!touchedDisks_.count(disk))
    touchedDisks_[disk] = diskNodes(disk);
}

void Sim::touchGroup(const std::string& dgid) {
  if (!touchedGroups_.count(dgid))
    touchedGroups_[dgid] = groupNodes(dgid);
}

// A group whose disks all lost their paths has lost every configuration
// copy: it is disabled, and stays so until it is deported.
void Sim::disableIfUnreachable(const Group& g) {
  if (g.disabled)
    return;
  if (db.queryInt("SELECT EXISTS (SELECT 1 FROM members m JOIN hostdisks h ON h.host=m.host AND "
                  "h.disk=m.disk AND h.inview=1 JOIN paths p ON p.host=m.host AND "
                  "p.disk=m.disk AND p.enabled=1 WHERE m.host=? AND m.dgid=?)",
                  {host.name, g.dgid}, 0) == 0)
    setDisabled(g.dgid);
}

void Sim::syncHostFiles() {
  std::vector<WantedNode> wanted = wantedNodes(true);
  std::set<std::string> osnames;
  for (const auto& w : wanted)
    if (startsWith(w.path, "dev_os/"))
      osnames.insert(w.path.substr(7));

  std::map<std::string, NodeRow> rows;
  for (const auto& r :
       db.query("SELECT key, path, uid, gid, mode FROM nodes WHERE host=?", {host.name}))
    rows[r[0].s] = {r[1].s, r[2].i, r[3].i, r[4].i};
  std::map<std::string, std::set<std::string>> wantedFiles;  // folder -> names
  for (const auto& w : wanted) wantedFiles[folderPart(w.path)].insert(namePart(w.path));
  const std::string dir = hostDir(root, host.name);
  Fd hostFolder(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!hostFolder.ok())
    return;
  NodeFolders folders(hostFolder.get(), wantedFiles);
  keepOwners(db, host.name, &folders, &rows);
  std::set<std::string> present = folders.prune();
  for (const auto& w : wanted) {
    if (!present.count(w.path))
      makeNode(db, host.name, &folders, w, rows);
  }
  syncSandboxDisks(osnames, nullptr);
}

void Sim::syncTouched() {
  std::map<std::string, WantedNode> wanted, seen;  // by path: after the change; either
  std::set<std::string> groupFolders;              // "dev_qz/dsk/NAME" before the change
  std::set<std::string> dgids;  // groups whose reachability a touched disk may change
  for (const auto& t : touchedDisks_) {
    for (const auto& w : t.second) seen[w.path] = w;
    for (const auto& w : diskNodes(t.first)) wanted[w.path] = seen[w.path] = w;
    for (const auto& r :
         db.query("SELECT dgid FROM members WHERE host=? AND disk=?", {host.name, t.first}))
      dgids.insert(r[0].s);
  }
  for (const auto& t : touchedGroups_) {
    for (const auto& w : t.second) {
      seen[w.path] = w;
      groupFolders.insert(folderPart(w.path));
    }
    for (const auto& w : groupNodes(t.first)) wanted[w.path] = seen[w.path] = w;
    dgids.insert(t.first);
  }
  for (const auto& dgid : dgids) {
    Group g;
    if (loadImported(dgid, &g))
      disableIfUnreachable(g);
  }
  const std::string dir = hostDir(root, host.name);
  Fd hostFolder(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!hostFolder.ok())
    return;
  std::map<std::string, Fd> folders;
  auto folderOf = [&](const std::string& rel, bool create) {
    auto it = folders.find(rel);
    if (it == folders.end() || (create && !it->second.ok()))
      it = folders.insert_or_assign(rel, openFolderAt(hostFolder.get(), rel, create)).first;
    return it->second.get();
  };
  std::set<std::string> osnames, osSeen;
  for (const auto& entry : seen) {
    const WantedNode& w = entry.second;
    const bool want = wanted.count(entry.first) > 0;
    if (startsWith(w.path, "dev_os/")) {
      osSeen.insert(w.path.substr(7));
      if (want)
        osnames.insert(w.path.substr(7));
    }
    const int folder = folderOf(folderPart(w.path), want);
    if (folder < 0)
      continue;
    std::map<std::string, NodeRow> rows;
    for (const auto& r : db.query("SELECT path, uid, gid, mode FROM nodes WHERE host=? AND key=?",
                                  {host.name, w.key}))
      rows[w.key] = {r[0].s, r[1].i, r[2].i, r[3].i};
    struct stat st;
    if (fstatat(folder, namePart(w.path).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      const bool plain = S_ISREG(st.st_mode);
      auto row = rows.find(w.key);
      if (plain && row != rows.end() && row->second.path == w.path &&
          (row->second.uid != st.st_uid || row->second.gid != st.st_gid ||
           row->second.mode != (st.st_mode & 07777))) {
        row->second = {w.path, st.st_uid, st.st_gid, st.st_mode & 07777};
        db.exec("UPDATE nodes SET uid=?, gid=?, mode=? WHERE host=? AND key=?",
                {row->second.uid, row->second.gid, row->second.mode, host.name, w.key});
      }
      if (want && plain)
        continue;
      removeAt(folder, namePart(w.path));
    }
    if (want)
      makeNodeIn(db, host.name, folder, w, rows);
  }
  // The folder of a group no longer imported under that name.
  for (const auto& rel : groupFolders) {
    const std::string name = namePart(rel);
    if (db.queryInt("SELECT count(*) FROM imports WHERE host=? AND dgname=?", {host.name, name},
                    0) > 0)
      continue;
    for (const char* kind : {"dev_qz/dsk", "dev_qz/rdsk"}) {
      const int folder = folderOf(kind, false);
      if (folder >= 0)
        removeAt(folder, name);
    }
  }
  syncSandboxDisks(osnames, &osSeen);
}

// Inside a sandbox that shows this host, /dev/sdX are links into the host's
// OS disk nodes. Never anywhere else: the machine's /dev is not ours.
void Sim::syncSandboxDisks(const std::set<std::string>& osnames,
                           const std::set<std::string>* only) {
  if (!sameFile(kSandboxOsDir, devOsDir(root, host.name)))
    return;
  const std::string link = std::string(kSandboxOsDir).substr(5) + "/";  // ".qzsim-os/"
  char buf[PATH_MAX];
  for (const std::string& name :
       only ? std::vector<std::string>(only->begin(), only->end()) : listDir("/dev")) {
    if (!isOsDiskName(name))
      continue;
    std::string path = "/dev/" + name;
    ssize_t n = readlink(path.c_str(), buf, sizeof buf - 1);
    bool ours = n > 0 && std::string(buf, static_cast<size_t>(n)) == link + name;
    if (ours && osnames.count(name))
      continue;
    // A stale link, or a node of the machine that this host's disk replaces.
    if (ours || osnames.count(name))
      unlink(path.c_str());
  }
  for (const std::string& name : osnames) {
    std::string path = "/dev/" + name;
    struct stat st;
    if (validNames({name}) && lstat(path.c_str(), &st) != 0)
      symlink((link + name).c_str(), path.c_str());
  }
}

}  // namespace qzsim

#include "admin.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <iostream>
#include <map>
#include <set>

#include "../include/qzsim/sandbox.h"
#include "fsutil.h"
#include "run.h"
#include "text.h"
#include "tools.h"
#include "volio.h"

namespace qzsim {

namespace {

struct AdminError {
  std::string text;
};

[[noreturn]] void usage(const std::string& text) {
  throw AdminError{text};
}

// "--flag" and "--key value" options, then the remaining words.
struct Flags {
  std::map<std::string, std::string> kv;
  std::set<std::string> flags;
  std::vector<std::string> words;
  std::string get(const std::string& k, const std::string& fallback = "") const {
    auto it = kv.find(k);
    return it == kv.end() ? fallback : it->second;
  }
  std::string need(const std::string& k) const {
    auto it = kv.find(k);
    if (it == kv.end())
      usage("--" + k + " is required");
    return it->second;
  }
  uint64_t num(const std::string& k, uint64_t fallback, uint64_t min = 0,
               uint64_t max = UINT64_MAX) const {
    uint64_t v = fallback;
    if (kv.count(k) && (!parseUint(kv.at(k), &v) || v < min || v > max))
      usage("--" + k + " takes a whole number" +
            (max == UINT64_MAX ? std::string(" of at least ") + std::to_string(min)
                               : " from " + std::to_string(min) + " to " + std::to_string(max)) +
            ".");
    return v;
  }
  uint64_t length(const std::string& k, uint64_t fallback) const {
    uint64_t v = fallback;
    if (kv.count(k) && !parseLength(kv.at(k), &v))
      usage("--" + k + " needs a length");
    return v;
  }
};

const std::set<std::string> kBoolFlags = {"no-dmp", "no-vset", "no-cds",  "not-installed",
                                          "total",  "printed", "changed", "ids"};

// A simulation holds at most this many sectors per disk (1 PiB), so that
// no offset or length sum can overflow.
constexpr uint64_t kMaxDiskSectors = 1ull << 41;

Flags parseFlags(const std::vector<std::string>& args, size_t from) {
  Flags f;
  for (size_t i = from; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (!startsWith(a, "--")) {
      f.words.push_back(a);
      continue;
    }
    std::string key = a.substr(2), value;
    if (splitKeyValue(key, &key, &value))
      f.kv[key] = value;
    else if (kBoolFlags.count(key))
      f.flags.insert(key);
    else if (i + 1 < args.size())
      f.kv[key] = args[++i];
    else
      usage(a + " needs a value");
  }
  return f;
}

std::string rootDir() {
  const char* r = getenv("QZSIM_ROOT");
  if (!r || !*r)
    usage("QZSIM_ROOT is not set");
  return r;
}

// Runs fn inside one transaction on the simulation database.
template <class Fn>
void withDb(Fn fn) {
  std::string root = rootDir();
  if (access(dbPath(root).c_str(), F_OK) != 0)
    usage("no simulation at " + root + " (run qzsim init)");
  Db db(dbPath(root));
  db.begin();
  try {
    fn(db, root);
    db.commit();
  } catch (...) {
    db.rollback();
    throw;
  }
}

void syncHost(Db& db, const std::string& root, const std::string& host) {
  Sim s(db, root, host);
  s.sync(true);
}

// Every host that sees the disk.
std::vector<std::string> hostsOf(Db& db, int64_t disk) {
  std::vector<std::string> hosts;
  for (const auto& r : db.query("SELECT host FROM hostdisks WHERE disk=? ORDER BY host", {disk}))
    hosts.push_back(r[0].s);
  return hosts;
}

std::string osName(int64_t n) {
  std::string suffix;
  for (int64_t k = n + 1; k > 0; k = (k - 1) / 26)
    suffix.insert(suffix.begin(), static_cast<char>('a' + (k - 1) % 26));
  return "sd" + suffix;
}

std::vector<std::string> attach(Db& db, int64_t disk, const std::string& host, int paths) {
  Sim::loadHost(db, host);
  if (db.queryInt("SELECT count(*) FROM paths WHERE host=? AND disk=?", {host, disk}, 0))
    usage(Sim::loadDisk(db, disk).lun + " is already attached to host " + host + ".");
  // A disk the host still lists without paths (state error) gets them back.
  db.exec("INSERT OR IGNORE INTO hostdisks(host, disk) VALUES(?,?)", {host, disk});
  std::vector<std::string> names;
  for (int i = 0; i < paths; ++i) {
    std::string name = osName(db.nextSeq("os:" + host));
    db.exec("INSERT INTO paths(host, osname, disk, ord) VALUES(?,?,?,?)",
            {host, name, disk, db.nextSeq("ord")});
    // What the array presents stays when the host deletes the device: a
    // rescan of its SCSI hosts brings it back under the same name.
    db.exec("INSERT OR REPLACE INTO presented(host, osname, disk) VALUES(?,?,?)",
            {host, name, disk});
    names.push_back(name);
  }
  return names;
}

int64_t newDisk(Db& db, const std::string& root, const std::string& enclosure, int64_t size) {
  int64_t n = db.nextSeq("lun");
  std::string lun = "lun" + std::to_string(n);
  std::string image = root + "/images/" + lun + ".img";
  makeDirs(root + "/images");
  int fd = open(image.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ftruncate(fd, size * 512) != 0)
    usage("cannot create disk image " + image);
  close(fd);
  int64_t index = db.nextSeq("encl:" + enclosure) - 1;
  std::string problem = nameProblem(enclosure + "_" + std::to_string(index));
  if (!problem.empty())
    usage("enclosure " + enclosure + " makes node names that are not valid: the name " + problem +
          ".");
  db.exec("INSERT INTO disks(lun, enclosure, encl_index, size, image) VALUES(?,?,?,?,?)",
          {lun, enclosure, index, size, image});
  return db.lastInsertId();
}

std::string describe(Db& db, int64_t disk,
                     const std::map<std::string, std::vector<std::string>>& byHost) {
  Disk d = Sim::loadDisk(db, disk);
  std::string line = d.lun + " " + d.node();
  for (const auto& h : byHost) line += " " + h.first + "=" + join(h.second, ",");
  return line;
}

// "echo '- - -' > /sys/class/scsi_host/hostN/scan" on every SCSI host of H:
// each path that the array presents and H deleted comes back under its old
// name, its disk unseen by QzVM until the next scan. Prints the disks brought
// back as "disk attach" does.
void diskRescan(const Flags& f) {
  if (!f.words.empty())
    usage("Usage: qzsim disk rescan --host H");
  withDb([&](Db& db, const std::string& root) {
    std::string host = Sim::loadHost(db, f.need("host")).name;
    std::map<int64_t, std::vector<std::string>> back;
    for (const auto& r :
         db.query("SELECT p.osname, p.disk FROM presented p WHERE p.host=? AND NOT EXISTS "
                  "(SELECT 1 FROM paths q WHERE q.host=p.host AND q.osname=p.osname) "
                  "ORDER BY p.disk, p.osname",
                  {host})) {
      db.exec("INSERT OR IGNORE INTO hostdisks(host, disk) VALUES(?,?)", {host, r[1].i});
      db.exec("INSERT INTO paths(host, osname, disk, ord) VALUES(?,?,?,?)",
              {host, r[0].s, r[1].i, db.nextSeq("ord")});
      back[r[1].i].push_back(r[0].s);
    }
    for (const auto& disk : back)
      std::cout << describe(db, disk.first, {{host, disk.second}}) << "\n";
    syncHost(db, root, host);
  });
}

void cmdInit() {
  std::string root = rootDir();
  if (!makeDirs(root + "/images") || !makeDirs(root + "/hosts"))
    usage("cannot create " + root);
  Db db(dbPath(root));
  std::cout << "initialised " << root << "\n";
}

void hostAdd(const Flags& f) {
  if (f.words.size() != 1)
    usage(
        "Usage: qzsim host add NAME [--no-dmp] [--no-vset] [--no-cds] [--not-installed] [--version "
        "V]");
  const std::string& name = f.words[0];
  std::string problem = nameProblem(name);
  if (!problem.empty())
    usage("host name '" + name + "' " + problem + ".");
  withDb([&](Db& db, const std::string& root) {
    if (db.queryInt("SELECT count(*) FROM hosts WHERE name=?", {name}, 0))
      usage("host " + name + " already exists.");
    db.exec("INSERT INTO hosts(name, installed, version, dmp, vset, cds) VALUES(?,?,?,?,?,?)",
            {name, f.flags.count("not-installed") ? 0 : 1, f.get("version", "8.0.1"),
             f.flags.count("no-dmp") ? 0 : 1, f.flags.count("no-vset") ? 0 : 1,
             f.flags.count("no-cds") ? 0 : 1});
    std::string dir = hostDir(root, name);
    for (const char* sub : {"/dev_qz/dsk", "/dev_qz/rdsk", "/dev_qz/dmp", "/dev_qz/rdmp", "/dev_os",
                            "/qzfi_config", "/qzfi_log"})
      makeDirs(dir + sub);
    if (!newMachineId(root, name))
      usage("cannot write the machine id of host " + name + ".");
  });
}

// The host installed anew: a new machine id, as a reinstalled system gets.
void hostReinstall(const Flags& f) {
  if (f.words.size() != 1)
    usage("Usage: qzsim host reinstall NAME");
  withDb([&](Db& db, const std::string& root) {
    std::string name = Sim::loadHost(db, f.words[0]).name;
    if (!newMachineId(root, name))
      usage("cannot write the machine id of host " + name + ".");
    std::string id;
    readFile(machineIdFile(root, name), &id);
    std::cout << name << " machine-id " << trim(id) << "\n";
  });
}

void hostList() {
  withDb([&](Db& db, const std::string&) {
    std::vector<std::vector<std::string>> rows = {
        {"HOST", "INSTALLED", "VERSION", "DMP", "VSET", "CDS"}};
    for (const auto& r :
         db.query("SELECT name, installed, version, dmp, vset, cds FROM hosts ORDER BY name"))
      rows.push_back({r[0].s, r[1].i ? "yes" : "no", r[2].s, r[3].i ? "yes" : "no",
                      r[4].i ? "yes" : "no", r[5].i ? "yes" : "no"});
    std::cout << formatTable(rows);
  });
}

int hostRun(const std::vector<std::string>& args, const std::string& binary) {
  // qzsim host NAME -- COMMAND...
  if (args.size() < 5 || args[3] != "--")
    usage("Usage: qzsim host NAME -- COMMAND [ARGS...]");
  std::string err;
  if (!enterNamespace(&err) || !actAsHost(rootDir(), args[2], &err, binary)) {
    std::cerr << "qzsim: " << err << "\n";
    return 125;
  }
  std::vector<char*> argv;
  for (size_t i = 4; i < args.size(); ++i) argv.push_back(const_cast<char*>(args[i].c_str()));
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  perror(argv[0]);
  return 127;
}

std::vector<std::string> knownHosts(Db& db, const std::string& list) {
  std::vector<std::string> hosts;
  for (const auto& h : splitChar(list, ','))
    if (!h.empty())
      hosts.push_back(Sim::loadHost(db, h).name);
  return hosts;
}

void diskAdd(const Flags& f) {
  if (!f.words.empty())
    usage(
        "Usage: qzsim disk add [--size LEN] [--count N] [--hosts A,B] [--paths N] "
        "[--enclosure E]");
  withDb([&](Db& db, const std::string& root) {
    int64_t size = static_cast<int64_t>(f.length("size", 2048ull * 1024));
    if (size < 2048 || static_cast<uint64_t>(size) > kMaxDiskSectors)
      usage("--size takes a length from 1m to 1024t.");
    uint64_t count = f.num("count", 1, 1, 1000);
    int paths = static_cast<int>(f.num("paths", 1, 1, 8));
    std::vector<std::string> hosts = knownHosts(db, f.get("hosts"));
    for (uint64_t i = 0; i < count; ++i) {
      int64_t id = newDisk(db, root, f.get("enclosure", "qzarr0"), size);
      std::map<std::string, std::vector<std::string>> byHost;
      for (const auto& h : hosts) byHost[h] = attach(db, id, h, paths);
      std::cout << describe(db, id, byHost) << "\n";
    }
    for (const auto& h : hosts) syncHost(db, root, h);
  });
}

// A disk named by LUN, or by a name that the given host uses for it.
int64_t resolveDisk(Db& db, const std::string& root, const std::string& name,
                    const std::string& host) {
  int64_t id = db.queryInt("SELECT id FROM disks WHERE lun=?", {name}, 0);
  if (!id && !host.empty()) {
    Sim s(db, root, host);
    id = s.findDisk(name, false);
    if (!id)
      id = db.queryInt("SELECT disk FROM paths WHERE host=? AND osname=?", {host, name}, 0);
  }
  if (!id)
    usage("there is no disk " + name + (host.empty() ? "" : " on host " + host) + ".");
  return id;
}

void diskAttach(const Flags& f, bool attachIt) {
  if (f.words.size() != 1)
    usage("Usage: qzsim disk attach|detach LUN --host H [--paths N]");
  withDb([&](Db& db, const std::string& root) {
    std::string host = Sim::loadHost(db, f.need("host")).name;
    int64_t id = resolveDisk(db, root, f.words[0], host);
    if (attachIt) {
      std::map<std::string, std::vector<std::string>> byHost;
      byHost[host] = attach(db, id, host, static_cast<int>(f.num("paths", 1, 1, 8)));
      std::cout << describe(db, id, byHost) << "\n";
    } else {
      Sim s(db, root, host);
      std::vector<OsPath> paths = s.paths(id);
      if (paths.empty())
        usage(Sim::loadDisk(db, id).lun + " is not attached to host " + host + ".");
      for (const OsPath& p : paths) s.deleteOsPath(p.osname);
      // The array no longer presents it: a rescan does not bring it back.
      db.exec("DELETE FROM presented WHERE host=? AND disk=?", {host, id});
    }
    syncHost(db, root, host);
  });
}

// The array takes a LUN away: every host loses its paths at once.
void diskRemove(const Flags& f) {
  if (f.words.size() != 1)
    usage("Usage: qzsim disk remove LUN [--host H]");
  withDb([&](Db& db, const std::string& root) {
    int64_t id = resolveDisk(db, root, f.words[0], f.get("host"));
    Disk d = Sim::loadDisk(db, id);
    std::vector<std::string> hosts = hostsOf(db, id);
    for (const char* table : {"paths", "presented", "hostdisks", "members"})
      db.exec(std::string("DELETE FROM ") + table + " WHERE disk=?", {id});
    db.exec("DELETE FROM disks WHERE id=?", {id});
    db.exec("DELETE FROM diskconfigs WHERE disk=?", {id});
    db.exec("UPDATE disks SET copy_of=0 WHERE copy_of=?", {id});
    unlink(d.image.c_str());
    for (const auto& h : hosts) syncHost(db, root, h);
  });
}

// With ids, a last column DGID holds the id of the group on each disk's
// private region: what an import by id names.
void diskList(const Flags& f) {
  const bool ids = f.flags.count("ids") != 0;
  withDb([&](Db& db, const std::string&) {
    std::vector<std::vector<std::string>> rows = {
        {"LUN", "NODE", "SIZE", "FORMAT", "GROUP", "LOCK", "COPYOF", "PATHS"}};
    if (ids)
      rows[0].push_back("DGID");
    for (const auto& r : db.query("SELECT id FROM disks ORDER BY id")) {
      Disk d = Sim::loadDisk(db, r[0].i);
      std::vector<std::string> paths;
      for (const auto& p :
           db.query("SELECT host, osname, enabled FROM paths WHERE disk=? ORDER BY ord", {d.id}))
        paths.push_back(p[0].s + ":" + p[1].s + (p[2].i ? "" : "(disabled)"));
      std::string source =
          d.copyOf ? db.queryText("SELECT lun FROM disks WHERE id=?", {d.copyOf}, "-") : "-";
      rows.push_back({d.lun, d.node(), std::to_string(d.size), d.ptype + ":" + d.pformat,
                      d.dgname.empty() ? "-" : d.dgname, d.hostlock.empty() ? "-" : d.hostlock,
                      source, paths.empty() ? "-" : join(paths, ",")});
      if (ids)
        rows.back().push_back(d.dgid.empty() ? "-" : d.dgid);
    }
    std::cout << formatTable(rows);
  });
}

// The array's copy of disks: images and private regions, under new OS names
// on the target host, not seen by QzVM there until a scan.
void arraySplit(const Flags& f) {
  withDb([&](Db& db, const std::string& root) {
    std::string to = Sim::loadHost(db, f.need("to-host")).name, from = f.get("from-host");
    if (!from.empty())
      Sim::loadHost(db, from);
    for (const auto& name : splitChar(f.need("disks"), ',')) {
      Disk src = Sim::loadDisk(db, resolveDisk(db, root, name, from));
      int64_t id = newDisk(db, root, src.enclosure, src.size);
      Disk copy = src;
      copy.id = id;
      Sim::saveDisk(db, copy);
      db.exec("UPDATE disks SET copy_of=? WHERE id=?", {src.id, id});
      if (!copySparse(src.image, Sim::loadDisk(db, id).image))
        usage("cannot copy " + src.image);
      int paths = static_cast<int>(f.num("paths", 0, 0, 8));
      if (!paths)
        paths = from.empty()
                    ? 1
                    : std::max<int>(1, static_cast<int>(db.queryInt(
                                           "SELECT count(*) FROM paths WHERE host=? AND disk=?",
                                           {from, src.id}, 1)));
      std::map<std::string, std::vector<std::string>> byHost;
      byHost[to] = attach(db, id, to, paths);
      std::cout << describe(db, id, byHost) << "\n";
    }
    syncHost(db, root, to);
  });
}

// The array copies copies back onto the LUNs they were made from: images and
// private regions, as a restore from a snapshot does.
void arrayRestore(const Flags& f) {
  withDb([&](Db& db, const std::string& root) {
    std::string from = f.get("from-host");
    if (!from.empty())
      Sim::loadHost(db, from);
    std::set<std::string> hosts;
    for (const auto& name : splitChar(f.need("disks"), ',')) {
      Disk copy = Sim::loadDisk(db, resolveDisk(db, root, name, from));
      if (!copy.copyOf)
        usage(copy.lun + " is not an array copy of another LUN; only copies can be restored.");
      if (!db.queryInt("SELECT count(*) FROM disks WHERE id=?", {copy.copyOf}, 0))
        usage("the LUN that " + copy.lun + " was copied from is gone.");
      Disk src = Sim::loadDisk(db, copy.copyOf);
      auto users = db.query(
          "SELECT i.host, i.dgname FROM members m JOIN imports i ON i.host=m.host AND "
          "i.dgid=m.dgid WHERE m.disk=? ORDER BY i.host",
          {src.id});
      if (!users.empty())
        usage(src.lun + " belongs to disk group " + users[0][1].s + " imported on host " +
              users[0][0].s + "; deport the group before restoring onto it.");
      if (!copySparse(copy.image, src.image))
        usage("cannot copy " + copy.image + " onto " + src.image);
      Disk restored = copy;
      restored.id = src.id;
      Sim::saveDisk(db, restored);
      std::cout << src.lun << " " << src.node() << " restored from " << copy.lun << "\n";
      for (const auto& h : hostsOf(db, src.id)) hosts.insert(h);
    }
    for (const auto& h : hosts) syncHost(db, root, h);
  });
}

void volumeCmd(const std::string& op, const Flags& f) {
  if (f.words.size() != 2)
    usage("Usage: qzsim volume write|read|checksum|hold|release --host H DG VOL");
  withDb([&](Db& db, const std::string& root) {
    Sim s(db, root, f.need("host"));
    const std::string &dg = f.words[0], &vol = f.words[1];
    if (op == "write") {
      writeVolume(s, dg, vol, f.num("seed", 1), f.length("offset", 0), f.length("length", 0));
    } else if (op == "read") {
      std::string data = readVolume(s, dg, vol, f.length("offset", 0), f.length("length", 0));
      fwrite(data.data(), 1, data.size(), stdout);
    } else if (op == "checksum") {
      std::cout << checksumVolume(s, dg, vol) << "\n";
    } else if (op == "hold" || op == "release") {
      Sim::Group g = s.requireGroup(dg);
      if (!g.cfg.findVol(requireName("Volume", vol)))
        fail(kNoObject, "Volume " + vol + " not found");
      if (op == "hold")
        db.exec("INSERT OR IGNORE INTO holds VALUES(?,?,?)", {s.host.name, g.dgid, vol});
      else
        db.exec("DELETE FROM holds WHERE host=? AND dgid=? AND vol=?", {s.host.name, g.dgid, vol});
    } else {
      usage("unknown volume operation " + op);
    }
  });
}

void groupCmd(const std::string& op, const Flags& f) {
  if (op != "disable" || f.words.size() != 1)
    usage("Usage: qzsim group disable --host H DG");
  withDb([&](Db& db, const std::string& root) {
    Sim s(db, root, f.need("host"));
    s.setDisabled(s.requireGroup(f.words[0]).dgid);
    s.sync(true);
  });
}

// Device nodes as a sandbox shows them, and where they are kept.
std::string nodeShownPath(const std::string& rel) {
  if (startsWith(rel, "dev_qz/"))
    return "/dev/qz/" + rel.substr(7);
  if (startsWith(rel, "dev_os/"))
    return "/dev/" + rel.substr(7);
  return rel;
}

std::string modeText(int64_t mode) {
  char buf[8];
  snprintf(buf, sizeof buf, "%04llo", static_cast<unsigned long long>(mode & 07777));
  return buf;
}

void nodeCmd(const std::string& op, const Flags& f) {
  if (op != "list" && op != "set")
    usage(
        "Usage: qzsim node list --host H [PATH...] | node set --host H PATH [--uid N] [--gid N] "
        "[--mode OCTAL]");
  if (op == "set" && f.words.size() != 1)
    usage("Usage: qzsim node set --host H PATH [--uid N] [--gid N] [--mode OCTAL]");
  withDb([&](Db& db, const std::string& root) {
    Sim s(db, root, f.need("host"));
    s.syncHostFiles();                   // picks up what chown and chmod changed on the nodes
    std::map<std::string, Row> current;  // shown path -> key, rel path, uid, gid, mode
    std::string dir = hostDir(root, s.host.name);
    for (const auto& r :
         db.query("SELECT key, path, uid, gid, mode FROM nodes WHERE host=?", {s.host.name}))
      if (access((dir + "/" + r[1].s).c_str(), F_OK) == 0)
        current[nodeShownPath(r[1].s)] = r;
    for (const auto& w : f.words)
      if (!current.count(w))
        usage("host " + s.host.name + " has no device node " + w + ".");
    if (op == "set") {
      Row& r = current[f.words[0]];
      int64_t uid =
          static_cast<int64_t>(f.num("uid", static_cast<uint64_t>(r[2].i), 0, 0xfffffffe));
      int64_t gid =
          static_cast<int64_t>(f.num("gid", static_cast<uint64_t>(r[3].i), 0, 0xfffffffe));
      int64_t mode = r[4].i;
      if (f.kv.count("mode")) {
        char* end = nullptr;
        const std::string& text = f.kv.at("mode");
        unsigned long m = strtoul(text.c_str(), &end, 8);
        if (text.empty() || *end || m > 07777)
          usage("--mode takes an octal mode from 0 to 7777.");
        mode = static_cast<int64_t>(m);
      }
      std::string file = dir + "/" + r[1].s;
      if (chown(file.c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid)) != 0 ||
          chmod(file.c_str(), static_cast<mode_t>(mode)) != 0)
        usage("cannot change " + f.words[0] + ": " + strerror(errno) + ".");
      db.exec("UPDATE nodes SET uid=?, gid=?, mode=? WHERE host=? AND key=?",
              {uid, gid, mode, s.host.name, r[0].s});
      return;
    }
    std::vector<std::vector<std::string>> rows = {{"PATH", "UID", "GID", "MODE"}};
    for (const auto& c : current)
      if (f.words.empty() || std::count(f.words.begin(), f.words.end(), c.first))
        rows.push_back({c.first, std::to_string(c.second[2].i), std::to_string(c.second[3].i),
                        modeText(c.second[4].i)});
    std::cout << formatTable(rows);
  });
}

// A fault of the given kind ("fault hang"), or of the --kind given (fail by
// default); "fault busy" is a failure with the busy volume's status and text.
void addFault(Db& db, const Flags& f, const std::string& op) {
  bool busy = op == "busy";
  FaultKind kind = op == "kill" ? FaultKind::kKill : FaultKind::kHang;
  if (op != "hang" && op != "kill" && !faultKindFromName(f.get("kind", "fail"), &kind))
    usage("--kind takes " + faultKindNames() + ".");
  std::string host = f.get("host");
  if (!host.empty())
    Sim::loadHost(db, host);
  std::string tool = f.get("tool", busy ? "qzvol" : "");
  if (!tool.empty() && !findTool(tool))
    usage("there is no tool " + tool + ".");
  std::string err = f.get("stderr");
  if (busy && err.empty())
    err = errorLine(tool.empty() ? "qzvol" : tool, 304, "Volume is busy");
  db.exec(
      "INSERT INTO faults(host, tool, pattern, kind, nth, remaining, status, out, err) "
      "VALUES(?,?,?,?,?,?,?,?,?)",
      {host, tool, squeezeBlanks(f.get("match", busy ? "stop" : "")), faultKindName(kind),
       static_cast<int64_t>(f.num("nth", 1, 1)),
       static_cast<int64_t>(busy ? f.num("count", 1, 1) : f.num("times", 1, 1)),
       static_cast<int64_t>(busy ? 31 : f.num("status", 1, 0, 255)), f.get("stdout"), err});
}

void faultCmd(const std::string& op, const Flags& f) {
  withDb([&](Db& db, const std::string& root) {
    if (op == "add" || op == "busy" || op == "hang" || op == "kill") {
      addFault(db, f, op);
    } else if (op == "hide-scans") {
      std::string host = Sim::loadHost(db, f.need("host")).name;
      db.exec("UPDATE hosts SET hide_scans=? WHERE name=?",
              {static_cast<int64_t>(f.num("count", 1)), host});
    } else if (op == "late-disk") {
      if (f.words.size() != 1)
        usage("Usage: qzsim fault late-disk DISK --host H --scans N");
      std::string host = Sim::loadHost(db, f.need("host")).name;
      int64_t id = resolveDisk(db, root, f.words[0], host);
      db.exec("UPDATE hostdisks SET late=? WHERE host=? AND disk=?",
              {static_cast<int64_t>(f.num("scans", 1)), host, id});
      if (db.changes() == 0)
        usage(Sim::loadDisk(db, id).lun + " is not attached to host " + host + ".");
    } else if (op == "clear") {
      db.exec("DELETE FROM faults");
      db.exec("UPDATE hosts SET hide_scans=0");
      db.exec("UPDATE hostdisks SET late=0");
    } else if (op == "list") {
      std::vector<std::vector<std::string>> rows = {
          {"ID", "HOST", "TOOL", "MATCH", "KIND", "NTH", "LEFT", "STATUS", "HITS"}};
      for (const auto& r : db.query(
               "SELECT id, host, tool, pattern, kind, nth, remaining, status, hits FROM faults"))
        rows.push_back({std::to_string(r[0].i), r[1].s.empty() ? "*" : r[1].s,
                        r[2].s.empty() ? "*" : r[2].s, "'" + r[3].s + "'", r[4].s,
                        std::to_string(r[5].i), std::to_string(r[6].i), std::to_string(r[7].i),
                        std::to_string(r[8].i)});
      for (const auto& r : db.query("SELECT name, hide_scans FROM hosts WHERE hide_scans>0"))
        rows.push_back({"-", r[0].s, "qzdisk", "'scandisks'", "hide-scans", "-",
                        std::to_string(r[1].i), "-", "-"});
      for (const auto& r : db.query("SELECT h.host, d.lun, h.late FROM hostdisks h JOIN disks d "
                                    "ON d.id=h.disk WHERE h.late>0 ORDER BY h.host, d.id"))
        rows.push_back({"-", r[0].s, "qzdisk", "'" + r[1].s + "'", "late-disk", "-",
                        std::to_string(r[2].i), "-", "-"});
      std::cout << formatTable(rows);
    } else {
      usage("Usage: qzsim fault add|busy|hang|kill|hide-scans|late-disk|list|clear ...");
    }
  });
}

void logCmd(const Flags& f) {
  withDb([&](Db& db, const std::string&) {
    if (!f.get("host").empty())
      Sim::loadHost(db, f.get("host"));
    std::string sql =
        "SELECT id, host, status, usec, cmd FROM runs WHERE (?='' OR host=?) AND (?='' OR cmd LIKE "
        "?) AND printed>=? AND changed>=? ORDER BY id";
    std::string tool = f.get("tool");
    auto rows = db.query(sql, {f.get("host"), f.get("host"), tool, tool + " %",
                               f.flags.count("printed") ? 1 : 0, f.flags.count("changed") ? 1 : 0});
    if (f.flags.count("total")) {
      std::cout << rows.size() << "\n";
      return;
    }
    std::vector<std::vector<std::string>> out = {{"ID", "HOST", "STATUS", "USEC", "COMMAND"}};
    for (const auto& r : rows)
      out.push_back({std::to_string(r[0].i), r[1].s,
                     r[2].i == kHungStatus ? "hung" : std::to_string(r[2].i),
                     std::to_string(r[3].i), r[4].s});
    std::cout << formatTable(out);
  });
}

int toolRun(const std::vector<std::string>& args) {
  // qzsim run --host H TOOL ARGS...
  if (args.size() < 5 || args[2] != "--host")
    usage("Usage: qzsim run --host H TOOL [ARGS...]");
  RunResult r = runTool(rootDir(), args[3], args[4], {args.begin() + 5, args.end()});
  std::cout << r.out << std::flush;
  std::cerr << r.err << std::flush;
  while (r.hang) pause();
  return r.status;
}

const char* kHelp = R"(qzsim - QzVM simulator
  qzsim init                                   create the simulation at $QZSIM_ROOT
  qzsim host add NAME [--no-dmp] [--no-vset] [--no-cds] [--not-installed] [--version V]
  qzsim host list
  qzsim host reinstall NAME                    a new machine id for NAME, as a reinstalled host
  qzsim host NAME -- COMMAND [ARGS...]         run COMMAND as host NAME in a private sandbox
  qzsim disk add [--size LEN] [--count N] [--hosts A,B] [--paths N] [--enclosure E]
  qzsim disk attach|detach DISK --host H [--paths N]
  qzsim disk remove DISK [--host H]            the array takes the LUN away from every host
  qzsim disk list [--ids]                      --ids: and the id of the group on each disk
  qzsim disk rescan --host H                   what writing to /sys/class/scsi_host/*/scan does on H
  qzsim array split --disks D1,D2 [--from-host H] --to-host H2 [--paths N]
  qzsim array restore --disks C1,C2 [--from-host H]   copies back onto their source LUNs
  qzsim volume write|read|checksum|hold|release --host H DG VOL [--seed N] [--offset LEN] [--length LEN]
  qzsim group disable --host H DG
  qzsim node list --host H [PATH...]
  qzsim node set --host H PATH [--uid N] [--gid N] [--mode OCTAL]
  qzsim fault add [--host H] [--tool T] [--match TEXT] [--nth N] [--times K] [--status S] [--stdout T] [--stderr T]
                  [--kind fail|after|partial|hang]
  qzsim fault busy [--host H] [--tool qzvol] [--match stop] --count K [--kind fail|after|partial]
  qzsim fault hang [--host H] [--tool T] [--match TEXT] [--nth N] [--times K] [--stdout T] [--stderr T]
  qzsim fault kill [--host H] [--tool T] [--match TEXT] [--nth N] [--times K]
  qzsim fault hide-scans --host H --count K
  qzsim fault late-disk DISK --host H --scans N
  qzsim fault list|clear
  qzsim log [--host H] [--tool T] [--printed] [--changed] [--total]
  qzsim check
  qzsim run --host H TOOL [ARGS...]            run one tool as host H without the sandbox
Called as qzdg, qzdisk, qzprint, qzvol, qzinfo, qzassist, qzvset, qzmake, qzdmpadm,
qzdisksetup, qzdiskunsetup, qzcdsconvert, rpm or parted, it is that tool for host $QZSIM_HOST.
A fault's TEXT is matched against the command line as "qzsim log" shows it (the tool's
name and its arguments joined by single blanks); runs of blanks in TEXT count as one.
A fault's kind says what the run does before it fails: fail (nothing), after (its
change), partial (prints the first half of its output's lines), hang (waits to be killed).
)";

}  // namespace

int checkMain();

int adminMain(const std::vector<std::string>& args, const std::string& binary) {
  try {
    std::string cmd = args.size() > 1 ? args[1] : "--help";
    std::string sub = args.size() > 2 ? args[2] : "";
    // The command a host runs keeps its own options, whatever they look like.
    if (cmd == "host" && sub != "add" && sub != "list" && sub != "reinstall")
      return hostRun(args, binary);
    Flags f = parseFlags(args, 3);
    if (cmd == "--help" || cmd == "help" || cmd == "-h")
      return std::cout << kHelp, 0;
    if (cmd == "init")
      return cmdInit(), 0;
    if (cmd == "host" && sub == "add")
      return hostAdd(f), 0;
    if (cmd == "host" && sub == "list")
      return hostList(), 0;
    if (cmd == "host" && sub == "reinstall")
      return hostReinstall(f), 0;
    if (cmd == "disk" && sub == "add")
      return diskAdd(f), 0;
    if (cmd == "disk" && (sub == "attach" || sub == "detach"))
      return diskAttach(f, sub == "attach"), 0;
    if (cmd == "disk" && sub == "remove")
      return diskRemove(f), 0;
    if (cmd == "disk" && sub == "list")
      return diskList(f), 0;
    if (cmd == "disk" && sub == "rescan")
      return diskRescan(f), 0;
    if (cmd == "array" && sub == "split")
      return arraySplit(f), 0;
    if (cmd == "array" && sub == "restore")
      return arrayRestore(f), 0;
    if (cmd == "volume")
      return volumeCmd(sub, f), 0;
    if (cmd == "group")
      return groupCmd(sub, f), 0;
    if (cmd == "node")
      return nodeCmd(sub, f), 0;
    if (cmd == "fault")
      return faultCmd(sub, f), 0;
    if (cmd == "log")
      return logCmd(parseFlags(args, 2)), 0;
    if (cmd == "check")
      return checkMain();
    if (cmd == "run")
      return toolRun(args);
    usage("unknown command " + cmd + "; see qzsim --help");
  } catch (const AdminError& e) {
    std::cerr << "qzsim: " << e.text << "\n";
    return 2;
  } catch (const ToolError& e) {
    std::cerr << "qzsim: " << e.text << "\n";
    return e.status;
  } catch (const DbError& e) {
    std::cerr << "qzsim: simulation database: " << e.what() << "\n";
    return 3;
  }
}

}  // namespace qzsim

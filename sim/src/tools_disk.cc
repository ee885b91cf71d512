// qzdisk, qzdisksetup, qzdiskunsetup and parted: disks, private regions and
// the host's view of them.
#include <set>

#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

constexpr int64_t kMaxCopies = 32;
constexpr int64_t kMaxSlice = 15;
constexpr int64_t kNoSlice = 9999;

const std::set<std::string> kGeometryKeys = {"type",      "format", "privoffset", "privlen",
                                             "puboffset", "publen", "configlen",  "loglen",
                                             "nconfig",   "nlog",   "privslice",  "pubslice"};

// A geometry attribute: a whole number from 0 to max, or the fallback.
int64_t geometryValue(const std::map<std::string, std::string>& attrs, const std::string& key,
                      int64_t fallback, int64_t max) {
  auto it = attrs.find(key);
  if (it == attrs.end())
    return fallback;
  uint64_t v = 0;
  if (!parseUint(it->second, &v) || v > static_cast<uint64_t>(max))
    fail(kBadGeometry, key + "=" + it->second + " is out of range: " + key +
                           " takes a whole number from 0 to " + std::to_string(max) + ".");
  return static_cast<int64_t>(v);
}

std::string formatFor(const std::string& type, const std::map<std::string, std::string>& attrs) {
  auto it = attrs.find("format");
  if (type != "auto")
    return type;
  std::string f = it == attrs.end() ? "cdsdisk" : it->second;
  if (f != "cdsdisk" && f != "sliced" && f != "simple")
    fail(kUsage, "unknown disk format " + f);
  return f;
}

// Geometry defaults of a fresh private region, overridden by the attributes.
void applyGeometry(Disk& d, const std::map<std::string, std::string>& attrs) {
  auto typeIt = attrs.find("type");
  d.ptype = typeIt == attrs.end() ? "auto" : typeIt->second;
  if (d.ptype != "auto" && d.ptype != "sliced" && d.ptype != "simple" && d.ptype != "nopriv")
    fail(kUsage, "unknown disk type " + d.ptype);
  d.pformat = formatFor(d.ptype, attrs);
  bool nopriv = d.ptype == "nopriv";
  // Offsets and lengths are sectors of this disk; every value is bounded so
  // that no sum or product below can overflow.
  const int64_t size = d.size;
  d.privoffset = geometryValue(attrs, "privoffset", nopriv ? 0 : 256, size);
  d.privlen = geometryValue(attrs, "privlen", nopriv ? 0 : 65536, size);
  d.puboffset = geometryValue(attrs, "puboffset", d.privoffset + d.privlen, size);
  d.publen = geometryValue(attrs, "publen", d.size - d.puboffset, size);
  d.configlen = geometryValue(attrs, "configlen", nopriv ? 0 : 48144, size);
  d.loglen = geometryValue(attrs, "loglen", nopriv ? 0 : 7296, size);
  d.nconfig = geometryValue(attrs, "nconfig", nopriv ? 0 : 1, kMaxCopies);
  d.nlog = geometryValue(attrs, "nlog", nopriv ? 0 : 1, kMaxCopies);
  bool sliced = d.pformat == "sliced";
  bool cds = d.pformat == "cdsdisk";
  d.privslice = geometryValue(attrs, "privslice", sliced ? 4 : cds ? 3 : kNoSlice, kMaxSlice);
  d.pubslice = geometryValue(attrs, "pubslice", sliced || cds ? 3 : kNoSlice, kMaxSlice);
  std::string problem = geometryProblem(d);
  if (!problem.empty())
    fail(kBadGeometry, problem);
}

std::string statusText(Sim& s, const Disk& d) {
  bool anyPath = false;
  for (const auto& p : s.paths(d.id)) anyPath = anyPath || p.enabled;
  if (!anyPath)
    return "error";
  if (!d.initialized())
    return "online invalid";
  return d.isClone() ? "online clone_disk" : "online";
}

bool importedShared(Sim& s, int64_t disk) {
  return s.db.queryInt(
             "SELECT count(*) FROM members m JOIN imports i ON i.host=m.host AND i.dgid=m.dgid "
             "WHERE m.host=? AND m.disk=? AND i.shared=1",
             {s.host.name, disk}, 0) > 0;
}

std::vector<std::string> listRow(Sim& s, const Disk& d) {
  std::string group = "-", dm = "-";
  if (!d.dgid.empty()) {
    std::string imported = s.groupOfDisk(d.id);
    group = imported.empty() ? "(" + d.dgname + ")" : imported;
    if (!imported.empty())
      dm = d.dmname;
  }
  return {s.daName(d), d.ptype + ":" + d.pformat, dm, group, statusText(s, d)};
}

void printTable(Sim& s, const std::string& dg) {
  std::vector<std::vector<std::string>> rows = {{"DEVICE", "TYPE", "DISK", "GROUP", "STATUS"}};
  if (!dg.empty())
    s.requireGroup(dg);
  for (const Disk& d : s.viewDisks()) {
    if (!dg.empty() && s.groupOfDisk(d.id) != dg)
      continue;
    rows.push_back(listRow(s, d));
  }
  s.out += formatTable(rows);
}

std::string flagsOf(Sim& s, const Disk& d) {
  std::string flags = "online ready";
  if (!d.initialized())
    return "online invalid";
  if (d.privlen > 0)
    flags += " private";
  flags += " autoconfig";
  if (!d.dgid.empty())
    flags += s.groupOfDisk(d.id).empty() ? " autoimport" : " autoimport imported";
  if (importedShared(s, d.id))
    flags += " shared";
  if (d.isClone())
    flags += " clone_disk";
  if (statusText(s, d) == "error")
    flags += " error";
  return flags;
}

std::string infoOf(const Disk& d) {
  std::string info = "format=" + d.pformat + ",privoffset=" + std::to_string(d.privoffset);
  if (d.pubslice != 9999)
    info += ",pubslice=" + std::to_string(d.pubslice);
  if (d.privslice != 9999)
    info += ",privslice=" + std::to_string(d.privslice);
  return info;
}

void printDetail(Sim& s, const Disk& d) {
  std::string da = s.daName(d);
  std::string& o = s.out;
  o += keyLine("Device", da);
  o += keyLine("devicetag", da);
  o += keyLine("type", d.ptype);
  o += keyLine("hostid", d.hostlock.empty() ? "-" : d.hostlock);
  o += keyLine("disk", (d.dmname.empty() ? "" : "name=" + d.dmname + " ") +
                           "id=" + (d.diskid.empty() ? "-" : d.diskid));
  o += keyLine("group", d.dgid.empty() ? "-" : "name=" + d.dgname + " id=" + d.dgid);
  o += keyLine("info", d.initialized() ? infoOf(d) : "format=none");
  o += keyLine("flags", flagsOf(s, d));
  o += keyLine("pubpaths", "block=" + s.dmpPath(d) + " char=/dev/qz/rdmp/" + da);
  o += keyLine("udid", "QZARR%5F" + d.enclosure + "%5F" + d.lun);
  if (d.initialized()) {
    auto slice = [](int64_t v) { return std::to_string(v); };
    o += keyLine("public", "slice=" + slice(d.pubslice) + " offset=" + slice(d.puboffset) +
                               " len=" + slice(d.publen) + " disk_offset=0");
    o += keyLine("private", "slice=" + slice(d.privslice) + " offset=" + slice(d.privoffset) +
                                " len=" + slice(d.privlen) + " disk_offset=0");
    o += keyLine("update", "seqno=0." + std::to_string(d.seqno));
    o += keyLine("configs", "count=" + slice(d.nconfig) + " len=" + slice(d.configlen));
    o += keyLine("logs", "count=" + slice(d.nlog) + " len=" + slice(d.loglen));
  }
  auto paths = s.paths(d.id);
  o += "Multipathing information:\n";
  o += keyLine("numpaths", std::to_string(paths.size()));
  for (const auto& p : paths)
    o += p.osname + "  state=" + (p.enabled ? "enabled" : "disabled") + "\n";
}

void printShort(Sim& s, const Disk& d) {
  std::string& o = s.out;
  o += keyLine("Disk", s.daName(d));
  o += keyLine("type", d.ptype);
  o += keyLine("flags", flagsOf(s, d));
  o += keyLine("diskid", d.diskid.empty() ? "-" : d.diskid);
  o += keyLine("dgname", d.dgname.empty() ? "-" : d.dgname);
  o += keyLine("dgid", d.dgid.empty() ? "-" : d.dgid);
  o += keyLine("hostid", d.hostlock.empty() ? "-" : d.hostlock);
  o += keyLine("info", d.initialized() ? infoOf(d) : "format=none");
}

void list(Sim& s, const Opts& o, const std::vector<std::string>& names) {
  std::string dg = o.get('g');
  if (names.empty() && !o.has('s'))
    return printTable(s, dg);
  std::vector<Disk> disks;
  if (names.empty()) {
    for (const Disk& d : s.viewDisks())
      if (dg.empty() || s.groupOfDisk(d.id) == dg)
        disks.push_back(d);
    if (!dg.empty())
      s.requireGroup(dg);
  }
  for (const auto& n : names) disks.push_back(Sim::loadDiskLight(s.db, s.requireViewDisk(n)));
  for (const Disk& d : disks) o.has('s') ? printShort(s, d) : printDetail(s, d);
}

void scan(Sim& s, const std::vector<std::string>& devices, bool newOnly) {
  std::set<std::string> wanted(devices.begin(), devices.end());
  bool hide = s.host.hideScans > 0;
  for (const auto& r : s.db.query(
           "SELECT disk, discovered, inview, late FROM hostdisks WHERE host=?", {s.host.name})) {
    int64_t id = r[0].i;
    bool discovered = r[1].i != 0;
    if (!wanted.empty()) {
      bool match = wanted.count(s.daName(Sim::loadDiskLight(s.db, id))) > 0;
      for (const auto& p : s.paths(id)) match = match || wanted.count(p.osname) > 0;
      if (!match)
        continue;
    }
    if (!discovered && hide)
      continue;
    if (discovered && newOnly)
      continue;
    // A late disk stays out of the view for as many scans as it has left.
    if (r[2].i == 0 && r[3].i > 0) {
      s.db.exec("UPDATE hostdisks SET late=late-1 WHERE host=? AND disk=?", {s.host.name, id});
      continue;
    }
    s.touchDisk(id);
    s.setView(id, true, true);
  }
  if (hide)
    s.db.exec("UPDATE hosts SET hide_scans=hide_scans-1 WHERE name=?", {s.host.name});
}

void scanCommand(Sim& s, const Opts& o) {
  std::vector<std::string> devices;
  bool newOnly = false;
  for (size_t i = 1; i < o.words.size(); ++i) {
    std::string key, value;
    if (o.words[i] == "new")
      newOnly = true;
    else if (splitKeyValue(o.words[i], &key, &value) && key == "device") {
      for (const auto& dev : splitChar(value, ','))
        if (!dev.empty())
          devices.push_back(requireName("Disk", startsWith(dev, "/dev/") ? dev.substr(5) : dev));
    } else
      fail(kUsage, "scandisks: unexpected argument " + o.words[i]);
  }
  scan(s, devices, newOnly);
}

void removeFromView(Sim& s, const std::string& name) {
  int64_t id = s.requireViewDisk(name);
  std::string dg = s.groupOfDisk(id);
  if (!dg.empty())
    fail(kDiskInUse, "Disk " + name + " is in use by disk group " + dg);
  s.touchDisk(id);
  s.setView(id, true, false);
}

void clearImport(Sim& s, const std::string& name) {
  int64_t id = s.requireViewDisk(name);
  std::string dg = s.groupOfDisk(id);
  if (!dg.empty())
    fail(kDiskInUse, "Disk " + name + " is in use by imported disk group " + dg);
  s.requirePath(id, name);
  s.touchDisk(id);
  Disk d = Sim::loadDisk(s.db, id);
  d.hostlock.clear();
  Sim::saveDisk(s.db, d);
}

std::map<std::string, std::string> geometryAttrs(const std::vector<std::string>& words) {
  std::map<std::string, std::string> attrs;
  for (const auto& w : words) {
    std::string key, value;
    if (!splitKeyValue(w, &key, &value) || !kGeometryKeys.count(key))
      fail(kUsage, "unexpected argument " + w);
    attrs[key] = value;
  }
  return attrs;
}

void initCommand(Sim& s, const Opts& o) {
  if (o.words.size() < 2)
    fail(kUsage, "init: no disk given");
  int64_t id = s.findDisk(o.words[1], false);
  if (!id)
    fail(kNoDisk, "Disk " + o.words[1] + ": Device not found or not seen yet");
  std::vector<std::string> rest(o.words.begin() + 2, o.words.end());
  initDisk(s, id, geometryAttrs(rest), o.has('f'));
}

}  // namespace

std::string geometryProblem(const Disk& d) {
  bool overlap = d.privlen > 0 && d.privoffset < d.puboffset + d.publen &&
                 d.puboffset < d.privoffset + d.privlen;
  if (overlap)
    return "private and public regions overlap";
  if (d.publen <= 0 || d.puboffset + d.publen > d.size)
    return "public region does not fit on the disk";
  if (d.privoffset + d.privlen > d.size)
    return "private region does not fit on the disk";
  if (d.privlen > 0 && d.configlen * d.nconfig + d.loglen * d.nlog > d.privlen)
    return "configuration copies and logs do not fit in the private region";
  return "";
}

void initDisk(Sim& s, int64_t id, const std::map<std::string, std::string>& attrs, bool force) {
  s.touchDisk(id);
  Disk d = Sim::loadDisk(s.db, id);
  std::string da = s.daName(d);
  std::string dg = s.groupOfDisk(id);
  if (!dg.empty())
    fail(kDiskInUse, "Disk " + da + " is in use by disk group " + dg);
  if (d.initialized() && !force)
    fail(kDiskInUse, "Disk " + da + " is already initialized; use -f to initialize it again");
  s.requirePath(id, da);
  applyGeometry(d, attrs);
  d.diskid = d.ptype == "nopriv" ? "" : s.newId();
  d.udid = d.ptype == "nopriv" ? "" : d.ownUdid();
  d.dmname.clear();
  d.dgname.clear();
  d.dgid.clear();
  d.hostlock.clear();
  d.seqno = 0;
  d.config.clear();
  d.configId = 0;
  Sim::saveDisk(s.db, d);
  s.setView(id, true, true);
}

void toolQzdisk(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "g");
  if (o.words.empty())
    fail(kUsage, "Usage: qzdisk [-f] [-s] [-g DG] list|scandisks|rm|clearimport|init ...");
  const std::string& cmd = o.words[0];
  std::vector<std::string> names(o.words.begin() + 1, o.words.end());
  if (cmd == "list")
    return list(s, o, names);
  if (cmd == "scandisks")
    return scanCommand(s, o);
  if (cmd == "init")
    return initCommand(s, o);
  if (names.empty())
    fail(kUsage, cmd + ": no disk given");
  if (cmd == "rm") {
    for (const auto& n : names) removeFromView(s, n);
  } else if (cmd == "clearimport") {
    for (const auto& n : names) clearImport(s, n);
  } else {
    fail(kUsage, "unknown operation " + cmd);
  }
}

void toolQzdisksetup(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "");
  if (!o.has('i') || o.words.empty())
    fail(kUsage, "Usage: qzdisksetup [-f] -i DISK [attr=value ...]");
  int64_t id = s.findDisk(o.words[0], false);
  if (!id)
    fail(kNoDisk, "Disk " + o.words[0] + ": Device not found or not seen yet");
  initDisk(s, id, geometryAttrs({o.words.begin() + 1, o.words.end()}), o.has('f'));
}

void toolQzdiskunsetup(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "");
  if (o.words.size() != 1)
    fail(kUsage, "Usage: qzdiskunsetup [-C] DISK");
  int64_t id = s.requireViewDisk(o.words[0]);
  std::string dg = s.groupOfDisk(id);
  if (!dg.empty())
    fail(kDiskInUse, "Disk " + o.words[0] + " is in use by disk group " + dg);
  s.requirePath(id, o.words[0]);
  Disk d = Sim::loadDisk(s.db, id);
  if (!d.hostlock.empty() && d.hostlock != s.host.name && !o.has('C'))
    fail(kImportLocked, "Disk " + o.words[0] + " is locked by host " + d.hostlock + "; use -C");
  s.touchDisk(id);
  Disk blank;
  blank.id = d.id;
  blank.configLoaded = true;  // no configuration copy either
  Sim::saveDisk(s.db, blank);
}

void toolParted(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "");
  if (o.words.size() != 3 || o.words[1] != "mklabel")
    fail(kUsage, "Usage: parted -s DEVICE mklabel LABEL");
  // parted has no names of its own to check: a device it cannot find is one
  // it cannot stat.
  std::string os = startsWith(o.words[0], "/dev/") ? o.words[0].substr(5) : o.words[0];
  int64_t id =
      s.db.queryInt("SELECT disk FROM paths WHERE host=? AND osname=?", {s.host.name, os}, 0);
  if (!id)
    throw ToolError{1, 0,
                    "Error: Could not stat device " + o.words[0] + " - No such file or directory."};
  if (!s.groupOfDisk(id).empty())
    throw ToolError{1, 0, "Error: Partition(s) on " + o.words[0] + " are being used."};
  // A new label overwrites the private region.
  Disk blank;
  blank.id = id;
  Sim::saveDisk(s.db, blank);
}

void toolRpm(Sim& s, const Args& a) {
  if (a.empty() || a[0] != "-qa")
    fail(kUsage, "Usage: rpm -qa");
  s.out += "glibc-2.36-9.x86_64\nbash-5.2.15-2.x86_64\nparted-3.5-3.x86_64\n";
  if (s.host.installed)
    s.out += "ZOLKqzvm-" + s.host.version + "\n";
}

}  // namespace qzsim

// qzdmpadm (multipath nodes and their OS paths) and qzcdsconvert.
#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

std::string keyArg(const std::vector<std::string>& words, const std::string& key) {
  for (size_t i = 1; i < words.size(); ++i) {
    std::string k, v;
    if (splitKeyValue(words[i], &k, &v) && k == key)
      return startsWith(v, "/dev/") ? v.substr(5) : v;
  }
  fail(kUsage, words[0] + ": " + key + "= is required");
}

std::string rule() {
  return std::string(78, '=') + "\n";
}

// The first enabled path is the active one; the others stand by.
int activePath(const std::vector<OsPath>& paths) {
  for (size_t i = 0; i < paths.size(); ++i)
    if (paths[i].enabled)
      return static_cast<int>(i);
  return -1;
}

void getDmpNode(Sim& s, const std::string& name) {
  int64_t id = s.findDisk(name, false);
  if (!id)
    fail(kNoPath, "getdmpnode: no DMP node found for " + name);
  Disk d = Sim::loadDisk(s.db, id);
  auto paths = s.paths(id);
  int enabled = 0;
  for (const auto& p : paths) enabled += p.enabled ? 1 : 0;
  std::vector<std::vector<std::string>> rows = {
      {"NAME", "STATE", "ENCLR-TYPE", "PATHS", "ENBL", "DSBL", "ENCLR-NAME"}};
  rows.push_back({d.node(), enabled ? "ENABLED" : "DISABLED", "QZARR", std::to_string(paths.size()),
                  std::to_string(enabled), std::to_string(paths.size() - enabled), d.enclosure});
  std::string table = formatTable(rows);
  size_t firstLine = table.find('\n') + 1;
  s.out += table.substr(0, firstLine) + rule() + table.substr(firstLine);
}

void getSubpaths(Sim& s, const std::string& node) {
  int64_t id = s.findDisk(node, false);
  if (!id)
    fail(kNoPath, "getsubpaths: no DMP node named " + node);
  auto paths = s.paths(id);
  int active = activePath(paths);
  std::vector<std::vector<std::string>> rows = {
      {"NAME", "STATE[A]", "PATH-TYPE[M]", "CTLR-NAME", "ENCLR-TYPE", "ENCLR-NAME", "ATTRS"}};
  Disk d = Sim::loadDisk(s.db, id);
  for (size_t i = 0; i < paths.size(); ++i) {
    std::string state = !paths[i].enabled               ? "DISABLED"
                        : static_cast<int>(i) == active ? "ENABLED(A)"
                                                        : "ENABLED";
    rows.push_back({paths[i].osname, state, static_cast<int>(i) == active ? "PRIMARY" : "SECONDARY",
                    "c" + std::to_string(i + 2), "QZARR", d.enclosure, "-"});
  }
  std::string table = formatTable(rows);
  size_t firstLine = table.find('\n') + 1;
  s.out += table.substr(0, firstLine) + rule() + table.substr(firstLine);
}

void setPath(Sim& s, const std::string& os, bool enable, bool force) {
  requireName("Path", os);
  int64_t id =
      s.db.queryInt("SELECT disk FROM paths WHERE host=? AND osname=?", {s.host.name, os}, 0);
  if (!id || !s.findDisk(os, false))
    fail(kNoPath, "path " + os + " is not a DMP path on this host");
  if (!enable && !force) {
    int others = 0;
    for (const auto& p : s.paths(id)) others += p.enabled && p.osname != os ? 1 : 0;
    if (others == 0)
      fail(kDiskInUse, "path " + os + " is the last enabled path of its node; use -f");
  }
  s.db.exec("UPDATE paths SET enabled=? WHERE host=? AND osname=?",
            {enable ? 1 : 0, s.host.name, os});
}

}  // namespace

void toolQzdmpadm(Sim& s, const Args& a) {
  if (!s.host.dmp)
    fail(kNotInstalled, "DMP is not available on this host");
  Opts o = parseOpts(a, "");
  if (o.words.empty())
    fail(kUsage, "Usage: qzdmpadm getdmpnode|getsubpaths|enable|disable ...");
  const std::string& cmd = o.words[0];
  if (cmd == "getdmpnode") {
    bool byNode = false;
    for (const auto& w : o.words) byNode = byNode || startsWith(w, "dmpnodename=");
    return getDmpNode(s, keyArg(o.words, byNode ? "dmpnodename" : "nodename"));
  }
  if (cmd == "getsubpaths")
    return getSubpaths(s, keyArg(o.words, "dmpnodename"));
  if (cmd == "enable")
    return setPath(s, keyArg(o.words, "path"), true, false);
  if (cmd == "disable")
    return setPath(s, keyArg(o.words, "path"), false, o.has('f'));
  fail(kUsage, "unknown operation " + cmd);
}

void toolQzcdsconvert(Sim& s, const Args& a) {
  if (!s.host.cds)
    fail(kNotInstalled, "qzcdsconvert is not available on this host");
  Opts o = parseOpts(a, "g");
  if (o.has('g'))
    s.requireGroup(o.get('g'));
  s.out += "conversion not needed: objects are already in cds format\n";
}

}  // namespace qzsim

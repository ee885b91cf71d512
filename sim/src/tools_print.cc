// qzprint: object listings and configuration dumps.
#include "text.h"
#include "tools.h"

namespace qzsim {

namespace {

using Rows = std::vector<std::vector<std::string>>;

std::string kstate(Sim& s, const Sim::Group& g, const std::string& obj) {
  return s.isStarted(g.dgid, obj) ? "ENABLED" : "DISABLED";
}

std::string state(Sim& s, const Sim::Group& g, const std::string& obj) {
  return s.isStarted(g.dgid, obj) ? "ACTIVE" : "CLEAN";
}

void dmRow(Sim& s, const Sim::Group& g, const DmRec& dm, Rows& rows) {
  auto it = g.dmDisk.find(dm.name);
  if (it == g.dmDisk.end()) {
    rows.push_back({"dm", dm.name, "-", "-", "-", "-", "NODEVICE", "-", "-"});
    return;
  }
  Disk d = Sim::loadDisk(s.db, it->second);
  rows.push_back({"dm", dm.name, s.daName(d), "-", std::to_string(d.publen), "-", "-", "-", "-"});
}

void sdRow(Sim& s, const Sim::Group& g, const SdRec& sd, Rows& rows) {
  std::string vol;
  for (const auto& p : g.cfg.plexes)
    if (p.name == sd.plex)
      vol = p.vol;
  rows.push_back({"sd", sd.name, sd.plex, kstate(s, g, vol), std::to_string(sd.len),
                  std::to_string(sd.plOffset), "-", "-", "-"});
}

void plexRows(Sim& s, const Sim::Group& g, const PlexRec& p, bool withSds, Rows& rows) {
  rows.push_back({"pl", p.name, p.vol, kstate(s, g, p.vol), std::to_string(p.len), "-",
                  state(s, g, p.vol), "-", "-"});
  if (withSds)
    for (const SdRec* sd : g.cfg.sdsOf(p.name)) sdRow(s, g, *sd, rows);
}

void volRow(Sim& s, const Sim::Group& g, const VolRec& v, Rows& rows) {
  rows.push_back({"v", v.name, v.usetype, kstate(s, g, v.name), std::to_string(v.len), "-",
                  state(s, g, v.name), "-", "-"});
}

void dcoRow(Sim& s, const Sim::Group& g, const DcoRec& d, Rows& rows) {
  rows.push_back({"dc", d.name, d.parentVol, kstate(s, g, d.parentVol), "-", "-", "-", "-", "-"});
}

void vsetRow(Sim& s, const Sim::Group& g, const VsetRec& v, Rows& rows) {
  uint64_t len = 0;
  for (const auto& m : v.vols)
    if (const VolRec* vol = g.cfg.findVol(m))
      len += vol->len;
  rows.push_back({"vt", v.name, "-", kstate(s, g, v.name), std::to_string(len), "-",
                  state(s, g, v.name), "-", "-"});
}

// A volume with its plexes, subdisks, DCO and the DCO's log volume.
void volumeTree(Sim& s, const Sim::Group& g, const VolRec& v, Rows& rows) {
  volRow(s, g, v, rows);
  for (const PlexRec* p : g.cfg.plexesOf(v.name)) plexRows(s, g, *p, true, rows);
  const DcoRec* dco = g.cfg.dcoOf(v.name);
  if (!dco)
    return;
  dcoRow(s, g, *dco, rows);
  if (const VolRec* log = g.cfg.findVol(dco->logVol)) {
    volRow(s, g, *log, rows);
    for (const PlexRec* p : g.cfg.plexesOf(log->name)) plexRows(s, g, *p, true, rows);
  }
}

bool objectRows(Sim& s, const Sim::Group& g, const std::string& name, Rows& rows) {
  if (const VolRec* v = g.cfg.findVol(name)) {
    volumeTree(s, g, *v, rows);
    return true;
  }
  if (const VsetRec* vs = g.cfg.findVset(name)) {
    vsetRow(s, g, *vs, rows);
    for (const auto& m : vs->vols)
      if (const VolRec* v = g.cfg.findVol(m))
        volumeTree(s, g, *v, rows);
    return true;
  }
  for (const auto& p : g.cfg.plexes)
    if (p.name == name)
      return plexRows(s, g, p, true, rows), true;
  for (const auto& sd : g.cfg.sds)
    if (sd.name == name)
      return sdRow(s, g, sd, rows), true;
  for (const auto& d : g.cfg.dcos)
    if (d.name == name)
      return dcoRow(s, g, d, rows), true;
  if (const DmRec* dm = g.cfg.findDm(name))
    return dmRow(s, g, *dm, rows), true;
  return false;
}

struct Kinds {
  bool v, x, p, s, c, d, any;
};

Kinds kindsOf(const Opts& o) {
  Kinds k{o.has('v'), o.has('x'), o.has('p'), o.has('s'), o.has('c'), o.has('d'), false};
  k.any = k.v || k.x || k.p || k.s || k.c || k.d;
  return k;
}

void groupRows(Sim& s, const Sim::Group& g, const Kinds& k, Rows& rows) {
  if (!k.any)
    rows.push_back({"dg", g.cfg.dg.name, g.cfg.dg.name, "-", "-", "-", "-", "-", "-"});
  if (!k.any || k.d)
    for (const auto& dm : g.cfg.dms) dmRow(s, g, dm, rows);
  if (!k.any || k.x)
    for (const auto& vs : g.cfg.vsets) vsetRow(s, g, vs, rows);
  if (!k.any || k.v)
    for (const auto& v : g.cfg.vols) volRow(s, g, v, rows);
  if (!k.any || k.p)
    for (const auto& p : g.cfg.plexes) plexRows(s, g, p, false, rows);
  if (!k.any || k.s)
    for (const auto& sd : g.cfg.sds) sdRow(s, g, sd, rows);
  if (!k.any || k.c)
    for (const auto& d : g.cfg.dcos) dcoRow(s, g, d, rows);
}

void dump(Sim& s, const Sim::Group& g, const Kinds& k) {
  DumpSelect sel;
  if (k.any)
    sel = {k.v, k.p, k.s, k.c, k.x};
  s.out += writeDump(g.cfg, s.dumpView(g), sel);
}

std::vector<Sim::Group> selectedGroups(Sim& s, const Opts& o) {
  std::vector<Sim::Group> groups;
  if (o.has('g')) {
    groups.push_back(s.requireGroup(o.get('g')));
    return groups;
  }
  for (const auto& imp : s.imports()) {
    Sim::Group g;
    if (s.loadImported(imp.first, &g))
      groups.push_back(g);
  }
  return groups;
}

}  // namespace

void toolQzprint(Sim& s, const Args& a) {
  Opts o = parseOpts(a, "g");
  Kinds k = kindsOf(o);
  auto groups = selectedGroups(s, o);
  if (o.has('m')) {
    for (const auto& g : groups) dump(s, g, k);
    return;
  }
  Rows rows = {{"TY", "NAME", "ASSOC", "KSTATE", "LENGTH", "PLOFFS", "STATE", "TUTIL0", "PUTIL0"}};
  for (const auto& name : o.words) {
    requireName("Object", name);
    bool found = false;
    for (const auto& g : groups) found = found || objectRows(s, g, name, rows);
    if (!found)
      fail(kNoObject, (o.has('g') ? o.get('g') + ": " : "") + name + ": Record not in disk group");
  }
  if (o.words.empty())
    for (const auto& g : groups) groupRows(s, g, k, rows);
  s.out += formatTable(rows);
}

}  // namespace qzsim

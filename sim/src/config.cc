#include "config.h"

#include "text.h"

namespace qzsim {

const DmRec* GroupConfig::findDm(const std::string& name) const {
  for (const auto& d : dms)
    if (d.name == name)
      return &d;
  return nullptr;
}
const VolRec* GroupConfig::findVol(const std::string& name) const {
  for (const auto& v : vols)
    if (v.name == name)
      return &v;
  return nullptr;
}
const VsetRec* GroupConfig::findVset(const std::string& name) const {
  for (const auto& v : vsets)
    if (v.name == name)
      return &v;
  return nullptr;
}
std::vector<const PlexRec*> GroupConfig::plexesOf(const std::string& vol) const {
  std::vector<const PlexRec*> out;
  for (const auto& p : plexes)
    if (p.vol == vol)
      out.push_back(&p);
  return out;
}
std::vector<const SdRec*> GroupConfig::sdsOf(const std::string& plex) const {
  std::vector<const SdRec*> out;
  for (const auto& s : sds)
    if (s.plex == plex)
      out.push_back(&s);
  return out;
}
const DcoRec* GroupConfig::dcoOf(const std::string& vol) const {
  for (const auto& d : dcos)
    if (d.parentVol == vol)
      return &d;
  return nullptr;
}
bool GroupConfig::hasName(const std::string& name) const {
  if (findDm(name) || findVol(name) || findVset(name))
    return true;
  for (const auto& p : plexes)
    if (p.name == name)
      return true;
  for (const auto& s : sds)
    if (s.name == name)
      return true;
  for (const auto& d : dcos)
    if (d.name == name)
      return true;
  return false;
}

std::string DumpRecord::get(const std::string& key) const {
  for (const auto& kv : attrs)
    if (kv.first == key)
      return kv.second;
  return "";
}

std::vector<DumpRecord> parseDump(const std::string& text) {
  std::vector<DumpRecord> recs;
  for (const std::string& raw : splitChar(text, '\n')) {
    if (trim(raw).empty())
      continue;
    bool indented = raw[0] == ' ' || raw[0] == '\t';
    std::string line = trim(raw);
    std::string key, value;
    if (indented || (line.find(' ') == std::string::npos && splitKeyValue(line, &key, &value))) {
      if (!recs.empty() && splitKeyValue(line, &key, &value)) {
        recs.back().attrs.emplace_back(trim(key), trim(value));
      }
      continue;
    }
    auto words = splitBlanks(line);
    DumpRecord r;
    r.kind = words[0];
    if (words.size() > 1)
      r.name = words[1];
    recs.push_back(r);
  }
  return recs;
}

namespace {

std::string num(uint64_t v) {
  return std::to_string(v);
}

void attr(std::string& out, const std::string& key, const std::string& value) {
  // An empty value is left out: readers take "key=" followed by nothing as no value.
  if (!value.empty())
    out += "\t" + key + "=" + value + "\n";
}

void writeVol(std::string& out, const VolRec& v, const DumpView& view) {
  out += "vol " + v.name + "\n";
  attr(out, "use_type", v.usetype);
  attr(out, "len", num(v.len));
  attr(out, "kstate", view.enabled && view.enabled(v.name) ? "ENABLED" : "DISABLED");
  attr(out, "guid", v.guid);
}

void writeSd(std::string& out, const SdRec& s, const DumpView& view) {
  out += "sd " + s.name + "\n";
  attr(out, "plex", s.plex);
  attr(out, "dm_name", s.dm);
  if (view.daName)
    attr(out, "da_name", view.daName(s.dm));
  if (view.path)
    attr(out, "path", view.path(s.dm));
  attr(out, "dm_offset", num(s.dmOffset));
  attr(out, "pl_offset", num(s.plOffset));
  attr(out, "len", num(s.len));
  attr(out, "guid", s.guid);
}

}  // namespace

std::string writeDump(const GroupConfig& cfg, const DumpView& view, const DumpSelect& sel) {
  std::string out = "dg " + cfg.dg.name + "\n";
  attr(out, "dgid", cfg.dg.dgid);
  attr(out, "cds", cfg.dg.cds ? "on" : "off");
  attr(out, "seqno", num(static_cast<uint64_t>(cfg.dg.seqno)));
  attr(out, "guid", cfg.dg.guid);
  for (const auto& d : cfg.dms) {
    out += "dm " + d.name + "\n";
    attr(out, "diskid", d.diskid);
    if (view.daName)
      attr(out, "da_name", view.daName(d.name));
    attr(out, "guid", d.guid);
  }
  if (sel.vols)
    for (const auto& v : cfg.vols) writeVol(out, v, view);
  if (sel.plexes)
    for (const auto& p : cfg.plexes) {
      out += "plex " + p.name + "\n";
      attr(out, "vol", p.vol);
      attr(out, "layout", "CONCAT");
      attr(out, "len", num(p.len));
      attr(out, "guid", p.guid);
    }
  if (sel.sds)
    for (const auto& s : cfg.sds) writeSd(out, s, view);
  if (sel.dcos)
    for (const auto& d : cfg.dcos) {
      out += "dco " + d.name + "\n";
      attr(out, "parent_vol", d.parentVol);
      attr(out, "log_vol", d.logVol);
      attr(out, "guid", d.guid);
    }
  // Volume sets come last so that a replay holds them after their volumes.
  if (sel.vsets)
    for (const auto& v : cfg.vsets) {
      out += "vset " + v.name + "\n";
      attr(out, "vols", join(v.vols, ","));
      attr(out, "guid", v.guid);
    }
  return out;
}

namespace {

uint64_t numAttr(const DumpRecord& r, const std::string& key) {
  uint64_t v = 0;
  parseUint(r.get(key), &v);
  return v;
}

}  // namespace

bool configFromDump(const std::string& text, GroupConfig* cfg, std::string* error) {
  *cfg = GroupConfig();
  bool sawDg = false;
  for (const auto& r : parseDump(text)) {
    if (r.kind == "dg") {
      sawDg = true;
      cfg->dg.name = r.name;
      cfg->dg.dgid = r.get("dgid");
      cfg->dg.cds = r.get("cds") == "on";
      cfg->dg.seqno = static_cast<int64_t>(numAttr(r, "seqno"));
      cfg->dg.guid = r.get("guid");
    } else if (r.kind == "dm") {
      cfg->dms.push_back({r.name, r.get("diskid"), r.get("guid")});
    } else if (r.kind == "vol") {
      VolRec v{r.name, r.get("use_type"), r.get("guid"), numAttr(r, "len")};
      cfg->vols.push_back(v);
    } else if (r.kind == "plex") {
      cfg->plexes.push_back({r.name, r.get("vol"), r.get("guid"), numAttr(r, "len")});
    } else if (r.kind == "sd") {
      cfg->sds.push_back({r.name, r.get("plex"), r.get("dm_name"), r.get("guid"),
                          numAttr(r, "dm_offset"), numAttr(r, "pl_offset"), numAttr(r, "len")});
    } else if (r.kind == "dco") {
      cfg->dcos.push_back({r.name, r.get("parent_vol"), r.get("log_vol"), r.get("guid")});
    } else if (r.kind == "vset") {
      std::string vols = r.get("vols");
      cfg->vsets.push_back({r.name, r.get("guid"),
                            vols.empty() ? std::vector<std::string>{} : splitChar(vols, ',')});
    }
  }
  if (!sawDg) {
    *error = "no disk group record";
    return false;
  }
  return true;
}

}  // namespace qzsim

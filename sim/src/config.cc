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

namespace {

bool isBlankChar(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// [b, e) of text without the blanks at either end.
void trimRange(const std::string& text, size_t* b, size_t* e) {
  while (*b < *e && isBlankChar(text[*b])) ++*b;
  while (*e > *b && isBlankChar(text[*e - 1])) --*e;
}

}  // namespace

// Reads the text in place, line by line: a dump of a large group is read
// several times in a tool run.
std::vector<DumpRecord> parseDump(const std::string& text) {
  std::vector<DumpRecord> recs;
  for (size_t pos = 0; pos < text.size();) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos)
      end = text.size();
    size_t b = pos, e = end;
    pos = end + 1;
    bool indented = isBlankChar(text[b]);
    trimRange(text, &b, &e);
    if (b == e)
      continue;
    size_t eq = text.find('=', b);
    bool hasEq = eq < e;
    size_t blank = b;
    while (blank < e && !isBlankChar(text[blank])) ++blank;
    if (indented || (blank == e && hasEq)) {
      if (!recs.empty() && hasEq) {
        size_t kb = b, ke = eq, vb = eq + 1, ve = e;
        trimRange(text, &kb, &ke);
        trimRange(text, &vb, &ve);
        recs.back().attrs.emplace_back(text.substr(kb, ke - kb), text.substr(vb, ve - vb));
      }
      continue;
    }
    DumpRecord r;
    r.kind = text.substr(b, blank - b);
    size_t nb = blank;
    while (nb < e && isBlankChar(text[nb])) ++nb;
    size_t ne = nb;
    while (ne < e && !isBlankChar(text[ne])) ++ne;
    r.name = text.substr(nb, ne - nb);
    recs.push_back(std::move(r));
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

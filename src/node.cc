#include "node.h"

#include <stdio.h>
#include <string.h>

#include <new>
#include <set>
#include <string_view>

#include "support/qzvm_support.h"
#include "report.h"

using qzfi_pdk_4_4::CFiStringTool;
using qzvmfi_report::pluginTraceLog;

namespace {

// Where blob text goes. The writer runs twice: once to count, so that the
// framework's buffer is allocated at its exact size, then into that buffer.
class TextCounter {
 public:
  void append(std::string_view text) { m_size += text.size(); }
  void append(char) { ++m_size; }
  bool empty() const { return m_size == 0; }
  size_t size() const { return m_size; }

 private:
  size_t m_size = 0;
};

class BufferWriter {
 public:
  explicit BufferWriter(char* buffer) : m_start(buffer), m_next(buffer) {}
  void append(std::string_view text) {
    memcpy(m_next, text.data(), text.size());
    m_next += text.size();
  }
  void append(char c) { *m_next++ = c; }
  bool empty() const { return m_next == m_start; }

 private:
  char* m_start;
  char* m_next;
};

class StringWriter {
 public:
  explicit StringWriter(std::string& out) : m_out(out) {}
  void append(std::string_view text) { m_out.append(text); }
  void append(char c) { m_out += c; }
  bool empty() const { return m_out.empty(); }

 private:
  std::string& m_out;
};

template <class Out>
void appendLine(Out& out, const std::string& line) {
  out.append(line);
  if (line.find('\n') == std::string::npos) {
    out.append('\n');
  }
}

// The non-empty lines of a zero-terminated text, as CFiStringTool::tokenize
// splits it at line feeds, without copying them.
class LineCursor {
 public:
  explicit LineCursor(const char* text) : m_next(text), m_end(text + strlen(text)) {}

  bool next(std::string_view& line) {
    while (m_next < m_end && *m_next == '\n') {
      ++m_next;
    }
    if (m_next == m_end) {
      return false;
    }
    const char* feed = static_cast<const char*>(memchr(m_next, '\n', m_end - m_next));
    const char* stop = feed != nullptr ? feed : m_end;
    line = std::string_view(m_next, stop - m_next);
    m_next = stop;
    return true;
  }

  // An upper bound of the lines left, to size a list without trusting a count.
  size_t linesLeftAtMost() const { return (m_end - m_next) / 2 + 1; }

 private:
  const char* m_next;
  const char* m_end;
};

std::vector<std::string> tokensOf(const std::string& line) {
  std::vector<std::string> tokens;
  for (std::string token = getToken(line, 0); !token.empty();
       token = getToken(line, static_cast<int>(tokens.size()))) {
    tokens.push_back(token);
  }
  return tokens;
}

// A name field written empty leaves one token fewer: the fields after it
// move down by one, so the name is empty and the rest is read one earlier.
void restoreEmptyName(std::vector<std::string>& tokens, size_t wanted, size_t nameIndex) {
  if (tokens.size() + 1 == wanted) {
    tokens.insert(tokens.begin() + nameIndex, std::string());
  }
  tokens.resize(wanted);
}

// Takes the next count lines, with a line feed added when asked. False when
// the text ends first; the lines taken so far are kept.
bool takeLines(LineCursor& cursor, int count, std::vector<std::string>& out, bool addFeed) {
  out.reserve(out.size() + std::min<size_t>(std::max(count, 0), cursor.linesLeftAtMost()));
  std::string_view line;
  for (int i = 0; i < count; ++i) {
    if (!cursor.next(line)) {
      return false;
    }
    std::string& taken = out.emplace_back();
    taken.reserve(line.size() + (addFeed ? 1 : 0));
    taken.assign(line);
    if (addFeed) {
      taken += '\n';  // a line cut at its line feed never holds one
    }
  }
  return true;
}

// Tokens 1, 2, ... of a list record, up to the first empty one.
void readList(const std::string& line, std::vector<std::string>& list) {
  const std::vector<std::string> tokens = tokensOf(line);
  list.insert(list.end(), tokens.begin() + 1, tokens.end());
}

template <class Map>
const typename Map::mapped_type* findIn(const Map& map, const std::string& key) {
  const auto found = map.find(key);
  return found == map.end() ? nullptr : &found->second;
}

}  // namespace

void printVolPvtInfo(const std::vector<vol_pvt_info>& records) {
  const auto log = pluginTraceLog();
  for (size_t i = 0; i < records.size(); ++i) {
    if (i > 0) {
      QZ_TRACE(log, 3, " next disk ");
    }
    const vol_pvt_info& r = records[i];
    const std::pair<const char*, const std::string*> fields[] = {
        {"vpi_da", &r.vpi_da},
        {"vpi_dm", &r.vpi_dm},
        {"vpi_dgid", &r.vpi_dgid},
        {"vpi_dgname", &r.vpi_dgname},
        {"vpi_da_type", &r.vpi_da_type},
        {"vpi_format", &r.vpi_format},
        {"vpi_priv_slice", &r.vpi_priv_slice},
        {"vpi_pub_slice", &r.vpi_pub_slice},
        {"vpi_priv_offset", &r.vpi_priv_offset},
        {"vpi_priv_len", &r.vpi_priv_len},
        {"vpi_pub_offset", &r.vpi_pub_offset},
        {"vpi_pub_len", &r.vpi_pub_len},
        {"vpi_configlen", &r.vpi_configlen},
        {"vpi_loglen", &r.vpi_loglen},
        {"vpi_nconfig", &r.vpi_nconfig},
        {"vpi_nlogs", &r.vpi_nlogs},
        {"vpi_priv_path", &r.vpi_priv_path},
    };
    for (const auto& field : fields) {
      QZ_TRACE(log, 3, "%s  %s", field.first, field.second->c_str());
    }
  }
}

CQzVMData::CQzVMData(qzfi_objid* id, bool alternate) : CFiPrivateData(id, alternate) {
  registerTraceLog(pluginTraceLog());
}

CQzVMData::~CQzVMData() = default;

int CQzVMData::init(qfi_domain* node, qfi_domain** children, int count, qzfi_objid* id) {
  if (node == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMData::init - invalid input.");
    return QFI_E_INVALID;
  }
  return CFiPrivateData::init(node, children, count, id);
}

int CQzVMData::init(qfi_domain* node, qfi_domain* parent, qfi_domain* alternate, bool flag) {
  return CFiPrivateData::init(node, parent, alternate, flag);
}

// A disk's data may have been recorded under its own name or under the name
// paired with it: the volume manager's disk lists name multipath devices,
// while the blob's records are keyed by the disks they are paired with.
std::vector<std::string> CQzVMData::namesOf(const std::string& disk) const {
  std::vector<std::string> names{disk};
  if (const std::string* dmp = findIn(m_diskToDmp, disk)) {
    names.push_back(*dmp);
  }
  if (const std::string* paired = findIn(m_dmpToDisk, disk)) {
    names.push_back(*paired);
  }
  return names;
}

const std::vector<std::string>* CQzVMData::findListing(const std::string& disk) const {
  for (const std::string& name : namesOf(disk)) {
    if (const auto* lines = findIn(m_volPriv, name)) {
      return lines;
    }
  }
  return nullptr;
}

std::string CQzVMData::findSecondName(const std::string& disk) const {
  for (const std::string& name : namesOf(disk)) {
    if (const std::string* second = findIn(m_secondName, name)) {
      return *second;
    }
  }
  return std::string();
}

template <class Out>
void CQzVMData::writeDiskRecords(Out& out) {
  static const std::vector<std::string> kNoLines;
  for (const auto& [disk, dmp] : m_diskToDmp) {
    const std::vector<std::string>* found = findListing(disk);
    const std::vector<std::string>& lines = found != nullptr ? *found : kNoLines;
    if (m_secondName.count(disk) == 0) {
      m_secondName[disk] = findSecondName(disk);  // empty when the disk has none
    }
    out.append("fiid_volpriv ");
    out.append(disk);
    out.append(' ');
    out.append(m_secondName[disk]);
    out.append(' ');
    out.append(dmp);
    out.append(' ');
    out.append(std::to_string(lines.size()));
    out.append('\n');
    for (const std::string& line : lines) {
      appendLine(out, line);
    }
    out.append('\n');
  }
}

template <class Out>
void CQzVMData::writeDGConfig(Out& out) const {
  out.append("fiid_dgconfig ");
  out.append(m_dgName);
  out.append(' ');
  out.append(std::to_string(m_dgConfig.size()));
  out.append('\n');
  for (const std::string& line : m_dgConfig) {
    appendLine(out, line);
  }
}

template <class Out>
void CQzVMData::writeBlob(Out& out) {
  // Records are separated by a line feed; the last one ends without one.
  const auto startRecord = [&out](const char* key) {
    if (!out.empty()) {
      out.append('\n');
    }
    out.append(key);
  };
  const auto appendList = [&out](const std::vector<std::string>& entries) {
    for (const std::string& entry : entries) {
      out.append(' ');
      out.append(entry);
    }
  };
  if (m_deported == 1) {
    startRecord("fiid_isqzvmdeported 1");
  }
  if (!m_vt.empty()) {
    startRecord("fiid_vt");
    appendList(m_vt);
  }
  if (!m_v.empty()) {
    startRecord("fiid_v");
    appendList(m_v);
  }
  if (!m_altVol.empty()) {
    startRecord("fiid_altvol ");
    out.append(m_altVol);
  }
  if (!m_dgId.empty()) {
    startRecord("fiid_dgid ");
    out.append(m_dgId);
  }
  if (!m_diskToDmp.empty()) {
    startRecord("");
    writeDiskRecords(out);
  }
  if (!m_dgConfig.empty()) {
    startRecord("");
    writeDGConfig(out);
  }
  char id[32];
  startRecord("fiid_uigid ");
  snprintf(id, sizeof id, "%ld", static_cast<long>(m_uid));
  out.append(id);
  out.append(' ');
  snprintf(id, sizeof id, "%ld", static_cast<long>(m_gid));
  out.append(id);
}

int CQzVMData::convertDiskInitInfoToString(std::string& out) {
  StringWriter writer(out);
  writeDiskRecords(writer);
  return 0;
}

int CQzVMData::convertDGConfigInfoToString(std::string& out) {
  StringWriter writer(out);
  writeDGConfig(writer);
  return 0;
}

int CQzVMData::createBlob(qfi_blob* blob) {
  if (blob == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMData::createBlob - invalid inputs.");
    return QFI_E_INVALID;
  }
  try {
    TextCounter counter;
    writeBlob(counter);
    char* data = static_cast<char*>(qzfi_alloc_buf(counter.size() + 1));
    if (data == nullptr) {
      throw std::bad_alloc();
    }
    BufferWriter writer(data);
    writeBlob(writer);
    data[counter.size()] = '\0';
    blob->len = counter.size() + 1;
    blob->data = data;
    blob->flag = 1;
    return 0;
  } catch (const std::bad_alloc&) {
    blob->data = nullptr;
    blob->len = 0;
    return QFI_E_NOMEM;
  }
}

int CQzVMData::extractFromBlob(qfi_blob* blob) {
  if (blob == nullptr) {
    QZ_TRACE(m_traceLog, 1, "CQzVMData::extractFromBlob - invalid inputs.");
    return QFI_E_INVALID;
  }
  if (blob->data == nullptr) {
    QZ_TRACE(m_traceLog, 3, "CQzVMData::extract_from_blob  - blob->data is NULL");
  }
  if (blob->len == 0) {
    QZ_TRACE(m_traceLog, 3, "CQzVMData::extract_from_blob  - blob->len = 0");
  }
  // Without data there is nothing to read; the object is left as it is.
  if (blob->data == nullptr) {
    return QFI_E_INVALID;
  }
  try {
    return readRecords(blob->data);
  } catch (const std::bad_alloc&) {
    QZ_TRACE(m_traceLog, 1, "CQzVMData::extract_from_blob  Failed to allocate memory.");
    return QFI_E_NOMEM;
  }
}

int CQzVMData::readRecords(const char* text) {
  m_vt.clear();
  m_v.clear();
  m_dgConfig.clear();
  m_shapeFault = SBlobShapeFault();
  std::set<std::string> disksRead;
  std::set<std::string> devicesRead;
  std::set<std::string> mediaRead;
  // The counted record just read, while the next line is to start a record.
  const char* counted = nullptr;
  std::string count;
  LineCursor cursor(text);
  std::string_view view;
  while (cursor.next(view)) {
    const std::string line(view);
    const std::string key = getToken(line, 0);
    if (counted != nullptr && key.compare(0, 5, "fiid_") != 0) {
      noteShapeFault(counted, "line count", count,
                     "its count of " + count + " leaves out lines that follow it");
    }
    counted = nullptr;
    bool complete = true;
    if (key == "fiid_isqzvmdeported") {
      m_deported = CFiStringTool::str2int(getToken(line, 1));
    } else if (key == "fiid_altvol") {
      m_altVol = getToken(line, 1);
    } else if (key == "fiid_dgid") {
      m_dgId = getToken(line, 1);
    } else if (key == "fiid_vt") {
      readList(line, m_vt);
    } else if (key == "fiid_v") {
      readList(line, m_v);
    } else if (key == "fiid_volpriv") {
      std::vector<std::string> fields = tokensOf(line);
      restoreEmptyName(fields, 5, 2);
      if (!disksRead.insert(fields[1]).second) {
        noteShapeFault("fiid_volpriv", "OS disk", fields[1], "two records name this disk");
      }
      if (!devicesRead.insert(fields[3]).second) {
        noteShapeFault("fiid_volpriv", "multipath node", fields[3],
                       "two records name this multipath node");
      }
      if (!fields[2].empty() && !mediaRead.insert(fields[2]).second) {
        noteShapeFault("fiid_volpriv", "disk-media name", fields[2],
                       "two records name this disk-media name");
      }
      std::vector<std::string> lines;
      complete = takeLines(cursor, CFiStringTool::str2int(fields[4]), lines, false);
      if (complete) {
        addDiskRecord(fields[1], fields[2], fields[3], std::move(lines));
      } else {
        noteCountPastTheEnd("fiid_volpriv", fields[4], lines.size());
      }
      counted = "fiid_volpriv";
      count = fields[4];
    } else if (key == "fiid_dgconfig") {
      std::vector<std::string> fields = tokensOf(line);
      restoreEmptyName(fields, 3, 1);
      const size_t before = m_dgConfig.size();
      complete = takeLines(cursor, CFiStringTool::str2int(fields[2]), m_dgConfig, true);
      if (complete) {
        m_dgName = fields[1];
      } else {
        noteCountPastTheEnd("fiid_dgconfig", fields[2], m_dgConfig.size() - before);
      }
      counted = "fiid_dgconfig";
      count = fields[2];
    } else if (key == "fiid_uigid") {
      m_uid = CFiStringTool::str2int(getToken(line, 1));
      m_gid = CFiStringTool::str2int(getToken(line, 2));
    }
    if (!complete) {
      QZ_TRACE(m_traceLog, 1, "CQzVMData::extractFromBlob - looks like fiid is corrupted.");
      return 1;
    }
  }
  return 0;
}

// The first fault is the one reported.
void CQzVMData::noteShapeFault(const char* record, const char* field, const std::string& value,
                               std::string why) {
  if (m_shapeFault.empty()) {
    m_shapeFault = {record, field, value, std::move(why)};
  }
}

// A count that runs past the end of the text: the record broke off, or its
// count was raised; either way its lines are not all there.
void CQzVMData::noteCountPastTheEnd(const char* record, const std::string& count,
                                    size_t linesLeft) {
  noteShapeFault(
      record, "line count", count,
      "its count of " + count + " runs past the end of the provider state: " +
          (linesLeft == 0 ? std::string("no line follows it")
                          : "only " + std::to_string(linesLeft) +
                                (linesLeft == 1 ? " line follows" : " lines follow") + " it"));
}

void CQzVMData::addDiskRecord(const std::string& disk, const std::string& secondName,
                              const std::string& dmp, std::vector<std::string> lines) {
  m_diskToDmp[disk] = dmp;
  m_dmpToDisk[dmp] = disk;
  m_secondName[disk] = secondName;
  m_volPriv[disk] = std::move(lines);
  QZ_TRACE(m_traceLog, 3, "CQzVMData::extractFromBlob - Adding DMP device [%s] for [%s]",
           dmp.c_str(), disk.c_str());
}

int CQzVMData::getDGConfigFromPD(std::string& dgName, std::vector<std::string>& lines) {
  dgName = m_dgName;
  lines = m_dgConfig;
  if (m_dgConfig.empty()) {
    QZ_TRACE(m_traceLog, 3, "CQzVMData::getDGConfigFromPD - no disk group configuration.");
    return 1;
  }
  return 0;
}

void CQzVMData::setDGConfgiInPD(std::string dgName, std::vector<std::string> lines) {
  m_dgName = std::move(dgName);
  m_dgConfig = std::move(lines);
}

void CQzVMData::setVolPrivInfoInPD(std::vector<std::string> disks,
                                   std::vector<std::string> secondNames,
                                   std::vector<std::vector<std::string>> listings) {
  for (size_t i = 0; i < disks.size(); ++i) {
    // A disk recorded earlier under its paired name (as a blob names it)
    // takes the new record: the old one would shadow it.
    for (const std::string& name : namesOf(disks[i])) {
      if (name == disks[i]) {
        continue;
      }
      if (i < secondNames.size()) {
        m_secondName.erase(name);
      }
      if (i < listings.size()) {
        m_volPriv.erase(name);
      }
    }
    if (i < secondNames.size()) {
      m_secondName[disks[i]] = std::move(secondNames[i]);
    }
    if (i < listings.size()) {
      m_volPriv[disks[i]] = std::move(listings[i]);
    }
  }
}

int CQzVMData::getVolPrivInfoFromPD(std::vector<std::string>& disks,
                                    std::vector<std::string>& secondNames,
                                    std::vector<std::vector<std::string>>& listings) {
  secondNames.clear();
  listings.clear();
  if (disks.empty()) {
    for (const auto& entry : m_volPriv) {
      disks.push_back(entry.first);
    }
  }
  for (const std::string& disk : disks) {
    std::vector<std::string> lines;
    if (getVolPrivInfoPerDiskFromFiid(disk, lines) != 0) {
      return 1;
    }
    listings.push_back(std::move(lines));
    secondNames.push_back(findSecondName(disk));
  }
  return 0;
}

int CQzVMData::getVolPrivInfoPerDiskFromFiid(std::string disk, std::vector<std::string>& lines) {
  if (m_volPriv.empty()) {
    QZ_TRACE(m_traceLog, 3, "getVolPrivInfoPerDiskFromFiid : Vol Info Map Empty");
    return 1;
  }
  const std::vector<std::string>* found = findListing(disk);
  if (found == nullptr) {
    QZ_TRACE(m_traceLog, 3, "getVolPrivInfoPerDiskFromFiid : Disk not found in the map");
    return 1;
  }
  lines = *found;
  return 0;
}

std::vector<std::string> CQzVMData::recordedNodes() const {
  std::vector<std::string> nodes;
  for (const auto& entry : m_diskToDmp) {
    nodes.push_back(entry.second);
  }
  return nodes;
}

void CQzVMData::setDiskDMPMap(std::string disk, std::string dmp) {
  QZ_ASSERT(!dmp.empty(), "node");
  m_diskToDmp[disk] = dmp;
  m_dmpToDisk[dmp] = disk;
}

void CQzVMData::getDiskDMPMap(std::string disk, std::string& dmp) {
  const std::string* found = findIn(m_diskToDmp, disk);
  dmp = found != nullptr ? *found : std::string();
  QZ_ASSERT(!dmp.empty(), "node");
}

int CQzVMData::getDMPDiskMap(const std::string& dmp, std::string& disk) const {
  const std::string* found = findIn(m_dmpToDisk, dmp);
  if (found == nullptr) {
    return 1;
  }
  disk = *found;
  return 0;
}

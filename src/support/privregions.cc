// Private regions and configuration rewriting: read and parse "qzdisk list",
// initialise disks with a source geometry, dump a group's configuration,
// rewrite it for the split disks and replay it, and find the group that
// disks carry.
#include "support/qzvm_support.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "report.h"
#include "support/internal.h"

using qzvm_support_internal::contains;
using qzvm_support_internal::isDigitChar;
using qzvm_support_internal::isGuidLine;
using qzvm_support_internal::isReplayedKind;
using qzvm_support_internal::recordKind;
using qzvm_support_internal::trimmed;

namespace {

const size_t kDumpBlockSize = 1 << 20;

}  // namespace

int CQzVMSupport::getVolPrivInfoPerAltDisk(const std::string& disk,
                                           std::vector<std::string>& lines) {
  if (run(tool("qzdisk  ", " list ", disk), lines) != 0) {
    trace(2, "unable get to qzvm private information for disk '%s'", disk.c_str());
    return 1;
  }
  return 0;
}

int CQzVMSupport::getVolPrivInfoPerDisk(const std::string& disk, std::vector<std::string>& lines) {
  SDisksInfo& cached = cacheEntry(m_disksInfo, disk);
  cached.name = disk;
  if (fromCache(cached.listing, lines, "getVolPrivInfoPerDisk")) {
    return 0;
  }
  if (getVolPrivInfoPerAltDisk(disk, lines) != 0) {
    return 1;
  }
  cached.listing = lines;
  return 0;
}

int CQzVMSupport::getVolPrivInfo(const std::vector<std::string>& disks,
                                 std::vector<vol_pvt_info>& records) {
  for (const std::string& disk : disks) {
    vol_pvt_info record = vol_pvt_info();
    std::vector<std::string> lines;
    if (getVolPrivInfoPerAltDisk(disk, lines) != 0) {
      trace(2, "getting volume private data on disk failed.");
      return 1;
    }
    if (parseVolPrivInfo(lines, record) != 0) {
      trace(2, "parsing of volume private data on disk failed.");
      return 1;
    }
    records.push_back(record);
  }
  return 0;
}

int CQzVMSupport::getVolPrivInfoUnformatted(const std::vector<std::string>& disks,
                                            std::vector<std::vector<std::string>>& listings) {
  for (const std::string& disk : disks) {
    std::vector<std::string> lines;
    if (getVolPrivInfoPerDisk(disk, lines) != 0) {
      trace(2, "getting volume private data on disk failed.");
      return 1;
    }
    listings.push_back(lines);
  }
  return 0;
}

int CQzVMSupport::parseVolPrivInfo(const std::vector<std::string>& lines, vol_pvt_info& record) {
  struct Field {
    const char* key;
    const char* subKey;  // null: the whole value, trimmed
    std::string vol_pvt_info::*field;
  };
  static const Field fields[] = {
      {"Device:", nullptr, &vol_pvt_info::vpi_da},
      {"disk:", "name", &vol_pvt_info::vpi_dm},
      {"group:", "name", &vol_pvt_info::vpi_dgname},
      {"group:", "id", &vol_pvt_info::vpi_dgid},
      {"type:", nullptr, &vol_pvt_info::vpi_da_type},
      {"info:", "format", &vol_pvt_info::vpi_format},
      {"public:", "slice", &vol_pvt_info::vpi_pub_slice},
      {"public:", "len", &vol_pvt_info::vpi_pub_len},
      {"public:", "offset", &vol_pvt_info::vpi_pub_offset},
      {"private:", "slice", &vol_pvt_info::vpi_priv_slice},
      {"private:", "len", &vol_pvt_info::vpi_priv_len},
      {"private:", "offset", &vol_pvt_info::vpi_priv_offset},
      {"configs:", "len", &vol_pvt_info::vpi_configlen},
      {"configs:", "count", &vol_pvt_info::vpi_nconfig},
      {"logs:", "len", &vol_pvt_info::vpi_loglen},
      {"logs:", "count", &vol_pvt_info::vpi_nlogs},
  };
  for (const Field& entry : fields) {
    std::string value;
    if (getMetaValForkey(lines, entry.key, value) != 0) {
      continue;
    }
    record.*entry.field =
        entry.subKey == nullptr ? std::string(trimmed(value)) : getValForKey(value, entry.subKey);
  }
  std::string flags;
  record.vpi_error = getMetaValForkey(lines, "flags:", flags) == 0 && contains(flags, "error");
  return 0;
}

std::string CQzVMSupport::diskIdOf(const std::vector<std::string>& lines) {
  std::string disk;
  if (getMetaValForkey(lines, "disk:", disk) != 0) {
    return std::string();
  }
  const std::string id = getValForKey(disk, "id");
  return id == "-" ? std::string() : id;
}

std::string CQzVMSupport::udidOf(const std::vector<std::string>& lines) {
  std::string udid;
  return getMetaValForkey(lines, "udid:", udid) == 0 ? udid : std::string();
}

std::string CQzVMSupport::seqnoOf(const std::vector<std::string>& lines) {
  std::string update;
  return getMetaValForkey(lines, "update:", update) == 0 ? getValForKey(update, "seqno")
                                                         : std::string();
}

int CQzVMSupport::dgIdNameOnDisk(const std::string& disk, std::string& dgid, std::string& dgName) {
  std::vector<vol_pvt_info> records;
  if (getVolPrivInfo({disk}, records) != 0) {
    trace(1, "CQzVMSupport::dgIdNameOnDisk - failed to get volume private data from disks.");
    return 6;
  }
  if (records.empty()) {
    trace(1, "CQzVMSupport::dgIdNameOnDisk -  got no volume private data from disks.");
    return 6;
  }
  dgid = records.front().vpi_dgid;
  dgName = records.front().vpi_dgname;
  return 0;
}

int CQzVMSupport::defineDisksInQzVM(const std::vector<std::string>& disks,
                                    const std::vector<vol_pvt_info>& records) {
  for (size_t i = 0; i < disks.size() && i < records.size(); ++i) {
    if (records[i].vpi_da_type == "nopriv") {
      trace(3, "CQzVMSupport::defineDisksInQzVM - nopriv disk type is not supported.\n");
      return 1;
    }
  }
  return 0;
}

namespace {

void addOption(CQzVMCommandLine& command, const char* option, const std::string& value) {
  if (!value.empty()) {
    command.add(option, value);
  }
}

// The options of "qzdisk init" that give a disk the geometry of the source
// disk.
void addGeometry(CQzVMCommandLine& command, const vol_pvt_info& record) {
  command.add(" type=", record.vpi_da_type);
  bool autoType = record.vpi_da_type == "auto";
  if (autoType) {
    command.add(" format=", record.vpi_format);
  }
  addOption(command, " privoffset=", record.vpi_priv_offset);
  addOption(command, " privlen=", record.vpi_priv_len);
  addOption(command, " puboffset=", record.vpi_pub_offset);
  addOption(command, " publen=", record.vpi_pub_len);
  addOption(command, " configlen=", record.vpi_configlen);
  addOption(command, " loglen=", record.vpi_loglen);
  addOption(command, " nconfig=", record.vpi_nconfig);
  addOption(command, " nlog=", record.vpi_nlogs);
  if (record.vpi_da_type == "sliced" || (autoType && record.vpi_format == "sliced")) {
    // "9999" stands for a slice the disk does not have.
    if (record.vpi_priv_slice != "9999") {
      command.add(" privslice=", record.vpi_priv_slice);
    }
    if (record.vpi_pub_slice != "9999") {
      command.add(" pubslice=", record.vpi_pub_slice);
    }
  }
}

}  // namespace

int CQzVMSupport::initDisks(const std::vector<std::string>& disks,
                            const std::vector<vol_pvt_info>& records, bool removeFirst) {
  if (removeFirst) {
    removeDisksFromQzVM(disks, false);
  }
  for (size_t i = 0; i < disks.size() && i < records.size(); ++i) {
    if (records[i].vpi_da_type == "nopriv") {
      continue;
    }
    CQzVMCommandLine command = tool("qzdisk  ", " -f ", " init ", disks[i]);
    addGeometry(command, records[i]);
    std::vector<std::string> output;
    if (run(command, output) != 0) {
      return 1;
    }
  }
  return 0;
}

int CQzVMSupport::getDGConfigInVector(const std::string& dg, std::vector<std::string>& lines) {
  SDGInfo& cached = cacheEntry(m_dgInfo, dg);
  cached.name = dg;
  if (fromCache(cached.config, lines, "getDGConfiginVector")) {
    return 0;
  }
  if (run(tool("qzprint  ", isVSetAvailable() ? " -vxpsc " : " -vpsc ", " -g ", dg, " -m "),
          lines) != 0) {
    return 1;
  }
  cached.config = lines;
  return 0;
}

int CQzVMSupport::getDGConfig(const std::string& dg, const std::string& filePath) {
  std::vector<std::string> lines;
  if (getDGConfigInVector(dg, lines) != 0) {
    trace(1, "CQzVMSupport::getDGConfig - failed to get dg configuration in vector.");
    return 1;
  }
  if (putVectorInFile(lines, filePath) != 0) {
    trace(1,
          "CQzVMSupport::getDGConfig - failed to write dg configuration in vector into file '%s'.",
          filePath.c_str());
    return 1;
  }
  return 0;
}

namespace {

// A partition suffix of a device name: digits, after an optional "s" (a
// slice) or "p".
bool isPartitionSuffix(std::string_view suffix) {
  if (!suffix.empty() && (suffix[0] == 's' || suffix[0] == 'p')) {
    suffix.remove_prefix(1);
  }
  if (suffix.empty()) {
    return false;
  }
  for (char c : suffix) {
    if (!isDigitChar(c)) {
      return false;
    }
  }
  return true;
}

// Where a primary name stands whole in a value.
struct NameInValue {
  size_t pair = 0;      // index into the primary names
  size_t position = 0;  // of the name in the value
};

// The primary name that a value names whole: the value itself, or, for a
// device path, its device part (after the last "/"), alone or followed by a
// partition suffix. Names are not found inside longer names ("qzarr0_1" is
// not in "qzarr0_10"); where a name and a longer one both fit, the exact one
// wins, then the longer one.
bool findWholeName(std::string_view value, const std::vector<std::string>& primary, bool devicePath,
                   NameInValue& found) {
  const size_t slash = value.rfind('/');
  const size_t devicePart = devicePath && slash != std::string_view::npos ? slash + 1 : 0;
  const std::string_view device = value.substr(devicePart);
  bool any = false;
  bool exact = false;
  for (size_t i = 0; i < primary.size(); ++i) {
    const std::string& name = primary[i];
    if (name.empty() || device.compare(0, name.size(), name) != 0) {
      continue;
    }
    const std::string_view suffix = device.substr(name.size());
    const bool whole = suffix.empty();
    if (!whole && !(devicePath && isPartitionSuffix(suffix))) {
      continue;
    }
    if (!any || (whole && !exact) || (whole == exact && name.size() > primary[found.pair].size())) {
      found = {i, devicePart};
      any = true;
      exact = whole;
    }
  }
  return any;
}

// The value of a "key=value" line as getValForKey reads it: after the first
// "=" and any blanks, up to a blank, a comma or the line end. start is where
// it begins in line.
std::string_view lineValue(std::string_view line, size_t& start) {
  start = line.find_first_not_of(" \t", line.find('=') + 1);
  if (start == std::string_view::npos) {
    start = line.size();
  }
  const std::string_view rest = line.substr(start);
  return rest.substr(0, rest.find_first_of(" ,\t\r\n"));
}

// Replaces the primary name that the value of line names whole by its
// alternate; the key and the rest of the line stay as they are.
void replaceWholeName(std::string& line, const std::vector<std::string>& primary,
                      const std::vector<std::string>& alternate, bool devicePath) {
  size_t start = 0;
  const std::string_view value = lineValue(line, start);
  NameInValue found;
  if (findWholeName(value, primary, devicePath, found)) {
    line.replace(start + found.position, primary[found.pair].size(), alternate[found.pair]);
  }
}

// Hands every line of a dump, line end kept, to take, split as fgetline
// splits them. The text is read in large blocks and the lines are views into
// them; fgetline treats a zero byte specially, so a block holding one sends
// the rest of the file through fgetline itself, from the line in hand on.
template <typename Take>
void forEachDumpLine(FILE* in, Take take) {
  // Left uninitialised: a small dump touches only the pages it fills, where
  // clearing the whole block costs more than reading the dump.
  std::unique_ptr<char[]> block(new char[kDumpBlockSize]);
  std::string pending;  // the start of a line that the block ended inside
  long lineStart = 0;   // file offset of the first line not yet taken
  for (size_t got; (got = std::fread(block.get(), 1, kDumpBlockSize, in)) > 0;) {
    if (std::memchr(block.get(), '\0', got) != nullptr) {
      std::fseek(in, lineStart, SEEK_SET);
      for (std::string line; CQzVMSupport::fgetline(line, in), !line.empty();) {
        take(line);
      }
      return;
    }
    std::string_view text(block.get(), got);
    for (size_t end; (end = text.find('\n')) != std::string_view::npos;) {
      std::string_view line = text.substr(0, end + 1);
      if (pending.empty()) {
        take(line);
      } else {
        take(pending.append(line));
        pending.clear();
      }
      lineStart += static_cast<long>(line.size());
      text.remove_prefix(line.size());
    }
    pending.append(text);
  }
  if (!pending.empty()) {
    take(pending);
  }
}

// Only lines with "path=", "da_name=" or "dm_name=" can be rewritten; a look
// before each "=" keeps the others away from the value parsing.
bool mayBeRewritten(std::string_view line) {
  for (size_t equals = line.find('='); equals != std::string_view::npos;
       equals = line.find('=', equals + 1)) {
    if (equals >= 4 &&
        (line.compare(equals - 4, 4, "path") == 0 || line.compare(equals - 4, 4, "name") == 0)) {
      return true;
    }
  }
  return false;
}

}  // namespace

void CQzVMSupport::replacePattern(const std::string& line, const std::string& /*oldDG*/,
                                  const std::string& /*newDG*/,
                                  const std::vector<std::string>& vecPriDisks,
                                  const std::vector<std::string>& vecAltDisks,
                                  const std::vector<std::string>& vecPriDMs,
                                  const std::vector<std::string>& vecAltDMs, std::string& out) {
  QZ_ASSERT(vecPriDMs.size() == vecAltDMs.size(), "qzvm_support");
  QZ_ASSERT(vecPriDisks.size() == vecAltDisks.size(), "qzvm_support");
  out.assign(line);
  size_t equals = line.find('=');
  if (equals == std::string::npos) {
    return;
  }
  if (hasPathVal(line)) {
    replaceWholeName(out, vecPriDisks, vecAltDisks, true);
  } else if (hasDAName(line)) {
    replaceWholeName(out, vecPriDisks, vecAltDisks, false);
  } else if (hasDMName(line)) {
    replaceWholeName(out, vecPriDMs, vecAltDMs, false);
  }
}

int CQzVMSupport::reconfig(const std::string& inFile, const std::string& oldDG,
                           const std::string& newDG, const std::vector<std::string>& vecPriDisks,
                           const std::vector<std::string>& vecAltDisks,
                           const std::vector<std::string>& vecPriDMs,
                           const std::vector<std::string>& vecAltDMs, const std::string& outFile) {
  FILE* in = CFiMyTempFile::openForReading(inFile);
  FILE* out = CFiMyTempFile::openForWriting(outFile);
  if (in == nullptr || out == nullptr) {
    return 1;
  }
  trace(3, "Dumping volume descriptor data to be supplied to qzmake");
  bool insideDG = false;
  bool insideDM = false;
  bool lineOpen = false;  // the last line kept has no line feed
  std::string line;
  std::string rewritten;
  // Dumps run to millions of lines: the output is gathered and written in
  // large blocks.
  std::string kept;
  kept.reserve(2 * kDumpBlockSize);
  forEachDumpLine(in, [&](std::string_view text) {
    // Attribute lines are indented: only the others can open a record.
    const std::string_view kind =
        text[0] != '\t' && text[0] != ' ' ? recordKind(text) : std::string_view();
    if (kind == "dg" || kind == "dm") {
      insideDG = kind == "dg";
      insideDM = !insideDG;
      return;
    }
    if (isReplayedKind(kind)) {
      insideDG = false;
      insideDM = false;
    } else if (insideDG || insideDM || isGuidLine(text)) {
      return;
    }
    if (mayBeRewritten(text)) {
      line.assign(text);
      replacePattern(line, oldDG, newDG, vecPriDisks, vecAltDisks, vecPriDMs, vecAltDMs, rewritten);
      text = rewritten;
    }
    // The reader ends a line at a zero byte, without its line feed: one goes
    // in before the next line kept, which would be glued to it otherwise.
    if (lineOpen) {
      kept.push_back('\n');
    }
    kept.append(text);
    lineOpen = text.back() != '\n';
    if (kept.size() >= kDumpBlockSize) {
      std::fwrite(kept.data(), 1, kept.size(), out);
      kept.clear();
    }
    trace(3, "%.*s", static_cast<int>(text.size()), text.data());
  });
  std::fwrite(kept.data(), 1, kept.size(), out);
  std::fclose(in);
  std::fclose(out);
  trace(3, "Dumping  volume descriptor data to be supplied to qzmake is done");
  return 0;
}

int CQzVMSupport::applyVolConfig(const std::string& dg, const std::string& file) {
  std::vector<std::string> output;
  return run(tool("qzmake  ", " -g ", dg, " -d ", CQzVMCommandLine::File{file}), output) == 0 ? 0
                                                                                              : 1;
}

int CQzVMSupport::regenerateDGFromDisk(const std::vector<std::string>& disks, std::string& dgName) {
  static const char* const kNoDgid =
      "CQzVMSupport::regenerateDGFromDisk - failed to obtain dgid from disk's private data. dmp "
      "disk '%s'";
  static const char* const kEmptyDgid =
      "CQzVMSupport::regenerateDGFromDisk - got invalid(empty) dgid from disk's private data. dmp "
      "disk '%s'";
  trace(3, "CQzVMSupport::regenerateDGFromDisk - removes the disks from qzvm db.");
  const char* disk = disks.empty() ? "" : disks.front().c_str();
  std::string dgid;
  if (disks.empty() || dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    trace(1, kNoDgid, disk);
    return 6;
  }
  if (dgid.empty()) {
    trace(1, kEmptyDgid, disk);
    return 6;
  }
  if (dgName.empty() || !isDGExist(dgName)) {
    if (diskClearImport(disks)) {
      trace(1, "CQzVMSupport::regenerateDGFromDisk - unable to clear import flag on the disk");
      qzvmfi_report::pushError("MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS", {}, "qzvm_support",
                               __LINE__);
      return 6;
    }
    // By id, keeping the name recorded on the disks.
    if (importDG("", dgid)) {
      trace(1, kNoDgid, disk);
      return 6;
    }
  }
  if (!dgName.empty()) {
    return 0;
  }
  if (dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    trace(1, kNoDgid, disk);
    return 6;
  }
  if (dgName.empty()) {
    trace(1, kEmptyDgid, disk);
    return 6;
  }
  return 0;
}

int CQzVMSupport::regenerateQzVMFromDisk(const std::vector<std::string>& disks, std::string& dgName,
                                         std::string& volume) {
  if (regenerateDGFromDisk(disks, dgName) != 0) {
    trace(1,
          "CQzVMSupport::regenerateQzVMFromDisk - failed to obtain dgid from disk's private data. "
          "dmp disk '%s'",
          disks.empty() ? "" : disks.front().c_str());
    return 6;
  }
  QZ_ASSERT(dgName.size(), "qzvm_support");
  std::vector<std::string> volumes;
  if (getVolumesFromDG(dgName, volumes, false) != 0) {
    trace(1, "CQzVMSupport::regenerateQzVMFromDisk - unable to get volumes under dg '%s'.",
          dgName.c_str());
    return 6;
  }
  if (volumes.empty()) {
    trace(1, "CQzVMSupport::regenerateQzVMFromDisk -  found no volumes under dg '%s'.",
          dgName.c_str());
    return 6;
  }
  volume = volumes.front();
  return 0;
}

int CQzVMSupport::getDGFromQzVMDiskIfRecreated(const std::vector<std::string>& disks, bool& created,
                                               std::string& dgName, bool* imported) {
  created = false;
  std::string dgid;
  if (disks.empty() || dgIdNameOnDisk(disks.front(), dgid, dgName) != 0) {
    return 6;
  }
  if (dgName.empty() || !isDGPresent(dgName) || !isDGEnabled(dgName)) {
    trace(3, "dg '%s' is not created or is disabled.", dgName.c_str());
    created = false;
    return 0;
  }
  if (imported != nullptr) {
    *imported = true;
  }
  if (checkQzVMDiskAgainstDG({dgName}, disks, created) != 0) {
    return 6;
  }
  trace(3, created ? "dg '%s' is created." : "dg '%s' is not created.", dgName.c_str());
  return 0;
}

int CQzVMSupport::checkForVolFromQzVMDiskIfRecreatedAndGetDG(const std::vector<std::string>& disks,
                                                             const std::string& volume,
                                                             std::string& dgName, bool& found,
                                                             bool vsets, bool* imported) {
  found = false;
  bool created = false;
  if (getDGFromQzVMDiskIfRecreated(disks, created, dgName, imported) != 0) {
    return 6;
  }
  if (created && checkVolumeInDG(dgName, volume, found, vsets) != 0) {
    return 6;
  }
  return 0;
}

int CQzVMSupport::checkForVolPathFromQzVMDiskIfRecreated(const std::vector<std::string>& disks,
                                                         const std::string& dg,
                                                         const std::string& volume, bool& found,
                                                         bool vsets, bool* halfMade) {
  std::string dgOnDisks;
  bool imported = false;
  const int checked =
      checkForVolFromQzVMDiskIfRecreatedAndGetDG(disks, volume, dgOnDisks, found, vsets, &imported);
  // A group without volumes cannot be listed: imported here, it is half
  // made.
  if (checked != 0 && !(imported && dgOnDisks == dg && halfMade != nullptr)) {
    return 6;
  }
  if (dgOnDisks != dg) {
    found = false;
    imported = false;
  }
  if (halfMade != nullptr) {
    *halfMade = imported && !found;
  }
  return 0;
}

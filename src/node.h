// The node private data: what the plug-in learnt about a volume on the host
// where it was claimed, carried to other hosts as a text blob.
#ifndef QZVMFI_NODE_H
#define QZVMFI_NODE_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "config.h"

// One disk's private-region description.
struct vol_pvt_info {
  std::string vpi_da;  // disk access name
  std::string vpi_dm;  // disk media name
  std::string vpi_dgid;
  std::string vpi_dgname;
  std::string vpi_da_type;
  std::string vpi_format;
  std::string vpi_priv_slice;
  std::string vpi_pub_slice;
  std::string vpi_priv_offset;
  std::string vpi_priv_len;
  std::string vpi_pub_offset;
  std::string vpi_pub_len;
  std::string vpi_configlen;
  std::string vpi_loglen;
  std::string vpi_nconfig;
  std::string vpi_nlogs;
  std::string vpi_priv_path;
  bool vpi_error = false;  // the listing's flags name an error
};

// What a blob's text holds that its records cannot keep: a disk or a
// multipath device named by two records, a line after a counted record
// that its count leaves out, or a count that runs past the end of the
// text. Empty when there is none.
struct SBlobShapeFault {
  std::string record;  // the record's key, "fiid_volpriv"
  std::string field;
  std::string value;
  std::string why;
  bool empty() const { return why.empty(); }
};

// Traces each record one field per line, " next disk " between two records.
void printVolPvtInfo(const std::vector<vol_pvt_info>& records);

class CQzVMData : public qzfi_pdk_4_4::CFiPrivateData {
 public:
  CQzVMData(qzfi_objid* id, bool alternate);
  ~CQzVMData() override;

  int init(qfi_domain* node, qfi_domain** children, int count, qzfi_objid* id) override;
  int init(qfi_domain* node, qfi_domain* parent, qfi_domain* alternate, bool flag) override;

  // 0, or 5 when memory runs out (the blob is then empty).
  int createBlob(qfi_blob* blob) override;
  // 0; 3 for a null blob or data; 5 when memory runs out; 1 when a record
  // announces more lines than the text holds (what was read stays).
  int extractFromBlob(qfi_blob* blob) override;

  // Append the per-disk and the disk-group records of the blob.
  int convertDiskInitInfoToString(std::string& out);
  int convertDGConfigInfoToString(std::string& out);

  // 0, or 1 when no configuration is recorded.
  int getDGConfigFromPD(std::string& dgName, std::vector<std::string>& lines);
  void setDGConfgiInPD(std::string dgName, std::vector<std::string> lines);

  // disks[i] gets secondNames[i] and listings[i]; a shorter list leaves the
  // rest of the disks without that part.
  void setVolPrivInfoInPD(std::vector<std::string> disks, std::vector<std::string> secondNames,
                          std::vector<std::vector<std::string>> listings);
  // The second name and listing of each disk named in disks, in that order
  // (an empty disks list asks for every recorded disk and gets their names).
  // A disk is found under its own name or under the device paired with it.
  // 0, or 1 at the first disk not recorded.
  int getVolPrivInfoFromPD(std::vector<std::string>& disks, std::vector<std::string>& secondNames,
                           std::vector<std::vector<std::string>>& listings);
  // 0, or 1 when the disk is not recorded.
  int getVolPrivInfoPerDiskFromFiid(std::string disk, std::vector<std::string>& lines);

  // Pairs disk and its multipath device both ways; dmp must not be empty.
  void setDiskDMPMap(std::string disk, std::string dmp);
  // The multipath device paired with disk; stops the process when none is.
  void getDiskDMPMap(std::string disk, std::string& dmp);
  // The disk paired with a multipath device; 0, or 1 when none is.
  int getDMPDiskMap(const std::string& dmp, std::string& disk) const;
  // Whether disks and their multipath devices were paired (at claim time, or
  // read from a blob): a volume split from disks of this plug-in.
  bool hasRecordedDisks() const { return !m_diskToDmp.empty() || !m_dmpToDisk.empty(); }
  // The pairings recorded, each direction counted.
  size_t diskDMPMapEntries() const { return m_diskToDmp.size() + m_dmpToDisk.size(); }
  // The multipath device of each recorded disk.
  std::vector<std::string> recordedNodes() const;

  int IsValidConfig() { return 1; }

  // What the last blob read held that its records could not keep.
  const SBlobShapeFault& blobShapeFault() const { return m_shapeFault; }
  // The disk records as read or set: disk -> paired multipath device, disk
  // -> second name, disk -> private-region lines.
  const std::map<std::string, std::string>& diskDMPPairs() const { return m_diskToDmp; }
  const std::map<std::string, std::string>& secondNames() const { return m_secondName; }
  const std::map<std::string, std::vector<std::string>>& privateRegions() const {
    return m_volPriv;
  }
  const std::vector<std::string>& dgConfigLines() const { return m_dgConfig; }

  CQzVMConfig& splitConfig() { return m_config; }
  const std::string& getDGName() const { return m_dgName; }
  int64_t getOwnerUid() const { return m_uid; }
  int64_t getOwnerGid() const { return m_gid; }
  void setOwnerUidGid(int64_t uid, int64_t gid) {
    m_uid = uid;
    m_gid = gid;
  }
  const std::string& getAltVol() const { return m_altVol; }
  void setAltVol(const std::string& path) { m_altVol = path; }
  const std::string& getDGId() const { return m_dgId; }
  void setDGId(const std::string& id) { m_dgId = id; }
  int getDeported() const { return m_deported; }
  void setDeported(int deported) { m_deported = deported; }
  // Set once volume-manager objects of the node's volume have been listed;
  // not part of the blob.
  bool getObjectsFound() const { return m_objectsFound; }
  void setObjectsFound(bool found) { m_objectsFound = found; }
  std::vector<std::string>& vList() { return m_v; }
  std::vector<std::string>& vtList() { return m_vt; }
  const std::vector<std::string>& vList() const { return m_v; }
  const std::vector<std::string>& vtList() const { return m_vt; }

 private:
  std::vector<std::string> namesOf(const std::string& disk) const;
  const std::vector<std::string>* findListing(const std::string& disk) const;
  std::string findSecondName(const std::string& disk) const;
  void addDiskRecord(const std::string& disk, const std::string& secondName, const std::string& dmp,
                     std::vector<std::string> lines);
  int readRecords(const char* text);
  void noteShapeFault(const char* record, const char* field, const std::string& value,
                      std::string why);
  void noteCountPastTheEnd(const char* record, const std::string& count, size_t linesLeft);
  // The blob's text into a sink (a counter, the framework's buffer, a string).
  template <class Out>
  void writeBlob(Out& out);
  template <class Out>
  void writeDiskRecords(Out& out);
  template <class Out>
  void writeDGConfig(Out& out) const;

  CQzVMConfig m_config;
  std::map<std::string, std::string> m_dmpToDisk;   // multipath device -> disk
  std::map<std::string, std::string> m_diskToDmp;   // disk -> multipath device; drives the writer
  std::map<std::string, std::string> m_secondName;  // disk -> second name (disk-media name)
  std::string m_dgName;
  std::vector<std::string> m_dgConfig;                        // each line ends with a line feed
  std::map<std::string, std::vector<std::string>> m_volPriv;  // disk -> private-region lines
  int64_t m_uid = 0;
  int64_t m_gid = 0;
  std::string m_altVol;
  std::string m_dgId;
  int m_deported = 0;
  bool m_objectsFound = false;
  std::vector<std::string> m_v;
  std::vector<std::string> m_vt;
  SBlobShapeFault m_shapeFault;
};

#endif  // QZVMFI_NODE_H

#include "node.h"

#include <string.h>

#include <gtest/gtest.h>

#include "plugin_env.h"

namespace {

using qzvmfi_test::PluginEnv;
using Lines = std::vector<std::string>;

// A blob that frees its data.
struct Blob : qfi_blob {
  Blob() : qfi_blob{} {}
  explicit Blob(const std::string& text) : qfi_blob{} {
    len = text.size() + 1;
    data = static_cast<char*>(qzfi_alloc_buf(len));
    memcpy(data, text.c_str(), len);
  }
  ~Blob() {
    if (data != nullptr) {
      qzfi_free_buf(data, len);
    }
  }
  Blob(const Blob&) = delete;
  Blob& operator=(const Blob&) = delete;
  std::string text() const { return data == nullptr ? std::string() : std::string(data); }
};

class NodeTest : public PluginEnv {
 protected:
  static std::string blobText(CQzVMData& data) {
    Blob blob;
    EXPECT_EQ(0, data.createBlob(&blob));
    return blob.text();
  }

  // A node with every field recorded, disks named as the volume manager
  // names them (no multipathing: disk and device share the name).
  static void fill(CQzVMData& data) {
    data.setDeported(1);
    data.vtList() = {"vset1"};
    data.vList() = {"vol01", "vol02"};
    data.setAltVol("/dev/qz/dsk/dg1_0/vol01");
    data.setDGId("1700000000.12.host");
    data.setDiskDMPMap("sdb", "sdb");
    data.setDiskDMPMap("sdc", "sdc");
    data.setVolPrivInfoInPD({"sdb", "sdc"}, {"dg101", "dg102"},
                            {{"Device:    sdb\n", "disk:      name=dg101\n"}, {"Device: sdc"}});
    data.setDGConfgiInPD("dg1", {"dg dg1\n", "vol vol01\n", "\tlen=8"});
    data.setOwnerUidGid(1001, 6);
  }
};

TEST_F(NodeTest, EmptyNodeIsOneOwnerLine) {
  CQzVMData data(nullptr, false);
  Blob blob;
  EXPECT_EQ(0, data.createBlob(&blob));
  EXPECT_EQ("fiid_uigid 0 0", blob.text());
  EXPECT_EQ(15u, blob.len);
  EXPECT_EQ(1, blob.flag);
  EXPECT_EQ('\0', blob.data[14]);
}

TEST_F(NodeTest, DeportedNodeWithOneEntryPerList) {
  CQzVMData data(nullptr, false);
  data.setDeported(1);
  data.vtList().push_back("vs1");
  data.vList().push_back("v1");
  EXPECT_EQ("fiid_isqzvmdeported 1\nfiid_vt vs1\nfiid_v v1\nfiid_uigid 0 0", blobText(data));
}

TEST_F(NodeTest, DeportedFlagOtherThanOneIsNotWritten) {
  CQzVMData data(nullptr, false);
  data.setDeported(2);
  EXPECT_EQ("fiid_uigid 0 0", blobText(data));
}

TEST_F(NodeTest, EveryRecordByteForByte) {
  CQzVMData data(nullptr, false);
  fill(data);
  const std::string expected =
      "fiid_isqzvmdeported 1\n"
      "fiid_vt vset1\n"
      "fiid_v vol01 vol02\n"
      "fiid_altvol /dev/qz/dsk/dg1_0/vol01\n"
      "fiid_dgid 1700000000.12.host\n"
      "fiid_volpriv sdb dg101 sdb 2\n"
      "Device:    sdb\n"
      "disk:      name=dg101\n"
      "\n"
      "fiid_volpriv sdc dg102 sdc 1\n"
      "Device: sdc\n"
      "\n"
      "\n"
      "fiid_dgconfig dg1 3\n"
      "dg dg1\n"
      "vol vol01\n"
      "\tlen=8\n"
      "\n"
      "fiid_uigid 1001 6";
  Blob blob;
  EXPECT_EQ(0, data.createBlob(&blob));
  EXPECT_EQ(expected, blob.text());
  EXPECT_EQ(expected.size() + 1, blob.len);
}

TEST_F(NodeTest, ConvertersAppendTheirRecords) {
  CQzVMData data(nullptr, false);
  fill(data);
  std::string out = "x";
  EXPECT_EQ(0, data.convertDGConfigInfoToString(out));
  EXPECT_EQ("xfiid_dgconfig dg1 3\ndg dg1\nvol vol01\n\tlen=8\n", out);
  out.clear();
  EXPECT_EQ(0, data.convertDiskInitInfoToString(out));
  EXPECT_EQ(
      "fiid_volpriv sdb dg101 sdb 2\nDevice:    sdb\ndisk:      name=dg101\n\n"
      "fiid_volpriv sdc dg102 sdc 1\nDevice: sdc\n\n",
      out);
}

TEST_F(NodeTest, NegativeOwnerIdsArePrintedSigned) {
  CQzVMData data(nullptr, false);
  data.setOwnerUidGid(-1, -2);
  EXPECT_EQ("fiid_uigid -1 -2", blobText(data));
}

TEST_F(NodeTest, RoundTripKeepsEveryField) {
  CQzVMData source(nullptr, false);
  fill(source);
  Blob blob;
  ASSERT_EQ(0, source.createBlob(&blob));

  CQzVMData copy(nullptr, true);
  ASSERT_EQ(0, copy.extractFromBlob(&blob));
  EXPECT_EQ(1, copy.getDeported());
  EXPECT_EQ(Lines{"vset1"}, copy.vtList());
  EXPECT_EQ((Lines{"vol01", "vol02"}), copy.vList());
  EXPECT_EQ("/dev/qz/dsk/dg1_0/vol01", copy.getAltVol());
  EXPECT_EQ("1700000000.12.host", copy.getDGId());
  EXPECT_EQ(1001, copy.getOwnerUid());
  EXPECT_EQ(6, copy.getOwnerGid());

  std::string dg;
  Lines config;
  EXPECT_EQ(0, copy.getDGConfigFromPD(dg, config));
  EXPECT_EQ("dg1", dg);
  EXPECT_EQ((Lines{"dg dg1\n", "vol vol01\n", "\tlen=8\n"}), config);

  Lines disks;
  Lines names;
  std::vector<Lines> listings;
  EXPECT_EQ(0, copy.getVolPrivInfoFromPD(disks, names, listings));
  EXPECT_EQ((Lines{"sdb", "sdc"}), disks);
  EXPECT_EQ((Lines{"dg101", "dg102"}), names);
  EXPECT_EQ((std::vector<Lines>{{"Device:    sdb", "disk:      name=dg101"}, {"Device: sdc"}}),
            listings);

  std::string dmp;
  copy.getDiskDMPMap("sdc", dmp);
  EXPECT_EQ("sdc", dmp);
  EXPECT_EQ(blob.text(), blobText(copy));
}

TEST_F(NodeTest, MultipathDevicesTravelWithTheDisksTheyArePairedWith) {
  CQzVMData source(nullptr, false);
  source.setVolPrivInfoInPD({"qzarr0_3"}, {"dg101"}, {{"Device: qzarr0_3\n"}});
  source.setDiskDMPMap("sdb", "qzarr0_3");
  source.setDGConfgiInPD("dg1", {"dg dg1\n"});
  Blob blob;
  ASSERT_EQ(0, source.createBlob(&blob));
  EXPECT_EQ(
      "fiid_volpriv sdb dg101 qzarr0_3 1\nDevice: qzarr0_3\n\n\n"
      "fiid_dgconfig dg1 1\ndg dg1\n\nfiid_uigid 0 0",
      blob.text());

  CQzVMData copy(nullptr, true);
  ASSERT_EQ(0, copy.extractFromBlob(&blob));
  EXPECT_TRUE(wasTraced(3, "CQzVMData::extractFromBlob - Adding DMP device [qzarr0_3] for [sdb]"));
  std::string dmp;
  copy.getDiskDMPMap("sdb", dmp);
  EXPECT_EQ("qzarr0_3", dmp);
  std::string disk;
  EXPECT_EQ(0, copy.getDMPDiskMap("qzarr0_3", disk));
  EXPECT_EQ("sdb", disk);
  Lines lines;
  EXPECT_EQ(0, copy.getVolPrivInfoPerDiskFromFiid("qzarr0_3", lines));
  EXPECT_EQ(Lines{"Device: qzarr0_3"}, lines);
  Lines disks{"qzarr0_3"};
  Lines names;
  std::vector<Lines> listings;
  EXPECT_EQ(0, copy.getVolPrivInfoFromPD(disks, names, listings));
  EXPECT_EQ(Lines{"dg101"}, names);
}

// A node restored from a blob records its disks under their OS names; a
// later recording under the multipath devices (the deport's, after a split)
// is the one the next blob carries.
TEST_F(NodeTest, ARecordingAfterARestoreReplacesTheRestoredListing) {
  CQzVMData source(nullptr, false);
  source.setVolPrivInfoInPD({"qzarr0_3"}, {"dg101"}, {{"update: seqno=0.2\n"}});
  source.setDiskDMPMap("sdb", "qzarr0_3");
  Blob blob;
  ASSERT_EQ(0, source.createBlob(&blob));
  CQzVMData restored(nullptr, false);
  ASSERT_EQ(0, restored.extractFromBlob(&blob));
  restored.setVolPrivInfoInPD({"qzarr0_3"}, {"dg101"}, {{"update: seqno=0.3\n"}});
  Blob again;
  ASSERT_EQ(0, restored.createBlob(&again));
  EXPECT_EQ("fiid_volpriv sdb dg101 qzarr0_3 1\nupdate: seqno=0.3\n\n\nfiid_uigid 0 0",
            again.text());
}

TEST_F(NodeTest, DiskWithoutSecondNameGetsAnEmptyOneThatSurvives) {
  CQzVMData source(nullptr, false);
  source.setDiskDMPMap("sdb", "qzarr0_3");
  EXPECT_EQ("fiid_volpriv sdb  qzarr0_3 0\n\n\nfiid_uigid 0 0", blobText(source));

  Blob blob("fiid_volpriv sdb  qzarr0_3 1\nDevice: x\n\nfiid_uigid 0 0");
  CQzVMData copy(nullptr, true);
  ASSERT_EQ(0, copy.extractFromBlob(&blob));
  std::string dmp;
  copy.getDiskDMPMap("sdb", dmp);
  EXPECT_EQ("qzarr0_3", dmp);
  Lines lines;
  EXPECT_EQ(0, copy.getVolPrivInfoPerDiskFromFiid("sdb", lines));
  EXPECT_EQ(Lines{"Device: x"}, lines);
}

TEST_F(NodeTest, ConfigurationWithoutGroupNameSurvives) {
  Blob blob("fiid_dgconfig  2\na\nb\nfiid_uigid 0 0");
  CQzVMData copy(nullptr, true);
  ASSERT_EQ(0, copy.extractFromBlob(&blob));
  std::string dg = "x";
  Lines config;
  EXPECT_EQ(0, copy.getDGConfigFromPD(dg, config));
  EXPECT_EQ("", dg);
  EXPECT_EQ((Lines{"a\n", "b\n"}), config);
}

TEST_F(NodeTest, ConfigurationAnnouncingMoreLinesThanGivenIsCorrupt) {
  Blob blob("fiid_dgid id1\nfiid_dgconfig dg1 3\nline1\nline2");
  CQzVMData copy(nullptr, true);
  EXPECT_EQ(1, copy.extractFromBlob(&blob));
  EXPECT_TRUE(wasTraced(1, "CQzVMData::extractFromBlob - looks like fiid is corrupted."));
  EXPECT_EQ("id1", copy.getDGId());
  std::string dg = "before";
  Lines config;
  EXPECT_EQ(0, copy.getDGConfigFromPD(dg, config));
  EXPECT_EQ((Lines{"line1\n", "line2\n"}), config);
  EXPECT_EQ("", dg);  // the group name comes only with a whole record
  // The count that runs past the end is what the text is refused for.
  const SBlobShapeFault& fault = copy.blobShapeFault();
  EXPECT_EQ("fiid_dgconfig", fault.record);
  EXPECT_EQ("line count", fault.field);
  EXPECT_EQ("3", fault.value);
  EXPECT_EQ("its count of 3 runs past the end of the provider state: only 2 lines follow it",
            fault.why);
}

TEST_F(NodeTest, TruncatedDiskRecordKeepsTheRecordsBefore) {
  Blob blob("fiid_altvol /dev/qz/dsk/a/b\nfiid_volpriv sdb d1 sdb 4\nx\ny");
  CQzVMData copy(nullptr, true);
  EXPECT_EQ(1, copy.extractFromBlob(&blob));
  EXPECT_EQ("/dev/qz/dsk/a/b", copy.getAltVol());
  Lines lines;
  EXPECT_EQ(1, copy.getVolPrivInfoPerDiskFromFiid("sdb", lines));
  EXPECT_EQ("fiid_volpriv", copy.blobShapeFault().record);
  EXPECT_EQ("its count of 4 runs past the end of the provider state: only 2 lines follow it",
            copy.blobShapeFault().why);
}

TEST_F(NodeTest, OwnerIdsBeyond32BitsDoNotSurvive) {
  CQzVMData source(nullptr, false);
  source.setOwnerUidGid(4294967296LL + 5, 7);
  Blob blob;
  ASSERT_EQ(0, source.createBlob(&blob));
  EXPECT_EQ("fiid_uigid 4294967301 7", blob.text());
  CQzVMData copy(nullptr, true);
  ASSERT_EQ(0, copy.extractFromBlob(&blob));
  EXPECT_NE(source.getOwnerUid(), copy.getOwnerUid());
  EXPECT_EQ(7, copy.getOwnerGid());
}

TEST_F(NodeTest, ReadingEmptiesTheListsButAddsToTheMaps) {
  CQzVMData data(nullptr, false);
  data.vList() = {"old"};
  data.vtList() = {"old"};
  data.setDGConfgiInPD("dg0", {"old\n"});
  data.setDiskDMPMap("sda", "sda");
  data.setAltVol("/dev/qz/dsk/dg0/v");
  Blob blob("fiid_volpriv sdb d1 sdb 0\nunknown record\nfiid_uigid 3 4");
  ASSERT_EQ(0, data.extractFromBlob(&blob));
  EXPECT_TRUE(data.vList().empty());
  EXPECT_TRUE(data.vtList().empty());
  std::string dg;
  Lines config;
  EXPECT_EQ(1, data.getDGConfigFromPD(dg, config));
  EXPECT_EQ("dg0", dg);
  std::string dmp;
  data.getDiskDMPMap("sda", dmp);
  EXPECT_EQ("sda", dmp);
  data.getDiskDMPMap("sdb", dmp);
  EXPECT_EQ("sdb", dmp);
  EXPECT_EQ("/dev/qz/dsk/dg0/v", data.getAltVol());
  EXPECT_EQ(3, data.getOwnerUid());
}

TEST_F(NodeTest, NullBlobIsInvalid) {
  CQzVMData data(nullptr, false);
  EXPECT_EQ(3, data.extractFromBlob(nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMData::extractFromBlob - invalid inputs."));
  EXPECT_EQ(3, data.createBlob(nullptr));
}

TEST_F(NodeTest, BlobWithoutDataIsTracedAndLeavesTheNode) {
  CQzVMData data(nullptr, false);
  data.vList() = {"kept"};
  Blob blob;
  EXPECT_EQ(3, data.extractFromBlob(&blob));
  EXPECT_TRUE(wasTraced(3, "CQzVMData::extract_from_blob  - blob->data is NULL"));
  EXPECT_TRUE(wasTraced(3, "CQzVMData::extract_from_blob  - blob->len = 0"));
  EXPECT_EQ(Lines{"kept"}, data.vList());
}

TEST_F(NodeTest, ZeroLengthIsTracedButRead) {
  CQzVMData data(nullptr, false);
  Blob blob("fiid_dgid x");
  blob.len = 0;
  EXPECT_EQ(0, data.extractFromBlob(&blob));
  EXPECT_TRUE(wasTraced(3, "CQzVMData::extract_from_blob  - blob->len = 0"));
  EXPECT_EQ("x", data.getDGId());
  blob.len = 12;
}

TEST_F(NodeTest, AccessorsTraceTheirMisses) {
  CQzVMData data(nullptr, false);
  Lines lines{"kept"};
  EXPECT_EQ(1, data.getVolPrivInfoPerDiskFromFiid("sdb", lines));
  EXPECT_TRUE(wasTraced(3, "getVolPrivInfoPerDiskFromFiid : Vol Info Map Empty"));
  data.setVolPrivInfoInPD({"sdc"}, {"d"}, {{"l"}});
  EXPECT_EQ(1, data.getVolPrivInfoPerDiskFromFiid("sdb", lines));
  EXPECT_TRUE(wasTraced(3, "getVolPrivInfoPerDiskFromFiid : Disk not found in the map"));
  EXPECT_EQ(Lines{"kept"}, lines);
  Lines disks{"sdc", "sdb"};
  Lines names;
  std::vector<Lines> listings;
  EXPECT_EQ(1, data.getVolPrivInfoFromPD(disks, names, listings));
  EXPECT_EQ(Lines{"d"}, names);
  std::string dmp;
  EXPECT_EQ(1, data.getDMPDiskMap("none", dmp));
}

TEST_F(NodeTest, PairingIsReplacedPerKey) {
  CQzVMData data(nullptr, false);
  data.setDiskDMPMap("sdb", "n1");
  data.setDiskDMPMap("sdb", "n2");
  std::string dmp;
  data.getDiskDMPMap("sdb", dmp);
  EXPECT_EQ("n2", dmp);
  std::string disk;
  EXPECT_EQ(0, data.getDMPDiskMap("n2", disk));
  EXPECT_EQ("sdb", disk);
}

TEST_F(NodeTest, InitWithoutNodeIsInvalid) {
  CQzVMData data(nullptr, false);
  EXPECT_EQ(3, data.init(nullptr, nullptr, 0, nullptr));
  EXPECT_TRUE(wasTraced(1, "CQzVMData::init - invalid input."));
  EXPECT_EQ(1, data.IsValidConfig());
}

TEST_F(NodeTest, RecordsAreTracedFieldByField) {
  vol_pvt_info first;
  first.vpi_da = "sdb";
  first.vpi_priv_path = "/p";
  printVolPvtInfo({first, vol_pvt_info()});
  EXPECT_TRUE(wasTraced(3, "vpi_da  sdb"));
  EXPECT_TRUE(wasTraced(3, "vpi_priv_path  /p"));
  EXPECT_TRUE(wasTraced(3, " next disk "));
  EXPECT_EQ(35u, m_trace.size());
}

using NodeDeathTest = NodeTest;

TEST_F(NodeDeathTest, EmptyMultipathNameStopsTheProcess) {
  CQzVMData data(nullptr, false);
  EXPECT_DEATH(data.setDiskDMPMap("sdb", ""), "Assertion `!dmp.empty\\(\\)' failed");
  std::string dmp;
  EXPECT_DEATH(data.getDiskDMPMap("unknown", dmp), "Assertion `!dmp.empty\\(\\)' failed");
}

}  // namespace

// Private regions and configuration rewriting.
#include "support/qzvm_support.h"

#include <fstream>

#include <gtest/gtest.h>

#include "support_env.h"

namespace qzvmfi_support_test {
namespace {

TEST_F(SupportOpsTest, ParseVolPrivInfo) {
  vol_pvt_info record;
  record.vpi_error = true;
  EXPECT_EQ(m_support->parseVolPrivInfo(kDiskListing, record), 0);
  EXPECT_EQ(record.vpi_da, "qzarr0_1");
  EXPECT_EQ(record.vpi_dm, "disk01");
  EXPECT_EQ(record.vpi_dgname, "dg1");
  EXPECT_EQ(record.vpi_dgid, "1001.1.hostA");
  EXPECT_EQ(record.vpi_da_type, "auto");
  EXPECT_EQ(record.vpi_format, "cdsdisk");
  EXPECT_EQ(record.vpi_pub_slice, "3");
  EXPECT_EQ(record.vpi_pub_len, "2031360");
  EXPECT_EQ(record.vpi_pub_offset, "65792");
  EXPECT_EQ(record.vpi_priv_slice, "3");
  EXPECT_EQ(record.vpi_priv_len, "65536");
  EXPECT_EQ(record.vpi_priv_offset, "256");
  EXPECT_EQ(record.vpi_configlen, "51360");
  EXPECT_EQ(record.vpi_nconfig, "1");
  EXPECT_EQ(record.vpi_loglen, "4096");
  EXPECT_EQ(record.vpi_nlogs, "1");
  EXPECT_FALSE(record.vpi_error);
}

TEST_F(SupportOpsTest, ErrorFlagComesFromTheFlagsLine) {
  vol_pvt_info record;
  record.vpi_error = true;
  m_support->parseVolPrivInfo(out({"Device: sdb"}), record);
  EXPECT_FALSE(record.vpi_error);  // no flags line
  m_support->parseVolPrivInfo(out({"flags: online iounerrorable"}), record);
  EXPECT_TRUE(record.vpi_error);
}

TEST_F(SupportOpsTest, PrivateRegionListingsAreCachedOnlyWhereSaid) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  std::vector<vol_pvt_info> records;
  EXPECT_EQ(m_support->getVolPrivInfo({"qzarr0_1"}, records), 0);
  EXPECT_EQ(m_support->getVolPrivInfo({"qzarr0_1"}, records), 0);
  EXPECT_EQ(records.size(), 2u);
  EXPECT_EQ(commands().size(), 2u);  // uncached
  std::vector<Lines> listings;
  EXPECT_EQ(m_support->getVolPrivInfoUnformatted({"qzarr0_1", "qzarr0_1"}, listings), 0);
  EXPECT_EQ(listings.size(), 2u);
  EXPECT_EQ(listings[1], kDiskListing);
  EXPECT_EQ(commands().size(), 3u);  // the second comes from the cache
  EXPECT_TRUE(wasTraced(3, "Debug: getVolPrivInfoPerDisk returned value from map"));
}

TEST_F(SupportOpsTest, PrivateRegionFailures) {
  answer(cmd("qzdisk   list sdz"), 1);
  std::vector<vol_pvt_info> records;
  EXPECT_EQ(m_support->getVolPrivInfo({"sdz"}, records), 1);
  EXPECT_TRUE(wasTraced(2, "unable get to qzvm private information for disk 'sdz'"));
  EXPECT_TRUE(wasTraced(2, "getting volume private data on disk failed."));
  std::string id, name;
  EXPECT_EQ(m_support->dgIdNameOnDisk("sdz", id, name), 6);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::dgIdNameOnDisk - failed to get volume private data from disks."));
  EXPECT_EQ(m_support->getVolPrivInfo({}, records), 0);
}

TEST_F(SupportOpsTest, NoprivDisks) {
  vol_pvt_info simple;
  simple.vpi_da_type = "simple";
  vol_pvt_info nopriv;
  nopriv.vpi_da_type = "nopriv";
  EXPECT_EQ(m_support->defineDisksInQzVM({"sdb", "sdc"}, {simple, nopriv}), 1);
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::defineDisksInQzVM - nopriv disk type is not supported.\n"));
  EXPECT_EQ(m_support->defineDisksInQzVM({"sdb"}, {simple}), 0);
  answer(cmd("qzdisk   -f  init sdb type=simple"), 0);
  EXPECT_EQ(m_support->initDisks({"sdc", "sdb"}, {nopriv, simple}, false), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   -f  init sdb type=simple")}));
}

TEST_F(SupportOpsTest, InitDisksWithTheSourceGeometry) {
  vol_pvt_info autoCds;
  autoCds.vpi_da_type = "auto";
  autoCds.vpi_format = "cdsdisk";
  autoCds.vpi_priv_offset = "256";
  autoCds.vpi_priv_len = "65536";
  autoCds.vpi_pub_offset = "65792";
  autoCds.vpi_pub_len = "2031360";
  autoCds.vpi_configlen = "51360";
  autoCds.vpi_loglen = "4096";
  autoCds.vpi_nconfig = "1";
  autoCds.vpi_nlogs = "1";
  autoCds.vpi_priv_slice = "3";
  autoCds.vpi_pub_slice = "3";
  vol_pvt_info sliced;
  sliced.vpi_da_type = "sliced";
  sliced.vpi_priv_slice = "9999";
  sliced.vpi_pub_slice = "4";
  const std::string first =
      cmd("qzdisk   -f  init sdx type=auto format=cdsdisk privoffset=256 privlen=65536 "
          "puboffset=65792 publen=2031360 configlen=51360 loglen=4096 nconfig=1 nlog=1");
  const std::string second = cmd("qzdisk   -f  init sdy type=sliced pubslice=4");
  answer(first, 0);
  answer(second, 0);
  answer(cmd("qzdisk   rm sdx"), 0);
  answer(cmd("qzdisk   rm sdy"), 0);
  EXPECT_EQ(m_support->initDisks({"sdx", "sdy"}, {autoCds, sliced}, true), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   rm sdx"), cmd("qzdisk   rm sdy"), first, second}));
}

TEST_F(SupportOpsTest, InitDisksAutoSlicedGetsSlicesAndStopsAtAFailure) {
  vol_pvt_info autoSliced;
  autoSliced.vpi_da_type = "auto";
  autoSliced.vpi_format = "sliced";
  autoSliced.vpi_priv_slice = "7";
  autoSliced.vpi_pub_slice = "9999";
  answer(cmd("qzdisk   -f  init sdx type=auto format=sliced privslice=7"), 5);
  EXPECT_EQ(m_support->initDisks({"sdx", "sdy"}, {autoSliced, autoSliced}, false), 1);
  EXPECT_EQ(commands().size(), 1u);
}

TEST_F(SupportOpsTest, DGConfigDumpIsCached) {
  answer(cmd("qzprint   -vpsc  -g dg1 -m "), 0, out({"dg dg1", "vol vol1"}));
  Lines lines;
  EXPECT_EQ(m_support->getDGConfigInVector("dg1", lines), 0);
  EXPECT_EQ(m_support->getDGConfigInVector("dg1", lines), 0);
  EXPECT_EQ(commands().size(), 1u);
  EXPECT_TRUE(wasTraced(3, "Debug: getDGConfiginVector returned value from map"));
  install(m_bin + "qzvset");
  answer(cmd("qzprint   -vxpsc  -g dg2 -m "), 0, out({"dg dg2"}));
  EXPECT_EQ(m_support->getDGConfig("dg2", m_folder + "/dump"), 0);
  EXPECT_EQ(readFile(m_folder + "/dump"), "dg dg2\n");
  answer(cmd("qzprint   -vxpsc  -g dg3 -m "), 1);
  EXPECT_EQ(m_support->getDGConfig("dg3", m_folder + "/dump3"), 1);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::getDGConfig - failed to get dg configuration in vector."));
}

TEST_F(SupportOpsTest, ReplacePatternMovesDiskAndMediaNames) {
  const Lines priDisks = {"sdb", "qzarr0_1"};
  const Lines altDisks = {"sdx", "qzarr1_7"};
  const Lines priDMs = {"disk01"};
  const Lines altDMs = {"disk91"};
  std::string result;
  m_support->replacePattern("\tpath=/dev/qz/dmp/sdb3\n", "dg1", "dg9", priDisks, altDisks, priDMs,
                            altDMs, result);
  EXPECT_EQ(result, "\tpath=/dev/qz/dmp/sdx3\n");
  m_support->replacePattern("\tda_name=qzarr0_1\n", "dg1", "dg9", priDisks, altDisks, priDMs,
                            altDMs, result);
  EXPECT_EQ(result, "\tda_name=qzarr1_7\n");
  m_support->replacePattern("\tdm_name=disk01\n", "dg1", "dg9", priDisks, altDisks, priDMs, altDMs,
                            result);
  EXPECT_EQ(result, "\tdm_name=disk91\n");
  m_support->replacePattern("\tdg_name=dg1\n", "dg1", "dg9", priDisks, altDisks, priDMs, altDMs,
                            result);
  EXPECT_EQ(result, "\tdg_name=dg1\n");
  m_support->replacePattern("no equals sdb\n", "dg1", "dg9", priDisks, altDisks, priDMs, altDMs,
                            result);
  EXPECT_EQ(result, "no equals sdb\n");
}

// The rewrite of one line with the disks of a group of twelve as the
// array names them, and their copies.
std::string rewritten(CQzVMSupport& support, const std::string& line) {
  const Lines primary = {"qzarr0_0", "qzarr0_1", "qzarr0_10", "qzarr0_11", "qzarr0_2"};
  const Lines copies = {"qzarr0_12", "qzarr0_13", "qzarr0_22", "qzarr0_23", "qzarr0_14"};
  const Lines dms = {"m0", "m1", "m10", "m11", "m2"};
  const Lines newDMs = {"n0", "n1", "n10", "n11", "n2"};
  std::string result;
  support.replacePattern(line, "dg1", "dg9", primary, copies, dms, newDMs, result);
  return result;
}

TEST_F(SupportOpsTest, ReplacePatternMatchesOnlyWholeNames) {
  EXPECT_EQ(rewritten(*m_support, "\tda_name=qzarr0_10\n"), "\tda_name=qzarr0_22\n");
  EXPECT_EQ(rewritten(*m_support, "\tda_name=qzarr0_1\n"), "\tda_name=qzarr0_13\n");
  EXPECT_EQ(rewritten(*m_support, "\tpath=/dev/qz/dmp/qzarr0_11s3\n"),
            "\tpath=/dev/qz/dmp/qzarr0_23s3\n");
  EXPECT_EQ(rewritten(*m_support, "\tpath=/dev/qz/dmp/qzarr0_1s3\n"),
            "\tpath=/dev/qz/dmp/qzarr0_13s3\n");
  EXPECT_EQ(rewritten(*m_support, "\tpath=/dev/qz/dmp/qzarr0_2\n"),
            "\tpath=/dev/qz/dmp/qzarr0_14\n");
  EXPECT_EQ(rewritten(*m_support, "\tdm_name=m10\n"), "\tdm_name=n10\n");
  EXPECT_EQ(rewritten(*m_support, "\tdm_name=m1\n"), "\tdm_name=n1\n");
}

TEST_F(SupportOpsTest, ReplacePatternLeavesNamesThatAreNotWhole) {
  // Neither inside a longer name nor as a part of one ...
  EXPECT_EQ(rewritten(*m_support, "\tda_name=qzarr0_101\n"), "\tda_name=qzarr0_101\n");
  EXPECT_EQ(rewritten(*m_support, "\tda_name=xqzarr0_1\n"), "\tda_name=xqzarr0_1\n");
  EXPECT_EQ(rewritten(*m_support, "\tdm_name=m1x\n"), "\tdm_name=m1x\n");
  // ... nor with a partition suffix outside a device path ...
  EXPECT_EQ(rewritten(*m_support, "\tda_name=qzarr0_1s3\n"), "\tda_name=qzarr0_1s3\n");
  EXPECT_EQ(rewritten(*m_support, "\tdm_name=m1s3\n"), "\tdm_name=m1s3\n");
  // ... nor before what is not a partition suffix, nor in the folders.
  EXPECT_EQ(rewritten(*m_support, "\tpath=/dev/qz/dmp/qzarr0_1x3\n"),
            "\tpath=/dev/qz/dmp/qzarr0_1x3\n");
  EXPECT_EQ(rewritten(*m_support, "\tpath=/dev/qzarr0_1/sdz\n"), "\tpath=/dev/qzarr0_1/sdz\n");
}

TEST_F(SupportOpsTest, ReplacePatternKeepsKeyAndRestOfTheLine) {
  std::string result;
  m_support->replacePattern("\tsdb_path=sdb,x sdb\n", "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {},
                            result);
  EXPECT_EQ(result, "\tsdb_path=sdx,x sdb\n");
  m_support->replacePattern("\tda_name= sdb\r\n", "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {}, result);
  EXPECT_EQ(result, "\tda_name= sdx\r\n");
  // A partition suffix is digits, after an optional "s" or "p".
  m_support->replacePattern("\tpath=/dev/nvme0n1p2\n", "dg1", "dg9", {"nvme0n1"}, {"nvme1n1"}, {},
                            {}, result);
  EXPECT_EQ(result, "\tpath=/dev/nvme1n1p2\n");
  // Where a name and a longer one both fit, the longer one wins.
  m_support->replacePattern("\tpath=/dev/qz/dmp/sdb13\n", "dg1", "dg9", {"sdb", "sdb1"},
                            {"sdx", "sdy"}, {}, {}, result);
  EXPECT_EQ(result, "\tpath=/dev/qz/dmp/sdy3\n");
}

TEST_F(SupportOpsTest, ReconfigKeepsOnlyVolumeRecordsWithNewNames) {
  const std::string in = m_folder + "/in";
  const std::string outFile = m_folder + "/out";
  std::ofstream(in) << "dg dg1\n\tguid={a}\n\tcomment=x\n"
                       "dm disk01\n\tguid={b}\n\tda_name=sdb\n\tlast_da_name=sdb\n"
                       "vol vol1\n\tguid={c}\n\tuse_type=fsgen\n"
                       "plex vol1-01\n\tguid={d}\n"
                       "sd disk01-01\n\tguid={e}\n\tdm_name=disk01\n\tda_name=sdb\n"
                       "\tpath=/dev/qz/dmp/sdb3\n"
                       "dco vol1_dco\n\tguid={f}\n";
  EXPECT_EQ(
      m_support->reconfig(in, "dg1", "dg9", {"sdb"}, {"sdx"}, {"disk01"}, {"disk91"}, outFile), 0);
  EXPECT_EQ(readFile(outFile),
            "vol vol1\n\tuse_type=fsgen\nplex vol1-01\nsd disk01-01\n\tdm_name=disk91\n"
            "\tda_name=sdx\n\tpath=/dev/qz/dmp/sdx3\ndco vol1_dco\n");
  EXPECT_TRUE(wasTraced(3, "Dumping volume descriptor data to be supplied to qzmake"));
  EXPECT_TRUE(wasTraced(3, "Dumping  volume descriptor data to be supplied to qzmake is done"));
  EXPECT_EQ(m_support->reconfig(m_folder + "/missing", "a", "b", {}, {}, {}, {}, outFile), 1);
}

TEST_F(SupportOpsTest, ReconfigReadsLinesLongerThanTheBuffer) {
  const std::string in = m_folder + "/in";
  const std::string outFile = m_folder + "/out";
  std::string longValue(2000, 'q');
  std::ofstream(in) << "vol vol1\n\tcomment=" << longValue << "\n";
  EXPECT_EQ(m_support->reconfig(in, "dg1", "dg9", {}, {}, {}, {}, outFile), 0);
  EXPECT_EQ(readFile(outFile), "vol vol1\n\tcomment=" + longValue + "\n");
}

// Several megabytes: lines of every length cross the ends of the blocks in
// which the dump is read.
TEST_F(SupportOpsTest, ReconfigKeepsLinesWholeAcrossReadBlocks) {
  const std::string in = m_folder + "/in";
  const std::string outFile = m_folder + "/out";
  std::string dump = "dg dg1\n\tguid={a}\n";
  std::string expected;
  for (int i = 0; dump.size() < 3000000; ++i) {
    const std::string record = "sd s" + std::to_string(i) + "\n";
    const std::string comment = "\tcomment=" + std::string(i % 3000, 'c') + "\n";
    dump += record + "\tguid={" + std::to_string(i) + "}\n\tda_name=sdb\n" + comment;
    expected += record + "\tda_name=sdx\n" + comment;
  }
  writeFile(in, dump + "vol v1\n\tpath=/dev/qz/dmp/sdb3");
  EXPECT_EQ(m_support->reconfig(in, "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {}, outFile), 0);
  EXPECT_EQ(readFile(outFile), expected + "vol v1\n\tpath=/dev/qz/dmp/sdx3");
}

// A zero byte ends what the line reader keeps of a piece, and the line goes on
// with the next line of the file: the text after the zero byte is lost.
TEST_F(SupportOpsTest, ReconfigReadsZeroBytesAsTheLineReaderDoes) {
  const std::string in = m_folder + "/in";
  const std::string outFile = m_folder + "/out";
  const char dump[] = "vol v1\n\tcomment=a\0b\nsd s1\n\tda_name=sdb\n";
  writeFile(in, std::string(dump, sizeof dump - 1));
  EXPECT_EQ(m_support->reconfig(in, "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {}, outFile), 0);
  EXPECT_EQ(readFile(outFile), "vol v1\n\tcomment=asd s1\n\tda_name=sdx\n");
}

// When the piece after a zero byte begins with a zero byte too, the line
// reader ends the line there without a line feed: the next line kept must
// not be glued to it, here into a group record of the replay file.
TEST_F(SupportOpsTest, ReconfigEndsALineTheReaderEndsAtAZeroByte) {
  const std::string in = m_folder + "/in";
  const std::string outFile = m_folder + "/out";
  const char dump[] = "vol v1\ndg\0x\n\0y\n\tda_name=sdb\n";
  writeFile(in, std::string(dump, sizeof dump - 1));
  EXPECT_EQ(m_support->reconfig(in, "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {}, outFile), 0);
  EXPECT_EQ(readFile(outFile), "vol v1\ndg\n\tda_name=sdx\n");
}

// The name recorded on the disk counts as existing (the free name built on
// it always differs from it), so only a disk without a group name imports.
TEST_F(SupportOpsTest, RegenerateDGFromDiskKeepsANamedGroup) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdg   list "), 0, kDgList);
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"qzarr0_1"}, dg), 0);
  EXPECT_EQ(dg, "dg1");
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   list qzarr0_1"), cmd("qzdg   list ")}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::regenerateDGFromDisk - removes the disks from qzvm db."));
}

const Lines kUnnamedListing = out({"Device: qzarr0_1", "group: id=1001.1.hostA"});
const Lines kImportedListing = out({"Device: qzarr0_1", "group: name=dg1 id=1001.1.hostA"});

TEST_F(SupportOpsTest, RegenerateDGFromDiskImportsByIdAndRereadsTheName) {
  expectOnce(cmd("qzdisk   list qzarr0_1"), 0, kUnnamedListing);
  answer(cmd("qzdisk   list qzarr0_1"), 0, kImportedListing);
  answer(cmd("qzdisk   clearimport  qzarr0_1 qzarr0_2"), 0);
  answer(cmd("qzdg   -C  import 1001.1.hostA"), 0);
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"qzarr0_1", "qzarr0_2"}, dg), 0);
  EXPECT_EQ(dg, "dg1");
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdisk   list qzarr0_1"), cmd("qzdisk   clearimport  qzarr0_1 qzarr0_2"),
                   cmd("qzdg   -C  import 1001.1.hostA"), cmd("qzdisk   list qzarr0_1")}));
}

TEST_F(SupportOpsTest, RegenerateDGFromDiskReportsAFailedClearImport) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kUnnamedListing);
  answer(cmd("qzdisk   clearimport  qzarr0_1"), 1);
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"qzarr0_1"}, dg), 6);
  bool pushed = false;
  for (const auto& error : qzvmfi_ctx::ErrorManager::instance()->errors()) {
    pushed |= error->getIdentifier() == "MSG_ERROR_UNABLE_TO_CLEAR_IMPORT_FLAG_ON_DISKS";
  }
  EXPECT_TRUE(pushed);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::regenerateDGFromDisk - unable to clear import flag on the disk"));
}

TEST_F(SupportOpsTest, RegenerateDGFromDiskFailedImport) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kUnnamedListing);
  answer(cmd("qzdisk   clearimport  qzarr0_1"), 0);
  answer(cmd("qzdg   -C  import 1001.1.hostA"), 1);
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"qzarr0_1"}, dg), 6);
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::regenerateDGFromDisk - failed to obtain dgid from disk's "
                        "private data. dmp disk 'qzarr0_1'"));
}

TEST_F(SupportOpsTest, RegenerateQzVMFromDiskTakesTheFirstVolume) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzprint   -g dg1  -v "), 0, kPrintV);
  std::string dg;
  std::string volume;
  EXPECT_EQ(m_support->regenerateQzVMFromDisk({"qzarr0_1"}, dg, volume), 0);
  EXPECT_EQ(dg, "dg1");
  EXPECT_EQ(volume, "vol1");
}

TEST_F(SupportOpsTest, RegenerateQzVMFromDiskWithoutAGroupFails) {
  answer(cmd("qzdisk   list qzarr0_1"), 11);
  std::string dg;
  std::string volume = "kept";
  EXPECT_EQ(m_support->regenerateQzVMFromDisk({"qzarr0_1"}, dg, volume), 6);
  EXPECT_EQ(volume, "kept");
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::regenerateQzVMFromDisk - failed to obtain dgid from disk's "
                        "private data. dmp disk 'qzarr0_1'"));
}

TEST_F(SupportOpsTest, RegenerateQzVMFromDiskWithoutAVolumeFails) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdg   list "), 0, kDgList);
  expectOnce(cmd("qzprint   -g dg1  -v "), 11);
  expectOnce(cmd("qzprint   -g dg1  -v "), 0, out({"no header", "at all"}));
  for (const char* failure :
       {"CQzVMSupport::regenerateQzVMFromDisk - unable to get volumes under dg 'dg1'.",
        "CQzVMSupport::regenerateQzVMFromDisk -  found no volumes under dg 'dg1'."}) {
    std::string dg;
    std::string volume = "kept";
    EXPECT_EQ(m_support->regenerateQzVMFromDisk({"qzarr0_1"}, dg, volume), 6);
    EXPECT_EQ(volume, "kept");
    EXPECT_TRUE(wasTraced(1, failure)) << failure;
  }
}

TEST_F(SupportOpsTest, RegenerateDGFromDiskWithoutDgid) {
  answer(cmd("qzdisk   list sdb"), 0, out({"Device: sdb", "type: auto"}));
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"sdb"}, dg), 6);
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::regenerateDGFromDisk - got invalid(empty) dgid from disk's "
                        "private data. dmp disk 'sdb'"));
}

TEST_F(SupportOpsTest, GetDGFromQzVMDiskIfRecreated) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  bool created = false;
  std::string dg;
  EXPECT_EQ(m_support->getDGFromQzVMDiskIfRecreated({"qzarr0_1"}, created, dg), 0);
  EXPECT_TRUE(created);
  EXPECT_EQ(dg, "dg1");
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is created."));
  answer(cmd("qzprint   -g dg1  -v "), 0, kPrintV);
  bool found = false;
  EXPECT_EQ(
      m_support->checkForVolPathFromQzVMDiskIfRecreated({"qzarr0_1"}, "dg1", "vol1", found, false),
      0);
  EXPECT_TRUE(found);
  EXPECT_EQ(
      m_support->checkForVolPathFromQzVMDiskIfRecreated({"qzarr0_1"}, "dg7", "vol1", found, false),
      0);
  EXPECT_FALSE(found);
}

}  // namespace
}  // namespace qzvmfi_support_test

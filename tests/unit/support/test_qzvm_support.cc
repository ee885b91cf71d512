#include "support/qzvm_support.h"

#include <stdio.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "osutil.h"
#include "../plugin_env.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::readFile;
using qzvmfi_test::TempDir;
using qzvmfi_test::TraceLine;
using qzvmfi_test::writeFile;
using Lines = std::vector<std::string>;

class SupportTest : public PluginEnv {};

// getToken

TEST(GetToken, CountsRunsOfNonWhiteCharacters) {
  EXPECT_EQ("b", getToken("  a  b c ", 1));
  EXPECT_EQ("a", getToken("  a  b c ", 0));
  EXPECT_EQ("c", getToken("  a  b c ", 2));
}

TEST(GetToken, PastTheLastTokenIsEmpty) {
  EXPECT_EQ("", getToken("a", 3));
  EXPECT_EQ("", getToken("a b", 2));
  EXPECT_EQ("", getToken("", 0));
  EXPECT_EQ("", getToken(" \t\n", 0));
}

TEST(GetToken, EveryWhiteCharacterSeparates) {
  EXPECT_EQ("b", getToken("a\tb\nc", 1));
  EXPECT_EQ("c", getToken("a\r\vb\fc", 2));
}

TEST(GetToken, RepeatedTokensAreCountedByPosition) {
  EXPECT_EQ("a", getToken("ab a", 1));
  EXPECT_EQ("ab", getToken("a ab", 1));
}

TEST(GetToken, NegativeIndexIsEmpty) {
  EXPECT_EQ("", getToken("a b", -1));
}

TEST(GetToken, TextEndsAtAZeroCharacter) {
  EXPECT_EQ("", getToken(std::string("a\0b", 3), 1));
}

// getValForKey

TEST(GetValForKey, FindsTheValueOfTheKey) {
  EXPECT_EQ("sda", getValForKey("dm_name=disk01 da_name=sda", "da_name"));
  EXPECT_EQ("disk01", getValForKey("dm_name=disk01 da_name=sda", "dm_name"));
}

TEST(GetValForKey, MissingKeyIsEmpty) {
  EXPECT_EQ("", getValForKey("x=1", "y"));
}

TEST(GetValForKey, ValueEndsAtABlankOrAComma) {
  EXPECT_EQ("1", getValForKey("a=1,b=2", "a"));
  EXPECT_EQ("2", getValForKey("a=1,b=2", "b"));
  EXPECT_EQ("x", getValForKey("k=x\ty", "k"));
}

TEST(GetValForKey, LeadingAndTrailingWhiteIsTrimmed) {
  EXPECT_EQ("v", getValForKey("k=  v\r\n", "k"));
  EXPECT_EQ("", getValForKey("k=   ", "k"));
  EXPECT_EQ("", getValForKey("k=", "k"));
}

TEST(GetValForKey, KeyIsFoundInsideALongerKey) {
  EXPECT_EQ("256", getValForKey("privlen=256 len=8", "len"));
}

// text as a death-test pattern that matches it literally. Built by hand:
// std::regex trips a false uninitialised-value warning of GCC 12 under the
// sanitizers.
std::string regexQuoted(const std::string& text) {
  std::string quoted;
  for (char c : text) {
    if (std::string_view(".^$|()[]{}*+?\\").find(c) != std::string_view::npos) {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted;
}

TEST(GetValForKeyDeathTest, ValueBeginningWithACommaStopsTheProcess) {
  const std::string expected =
      "qzvm_support:4095: std::string getValForKey(const std::string&, const std::string&): "
      "Assertion `! ( (str[0] == ' ') || (str[0] == ',') || (str[0] == '\\t') || "
      "(str[0] == '\\n') )' failed.";
  EXPECT_DEATH(getValForKey("key=,x", "key"), regexQuoted(expected));
  EXPECT_DEATH(getValForKey("key=  ,x", "key"), regexQuoted(expected));
}

// getMetaValForkey

TEST(GetMetaValForkey, RestOfTheFirstLineHoldingTheKey) {
  const Lines lines{"Device:    sdb\n", "disk:      name=d01 id=1\n", "disk:   second\n"};
  std::string value = "old";
  EXPECT_EQ(0, getMetaValForkey(lines, "disk:", value));
  EXPECT_EQ("name=d01 id=1", value);
  EXPECT_EQ(0, getMetaValForkey(lines, "Device:", value));
  EXPECT_EQ("sdb", value);
}

TEST(GetMetaValForkey, WhatStandsBeforeTheKeyStays) {
  std::string value;
  EXPECT_EQ(0, getMetaValForkey({"  x private: slice=3\n"}, "private:", value));
  EXPECT_EQ("x  slice=3", value);
}

TEST(GetMetaValForkey, MissingKeyLeavesTheValue) {
  std::string value = "kept";
  EXPECT_EQ(1, getMetaValForkey({"a: 1\n"}, "flags:", value));
  EXPECT_EQ("kept", value);
  EXPECT_EQ(1, getMetaValForkey({}, "flags:", value));
}

// hasVal and its named forms

TEST(HasVal, KeyPresentWithEmptyValueIsFalse) {
  EXPECT_FALSE(hasVal("path=", "path"));
  EXPECT_FALSE(hasVal("x=1", "path"));
  EXPECT_TRUE(hasVal("path=/dev/qz/dmp/sdb3", "path"));
}

TEST(HasVal, NamedForms) {
  EXPECT_TRUE(hasDAName("\tda_name=sdb"));
  EXPECT_FALSE(hasDAName("\tdm_name=d01"));
  EXPECT_TRUE(hasDMName("\tdm_name=d01"));
  EXPECT_FALSE(hasDMName("\tdm_name="));
  EXPECT_TRUE(hasPathVal("\tpath=/dev/x"));
  EXPECT_FALSE(hasPathVal("\tpath= "));
}

// replaceString

TEST(ReplaceString, ReplacesTheFirstOccurrenceFromAPosition) {
  std::string text = "sdb sdb";
  EXPECT_EQ(0, replaceString(text, 0, "sdb", "sdx"));
  EXPECT_EQ("sdx sdb", text);
  EXPECT_EQ(0, replaceString(text, 1, "sd", "hd"));
  EXPECT_EQ("sdx hdb", text);
}

TEST(ReplaceString, NothingFoundLeavesTheText) {
  std::string text = "abc";
  EXPECT_EQ(1, replaceString(text, 0, "x", "y"));
  EXPECT_EQ(1, replaceString(text, 1, "a", "y"));
  EXPECT_EQ("abc", text);
}

TEST(ReplaceString, CalledUntilItFailsReplacesAll) {
  std::string text = "a-a-a";
  while (replaceString(text, 0, "a", "b") == 0) {
  }
  EXPECT_EQ("b-b-b", text);
}

// checkVectorMatch, isUniqueInVector

TEST(CheckVectorMatch, EveryWantedEntryMustBePresent) {
  EXPECT_TRUE(checkVectorMatch({"a", "b"}, {"b", "c", "a"}, false));
  EXPECT_FALSE(checkVectorMatch({"a", "d"}, {"b", "c", "a"}, false));
  EXPECT_FALSE(checkVectorMatch({"a"}, {}, false));
  EXPECT_TRUE(checkVectorMatch({"a", "a"}, {"a"}, false));
}

TEST(CheckVectorMatch, SameSizeComparesLengths) {
  EXPECT_FALSE(checkVectorMatch({"a"}, {"a", "b"}, true));
  EXPECT_TRUE(checkVectorMatch({"b", "a"}, {"a", "b"}, true));
  EXPECT_FALSE(checkVectorMatch({}, {"a"}, true));
}

TEST(CheckVectorMatch, EmptyWantedListMatches) {
  EXPECT_TRUE(checkVectorMatch({}, {"a"}, false));
  EXPECT_TRUE(checkVectorMatch({}, {}, true));
}

TEST(IsUniqueInVector, ExactComparison) {
  EXPECT_TRUE(isUniqueInVector({}, "a"));
  EXPECT_TRUE(isUniqueInVector({"A", "ab"}, "a"));
  EXPECT_FALSE(isUniqueInVector({"b", "a"}, "a"));
}

// MAKE_NAME_RFIT, createUniqueInVector

TEST(MakeNameRfit, LongNamesLoseTheirFront) {
  std::string name = "0123456789abcdefghijklmnopqrstuvwxy";  // 35 characters
  ASSERT_EQ(35u, name.size());
  MAKE_NAME_RFIT(name);
  EXPECT_EQ("456789abcdefghijklmnopqrstuvwxy", name);  // characters 5 to 35
}

TEST(MakeNameRfit, ShortNamesStay) {
  std::string name(31, 'n');
  MAKE_NAME_RFIT(name);
  EXPECT_EQ(std::string(31, 'n'), name);
  std::string empty;
  MAKE_NAME_RFIT(empty);
  EXPECT_EQ("", empty);
}

TEST_F(SupportTest, CreateUniqueTakesTheFirstFreeSuffix) {
  std::string name = "dg";
  createUniqueInVector({"dg_0", "dg_1"}, name);
  EXPECT_EQ("dg_2", name);
}

TEST_F(SupportTest, CreateUniqueAlwaysAddsASuffix) {
  std::string name = "dg";
  createUniqueInVector({}, name);
  EXPECT_EQ("dg_0", name);
}

TEST_F(SupportTest, CreateUniqueCutsTheCandidateBeforeTesting) {
  const std::string base = "abcdefghijklmnopqrstuvwxyz0123";  // 30 characters
  ASSERT_EQ(30u, base.size());
  std::string name = base;
  createUniqueInVector({}, name);
  EXPECT_EQ("bcdefghijklmnopqrstuvwxyz0123_0", name);

  name = base;
  createUniqueInVector({"bcdefghijklmnopqrstuvwxyz0123_0"}, name);
  EXPECT_EQ("bcdefghijklmnopqrstuvwxyz0123_1", name);
}

TEST_F(SupportTest, CreateUniqueGivesUpAfter1024Tries) {
  Lines taken;
  for (int i = 0; i < 1024; ++i) {
    taken.push_back("dm_" + std::to_string(i));
  }
  std::string name = "dm";
  createUniqueInVector(taken, name);
  EXPECT_EQ("", name);
  EXPECT_TRUE(
      wasTraced(1, "CQzVMSupport::createUniqueInVector - unable to create unique name for dm/dg."));

  taken.pop_back();
  name = "dm";
  createUniqueInVector(taken, name);
  EXPECT_EQ("dm_1023", name);
}

// multiLinesToVector

TEST(MultiLinesToVector, KeepsEmptyLinesBetweenLineFeeds) {
  Lines lines{"before"};
  multiLinesToVector("a\n\nb\n", lines);
  EXPECT_EQ((Lines{"before", "a", "", "b"}), lines);
}

TEST(MultiLinesToVector, LastLineWithoutLineFeed) {
  Lines lines;
  multiLinesToVector("a\n b ", lines);
  EXPECT_EQ((Lines{"a", " b "}), lines);
  multiLinesToVector("", lines);
  EXPECT_EQ(2u, lines.size());
  multiLinesToVector("\n", lines);
  EXPECT_EQ((Lines{"a", " b ", ""}), lines);
}

// fgetline, putVectorInFile

class FileTest : public ::testing::Test {
 protected:
  TempDir m_dir;
};

TEST_F(FileTest, FgetlineReadsWholeLinesOfAnyLength) {
  const std::string longLine = std::string(1500, 'x') + "\n";
  writeFile(m_dir.file("in"), "first\n" + longLine + std::string(511, 'y') + "\nlast");
  FILE* in = fopen(m_dir.file("in").c_str(), "r");
  ASSERT_NE(nullptr, in);
  std::string line;
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("first\n", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ(longLine, line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ(std::string(511, 'y') + "\n", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("last", line);
  EXPECT_EQ(0, CQzVMSupport::fgetline(line, in));
  EXPECT_EQ("", line);
  fclose(in);
}

TEST_F(FileTest, PutVectorInFileWritesEntriesAsTheyAre) {
  const std::string path = m_dir.file("out");
  writeFile(path, "old content that is longer\n");
  EXPECT_EQ(0, CQzVMSupport::putVectorInFile({"vol v1\n", "\tlen=8\n", "tail"}, path));
  EXPECT_EQ("vol v1\n\tlen=8\ntail", readFile(path));
}

TEST_F(FileTest, PutVectorInFileWithAnEmptyListFailsButLeavesAnEmptyFile) {
  const std::string path = m_dir.file("out");
  writeFile(path, "old\n");
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({}, path));
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ("", readFile(path));
}

TEST_F(FileTest, PutVectorInFileThatCannotOpenFails) {
  EXPECT_EQ(1, CQzVMSupport::putVectorInFile({"x\n"}, m_dir.file("missing/out")));
}

// printList4

TEST_F(SupportTest, PrintList4TracesAnEmptyLineThenEachEntry) {
  printList4({"a", "b c"});
  EXPECT_EQ((std::vector<TraceLine>{{3, ""}, {3, "printList  a"}, {3, "printList  b c"}}), m_trace);
}

// CQzVMSupport

class SupportWithRunner : public CQzVMSupport {
 public:
  const CQzVMCliTool& runner() const { return m_cliTool; }
};

TEST_F(SupportTest, ConstructionWritesTheDefaultFileAndReadsIt) {
  CQzVMSupport support;
  EXPECT_TRUE(std::filesystem::exists(configFile()));
  EXPECT_EQ("/usr/sbin/", support.cliPath().commandDir);
  EXPECT_EQ("/usr/lib/qzvm/bin/", support.cliPath().supportDir);
}

TEST_F(SupportTest, ConstructionReadsTheConfiguredDirectory) {
  writeFile(configFile(), "[CLI_TOOL_INFO]\nFILEPATH_QzVM=/opt/qz\n");
  CQzVMSupport support;
  EXPECT_EQ("/opt/qz/", support.cliPath().commandDir);
}

TEST_F(SupportTest, RegisteredLogReachesTheRunner) {
  SupportWithRunner support;
  EXPECT_TRUE(support.getTraceLog());
  EXPECT_EQ(support.getTraceLog(), support.runner().getTraceLog());
  support.registerTraceLog(qzfi_pdk_4_4::CFiTraceLogPtr());
  EXPECT_FALSE(support.runner().getTraceLog());
}

// Gives the tests the tool directories of their scratch folder.
class TestableSupport : public CQzVMSupport {
 public:
  void setDirs(const std::string& commandDir, const std::string& supportDir) {
    m_cliPath.commandDir = commandDir;
    m_cliPath.supportDir = supportDir;
  }
};

// Output lines as the pipe runner hands them over: each with its line feed.
Lines out(std::initializer_list<const char*> lines) {
  Lines result;
  for (const char* line : lines) {
    result.push_back(std::string(line) + "\n");
  }
  return result;
}

// The command operations: tool folders and a /sys tree in a scratch folder,
// pauses counted instead of slept.
class SupportOpsTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    qzvmfi_ctx::TraceLog::instance()->setLevel(9);
    m_scratch = std::make_unique<TempDir>();
    m_folder = m_scratch->path();
    m_bin = m_folder + "/bin/";
    m_lib = m_folder + "/lib/";
    ASSERT_EQ(mkdir(m_bin.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(m_lib.c_str(), 0755), 0);
    setQzVMSleep([this](unsigned seconds) { m_pauses.push_back(seconds); });
    setQzVMSysRoot(m_folder);
    m_support = std::make_unique<TestableSupport>();
    m_support->setDirs(m_bin, m_lib);
  }

  void TearDown() override {
    m_support.reset();
    setQzVMSleep(nullptr);
    setQzVMSysRoot("");
    m_scratch.reset();
    PluginEnv::TearDown();
  }

  // A command line of the main tools, as the support object builds it.
  std::string cmd(const std::string& text) const { return m_bin + text; }
  std::string tool(const std::string& text) const { return m_lib + text; }

  void install(const std::string& path) {
    std::ofstream(path) << "#!/bin/sh\n";
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
  }
  void installDmp() { install(m_bin + "qzdmpadm"); }

  void answer(const std::string& command, int status, const Lines& output = Lines()) {
    CFiExecSeam::answer(command, status, output);
  }
  void expectOnce(const std::string& command, int status, const Lines& output = Lines()) {
    CFiExecSeam::expect(command, status, output);
  }
  Lines commands() const { return CFiExecSeam::commands(); }
  size_t runsOf(const std::string& command) const {
    size_t count = 0;
    for (const std::string& line : commands()) {
      count += line == command ? 1 : 0;
    }
    return count;
  }

  std::unique_ptr<TempDir> m_scratch;
  std::string m_folder;
  std::string m_bin;
  std::string m_lib;
  std::vector<unsigned> m_pauses;
  std::unique_ptr<TestableSupport> m_support;
};

// ---------- installation probes and device names ----------

TEST_F(SupportOpsTest, ProbesTestTheToolFilesWithoutTheirBlanks) {
  EXPECT_FALSE(m_support->isQzDMPInstalled());
  EXPECT_FALSE(m_support->isVSetAvailable());
  EXPECT_FALSE(m_support->isCDSSupported());
  installDmp();
  install(m_bin + "qzvset");
  install(m_lib + "qzcdsconvert");
  EXPECT_TRUE(m_support->isQzDMPInstalled());
  EXPECT_TRUE(m_support->isVSetAvailable());
  EXPECT_TRUE(m_support->isCDSSupported());
  EXPECT_TRUE(m_support->isCommandAvailable(m_bin, "qzdmpadm  "));
  EXPECT_TRUE(commands().empty());
}

TEST_F(SupportOpsTest, ProbeOfANonExecutableFileIsFalse) {
  std::ofstream(m_bin + "qzvset") << "x";
  EXPECT_FALSE(m_support->isVSetAvailable());
}

TEST_F(SupportOpsTest, DefaultCommandDirectoryComesFromTheConfiguration) {
  TestableSupport fresh;
  EXPECT_EQ(fresh.cliPath().commandDir, "/usr/sbin/");
  EXPECT_EQ(fresh.cliPath().supportDir, "/usr/lib/qzvm/bin/");
  answer("/usr/sbin/qzdg   list dg1", 0);
  EXPECT_TRUE(fresh.isDGPresent("dg1"));
}

TEST_F(SupportOpsTest, RemovePartitionSuffix) {
  Lines devices = {"emcpowerb12", "sdb", "hda1", "sdc3", "emcpowera1"};
  EXPECT_EQ(m_support->removePartitionSuffix(devices), 0);
  EXPECT_EQ(devices, (Lines{"emcpowerb", "sdb", "hda1", "sdc", "emcpowera"}));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix  First - deviceName = emcpowerb12"));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix - deviceName = sdc3"));
  EXPECT_TRUE(wasTraced(3, "found digit 3."));
  EXPECT_TRUE(wasTraced(3, "PartitionSuffix = 3."));
  EXPECT_TRUE(wasTraced(3, "removePartitionSuffix - After partition removal deviceName = sdc"));
  Lines none;
  EXPECT_EQ(m_support->removePartitionSuffix(none), 0);
}

TEST_F(SupportOpsTest, RegionAndPathPredicates) {
  EXPECT_TRUE(m_support->isRegion("dm disk01", "dm"));
  EXPECT_TRUE(m_support->isRegion("dm\tdisk01", "dm"));
  EXPECT_FALSE(m_support->isRegion("dmx", "dm"));
  EXPECT_FALSE(m_support->isRegion("dm", "dm"));
  EXPECT_TRUE(m_support->isDM("dm disk01"));
  EXPECT_TRUE(m_support->isDG("dg dg1"));
  EXPECT_FALSE(m_support->isDG("dm dg1"));
  EXPECT_TRUE(m_support->isValidZOLKPath("/dev/qz/dskx"));
  EXPECT_TRUE(m_support->isValidZOLKPath("/dev/qz/rdsk/a/b"));
  EXPECT_FALSE(m_support->isValidZOLKPath("/dev/sda"));
  EXPECT_TRUE(m_support->isVolumeRaw("/dev/qz/rdsk/a/b"));
  EXPECT_FALSE(m_support->isVolumeRaw("/dev/qz/dsk/a/b"));
  EXPECT_TRUE(m_support->isGuid("   guid={1234}\n"));
  EXPECT_FALSE(m_support->isGuid("name=guid="));
  EXPECT_FALSE(m_support->isVolOrPlexOrSubdiskOrDCO("volume vol1"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("vol\tvol1"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("plex vol1-01"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("sd disk01-01"));
  EXPECT_TRUE(m_support->isVolOrPlexOrSubdiskOrDCO("dco vol1_dco"));
  EXPECT_FALSE(m_support->isVolOrPlexOrSubdiskOrDCO("dm disk01"));
}

TEST_F(SupportOpsTest, RemoveDevicesStopsAtTheFirstMissingControlFile) {
  for (const char* name : {"sdb", "sdd"}) {
    std::filesystem::create_directories(m_folder + "/sys/block/" + name + "/device");
  }
  m_support->removeDevicesFromOSDeviceTree({"sdb", "sdc", "sdd"});
  EXPECT_EQ(readFile(m_folder + "/sys/block/sdb/device/delete"), "1");
  EXPECT_EQ(readFile(m_folder + "/sys/block/sdd/device/delete"), "");
  EXPECT_TRUE(wasTraced(3, "INFO: removing: /sys/block/sdb/device/delete"));
  EXPECT_TRUE(wasTraced(
      2, "WARNING: removeDevicesFromOSDeviceTree failed to open /sys/block/sdc/device/delete"));
}

TEST_F(SupportOpsTest, CleanupOtherLVMOnDiskRunsNothing) {
  EXPECT_EQ(m_support->cleanupOtherLVMOnDisk({"sdb", "sdc"}), 0);
  EXPECT_TRUE(commands().empty());
}

// ---------- disk groups ----------

const Lines kDgList =
    out({"NAME         STATE           ID", "dg1          enabled         1001.1.host",
         "dg2          disabled        1002.1.host"});

TEST_F(SupportOpsTest, IsDGPresentListsTheGroup) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   list dg9"), 11, out({"QZVM qzdg ERROR Q-5-1-582 Disk group dg9: not found"}));
  EXPECT_TRUE(m_support->isDGPresent("dg1"));
  EXPECT_FALSE(m_support->isDGPresent("dg9"));
}

TEST_F(SupportOpsTest, IsDGEnabledReadsTheStateColumn) {
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_TRUE(m_support->isDGEnabled("dg1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - Found dg online 'dg1'."));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::isDGEnabled - Found state [enabled] for diskgroup 'dg1'."));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - diskgroup 'dg1' is in enabled state."));
  EXPECT_FALSE(m_support->isDGEnabled("dg2"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGEnabled - diskgroup 'dg2' is in disabled state."));
  EXPECT_FALSE(m_support->isDGEnabled("dg3"));
}

TEST_F(SupportOpsTest, IsDGEnabledIsFalseWhenTheListFails) {
  answer(cmd("qzdg   list "), 5, out({"a", "b"}));
  EXPECT_FALSE(m_support->isDGEnabled("dg1"));
  EXPECT_TRUE(
      wasTraced(5, "CQzVMSupport::isDGEnabled - CLI failed with output \n[---\n'a\nb\n'\n---]."));
}

TEST_F(SupportOpsTest, GetAllDGNamesTakesTheFirstColumnAfterTheHeader) {
  answer(cmd("qzdg   list "), 0, kDgList);
  Lines names;
  EXPECT_EQ(m_support->getAllDGNames(names), 0);
  EXPECT_EQ(names, (Lines{"dg1", "dg2"}));
}

TEST_F(SupportOpsTest, GetNewDGNameCountsFromTheProcessId) {
  long pid = getpid();
  std::string taken = "dg_" + std::to_string(pid);
  answer(cmd("qzdg   list "), 0, out({"NAME STATE ID", (taken + " enabled 1.1").c_str()}));
  std::string name;
  m_support->getNewDGName("dg", name);
  EXPECT_EQ(name, "dg_" + std::to_string(pid + 1));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::getNewDGName - created new unique dg name '" + name + "'."));
}

TEST_F(SupportOpsTest, GetNewDGNameGivesUpAfter1024Candidates) {
  long pid = getpid();
  Lines listing = out({"NAME STATE ID"});
  for (long i = 0; i < 1024; ++i) {
    listing.push_back("dg_" + std::to_string(pid + i) + " enabled 1.1\n");
  }
  answer(cmd("qzdg   list "), 0, listing);
  std::string name = "unchanged";
  m_support->getNewDGName("dg", name);
  EXPECT_EQ(name, "unchanged");
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::getNewDGName - unable to create new unique dg name."));
}

TEST_F(SupportOpsTest, GetNewDGNameWithoutBaseUsesATempName) {
  answer(cmd("qzdg   list "), 0, out({"NAME STATE ID"}));
  std::string name;
  EXPECT_EQ(m_support->getNewDGName(name), 0);
  // tempnam keeps five characters of the prefix.
  EXPECT_EQ(name.compare(0, 5, "tpu_f"), 0) << name;
  EXPECT_NE(name.find('_' + std::to_string(getpid())), std::string::npos) << name;
  EXPECT_EQ(name.find('/'), std::string::npos);
}

TEST_F(SupportOpsTest, IsDGExistComparesTheFreeNameWithTheGroup) {
  long pid = getpid();
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_TRUE(m_support->isDGExist("dg1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isDGExist - dg 'dg1' exists."));
  // The free name carries a suffix, so it never equals the group: the test
  // as designed answers "exists" unless cutting makes them equal.
  std::string longName(31, 'a');
  EXPECT_TRUE(m_support->isDGExist(longName));
  (void)pid;
}

TEST_F(SupportOpsTest, CreateDGWithoutCdsTool) {
  answer(cmd("qzdg   init dg1 sdb"), 0);
  answer(cmd("qzdg   -g dg1 adddisk sdc"), 0);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc"}, true), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   init dg1 sdb"), cmd("qzdg   -g dg1 adddisk sdc")}));
}

TEST_F(SupportOpsTest, CreateDGWithCdsToolAndMediaNames) {
  install(m_lib + "qzcdsconvert");
  answer(cmd("qzdg   init dg1 disk01=sdb  cds=off"), 0);
  answer(cmd("qzdg   -g dg1 adddisk  disk02=sdc"), 0);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc"}, {"disk01", "disk02"}, false), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   init dg1 disk01=sdb  cds=off"),
                               cmd("qzdg   -g dg1 adddisk  disk02=sdc")}));
}

TEST_F(SupportOpsTest, CreateDGStopsAtTheFirstFailure) {
  install(m_lib + "qzcdsconvert");
  answer(cmd("qzdg   init dg1 sdb  cds=on"), 0);
  answer(cmd("qzdg   -g dg1 adddisk sdc"), 7);
  EXPECT_EQ(m_support->createDG("dg1", {"sdb", "sdc", "sdd"}, true), 7);
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, ImportDGWithAndWithoutANewName) {
  answer(cmd("qzdg   -C  import 1001.1.host"), 0);
  answer(cmd("qzdg   -C  -n dg9 import dg1"), 3);
  EXPECT_FALSE(m_support->importDG("", "1001.1.host"));
  EXPECT_TRUE(m_support->importDG("dg9", "dg1"));
  EXPECT_TRUE(wasTraced(2, "CQzVMSupport::importDG - unable to import 'dg1' as 'dg9'."));
}

TEST_F(SupportOpsTest, DeportOfAGroupThatIsNotHereRunsNoDeport) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_FALSE(m_support->deportDG("dg1", true));
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1")}));
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already deported."));
}

TEST_F(SupportOpsTest, DeportOfAPresentGroup) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  EXPECT_FALSE(m_support->deportDG("dg1", false));
  EXPECT_EQ(commands().back(), cmd("qzdg   deport dg1"));
}

TEST_F(SupportOpsTest, DestroyDG) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_EQ(m_support->destroyDG("dg1", true), 0);
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already destroyed."));
  answer(cmd("qzdg   destroy dg1"), 4);
  EXPECT_EQ(m_support->destroyDG("dg1", false), 4);
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::destroyDG - destroying dgname='dg1'. This may or not may succeed"));
}

TEST_F(SupportOpsTest, FlushOnlineAndClearImportCommands) {
  answer(cmd("qzdg   flush dg1"), 0);
  answer(cmd("qzvol   -g dg1 startall "), 0);
  answer(cmd("qzvol   -g dg1 stopall "), 2);
  answer(cmd("qzdisk   clearimport  sdb sdc"), 0);
  EXPECT_FALSE(m_support->flushDGConfig("dg1"));
  EXPECT_FALSE(m_support->onlineDG("dg1", true));
  EXPECT_TRUE(m_support->onlineDG("dg1", false));
  EXPECT_FALSE(m_support->diskClearImport({"sdb", "sdc"}));
}

TEST_F(SupportOpsTest, EnableDGDeportsRescansImportsAndChecks) {
  answer(cmd("qzdg   list dg2"), 0);
  answer(cmd("qzdg   deport dg2"), 0);
  answer(cmd("qzdisk   scandisks "), 0);
  answer(cmd("qzdg   -C  import dg2"), 0);
  answer(cmd("qzdg   list "), 0, kDgList);
  EXPECT_EQ(m_support->enableDG("dg2"), 6);  // still disabled
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdg   list dg2"), cmd("qzdg   deport dg2"), cmd("qzdisk   scandisks "),
                   cmd("qzdg   -C  import dg2"), cmd("qzdg   list ")}));
  EXPECT_EQ(m_support->enableDG("dg1"), 6);  // dg1 is not answered: deport fails
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdg   -C  import dg1"), 0);
  EXPECT_EQ(m_support->enableDG("dg1"), 0);
}

TEST_F(SupportOpsTest, GetDGIDReadsTheDgidLine) {
  answer(cmd("qzdisk   -s  -g dg1 list "), 0,
         out({"Disk:   sdb", "dgname: dg1", "dgid:   1001.1.host", "hostid: host"}));
  std::string id;
  EXPECT_EQ(m_support->getDGID("/dev/qz/dsk/dg1/vol1", id), 0);
  EXPECT_EQ(id, "1001.1.host");
}

TEST_F(SupportOpsTest, GetDGSizeReadsTheNumber) {
  answer(cmd("qzassist  -g dg1  -p  maxsize "), 0, out({"2097152"}));
  unsigned long long size = 0;
  EXPECT_EQ(m_support->getDGSize("dg1", size), 0);
  EXPECT_EQ(size, 2097152u);
  answer(cmd("qzassist  -g dg2  -p  maxsize "), 9);
  size = 5;
  EXPECT_EQ(m_support->getDGSize("dg2", size), 9);
  EXPECT_EQ(size, 5u);
}

const Lines kDgDisks = out({"DEVICE       TYPE            DISK         GROUP        STATUS",
                            "qzarr0_1     auto:cdsdisk    disk01       dg1          online",
                            "qzarr0_2     auto:cdsdisk    disk02       dg1          online"});

TEST_F(SupportOpsTest, GetDisksForDGIsCached) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  Lines disks;
  EXPECT_EQ(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_EQ(disks, (Lines{"qzarr0_1", "qzarr0_2"}));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::getDisksForDG - getting disks under this object. dg=dg1"));
  Lines again;
  EXPECT_EQ(m_support->getDisksForDG("dg1", again), 0);
  EXPECT_EQ(again, disks);
  EXPECT_EQ(commands().size(), 1u);
  EXPECT_TRUE(wasTraced(3, "Debug: getDisksForDG returned value from map"));
}

TEST_F(SupportOpsTest, GetDisksForDGRejectsOutputWithoutHeader) {
  answer(cmd("qzdisk   -g dg1  list "), 0);
  Lines disks;
  EXPECT_NE(m_support->getDisksForDG("dg1", disks), 0);
  EXPECT_TRUE(wasTraced(2, "no output of command."));
  answer(cmd("qzdisk   -g dg2  list "), 0, out({"x y"}));
  EXPECT_NE(m_support->getDisksForDG("dg2", disks), 0);
  EXPECT_TRUE(wasTraced(2, "no valid output of command."));
}

TEST_F(SupportOpsTest, GetDMsFromDGFollowsTheCallersDiskOrder) {
  answer(cmd("qzdisk   -g dg1 list "), 0, kDgDisks);
  Lines dms;
  EXPECT_EQ(m_support->getDMsFromDG("dg1", {"qzarr0_2", "qzarr0_1"}, dms), 0);
  EXPECT_EQ(dms, (Lines{"disk02", "disk01"}));
  Lines more;
  EXPECT_NE(m_support->getDMsFromDG("dg1", {"qzarr0_9"}, more), 0);
  EXPECT_TRUE(wasTraced(2, "error in getting DM name from dg."));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisks) {
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   deport dg1"), 0);
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdg   list dg1"), cmd("qzdisk   -g dg1  list "),
                               cmd("qzdg   list dg1"), cmd("qzdg   deport dg1"),
                               cmd("qzdisk   rm qzarr0_1"), cmd("qzdisk   rm qzarr0_2")}));
}

TEST_F(SupportOpsTest, DeportDGAndRemoveDisksOfAnAbsentGroup) {
  answer(cmd("qzdg   list dg1"), 11);
  EXPECT_EQ(m_support->deportDGAndRemoveDisks("/dev/qz/dsk/dg1/vol1", true, false), 0);
  EXPECT_TRUE(wasTraced(3, "dg 'dg1' is already deported."));
}

// ---------- disks and multipath nodes ----------

TEST_F(SupportOpsTest, ScanCommands) {
  EXPECT_EQ(m_support->qzvmScanDisks(true), 0);
  EXPECT_EQ(m_support->qzvmScanDisks(false), 0);
  answer(cmd("qzdisk   scandisks  device=sdb,sdc"), 0);
  EXPECT_EQ(m_support->qzvmScanDisks(Lines{"sdb", "sdc"}), 0);
  EXPECT_NE(m_support->qzvmScanDisks(Lines{}), 0);  // unanswered in the seam
  EXPECT_EQ(commands(),
            (Lines{cmd("qzdisk   -f  scandisks  new "), cmd("qzdisk   scandisks "),
                   cmd("qzdisk   scandisks  device=sdb,sdc"), cmd("qzdisk   scandisks ")}));
  EXPECT_TRUE(wasTraced(3, "Debug: qzvmscandisks -- initializing devices in map"));
}

const Lines kDmpNode = out({"NAME         STATE        ENCLR-TYPE   PATHS  ENBL  DSBL  ENCLR-NAME",
                            "=====================================================================",
                            "qzarr0_3     ENABLED      QZARR        2      2     0     qzarr0"});

TEST_F(SupportOpsTest, WithoutDmpTheOSNamesAreTheNodes) {
  Lines nodes = {"stale"};
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb", "sdc"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"sdb", "sdc"}));
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - no dmp support available"));
}

TEST_F(SupportOpsTest, GetDmpNodeOfEachDisk) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::getQzVMDiskForOSDiskHandler - getting dmp for os disk. os disk name=sdb"));
}

TEST_F(SupportOpsTest, GetDmpNodeFailures) {
  installDmp();
  Lines nodes;
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0,
         Lines(kDmpNode.begin(), kDmpNode.begin() + 2));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "unable to get dmp node for disk 'sdb' as enabled"));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdc"), 0, out({"only"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdc"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "no output of command."));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdd"), 0, out({"====", "NAME STATE", "x ENABLED"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdd"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "no valid output of command."));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sde"), 1);
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sde"}, nodes), 1);
  EXPECT_TRUE(wasTraced(2, "unable to get dmp node for disk 'sde'"));
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdf"), 0,
         out({"NAME STATE", "=====", "qzarr0_4 DISABLED"}));
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdf"}, nodes), 1);
}

TEST_F(SupportOpsTest, FirstFailingDiskEndsTheLookup) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdc"), 1);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler({"sdb", "sdc", "sdd"}, nodes), 1);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, WaitedLookupMakesFourAttemptsWithPausesAndScans) {
  installDmp();
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 1);
  answer(cmd("qzdisk   scandisks  device=sdb"), 0);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler_Waited({"sdb"}, nodes), 1);
  EXPECT_EQ(runsOf(cmd("qzdmpadm   getdmpnode  nodename=sdb")), 4u);
  EXPECT_EQ(runsOf(cmd("qzdisk   scandisks  device=sdb")), 4u);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10, 10, 10, 10}));
  EXPECT_TRUE(wasTraced(6, "Obtaining dmp nodes failed. need to retry."));
  EXPECT_TRUE(wasTraced(2, "obtaining dmp nodes failed even after multiple retries."));
}

TEST_F(SupportOpsTest, WaitedLookupSucceedsOnALaterAttempt) {
  installDmp();
  expectOnce(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 1);
  answer(cmd("qzdmpadm   getdmpnode  nodename=sdb"), 0, kDmpNode);
  answer(cmd("qzdisk   scandisks  device=sdb"), 0);
  Lines nodes;
  EXPECT_EQ(m_support->getQzVMDiskForOSDiskHandler_Waited({"sdb"}, nodes), 0);
  EXPECT_EQ(nodes, (Lines{"qzarr0_3"}));
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{10}));
}

const char* const kSubpathsHeader = "NAME    STATE[A]     PATH-TYPE[M]  CTLR-NAME  ENCLR-TYPE";
const char* const kRule = "=================================================================";

TEST_F(SupportOpsTest, SubpathsPreferTheActivePath) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=qzarr0_3"), 0,
         out({kSubpathsHeader, kRule, "sdb     ENABLED      SECONDARY     c1   QZARR",
              "sdf     ENABLED(A)   PRIMARY       c2   QZARR"}));
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdf"}));
  EXPECT_TRUE(
      wasTraced(3,
                "CQzVMSupport::getOSDiskHandleForQzVMDisk - getting os device name for dmp  "
                "dmpname=qzarr0_3"));
  Lines cached;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, cached, false, false), 0);
  EXPECT_EQ(cached, (Lines{"sdf"}));
  EXPECT_EQ(commands().size(), 1u);
  EXPECT_TRUE(wasTraced(3, "Debug : getOSDiskHandleForQzVMDisk returned value from map"));
  Lines fresh;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"qzarr0_3"}, fresh, false, true), 0);
  EXPECT_EQ(commands().size(), 2u);
}

TEST_F(SupportOpsTest, SubpathsPreferAnEnabledPrimaryThenAnyEnabled) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED SECONDARY", "sdc ENABLED PRIMARY",
              "sdd DISABLED PRIMARY"}));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n2"), 0,
         out({kSubpathsHeader, kRule, "sde DISABLED PRIMARY", "sdg ENABLED SECONDARY",
              "sdh ENABLED SECONDARY"}));
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1", "n2"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdc", "sdg"}));
  Lines all;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"n1", "n2"}, all, true, true), 0);
  EXPECT_EQ(all, (Lines{"sdc", "sdb", "sdg", "sdh"}));
}

TEST_F(SupportOpsTest, SubpathsWithoutUsablePathFail) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb DISABLED PRIMARY"}));
  Lines os;
  EXPECT_NE(m_support->getOSDiskHandleForQzVMDisk({"n1"}, os, false, false), 0);
  EXPECT_TRUE(wasTraced(2, "Unable to get enabled disk path for dmp node 'n1'"));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n2"), 3);
  EXPECT_NE(m_support->getOSDiskHandleForQzVMDisk({"n2"}, os, false, false), 0);
  EXPECT_TRUE(wasTraced(2, "Unable to get os disk name for dmp node 'n2'"));
}

TEST_F(SupportOpsTest, WithoutDmpNodesAreTheirOwnPaths) {
  Lines os;
  EXPECT_EQ(m_support->getOSDiskHandleForQzVMDisk({"sdb"}, os, false, false), 0);
  EXPECT_EQ(os, (Lines{"sdb"}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::getOSDiskHandleForQzVMDisk - no dmp support available"));
}

TEST_F(SupportOpsTest, EnableAndDisablePaths) {
  installDmp();
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n1"), 0,
         out({kSubpathsHeader, kRule, "sdb ENABLED(A) PRIMARY", "sdc ENABLED SECONDARY"}));
  answer(cmd("qzdmpadm   enable  path=sdb"), 0);
  answer(cmd("qzdmpadm   enable  path=sdc"), 4);
  EXPECT_EQ(m_support->enableDMP("n1"), 0);
  EXPECT_TRUE(wasTraced(3, "Enable of os disk 'sdb' is successful."));
  EXPECT_TRUE(wasTraced(2, "Enable of os disk 'sdc' is failed."));
  EXPECT_TRUE(wasTraced(2, " Error in disabling os disk 'sdc' for qzdmp 'n1'."));
  // The cache now answers with the one preferred path.
  answer(cmd("qzdmpadm   -f  disable  path=sdb"), 4);
  EXPECT_EQ(m_support->disableDMP("n1"), 0);
  EXPECT_EQ(commands().back(), cmd("qzdmpadm   -f  disable  path=sdb"));
  EXPECT_TRUE(wasTraced(2, "Disable of os disk 'sdb' is failed."));
  EXPECT_TRUE(wasTraced(2, "Error in disabling os disk 'sdb' for qzdmp 'n1'."));
  answer(cmd("qzdmpadm   getsubpaths  dmpnodename=n9"), 1);
  EXPECT_EQ(m_support->disableDMP("n9"), 6);
}

TEST_F(SupportOpsTest, DiskSetupRetriesWithForce) {
  answer(tool("qzdisksetup   -i sdb  format=simple"), 1);
  answer(tool("qzdisksetup   -f  -i sdb  format=simple"), 0);
  answer(tool("qzdisksetup   -i sdc  format=simple"), 1);
  answer(tool("qzdisksetup   -f  -i sdc  format=simple"), 1);
  EXPECT_EQ(m_support->qzDiskSetup({"sdb", "sdc", "sdd"}), 1);
  EXPECT_EQ(commands().size(), 4u);
  EXPECT_EQ(m_support->qzDiskSetup({}), 0);
}

TEST_F(SupportOpsTest, DiskUnsetup) {
  answer(tool("qzdiskunsetup   -C sdb"), 0);
  EXPECT_FALSE(m_support->qzDiskUnsetup("sdb"));
  EXPECT_TRUE(wasTraced(
      3, "CQzVMSupport::qzDiskUnsetup - unset the disk to remove qzvm signature. disk='sdb'"));
  EXPECT_TRUE(m_support->qzDiskUnsetup("sdc"));
}

TEST_F(SupportOpsTest, IsCDSDisk) {
  vol_pvt_info simple;
  simple.vpi_format = "simple";
  vol_pvt_info cds;
  cds.vpi_format = "cdsdisk";
  EXPECT_FALSE(m_support->isCDSDisk({simple}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isCDSDisk - No cds disk."));
  EXPECT_TRUE(m_support->isCDSDisk({simple, cds}));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isCDSDisk - got cds disk."));
}

TEST_F(SupportOpsTest, SunLabelGoesOnAfterAFailure) {
  answer("/sbin/parted -s /dev/sdb mklabel  sun ", 1, out({"Error: ", "no disk"}));
  answer("/sbin/parted -s /dev/sdc mklabel  sun ", 0);
  m_support->createSUNLabel({"sdb", "sdc"});
  EXPECT_EQ(commands(), (Lines{"/sbin/parted -s /dev/sdb mklabel  sun ",
                               "/sbin/parted -s /dev/sdc mklabel  sun "}));
  EXPECT_TRUE(wasTraced(3, "calling command [/sbin/parted -s /dev/sdb mklabel  sun ]."));
  EXPECT_TRUE(wasTraced(1, "Failed to label disk[sdb] with message ==>Error: \nno disk\n."));
}

TEST_F(SupportOpsTest, RemoveDisksGoesOnAfterAFailure) {
  answer(cmd("qzdisk   rm sdb"), 1);
  answer(cmd("qzdisk   rm sdc"), 0);
  EXPECT_EQ(m_support->removeDisksFromQzVM({"sdb", "sdc"}, false), 0);
  EXPECT_EQ(commands().size(), 2u);
  EXPECT_TRUE(wasTraced(2, "removing disk from qzvm db is failed."));
}

TEST_F(SupportOpsTest, RefreshDisksRemovesAndRescans) {
  answer(cmd("qzdisk   rm sdb"), 0);
  EXPECT_EQ(m_support->refreshDisks({"sdb"}), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   rm sdb"), cmd("qzdisk   scandisks ")}));
}

TEST_F(SupportOpsTest, DisksInDBOptimizedDoesNotRescan) {
  answer(cmd("qzdisk   list sdb"), 0);
  answer(cmd("qzdisk   list sdc"), 1);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb", "sdc", "sdd"}, true), 1);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   list sdb"), cmd("qzdisk   list sdc")}));
  EXPECT_TRUE(
      wasTraced(2, "qzvm unable to see the snapshotted disks. optimized is set returning."));
  EXPECT_TRUE(m_pauses.empty());
}

TEST_F(SupportOpsTest, DisksInDBShareEightRescansAmongAllDisks) {
  answer(cmd("qzdisk   scandisks "), 0);
  // sdb shows up after two rescans, sdc after three more, sdd never.
  expectOnce(cmd("qzdisk   list sdb"), 1);
  expectOnce(cmd("qzdisk   list sdb"), 1);
  answer(cmd("qzdisk   list sdb"), 0);
  for (int i = 0; i < 3; ++i) {
    expectOnce(cmd("qzdisk   list sdc"), 1);
  }
  answer(cmd("qzdisk   list sdc"), 0);
  answer(cmd("qzdisk   list sdd"), 1);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb", "sdc", "sdd"}, false), 1);
  EXPECT_EQ(runsOf(cmd("qzdisk   scandisks ")), 8u);
  EXPECT_EQ(m_pauses, std::vector<unsigned>(7, 10));  // none before the first rescan
  EXPECT_TRUE(wasTraced(
      2, "after 8 attempts of qzdisk scandisks, qzvm unable to see the snapshotted disks."));
}

TEST_F(SupportOpsTest, DisksInDBFirstRescanComesWithoutPause) {
  answer(cmd("qzdisk   scandisks "), 0);
  expectOnce(cmd("qzdisk   list sdb"), 1);
  answer(cmd("qzdisk   list sdb"), 0);
  EXPECT_EQ(m_support->isDisksInQzVMDB({"sdb"}, false), 0);
  EXPECT_TRUE(m_pauses.empty());
}

TEST_F(SupportOpsTest, IsDiskShared) {
  EXPECT_TRUE(m_support->isDiskShared(out({"type: auto", "flags:   online ready shared"})));
  EXPECT_FALSE(m_support->isDiskShared(out({"flags: online", "shared"})));
}

TEST_F(SupportOpsTest, CheckDisksAgainstGroup) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  bool belongs = false;
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg1"}, {"qzarr0_2"}, belongs), 0);
  EXPECT_TRUE(belongs);
  EXPECT_TRUE(wasTraced(3, " disks belongs to dg."));
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg1"}, {"qzarr0_2", "x"}, belongs), 0);
  EXPECT_FALSE(belongs);
  EXPECT_TRUE(wasTraced(3, " disks not belongs to dg."));
  EXPECT_EQ(m_support->checkQzVMDiskAgainstDG({"dg9"}, {"x"}, belongs), 6);
}

// ---------- volumes and volume sets ----------

TEST_F(SupportOpsTest, ExtractDGAndVol) {
  std::string dg;
  std::string vol;
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1", dg, vol);
  EXPECT_EQ(dg, "dg1");
  EXPECT_EQ(vol, "vol1");
  EXPECT_TRUE(
      wasTraced(6, "CQzVMSupport::extractDGAndVol DBG - Extracted DG = [dg1] Volume = [vol1]"));
  m_support->extractDGAndVol("dev/qz/dsk/dg2/vol2", dg, vol);
  EXPECT_EQ(dg, "dg2");
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1/x", dg, vol);
  EXPECT_EQ(dg, "");
  EXPECT_EQ(vol, "");
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::extractDGAndVol ERROR - invalid volume path "
                        "[/dev/qz/dsk/dg1/vol1/x]"));
  dg = "x";
  m_support->extractDGAndVol("/dev/qz/dsk/dg1/vol1/", dg, vol);
  EXPECT_EQ(dg, "dg1");  // empty pieces are dropped
}

TEST_F(SupportOpsTest, VolumeCommandLines) {
  answer(cmd("qzvol   -g dg1 -U fsgen start vol1"), 0);
  answer(cmd("qzvol   -g dg1 start vol2"), 1);
  answer(cmd("qzvol   -g dg1 stop vol1"), 0);
  answer(cmd("qzassist  -g dg1  make  vol1 2048"), 0);
  EXPECT_EQ(m_support->onlineVolume("dg1", "vol1", "fsgen"), 0);
  EXPECT_EQ(m_support->onlineVolume("dg1", "vol2", ""), 1);
  EXPECT_TRUE(wasTraced(2, " Unable to online dg 'dg1' and volume 'vol2'"));
  EXPECT_EQ(m_support->onOffVolume("dg1", "vol1", " stop "), 0);
  EXPECT_EQ(m_support->createVolume("vol1", "dg1", 2048), 0);
  EXPECT_EQ(m_support->applyVolConfig("dg1", "/tmp/f"), 1);
  EXPECT_EQ(commands().back(), cmd("qzmake   -g dg1 -d /tmp/f"));
}

TEST_F(SupportOpsTest, IsVolStarted) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1     fsgen    Started"}));
  answer(cmd("qzinfo   -g dg1 vol2"), 0, out({"vol2     fsgen    Startable"}));
  answer(cmd("qzinfo   -g dg1 vol3"), 0);
  answer(cmd("qzinfo   -g dg1 vol4"), 2);
  EXPECT_TRUE(m_support->isVolStarted("dg1", "vol1"));
  EXPECT_TRUE(
      wasTraced(3, "CQzVMSupport::isVolStarted - volume is already started. dg=dg1 volume=vol1"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol2"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol3"));
  EXPECT_TRUE(wasTraced(2, "command successful but no output. dg=dg1 volume=vol3"));
  EXPECT_FALSE(m_support->isVolStarted("dg1", "vol4"));
  EXPECT_TRUE(wasTraced(2, "command failed. dg=dg1 volume=vol4"));
}

TEST_F(SupportOpsTest, IsVolume) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1     fsgen    Started"}));
  EXPECT_TRUE(m_support->isVolume("/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isVolume - Volume Exist"));
  EXPECT_FALSE(m_support->isVolume("/dev/qz/dsk/dg1/vol9"));
  EXPECT_TRUE(wasTraced(2, "Volume does NOT Exist. volume=vol9"));
}

TEST_F(SupportOpsTest, BusyVolumeFreedOnTheThirdRetry) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  for (int i = 0; i < 3; ++i) {
    expectOnce(stop, 31, out({"QZVM qzvol ERROR Q-5-1-15 Volume vol1 is busy"}));
  }
  answer(stop, 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1", nullptr), 0);
  EXPECT_EQ(runsOf(stop), 4u);
  EXPECT_EQ(m_pauses, (std::vector<unsigned>{1, 1, 1}));
  EXPECT_TRUE(wasTraced(2, "Retrying as the volume vol1 is busy."));
  EXPECT_TRUE(wasTraced(2, "Offline retry [3/8]"));
}

TEST_F(SupportOpsTest, BusyVolumeThatNeverFreesFailsAfterEightRetries) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  answer(stop, 31);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(runsOf(stop), 9u);
  EXPECT_EQ(m_pauses, std::vector<unsigned>(8, 1));
  EXPECT_TRUE(wasTraced(2, "Offline retry [8/8]"));
  EXPECT_EQ(runsOf(cmd("qzdg   flush dg1")), 0u);
}

TEST_F(SupportOpsTest, StopFailureNamingTheDaemonErrorFlushesOnce) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  expectOnce(stop, 1, out({"QZVM qzvol ERROR ", "Q-5-1-10128 stale configuration"}));
  answer(stop, 1);
  answer(cmd("qzdg   flush dg1"), 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(commands(), (Lines{stop, cmd("qzdg   flush dg1"), stop}));
  EXPECT_TRUE(m_pauses.empty());
  EXPECT_TRUE(wasTraced(2, "qzvol stop failed for [vol1], trying dg flush"));
}

TEST_F(SupportOpsTest, StopFailureWithError441FlushesAndSucceeds) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  expectOnce(stop, 1, out({"Configuration daemon error 441"}));
  answer(stop, 0);
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 0);
  EXPECT_EQ(runsOf(cmd("qzdg   flush dg1")), 1u);
}

TEST_F(SupportOpsTest, OtherStopFailuresAreFinal) {
  const std::string stop = cmd("qzvol   -g dg1 stop vol1");
  answer(stop, 1, out({"QZVM qzvol ERROR Q-5-1-2 other"}));
  EXPECT_EQ(m_support->offlineVolume("dg1", "vol1"), 1);
  EXPECT_EQ(commands(), (Lines{stop}));
}

TEST_F(SupportOpsTest, StopAndStartVolumeLists) {
  answer(cmd("qzinfo   -g dg1 a"), 0, out({"a gen Started"}));
  answer(cmd("qzinfo   -g dg1 b"), 0, out({"b gen Startable"}));
  answer(cmd("qzvol   -g dg1 stop a"), 2);
  EXPECT_EQ(m_support->stopDCOVols("dg1", {"b", "a"}), 6);
  EXPECT_TRUE(wasTraced(1, "CQzVMSupport::stopDCOVols - offline of volume failed."));
  answer(cmd("qzvol   -g dg1 -U gen start b"), 0);
  EXPECT_EQ(m_support->startDCOVols("dg1", {"a", "b"}, "gen"), 0);
  EXPECT_EQ(runsOf(cmd("qzvol   -g dg1 -U gen start b")), 1u);
  answer(cmd("qzvol   -g dg1 -U gen start b"), 3);
  EXPECT_EQ(m_support->startDCOVols("dg1", {"b"}, "gen"), 6);
  EXPECT_TRUE(wasTraced(2, "failed to start volume."));
}

const Lines kPrintV = out({"TY NAME         ASSOC        KSTATE   LENGTH   PLOFFS   STATE",
                           "v  vol1         fsgen        ENABLED  204800   -        ACTIVE",
                           "v  vol1_dcl     gen          ENABLED  544      -        ACTIVE",
                           "vt vset1        -            ENABLED  -        -        ACTIVE",
                           "pl vol1-01      vol1         ENABLED  204800   -        ACTIVE"});

TEST_F(SupportOpsTest, GetVolumesFromDG) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzprint   -g dg1  -v "), 0, kPrintV);
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, false), 0);
  EXPECT_EQ(names, (Lines{"vol1", "vol1_dcl", "vset1", "vol1-01"}));
  bool found = false;
  EXPECT_EQ(m_support->checkVolumeInDG("dg1", "vol1_dcl", found, false), 0);
  EXPECT_TRUE(found);
  EXPECT_TRUE(wasTraced(3, "Check for volume/vset 'vol1_dcl' in dg 'dg1' is successful."));
  EXPECT_EQ(m_support->checkVolumeInDG("dg1", "vol", found, false), 0);
  EXPECT_FALSE(found);
  EXPECT_TRUE(wasTraced(3, "Check for volume/vset 'vol' in dg 'dg1' is failed.."));
}

TEST_F(SupportOpsTest, GetVolumesFromDGHeaderRules) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzprint   -g dg1  -x "), 0, out({"junk", "TY NAME", "vt vset1"}));
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, true), 1);
  EXPECT_TRUE(wasTraced(2, "invalid output of command."));
  answer(cmd("qzprint   -g dg1  -v "), 0, out({"no header", "at all"}));
  EXPECT_EQ(m_support->getVolumesFromDG("dg1", names, false), 0);
  EXPECT_TRUE(names.empty());
  std::vector<std::string> vsets, vols, dcos;
  answer(cmd("qzprint   -g dg1  vol1"), 0, out({"junk", "TY NAME", "v vol1 fsgen"}));
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", "vol1"), 1);
  answer(cmd("qzprint   -g dg1"), 0, out({"no header", "at all"}));
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", ""), 0);
  EXPECT_TRUE(vols.empty());
}

TEST_F(SupportOpsTest, GetVolumesFromDGEnablesADisabledGroupFirst) {
  answer(cmd("qzdg   list "), 0, kDgList);
  answer(cmd("qzdg   list dg2"), 0);
  answer(cmd("qzdg   deport dg2"), 7);
  Lines names;
  EXPECT_EQ(m_support->getVolumesFromDG("dg2", names, false), 1);
  EXPECT_TRUE(wasTraced(2, "failed to enable diskgroup dg2"));
}

TEST_F(SupportOpsTest, GetQzVMObjectsSortsRecords) {
  answer(cmd("qzprint   -g dg1  vol1"), 0, kPrintV);
  std::vector<std::string> vsets, vols, dcos;
  EXPECT_EQ(m_support->getQzVMObjects(vsets, vols, dcos, "dg1", "vol1"), 0);
  EXPECT_EQ(vols, (Lines{"vol1"}));
  EXPECT_EQ(dcos, (Lines{"vol1_dcl"}));
  EXPECT_EQ(vsets, (Lines{"vset1"}));
  EXPECT_TRUE(wasTraced(3, "Getting qzvm vset, vol, dco for dg [dg1] and volume [vol1]"));
}

TEST_F(SupportOpsTest, VSetQueries) {
  answer(cmd("qzprint   -g dg1"), 0, kPrintV);
  EXPECT_TRUE(m_support->isVSet("/dev/qz/dsk/dg1/vset1"));
  EXPECT_FALSE(m_support->isVSet("/dev/qz/dsk/dg1/vol1"));
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isVSet - vset does NOT Exist"));
  answer(cmd("qzprint   -g dg1 vset1"), 0, out({"TY NAME ASSOC KSTATE", "vt vset1 - DISABLED"}));
  bool on = true;
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset1", on), 0);
  EXPECT_FALSE(on);
  EXPECT_TRUE(wasTraced(3, "found vset 'vset1' as 'DISABLED'."));
  answer(cmd("qzprint   -g dg1 vset2"), 0, out({"TY NAME ASSOC KSTATE"}));
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset2", on), 6);
  EXPECT_TRUE(
      wasTraced(3, " Not valid format of command '" + cmd("qzprint   -g dg1 vset2") + "'."));
  answer(cmd("qzprint   -g dg1 vset3"), 4);
  EXPECT_EQ(m_support->isVsetOn("dg1", "vset3", on), 6);
  EXPECT_TRUE(wasTraced(2, "Unable to check state of vset 'vset3'."));
}

TEST_F(SupportOpsTest, VerifySubObjectsNeedsTheSameOrder) {
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  bool same = false;
  EXPECT_EQ(m_support->verifySubObjects("dg1", "vol1", {"qzarr0_1", "qzarr0_2"}, false, same), 0);
  EXPECT_TRUE(same);
  EXPECT_TRUE(wasTraced(3, "CQzVMPlugin::verifySubObjects - successful."));
  EXPECT_EQ(m_support->verifySubObjects("dg1", "vol1", {"qzarr0_2", "qzarr0_1"}, false, same), 0);
  EXPECT_FALSE(same);
}

TEST_F(SupportOpsTest, SsodOnlineVolumeImportsStartsAndVerifies) {
  answer(cmd("qzinfo   -g dg1 vol1"), 0, out({"vol1 fsgen Startable"}));
  answer(cmd("qzdg   list dg1"), 11);
  answer(cmd("qzdg   -C  -n dg1 import dg1"), 0);
  answer(cmd("qzvol   -g dg1 start vol1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  EXPECT_EQ(m_support->ssodOnlineVolume("dg1", "vol1", {"qzarr0_2", "qzarr0_1"}), 3);
  EXPECT_TRUE(
      wasTraced(1,
                "CQzVMSupport::ssodOnlineVolume -  there is mismatch in disks under volume or "
                "dg. verification of subobjects(  disks ) under volume 'vol1' and  dg 'dg1' "
                "failed."));
  EXPECT_EQ(m_support->ssodOnlineVolume("dg1", "vol1", {"qzarr0_1", "qzarr0_2"}), 0);
}

TEST_F(SupportOpsTest, CreateNewVolumeOnOSDisks) {
  answer(cmd("qzdisk   rm sdb1"), 0);
  answer("/sbin/parted -s /dev/sdb mklabel  sun ", 0);
  answer(tool("qzdisksetup   -i sdb1  format=simple"), 0);
  answer(cmd("qzdg   init dgx sdb1"), 0);
  answer(cmd("qzassist  -g dgx  -p  maxsize "), 0, out({"4096"}));
  answer(cmd("qzassist  -g dgx  make  volx 4096"), 0);
  EXPECT_EQ(m_support->createNewVolumeOnOSDisks("dgx", "volx", {"sdb1"}), 0);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   rm sdb1"), "/sbin/parted -s /dev/sdb mklabel  sun ",
                               tool("qzdisksetup   -i sdb1  format=simple"),
                               cmd("qzdg   init dgx sdb1"), cmd("qzassist  -g dgx  -p  maxsize "),
                               cmd("qzassist  -g dgx  make  volx 4096")}));
}

TEST_F(SupportOpsTest, RemoveSnapshotWithoutDestroyFlagDoesNotLookFirst) {
  answer(cmd("qzdisk   -g dg1  list "), 1);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", false), 6);
  EXPECT_EQ(commands(), (Lines{cmd("qzdisk   -g dg1  list ")}));
  answer(cmd("qzdg   list dg2"), 11);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg2/vol1", true), 0);
  EXPECT_TRUE(wasTraced(3, " snapshot dg 'dg2' is already removed."));
}

TEST_F(SupportOpsTest, RemoveSnapshotDestroysRemovesAndDeletesDevices) {
  for (const char* name : {"qzarr0_1", "qzarr0_2"}) {
    std::filesystem::create_directories(m_folder + "/sys/block/" + name + "/device");
  }
  answer(cmd("qzdg   list dg1"), 0);
  answer(cmd("qzdisk   -g dg1  list "), 0, kDgDisks);
  answer(cmd("qzdg   destroy dg1"), 0);
  answer(cmd("qzdisk   rm qzarr0_1"), 0);
  answer(cmd("qzdisk   rm qzarr0_2"), 0);
  EXPECT_EQ(m_support->removeSnapshot("/dev/qz/dsk/dg1/vol1", true), 0);
  EXPECT_EQ(readFile(m_folder + "/sys/block/qzarr0_2/device/delete"), "1");
}

// ---------- private regions and configuration rewriting ----------

const Lines kDiskListing =
    out({"Device:    qzarr0_1", "devicetag: qzarr0_1", "type:      auto", "hostid:    hostA",
         "disk:      name=disk01 id=1001.11.hostA", "group:     name=dg1 id=1001.1.hostA",
         "info:      format=cdsdisk,privoffset=256,pubslice=3,privslice=3",
         "flags:     online ready private autoconfig",
         "public:    slice=3 offset=65792 len=2031360 disk_offset=0",
         "private:   slice=3 offset=256 len=65536 disk_offset=0", "configs:   count=1 len=51360",
         "logs:      count=1 len=4096"});

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

// Plain substring matches: the first pair in list order whose primary name
// occurs wins, even inside a longer name.
TEST_F(SupportOpsTest, ReplacePatternTakesTheFirstPairThatOccurs) {
  std::string result;
  m_support->replacePattern("\tda_name=sdba\n", "dg1", "dg9", {"sdb", "sdba"}, {"sdx", "sdy"}, {},
                            {}, result);
  EXPECT_EQ(result, "\tda_name=sdxa\n");
  m_support->replacePattern("\tda_name=sdba\n", "dg1", "dg9", {"sdba", "sdb"}, {"sdy", "sdx"}, {},
                            {}, result);
  EXPECT_EQ(result, "\tda_name=sdy\n");
  // Only the text after the first "=" is searched.
  m_support->replacePattern("\tsdb_path=sdb\n", "dg1", "dg9", {"sdb"}, {"sdx"}, {}, {}, result);
  EXPECT_EQ(result, "\tsdb_path=sdx\n");
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
  EXPECT_EQ(volume, "vol1");
  answer(cmd("qzprint   -g dg1  -v "), 0, out({"TY NAME", "ignored? no: listed"}));
  answer(cmd("qzprint   -g dg1  -v "), 0, out({"TY NAME"}));
}

TEST_F(SupportOpsTest, RegenerateDGFromDiskWithoutDgid) {
  answer(cmd("qzdisk   list sdb"), 0, out({"Device: sdb", "type: auto"}));
  std::string dg;
  EXPECT_EQ(m_support->regenerateDGFromDisk({"sdb"}, dg), 6);
  EXPECT_TRUE(wasTraced(1,
                        "CQzVMSupport::regenerateDGFromDisk - got invalid(empty) dgid from disk's "
                        "private data. dmp disk 'sdb'"));
}

TEST_F(SupportOpsTest, IsQzVMDiskNeedsAGroupOnTheDisk) {
  answer(cmd("qzdisk   list qzarr0_1"), 0, kDiskListing);
  answer(cmd("qzdisk   list sdc"), 0, out({"Device: sdc", "type: auto"}));
  bool answerFlag = false;
  EXPECT_EQ(m_support->isQzVMDisk("sdb", "qzarr0_1", answerFlag, false), 0);
  EXPECT_TRUE(answerFlag);
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isQzVMDisk - 'sdb' is a qzvm disk"));
  EXPECT_EQ(m_support->isQzVMDisk("sdc", "sdc", answerFlag, false), 0);
  EXPECT_FALSE(answerFlag);
  EXPECT_TRUE(wasTraced(3, "CQzVMSupport::isQzVMDisk - 'sdc' is not a qzvm disk"));
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

// The door: object paths, disk lists and provider states checked with the
// command layer's rule of names, before anything is run.
#include "door.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "plugin_env.h"
#include "report.h"
#include "support/qzvm_support.h"

namespace {

using qzvmfi_door::SRefusal;
using Lines = std::vector<std::string>;

class DoorTest : public qzvmfi_test::PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    m_support = std::make_unique<CQzVMSupport>();
  }
  void TearDown() override {
    m_support.reset();
    PluginEnv::TearDown();
  }

  // The refusal of the provider state text, as the plug-in reads it.
  SRefusal stateRefusal(const std::string& text) {
    CQzVMData data(nullptr, false);
    std::string bytes = text;
    qfi_blob blob{bytes.size() + 1, &bytes[0], 1};
    const bool brokeOff = data.extractFromBlob(&blob) == 1;
    return qzvmfi_door::checkProviderState(data, *m_support, brokeOff);
  }

  // A provider state of group dg1 on disk sdb, as deport leaves it.
  static std::string state() {
    return "fiid_v vol1 vol1_dcl\n"
           "fiid_altvol /dev/qz/dsk/dg1/vol1\n"
           "fiid_dgid 17.9.A\n"
           "fiid_volpriv sdb qzarr0_0 qzarr0_0 5\n"
           "Device:    qzarr0_0\n"
           "type:      auto\n"
           "disk:      name=qzarr0_0 id=17.1.A\n"
           "group:     name=dg1 id=17.9.A\n"
           "private:   slice=3 offset=256 len=65536\n"
           "\n"
           "\n"
           "fiid_dgconfig dg1 6\n"
           "dg dg1\n"
           "\tdgid=17.9.A\n"
           "sd qzarr0_0-01\n"
           "\tdm_name=qzarr0_0\n"
           "\tpath=/dev/qz/dmp/qzarr0_0s3\n"
           "\tguid={00000002-51a1}\n"
           "\n"
           "fiid_uigid 0 0";
  }

  static std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const size_t at = text.find(from);
    EXPECT_NE(std::string::npos, at) << from;
    return text.replace(at, from.size(), to);
  }

  std::unique_ptr<CQzVMSupport> m_support;
};

TEST_F(DoorTest, ObjectPathsAreNamesAllTheWay) {
  EXPECT_FALSE(qzvmfi_door::checkObjectPath("the object path", "/dev/qz/dsk/dg1/vol1"));
  EXPECT_FALSE(qzvmfi_door::checkObjectPath("the object path", nullptr));
  const SRefusal shell = qzvmfi_door::checkObjectPath("the object path", "/dev/qz/dsk/dg$(x)/v");
  ASSERT_TRUE(shell);
  EXPECT_EQ("the object path", shell.where);
  EXPECT_EQ("/dev/qz/dsk/dg$(x)/v", shell.value);
  EXPECT_TRUE(shell.name);
  EXPECT_TRUE(qzvmfi_door::checkObjectPath("p", "/dev/qz/dsk/../etc/v"));
  EXPECT_TRUE(qzvmfi_door::checkObjectPath("p", "/dev/qz/dsk/dg 1/v"));
  EXPECT_TRUE(
      qzvmfi_door::checkObjectPath("p", ("/dev/qz/dsk/" + std::string(32, 'd') + "/v").c_str()));
  EXPECT_EQ(
      "it is longer than 31 characters",
      qzvmfi_door::checkObjectPath("p", ("/dev/qz/dsk/dg/" + std::string(300, 'v')).c_str()).why);
  EXPECT_TRUE(qzvmfi_door::checkObjectPath("p", ""));
}

TEST_F(DoorTest, DiskListsHoldNamesEachOnce) {
  EXPECT_FALSE(qzvmfi_door::checkDiskList("the disks", {"/dev/sdb", "sdc"}));
  const SRefusal twice = qzvmfi_door::checkDiskList("the disks", {"/dev/sdb", "sdb"});
  ASSERT_TRUE(twice);
  EXPECT_FALSE(twice.name);
  EXPECT_EQ("sdb", twice.value);
  EXPECT_EQ("the disk is named twice", twice.why);
  const SRefusal hostile = qzvmfi_door::checkDiskList("the disks", {"/dev/sd;b"});
  ASSERT_TRUE(hostile);
  EXPECT_EQ("sd;b", hostile.value);
  EXPECT_TRUE(qzvmfi_door::checkDiskList("the disks", {"/dev/../etc/passwd"}));
  EXPECT_TRUE(qzvmfi_door::checkDiskList("the disks", {""}));
}

// A group's disks, cleared of their import locks in one command: the
// longest such command (the longest tools' folder, the longest names) at
// the most disks still starts; one disk more is refused before anything
// runs.
TEST_F(DoorTest, DiskListsHoldAtMostTheDisksOfOneCommand) {
  EXPECT_EQ(3967u, qzvmfi_door::kMaxGroupDisks);
  auto names = [](size_t count) {
    Lines disks;
    for (size_t i = 0; i < count; ++i) {
      const std::string number = std::to_string(i);
      disks.push_back("/dev/" + std::string(31 - number.size(), 'd') + number);
    }
    return disks;
  };
  const Lines most = names(qzvmfi_door::kMaxGroupDisks);
  EXPECT_FALSE(qzvmfi_door::checkDiskList("the secondary disk list", most));
  const SRefusal past =
      qzvmfi_door::checkDiskList("the secondary disk list", names(qzvmfi_door::kMaxGroupDisks + 1));
  ASSERT_TRUE(past);
  EXPECT_FALSE(past.name);
  EXPECT_EQ("the secondary disk list", past.where);
  EXPECT_EQ("3968 disks", past.value);
  EXPECT_EQ(
      "a group holds at most 3967 disks: the command that clears the import locks of every disk "
      "(qzdisk clearimport) must fit the 131072 bytes of one argument",
      past.why);

  // The longest command at the limit, as the pipe runner starts it.
  const std::string folder = "/" + std::string(qzvmfi_door::kMaxToolsFolderLength - 2, 'f') + "/";
  ASSERT_EQ(qzvmfi_door::kMaxToolsFolderLength, folder.size());
  CQzVMCommandLine line(folder, "qzdisk  ");
  line.add(" clearimport ");
  for (const std::string& disk : most) {
    line.add(" ", disk.substr(5));
  }
  ASSERT_EQ(nullptr, line.refusal());
  std::string text = line.text();
  EXPECT_LE(text.size() + 1, qzvmfi_door::kMaxArgumentBytes);
  // ":" in place of the tool, so that the shell only parses the line.
  text.replace(0, line.toolPath().size(), std::string(line.toolPath().size(), ' '));
  text[0] = ':';
  auto runs = [](const std::string& command) {
    const pid_t pid = fork();
    if (pid == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
      _exit(errno == E2BIG ? 7 : 8);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(0, runs(text));
  // What the limit keeps out: the same line one disk longer does not start.
  EXPECT_EQ(7, runs(text + " " + std::string(31, 'd')));
}

TEST_F(DoorTest, PairedListsHaveOneLength) {
  EXPECT_FALSE(qzvmfi_door::checkSameLength("the secondary disk list", {"a", "b"}, {"c", "d"}));
  const SRefusal refusal =
      qzvmfi_door::checkSameLength("the secondary disk list", {"a", "b"}, {"c"});
  ASSERT_TRUE(refusal);
  EXPECT_EQ("2 primary and 1 secondary disks", refusal.value);
  EXPECT_FALSE(refusal.name);
}

TEST_F(DoorTest, ASoundProviderStatePasses) {
  EXPECT_FALSE(stateRefusal(state())) << stateRefusal(state()).where;
}

// Each place where the provider state carries a name, with the field that
// the refusal names.
TEST_F(DoorTest, EveryNameOfTheProviderStateIsChecked) {
  const std::string hostile = "x$(touch${IFS}pwned)";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {replaced(state(), "fiid_v vol1", "fiid_v " + hostile), "(record fiid_v, field volume)"},
      {"fiid_vt set;1\n" + state(), "(record fiid_vt, field volume set)"},
      {replaced(state(), "fiid_altvol /dev/qz/dsk/dg1", "fiid_altvol /dev/qz/dsk/../.."),
       "(record fiid_altvol, field volume path)"},
      {replaced(state(), "fiid_dgid 17.9.A", "fiid_dgid " + std::string(300, '7')),
       "(record fiid_dgid, field group id)"},
      {replaced(state(), "fiid_volpriv sdb", "fiid_volpriv ../sdb"),
       "(record fiid_volpriv, field OS disk)"},
      {replaced(state(), "sdb qzarr0_0 qzarr0_0", "sdb qzarr0_0 " + hostile),
       "(record fiid_volpriv, field multipath node of sdb)"},
      {replaced(state(), "sdb qzarr0_0 qzarr0_0", "sdb -dm qzarr0_0"),
       "(record fiid_volpriv, field disk-media name of sdb)"},
      {replaced(state(), "Device:    qzarr0_0", "Device:    qzarr 0_0"),
       "(record fiid_volpriv, field private region of sdb, Device)"},
      {replaced(state(), "offset=256", "offset=$(reboot)"),
       "(record fiid_volpriv, field private region of sdb, private offset)"},
      {replaced(state(), "fiid_dgconfig dg1", "fiid_dgconfig " + hostile),
       "(record fiid_dgconfig, field group)"},
      {replaced(state(), "sd qzarr0_0-01", "sd qzarr0_0-01 `x`"),
       "(record fiid_dgconfig, field name of a sd record)"},
      {replaced(state(), "dm_name=qzarr0_0", "dm_name=../x"),
       "(record fiid_dgconfig, field dm_name of sd qzarr0_0-01)"},
      {replaced(state(), "path=/dev/qz/dmp/qzarr0_0s3", "path=/dev/qz/dmp/../../../etc"),
       "(record fiid_dgconfig, field path of sd qzarr0_0-01)"},
  };
  for (const auto& [text, field] : cases) {
    SCOPED_TRACE(field);
    const SRefusal refusal = stateRefusal(text);
    ASSERT_TRUE(refusal);
    EXPECT_TRUE(refusal.name);
    EXPECT_EQ("the provider state " + field, refusal.where);
  }
}

// What the records cannot keep: a disk or node named by two records, a
// count that leaves lines out, a value that the listing's reader would
// stop the process at.
TEST_F(DoorTest, TheShapeOfTheProviderStateIsChecked) {
  const std::string record = "fiid_volpriv sdc qzarr0_1 qzarr0_1 1\nDevice:    qzarr0_1\n\n";
  const SRefusal disk = stateRefusal(
      replaced(state(), "fiid_dgconfig",
               replaced(record, "fiid_volpriv sdc", "fiid_volpriv sdb") + "fiid_dgconfig"));
  ASSERT_TRUE(disk);
  EXPECT_FALSE(disk.name);
  EXPECT_EQ("the provider state (record fiid_volpriv, field OS disk)", disk.where);
  EXPECT_EQ("two records name this disk", disk.why);
  const SRefusal node = stateRefusal(
      replaced(state(), "fiid_dgconfig",
               replaced(record, "qzarr0_1 qzarr0_1", "qzarr0_1 qzarr0_0") + "fiid_dgconfig"));
  ASSERT_TRUE(node);
  EXPECT_EQ("the provider state (record fiid_volpriv, field multipath node)", node.where);
  const SRefusal medium =
      stateRefusal(replaced(state(), "fiid_dgconfig",
                            replaced(record, "sdc qzarr0_1", "sdc qzarr0_0") + "fiid_dgconfig"));
  ASSERT_TRUE(medium);
  EXPECT_EQ("the provider state (record fiid_volpriv, field disk-media name)", medium.where);
  const SRefusal count =
      stateRefusal(replaced(state(), "fiid_dgconfig dg1 6", "fiid_dgconfig dg1 5"));
  ASSERT_TRUE(count);
  EXPECT_EQ("the provider state (record fiid_dgconfig, field line count)", count.where);
  EXPECT_EQ("5", count.value);
  EXPECT_EQ("its count of 5 leaves out lines that follow it", count.why);
  const SRefusal comma = stateRefusal(replaced(state(), "offset=256", "offset=,256"));
  ASSERT_TRUE(comma);
  EXPECT_EQ("a value begins with a comma", comma.why);
  // A count that runs past the end is refused, whichever record it is in.
  const SRefusal past =
      stateRefusal(replaced(state(), "fiid_dgconfig dg1 6", "fiid_dgconfig dg1 60"));
  ASSERT_TRUE(past);
  EXPECT_EQ("the provider state (record fiid_dgconfig, field line count)", past.where);
  EXPECT_EQ("60", past.value);
  EXPECT_EQ("its count of 60 runs past the end of the provider state: only 7 lines follow it",
            past.why);
  EXPECT_FALSE(past.name);
  const SRefusal listing =
      stateRefusal("fiid_volpriv sdb qzarr0_0 qzarr0_0 2\nDevice:    qzarr0_0");
  ASSERT_TRUE(listing);
  EXPECT_EQ("the provider state (record fiid_volpriv, field line count)", listing.where);
  EXPECT_EQ("its count of 2 runs past the end of the provider state: only 1 line follows it",
            listing.why);
  EXPECT_EQ("its count of 1 runs past the end of the provider state: no line follows it",
            stateRefusal("fiid_dgconfig dg1 1\n\n").why);
}

// A state is for the object of its node: its group is the path's group and
// its dump names the path's volume.
TEST_F(DoorTest, AStateIsItsObjectsState) {
  const auto objectRefusal = [](const std::string& text, const std::string& path) {
    CQzVMData data(nullptr, false);
    std::string bytes = text;
    qfi_blob blob{bytes.size() + 1, &bytes[0], 1};
    data.extractFromBlob(&blob);
    return qzvmfi_door::checkStateObject(data, path);
  };
  EXPECT_FALSE(objectRefusal(state(), "/dev/qz/dsk/dg1/vol1"));
  EXPECT_FALSE(objectRefusal(state(), "/dev/qz/rdsk/dg1/vol1"));
  // Not a volume path: the path's own check is elsewhere.
  EXPECT_FALSE(objectRefusal(state(), "/dev/sdb"));
  // A state that records no group: an alternate node's.
  EXPECT_FALSE(objectRefusal("fiid_v vol1\nfiid_uigid 0 0", "/dev/qz/dsk/dg1_1234/vol1"));
  const SRefusal group = objectRefusal(state(), "/dev/qz/dsk/dg1_1234/vol1");
  ASSERT_TRUE(group);
  EXPECT_EQ("the provider state (record fiid_dgconfig, field group)", group.where);
  EXPECT_EQ("dg1", group.value);
  EXPECT_EQ(
      "the state records the group dg1, but its node's object /dev/qz/dsk/dg1_1234/vol1 lies in "
      "the group dg1_1234",
      group.why);
  EXPECT_FALSE(group.name);
  // The dump of another group under the record's group name.
  const SRefusal dump =
      objectRefusal(replaced(state(), "dg dg1\n", "dg dg9\n"), "/dev/qz/dsk/dg1/v");
  ASSERT_TRUE(dump);
  EXPECT_EQ("the provider state (record fiid_dgconfig, field name of a dg record)", dump.where);
  EXPECT_EQ("dg9", dump.value);
  // A dump with volumes names the path's.
  const std::string volumes =
      replaced(replaced(state(), "fiid_dgconfig dg1 6\n", "fiid_dgconfig dg1 8\n"),
               "sd qzarr0_0-01\n", "vol vol1\n\tlen=1\nsd qzarr0_0-01\n");
  EXPECT_FALSE(objectRefusal(volumes, "/dev/qz/dsk/dg1/vol1"));
  EXPECT_FALSE(objectRefusal(volumes, "/dev/qz/dsk/dg1/vol1_dcl"));  // in fiid_v
  const SRefusal volume = objectRefusal(volumes, "/dev/qz/dsk/dg1/vol7");
  ASSERT_TRUE(volume);
  EXPECT_EQ("the provider state (record fiid_dgconfig, field volumes)", volume.where);
  EXPECT_EQ("vol7", volume.value);
  EXPECT_EQ("the state names no volume vol7, the volume of its node's object /dev/qz/dsk/dg1/vol7",
            volume.why);
  // Without volume records, the dump says nothing of volumes.
  EXPECT_FALSE(objectRefusal(state(), "/dev/qz/dsk/dg1/vol7"));
}

TEST_F(DoorTest, ARefusalIsReportedAndAnswers3) {
  EXPECT_EQ(3, qzvmfi_door::refuse(qzvmfi_report::pluginTraceLog(), "importTreeNode",
                                   {"the secondary disk list", "sd b",
                                    "it holds a character other than letters, digits, '_', '-' "
                                    "and '.'",
                                    true}));
  EXPECT_EQ(
      3, qzvmfi_door::refuse(qzvmfi_report::pluginTraceLog(), "importTreeNode",
                             {"the secondary disk list", "sdb", "the disk is named twice", false}));
  EXPECT_EQ((std::vector<qzvmfi_test::Pushed>{
                {"MSG_ERROR_INVALID_NAME",
                 "door",
                 {"importTreeNode", "sd b",
                  "it holds a character other than letters, digits, '_', '-' and '.'",
                  "the secondary disk list"}},
                {"MSG_ERROR_INPUT_REFUSED",
                 "door",
                 {"importTreeNode", "the secondary disk list", "sdb", "the disk is named twice"}}}),
            pushed());
}

}  // namespace

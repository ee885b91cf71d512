// Refused at the door: split disks that are not the copies of their
// primaries, and records that name what no command may carry (a copy that
// is the source, a NUL, another group's state), are refused before any disk
// changes, and the right input given next succeeds on the same disks. Two
// commands on one record, by any of its paths, never run at once.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::AnyOf;
using ::testing::HasSubstr;

Lines splitAt(const std::string& text, char separator) {
  Lines items;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, separator);) {
    items.push_back(item);
  }
  return items;
}

std::string joinedWith(const Lines& items, const std::string& separator) {
  std::string text;
  for (const std::string& item : items) {
    text += (text.empty() ? "" : separator) + item;
  }
  return text;
}

// What a tool run that changes a disk or a group has in its command line.
const char* const kChanging[] = {" init ",      " rm ",          "clearimport", "adddisk",
                                 " import ",    " deport ",      " destroy ",   "qzmake",
                                 "qzdisksetup", "qzdiskunsetup", " start ",     " stop "};

class DoorTest : public QzfiTest {
 protected:
  // Tool runs other than the installation probe of qzfi's start.
  long volumeManagerRuns() {
    return toolRuns() - std::stol(admin({"log", "--tool", "rpm", "--total"}));
  }

  // The command lines run since the log held from lines.
  Lines runsSince(size_t from) {
    const Lines lines = qzfi_e2e::linesOf(admin({"log"}));
    return Lines(lines.begin() + static_cast<long>(std::min(from, lines.size())), lines.end());
  }

  void expectNothingChanged(const Lines& runs) {
    for (const std::string& run : runs) {
      for (const char* change : kChanging) {
        EXPECT_EQ(std::string::npos, run.find(change)) << "a disk was changed: " << run;
      }
    }
  }

  // The copies' device nodes on host, still there.
  void expectCopiesInView(const std::string& host, const Lines& paths) {
    for (const std::string& path : paths) {
      EXPECT_NE(ownerOf(host, path), "missing") << path << " was taken out of the host";
    }
  }

  void writeRecord(const Json& record) { std::ofstream(this->record()) << record.dump(2) << "\n"; }

  // The record with its (or its copy's) provider state text changed by edit.
  static Json tampered(Json record, const std::function<void(std::string&)>& edit,
                       bool alternate = false) {
    Json& state = alternate ? record["alternate"]["provider_state"] : record["provider_state"];
    std::string text = state["text"];
    edit(text);
    state["text"] = text;
    state["bytes"] = text.size();
    return record;
  }

  // qzfi refuses record for args with exit code 3, naming what, and runs
  // nothing on the volume manager.
  void expectRefused(const Json& record, const std::string& host, const Lines& args,
                     const std::string& what) {
    writeRecord(record);
    const long before = volumeManagerRuns();
    const QzfiRun run = qzfi(host, args);
    EXPECT_EQ(run.status, 3) << run;
    EXPECT_THAT(run.err, HasSubstr(what)) << run;
    EXPECT_EQ(volumeManagerRuns(), before) << run;
  }

  // The disk of another group dg2 on A, split to host; its copy's OS path.
  std::string splitDiskOfAnotherGroup(const std::string& host) {
    const std::vector<SimDisk> disks = qzfi_e2e::parseDisks(
        admin({"disk", "add", "--count", "1", "--hosts", "A", "--size", "64m"}));
    tool("A", "qzdisk scandisks");
    tool("A", "qzdisk -f init " + disks.at(0).node + " type=auto format=cdsdisk");
    tool("A", "qzdg init dg2 " + disks.at(0).node);
    const std::vector<SimDisk> copy = qzfi_e2e::parseDisks(admin(
        {"array", "split", "--disks", disks.at(0).node, "--from-host", "A", "--to-host", host}));
    return "/dev/" + copy.at(0).osNames.at(0);
  }

  // An import on B with the split disks given is refused: no disk changed,
  // every split disk still in B's view, the record where it was.
  QzfiRun expectImportRefusedUnchanged(const Lines& given) {
    const std::string disksBefore = admin({"disk", "list"});
    const size_t logBefore = qzfi_e2e::linesOf(admin({"log"})).size();
    const QzfiRun refused =
        qzfi("B", {"import", "--record", record(), "--secondary", joinedWith(given, ",")});
    EXPECT_EQ(refused.status, 6) << refused;
    EXPECT_THAT(refused.err, HasSubstr("do not pair one to one with the primary disks"));
    EXPECT_THAT(refused.err, HasSubstr("no disk was changed"));
    EXPECT_THAT(refused.err, HasSubstr("(status 3)"));
    expectNothingChanged(runsSince(logBefore));
    EXPECT_EQ(admin({"disk", "list"}), disksBefore);
    expectCopiesInView("B", given);
    EXPECT_EQ(readRecord()["step"], "deported");
    return refused;
  }

  // The right list imported on host: the copy's checksum is the source's.
  void expectRightListImports(const std::string& host, const std::string& secondary) {
    const QzfiRun imported =
        qzfi(host, {"--quiet", "import", "--record", record(), "--secondary", secondary});
    ASSERT_EQ(imported.status, 0) << imported;
    const auto [group, volume] = groupAndVolume(qzfi_e2e::linesOf(imported.out).at(0));
    EXPECT_EQ(checksum(host, group, volume), m_sourceSum);
  }
};

TEST_F(DoorTest, SwappedSecondariesAreRefusedBeforeAnyDiskChanges) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  Lines swapped = splitAt(secondary, ',');
  ASSERT_EQ(swapped.size(), 2u);
  std::swap(swapped[0], swapped[1]);
  const QzfiRun refused = expectImportRefusedUnchanged(swapped);
  EXPECT_THAT(refused.err, HasSubstr("the split disk carries the disk id"));
  expectRightListImports("B", secondary);
  expectConsistent();
}

TEST_F(DoorTest, ADiskOfAnotherGroupIsRefusedBeforeAnyDiskChanges) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  expectImportRefusedUnchanged({splitAt(secondary, ',').at(0), splitDiskOfAnotherGroup("B")});
  expectRightListImports("B", secondary);
  expectConsistent();
}

// Every command that restores a provider state refuses one that names what
// no command may carry, or whose lists do not fit, before anything runs.
TEST_F(DoorTest, ATamperedRecordIsRefusedByEveryCommandBeforeAnyToolRuns) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const Json deported = readRecord();
  const std::string hostile = "dg1$(touch${IFS}pwned)";
  struct Tampering {
    const char* what;  // in qzfi's reason
    std::function<void(std::string&)> edit;
  };
  const auto replace = [](const std::string& from, const std::string& to) {
    return [from, to](std::string& text) {
      const size_t at = text.find(from);
      ASSERT_NE(at, std::string::npos) << from << " not in\n" << text;
      text.replace(at, from.size(), to);
    };
  };
  const std::vector<Tampering> tamperings = {
      {"record fiid_dgconfig, field group",
       replace("fiid_dgconfig dg1 ", "fiid_dgconfig " + hostile + " ")},
      {"record fiid_dgconfig, field name of a vol record",
       replace("\nvol vol1\n", "\nvol vol 1\n")},
      {"record fiid_volpriv, field OS disk", replace("fiid_volpriv sd", "fiid_volpriv ../../sd")},
      {"record fiid_v, field volume", replace("fiid_v vol1", "fiid_v " + std::string(300, 'v'))},
      {"record fiid_altvol, field volume path",
       replace("fiid_altvol /dev/qz/dsk/dg1/vol1", "fiid_altvol /dev/qz/dsk/../../../etc/vol1")},
      {"record fiid_dgconfig, field line count",
       [](std::string& text) {
         const size_t at = text.find("fiid_dgconfig dg1 ");
         ASSERT_NE(at, std::string::npos);
         const size_t count = at + std::string("fiid_dgconfig dg1 ").size();
         const size_t end = text.find('\n', count);
         text.replace(count, end - count, std::to_string(std::stol(text.substr(count)) - 1));
       }},
      {"runs past the end of the provider state",
       [](std::string& text) {
         const size_t at = text.find("fiid_dgconfig dg1 ");
         ASSERT_NE(at, std::string::npos);
         const size_t count = at + std::string("fiid_dgconfig dg1 ").size();
         const size_t end = text.find('\n', count);
         text.replace(count, end - count, std::to_string(std::stol(text.substr(count)) + 100));
       }},
      {"record fiid_volpriv, field disk-media name",
       [](std::string& text) {
         // The second disk record names the first one's disk medium.
         const size_t first = text.find("fiid_volpriv ");
         const size_t second = text.find("fiid_volpriv ", first + 1);
         ASSERT_NE(second, std::string::npos);
         const Lines a = qzfi_e2e::words(text.substr(first, text.find('\n', first) - first));
         const Lines b = qzfi_e2e::words(text.substr(second, text.find('\n', second) - second));
         const std::string from = "fiid_volpriv " + b.at(1) + " " + b.at(2) + " ";
         text.replace(second, from.size(), "fiid_volpriv " + b.at(1) + " " + a.at(2) + " ");
       }},
  };
  for (const Tampering& tampering : tamperings) {
    SCOPED_TRACE(tampering.what);
    const Json bad = tampered(deported, tampering.edit);
    expectRefused(bad, "B", {"import", "--record", record(), "--secondary", secondary},
                  tampering.what);
    expectRefused(bad, "A", {"access", "off", "--record", record()}, tampering.what);
    Json prepared = bad;
    prepared["step"] = "prepared";
    expectRefused(prepared, "A", {"deport", "--record", record()}, tampering.what);
  }
  // The record's own lists: a sub-object named twice.
  Json twice = deported;
  twice["sub_objects"][1] = twice["sub_objects"][0];
  expectRefused(twice, "B", {"import", "--record", record(), "--secondary", secondary},
                "names " + twice["sub_objects"][0].get<std::string>() + " twice");
  EXPECT_FALSE(std::ifstream(root() + "/pwned").good());

  writeRecord(deported);
  expectRightListImports("B", secondary);
  const Json imported = readRecord();

  // The copy's provider state, as move and release restore it, and the
  // copy's secondary list of another length.
  const Json badCopy =
      tampered(imported, replace("fiid_volpriv ", "fiid_volpriv $(touch${IFS}pwned)"), true);
  for (const char* command : {"move", "release"}) {
    SCOPED_TRACE(command);
    expectRefused(badCopy, "B", {command, "--record", record()},
                  "record fiid_volpriv, field OS disk");
  }
  Json longer = imported;
  longer["alternate"]["secondary"].push_back("/dev/sdz");
  expectRefused(longer, "B", {"release", "--record", record()},
                "the list \"alternate.secondary\" holds 3 disks for the 2 sub-objects");

  writeRecord(imported);
  const QzfiRun released = qzfi("B", {"release", "--record", record()});
  EXPECT_EQ(released.status, 0) << released;
  EXPECT_TRUE(groups("B").empty());
  expectConsistent();
}

// A command that finds the record in use by another is refused, naming the
// record and the process that holds it, before it runs anything: the lock
// lies on the record file, whichever path names it.
TEST_F(DoorTest, ARecordInUseIsRefusedWithItsName) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const std::string before = qztest::readFile(record());
  const std::string link = root() + "/link.json";
  ASSERT_EQ(symlink(record().c_str(), link.c_str()), 0);
  const int held = open(record().c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);
  const long runs = toolRuns();
  for (const std::string& path : {record(), link}) {
    const QzfiRun refused = qzfi("B", {"import", "--record", path, "--secondary", secondary});
    EXPECT_EQ(refused.status, 3) << refused;
    EXPECT_THAT(refused.err,
                HasSubstr("the record " + path + " is in use by another qzfi command (process " +
                          std::to_string(getpid()) + ")"));
  }
  EXPECT_EQ(toolRuns(), runs);
  EXPECT_EQ(qztest::readFile(record()), before);
  // No lock file is made beside the record.
  EXPECT_FALSE(std::ifstream(root() + "/.backup.json.lock").good());
  close(held);
  expectRightListImports("B", secondary);
}

// A command through a symbolic link to the record writes the real file:
// the link stays a link, to the record as the command left it.
TEST_F(DoorTest, ACommandThroughALinkUpdatesTheRealRecord) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const std::string folder = root() + "/records";
  ASSERT_TRUE(std::filesystem::create_directory(folder));
  const std::string link = folder + "/link.json";
  ASSERT_EQ(symlink(record().c_str(), link.c_str()), 0);
  splitTo("B");
  const QzfiRun deported = qzfi("A", {"deport", "--record", link});
  ASSERT_EQ(deported.status, 0) << deported;
  EXPECT_EQ(readRecord()["step"], "deported");
  struct stat info {};
  ASSERT_EQ(lstat(link.c_str(), &info), 0);
  EXPECT_TRUE(S_ISLNK(info.st_mode));
  EXPECT_EQ(std::filesystem::read_symlink(link).string(), record());
  // Nothing is left beside the link or the record but themselves.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder),
                          std::filesystem::directory_iterator()),
            1);
  EXPECT_FALSE(std::ifstream(folder + "/.link.json.lock").good());
}

// A record with two names is refused before anything runs: a write renames
// a new file over one name, and the names would become two records.
TEST_F(DoorTest, ARecordWithTwoNamesIsRefused) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  splitTo("B");
  const std::string other = root() + "/other.json";
  ASSERT_EQ(link(record().c_str(), other.c_str()), 0);
  const long runs = toolRuns();
  const QzfiRun refused = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("the record " + record() + " has 2 names (hard links)"));
  EXPECT_THAT(refused.err, HasSubstr("keep one name"));
  EXPECT_EQ(toolRuns(), runs);
  EXPECT_EQ(readRecord()["step"], "prepared");
  ASSERT_EQ(unlink(other.c_str()), 0);
  const QzfiRun deported = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(deported.status, 0) << deported;
}

// The temporary file of a write killed before its rename is removed by the
// next command on the record.
TEST_F(DoorTest, AKilledWritesTemporaryIsRemovedByTheNextCommand) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  splitTo("B");
  const std::string leftover = root() + "/.backup.json.K1lled";
  std::ofstream(leftover) << "{\"format\": \"qzfi snapshot rec";
  const std::string oldLock = root() + "/.backup.json.lock";
  std::ofstream(oldLock) << "4242";
  const QzfiRun deported = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(deported.status, 0) << deported;
  EXPECT_FALSE(std::ifstream(leftover).good());
  // An older qzfi's lock file is not this one's to remove.
  EXPECT_TRUE(std::ifstream(oldLock).good());
  EXPECT_EQ(readRecord()["step"], "deported");
}

// A record whose copy is the source itself (or lies in the source's group)
// is refused before anything runs: a release would take the source's own
// volume away.
TEST_F(DoorTest, ACopyThatIsTheSourceIsRefusedBeforeAnyToolRuns) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  expectRightListImports("B", secondary);
  const Json imported = readRecord();
  const std::string sourceSum = checksum("A", "dg1", "vol1");
  for (const std::string object : {"/dev/qz/dsk/dg1/vol1", "/dev/qz/rdsk/dg1/vol1"}) {
    SCOPED_TRACE(object);
    Json copy = imported;
    copy["alternate"]["object"] = object;
    writeRecord(copy);
    for (const char* host : {"A", "B"}) {
      const long runs = toolRuns();
      const QzfiRun refused = qzfi(host, {"release", "--record", record()});
      EXPECT_EQ(refused.status, 3) << refused;
      EXPECT_EQ(toolRuns(), runs) << refused;
      EXPECT_THAT(refused.err, HasSubstr("the record " + record() + " cannot be used: "));
      EXPECT_THAT(refused.err, HasSubstr("alternate.object " + object));
      EXPECT_THAT(refused.err, HasSubstr("a copy is always made under a new group name; nothing "
                                         "was run"));
    }
  }
  EXPECT_THAT(groups("A"), ::testing::Contains("dg1"));
  EXPECT_EQ(checksum("A", "dg1", "vol1"), sourceSum);
  // The copy restored from the source's own state: the plug-in refuses a
  // state of another group.
  Json swapped = imported;
  swapped["alternate"]["provider_state"] = imported["provider_state"];
  const std::string copy = imported["alternate"]["object"];
  expectRefused(swapped, "B", {"release", "--record", record()},
                "the state records the group dg1, but its node's object " + copy +
                    " lies in the group " + groupAndVolume(copy).first);
  writeRecord(imported);
  const QzfiRun released = qzfi("B", {"release", "--record", record()});
  EXPECT_EQ(released.status, 0) << released;
  EXPECT_EQ(checksum("A", "dg1", "vol1"), sourceSum);
  expectConsistent();
}

// A NUL in any text of the record is refused like any other bad input.
TEST_F(DoorTest, ANulInTheRecordIsRefused) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const Json prepared = readRecord();
  Json nul = prepared;
  nul["sub_objects"][0] = nul["sub_objects"][0].get<std::string>() + std::string(1, '\0');
  writeRecord(nul);
  EXPECT_NE(qztest::readFile(record()).find("\\u0000"), std::string::npos);
  const long runs = toolRuns();
  const QzfiRun refused = qzfi("A", {"deport", "--record", record()});
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, HasSubstr("the field \"sub_objects[0]\" holds a NUL character"));
  EXPECT_EQ(toolRuns(), runs);
  Json event = prepared;
  event["events"][0]["detail"] = std::string("claimed\0", 8);
  expectRefused(event, "A", {"deport", "--record", record()},
                "the field \"events[0].detail\" holds a NUL character");
}

// Two imports of one record started together, through its path and a
// link to it: one makes the copy, the other is refused; the record is
// written once, by the one that ran.
TEST_F(DoorTest, TwoCommandsOnOneRecordNeverRunTogether) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  QzfiRun first;
  QzfiRun second;
  // One of them names the record by a symbolic link: the same record.
  const std::string link = root() + "/link.json";
  ASSERT_EQ(symlink(record().c_str(), link.c_str()), 0);
  std::thread other([&] {
    second = qzfi("B", {"import", "--record", link, "--secondary", secondary});
  });
  first = qzfi("B", {"import", "--record", record(), "--secondary", secondary});
  other.join();
  EXPECT_EQ(std::min(first.status, second.status), 0) << first << second;
  const QzfiRun& refused = first.status == 0 ? second : first;
  EXPECT_EQ(refused.status, 3) << refused;
  EXPECT_THAT(refused.err, AnyOf(HasSubstr("is in use by another qzfi command"),
                                 HasSubstr("is imported already")));
  const Json record = readRecord();
  EXPECT_EQ(record["step"], "imported");
  size_t imports = 0;
  for (const Json& event : record["events"]) {
    imports += event["command"] == "import" ? 1 : 0;
  }
  EXPECT_EQ(imports, 1u);
  const auto [group, volume] = groupAndVolume(record["alternate"]["object"]);
  EXPECT_EQ(checksum("B", group, volume), m_sourceSum);
  EXPECT_EQ(groups("B").size(), 1u);
  expectConsistent();
}

}  // namespace

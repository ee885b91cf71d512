// Ordinary slips that must never destroy or change what is not the copy:
// the source's own disks given as the split disks, the disks of another
// group that holds a volume of the same name, a record edited so that its
// copy is the source, a group made again by hand where the source was taken
// out of use, one record reached under two names at once, and split disks
// taken from two splits. Each is refused with nothing changed: the source
// keeps its data, every other group its volumes, data and device-node
// owners, the record its bytes, and the right input given next succeeds.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <map>

#include "qzfi_e2e.h"

namespace {

using qzfi_e2e::Json;
using qzfi_e2e::Lines;
using qzfi_e2e::QzfiRun;
using qzfi_e2e::QzfiTest;
using qzfi_e2e::SimDisk;
using ::testing::AnyOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string joinedWith(const Lines& items, const std::string& separator) {
  std::string text;
  for (const std::string& item : items) {
    text += (text.empty() ? "" : separator) + item;
  }
  return text;
}

Lines splitAt(const std::string& text, char separator) {
  Lines items;
  std::istringstream in(text);
  for (std::string item; std::getline(in, item, separator);) {
    items.push_back(item);
  }
  return items;
}

// What a tool run that changes a disk or a group has in its command line.
const char* const kChanging[] = {
    " init ", " rm ",        "clearimport",   "adddisk", " import ", " deport ", " destroy ",
    "qzmake", "qzdisksetup", "qzdiskunsetup", " start ", " stop ",   " make ",   "delete"};

// A refusal of qzfi's own (exit code 3: the record or the command line
// does not fit), or the plug-in's refusal of what it was given (status 3,
// invalid input: disks that differ from what was expected), which qzfi
// reports as the failed step (exit code 6) with the plug-in's status.
::testing::AssertionResult refused(const QzfiRun& run) {
  if (run.status == 3) {
    return ::testing::AssertionSuccess();
  }
  if (run.status == 6 && run.err.find("(status 3)") != std::string::npos) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure() << "not refused as invalid input: " << run;
}

class EvidenceTest : public QzfiTest {
 protected:
  // A group of its own on host: its disks (two, of two paths each), a
  // 32 MB volume vol1 written from seed, its device nodes owned by owner.
  std::vector<SimDisk> makeGroup(const std::string& host, const std::string& group,
                                 const std::string& owner, int seed) {
    const std::vector<SimDisk> disks = qzfi_e2e::parseDisks(
        admin({"disk", "add", "--count", "2", "--hosts", host, "--paths", "2", "--size", "64m"}));
    tool(host, "qzdisk scandisks");
    std::string members;
    for (const SimDisk& disk : disks) {
      tool(host, "qzdisk -f init " + disk.node + " type=auto format=cdsdisk");
      members += " " + disk.node;
    }
    tool(host, "qzdg init " + group + members);
    tool(host, "qzassist -g " + group + " make vol1 32m");
    chownVolume(host, group, "vol1", owner);
    admin({"volume", "write", "--host", host, group, "vol1", "--seed", std::to_string(seed)});
    return disks;
  }

  void chownVolume(const std::string& host, const std::string& group, const std::string& volume,
                   const std::string& owner) {
    const qzsim::CommandResult owned =
        sandboxed(host, {"chown", owner, "/dev/qz/dsk/" + group + "/" + volume,
                         "/dev/qz/rdsk/" + group + "/" + volume});
    EXPECT_EQ(owned.status, 0) << owned.err;
  }

  // All that must stay as it is of a group on host: the group (its id,
  // flags and configuration), its disks, its volumes with their states,
  // and each volume's data checksum and device nodes' owners. Read without
  // asserting, so that a group gone away reads as such.
  std::string groupState(const std::string& host, const std::string& group) {
    std::ostringstream state;
    const qzsim::CommandResult listed = qzsim::simTool(root(), host, "qzdg list " + group);
    if (listed.status != 0) {
      return "no group " + group + " on " + host + ": " + listed.err;
    }
    state << listed.out;
    state << qzsim::simTool(root(), host, "qzdisk -g " + group + " list").out;
    const qzsim::CommandResult printed =
        qzsim::simTool(root(), host, "qzprint -g " + group + " -v");
    state << printed.out << printed.err;
    for (const std::string& line : qzfi_e2e::linesOf(printed.out)) {
      const Lines parts = qzfi_e2e::words(line);
      if (parts.size() < 2 || parts[0] != "v") {
        continue;
      }
      const std::string& volume = parts[1];
      const qzsim::CommandResult sum =
          qzsim::simAdmin(root(), {"volume", "checksum", "--host", host, group, volume});
      state << volume << " checksum " << sum.out << sum.err << volume << " owners "
            << ownerOf(host, "/dev/qz/dsk/" + group + "/" + volume) << " "
            << ownerOf(host, "/dev/qz/rdsk/" + group + "/" + volume) << "\n";
    }
    return state.str();
  }

  size_t logLength() { return qzfi_e2e::linesOf(admin({"log"})).size(); }

  // No tool run since the log held from lines changed a disk or a group.
  void expectNothingChangedSince(size_t from) {
    const Lines lines = qzfi_e2e::linesOf(admin({"log"}));
    for (size_t i = std::min(from, lines.size()); i < lines.size(); ++i) {
      for (const char* change : kChanging) {
        EXPECT_EQ(std::string::npos, lines[i].find(change)) << "a disk was changed: " << lines[i];
      }
    }
  }

  // The record's sub-objects: the source's own OS disks on its host.
  Lines subObjects() {
    Lines paths;
    const Json current = readRecord();
    for (const Json& path : current["sub_objects"]) {
      paths.push_back(path.get<std::string>());
    }
    return paths;
  }

  // The last part of a device path.
  static std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

  // text with every word (between blanks, line feeds and slashes) found in
  // names replaced by its new name.
  static std::string renamed(const std::string& text,
                             const std::map<std::string, std::string>& names) {
    std::string result;
    std::string word;
    const auto flush = [&] {
      const auto found = names.find(word);
      result += found == names.end() ? word : found->second;
      word.clear();
    };
    for (const char c : text) {
      if (c == ' ' || c == '\n' || c == '\t' || c == '/' || c == '=' || c == ',') {
        flush();
        result += c;
      } else {
        word += c;
      }
    }
    flush();
    return result;
  }

  void writeRecord(const Json& record) { std::ofstream(this->record()) << record.dump(2) << "\n"; }

  // The right split disks imported on host: the copy holds sum, the
  // source's data at split time; its path.
  std::string expectRightListImports(const std::string& host, const std::string& secondary,
                                     const std::string& sum) {
    const QzfiRun imported =
        qzfi(host, {"--quiet", "import", "--record", record(), "--secondary", secondary});
    EXPECT_EQ(imported.status, 0) << imported;
    if (imported.status != 0) {
      return std::string();
    }
    const std::string copy = qzfi_e2e::linesOf(imported.out).at(0);
    const auto [group, volume] = groupAndVolume(copy);
    EXPECT_NE(group, "dg1");
    EXPECT_EQ(checksum(host, group, volume), sum);
    EXPECT_EQ(ownerOf(host, copy), "1001:1002");
    return copy;
  }

  void expectReleased(const std::string& host) {
    const QzfiRun released = qzfi(host, {"release", "--record", record()});
    EXPECT_EQ(released.status, 0) << released;
    EXPECT_EQ(readRecord()["step"], "released");
  }

  // A copy made on host and then the record edited so that its copy is the
  // source, with the source's own disks and provider state: release on the
  // source's host A is refused, the source and the real copy stay, and the
  // record as it was releases the real copy.
  void expectEditedReleaseRefused(const std::string& copyHost) {
    makeSource();
    const std::string secondary = prepareSplitDeport(copyHost);
    const std::string copy = expectRightListImports(copyHost, secondary, m_sourceSum);
    ASSERT_FALSE(copy.empty());
    const std::string copyGroup = groupAndVolume(copy).first;
    const Json genuine = readRecord();
    // The copy's disks, as its provider state names them (OS disk and
    // multipath node), renamed to the source's, pair by pair.
    std::map<std::string, std::string> toSource;
    for (size_t i = 0; i < m_copies.size() && i < m_sourceDisks.size(); ++i) {
      toSource[m_copies[i].osNames.at(0)] = nameOf(genuine["sub_objects"].at(i));
      toSource[m_copies[i].node] = m_sourceDisks[i].node;
    }
    toSource[copyGroup] = "dg1";
    Json edited = genuine;
    edited["alternate"]["object"] = genuine["object"];
    edited["alternate"]["secondary"] = genuine["sub_objects"];
    const std::string copyState = genuine["alternate"]["provider_state"]["text"];
    const std::string sourceState = renamed(copyState, toSource);
    ASSERT_NE(sourceState, copyState);
    edited["alternate"]["provider_state"] = {{"bytes", sourceState.size()}, {"text", sourceState}};
    writeRecord(edited);
    const std::string recordBefore = qztest::readFile(record());
    const std::string sourceBefore = groupState("A", "dg1");
    const std::string copyBefore = groupState(copyHost, copyGroup);
    const std::string disksBefore = admin({"disk", "list"});
    const size_t log = logLength();

    const QzfiRun release = qzfi("A", {"release", "--record", record()});
    EXPECT_TRUE(refused(release));
    EXPECT_THAT(release.err, HasSubstr("dg1")) << release;
    EXPECT_EQ(qztest::readFile(record()), recordBefore);
    EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
    EXPECT_EQ(groupState(copyHost, copyGroup), copyBefore);
    expectNothingChangedSince(log);
    EXPECT_EQ(admin({"disk", "list"}), disksBefore);
    expectConsistent();

    // The record as the import wrote it releases the real copy.
    writeRecord(genuine);
    expectReleased(copyHost);
    EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
    EXPECT_THAT(groups("A"), ElementsAre("dg1"));
    if (copyHost != "A") {
      EXPECT_THAT(groups(copyHost), IsEmpty());
    }
    expectConsistent();
  }
};

// A same-host rebuild given the record's own sub-objects, the source's OS
// disks, as the split disks: the source is no copy.
TEST_F(EvidenceTest, TheSourcesOwnDisksGivenAsTheSplitDisksAreRefused) {
  makeSource();
  const std::string secondary = prepareSplitDeport("A");
  const Lines own = subObjects();
  const std::string sourceBefore = groupState("A", "dg1");
  const std::string recordBefore = qztest::readFile(record());
  const std::string disksBefore = admin({"disk", "list"});
  const size_t log = logLength();

  const QzfiRun imported =
      qzfi("A", {"import", "--record", record(), "--secondary", joinedWith(own, ",")});
  EXPECT_TRUE(refused(imported));
  EXPECT_THAT(imported.err, AnyOf(HasSubstr("dg1"), HasSubstr(own.at(0)), HasSubstr(own.at(1))))
      << imported;
  EXPECT_EQ(qztest::readFile(record()), recordBefore);
  EXPECT_EQ(readRecord()["step"], "deported");
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  expectNothingChangedSince(log);
  EXPECT_EQ(admin({"disk", "list"}), disksBefore);

  // The record did not advance: there is nothing to release.
  const QzfiRun release = qzfi("A", {"release", "--record", record()});
  EXPECT_EQ(release.status, 3) << release;
  EXPECT_EQ(qztest::readFile(record()), recordBefore);
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  expectConsistent();

  const std::string copy = expectRightListImports("A", secondary, m_sourceSum);
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  if (!copy.empty()) {
    expectReleased("A");
  }
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  expectConsistent();
}

// The disks of another group on the alternate host, which also holds a
// volume vol1, given as the split disks: that group is no copy.
TEST_F(EvidenceTest, TheDisksOfAnotherGroupWithAVolumeOfTheSameNameAreRefused) {
  makeSource();
  const std::vector<SimDisk> prodDisks = makeGroup("B", "prod", "2001:2002", 11);
  const std::string secondary = prepareSplitDeport("B");
  const std::string prodBefore = groupState("B", "prod");
  ASSERT_THAT(prodBefore, HasSubstr("vol1 owners 2001:2002 2001:2002"));
  const std::string sourceBefore = groupState("A", "dg1");
  const std::string recordBefore = qztest::readFile(record());
  const std::string disksBefore = admin({"disk", "list"});
  const size_t log = logLength();

  const QzfiRun imported =
      qzfi("B", {"import", "--record", record(), "--secondary", osPathsOf(prodDisks)});
  EXPECT_TRUE(refused(imported));
  EXPECT_THAT(imported.err, HasSubstr("prod")) << imported;
  EXPECT_EQ(qztest::readFile(record()), recordBefore);
  EXPECT_EQ(groupState("B", "prod"), prodBefore);
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  EXPECT_THAT(groups("B"), ElementsAre("prod"));
  expectNothingChangedSince(log);
  EXPECT_EQ(admin({"disk", "list"}), disksBefore);
  const QzfiRun release = qzfi("B", {"release", "--record", record()});
  EXPECT_EQ(release.status, 3) << release;
  EXPECT_EQ(groupState("B", "prod"), prodBefore);
  expectConsistent();

  const std::string copy = expectRightListImports("B", secondary, m_sourceSum);
  EXPECT_EQ(groupState("B", "prod"), prodBefore);
  if (!copy.empty()) {
    expectReleased("B");
  }
  EXPECT_THAT(groups("B"), ElementsAre("prod"));
  EXPECT_EQ(groupState("B", "prod"), prodBefore);
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  expectConsistent();
}

// A record whose copy was edited into the source (its object, its disks
// and its provider state) released on the source's host.
TEST_F(EvidenceTest, AReleaseOfARecordWhoseCopyIsTheSourceIsRefused) {
  expectEditedReleaseRefused("B");
}

// The same edit of a copy made beside the source, on the source's host.
TEST_F(EvidenceTest, AReleaseBesideTheSourceOfARecordWhoseCopyIsTheSourceIsRefused) {
  expectEditedReleaseRefused("A");
}

// The source taken out of use, and its group made again by hand on the
// same disks with another volume: bringing the source back finds a group
// that is not the one taken away and leaves it alone.
TEST_F(EvidenceTest, AccessOnLeavesAGroupMadeAgainByHandOnTheSourceDisksAlone) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const QzfiRun off = qzfi("A", {"access", "off", "--record", record()});
  ASSERT_EQ(off.status, 0) << off;
  ASSERT_THAT(groups("A"), IsEmpty());

  // Made again by hand on the same disks: the paths the deport took away
  // brought back, the disks initialised, a new dg1 with a volume "other".
  admin({"disk", "rescan", "--host", "A"});
  tool("A", "qzdisk scandisks");
  std::string members;
  for (const SimDisk& disk : m_sourceDisks) {
    tool("A", "qzdisk -f init " + disk.node + " type=auto format=cdsdisk");
    members += " " + disk.node;
  }
  tool("A", "qzdg init dg1" + members);
  tool("A", "qzassist -g dg1 make other 16m");
  chownVolume("A", "dg1", "other", "3001:3002");
  admin({"volume", "write", "--host", "A", "dg1", "other", "--seed", "21"});
  const std::string handMade = groupState("A", "dg1");
  ASSERT_THAT(handMade, HasSubstr("other owners 3001:3002 3001:3002"));
  const std::string recordBefore = qztest::readFile(record());
  const std::string disksBefore = admin({"disk", "list"});
  const size_t log = logLength();

  const QzfiRun on = qzfi("A", {"access", "on", "--record", record()});
  EXPECT_TRUE(refused(on));
  EXPECT_THAT(on.err, HasSubstr("dg1")) << on;
  EXPECT_EQ(qztest::readFile(record()), recordBefore);
  EXPECT_EQ(readRecord()["source_access"], "off");
  EXPECT_EQ(groupState("A", "dg1"), handMade);
  EXPECT_THAT(groups("A"), ElementsAre("dg1"));
  EXPECT_EQ(ownerOf("A", "/dev/qz/dsk/dg1/vol1"), "missing");
  expectNothingChangedSince(log);
  EXPECT_EQ(admin({"disk", "list"}), disksBefore);
  expectConsistent();
}

// Two commands on one record reached under two names, the record and a
// symbolic link to it: the lock lies on the record itself, so a command
// given the link while the record is in use runs nothing, and the link
// stays a link.
TEST_F(EvidenceTest, ARecordInUseIsRefusedThroughASymbolicLinkToIt) {
  makeSource();
  const std::string secondary = prepareSplitDeport("B");
  const std::string link = root() + "/link.json";
  ASSERT_EQ(symlink(record().c_str(), link.c_str()), 0);
  const std::string recordBefore = qztest::readFile(record());
  const auto expectStillALink = [&] {
    struct stat status {};
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode)) << link << " is no longer a symbolic link";
    char target[PATH_MAX] = {0};
    const ssize_t length = readlink(link.c_str(), target, sizeof target - 1);
    EXPECT_EQ(std::string(target, length > 0 ? static_cast<size_t>(length) : 0), record());
  };

  // The record held by its own name, the command given the link; then the
  // record held through the link, the command given the record's name.
  for (const bool throughLink : {true, false}) {
    SCOPED_TRACE(throughLink ? "the command given the link" : "the lock taken through the link");
    const std::string held = throughLink ? record() : link;
    const std::string given = throughLink ? link : record();
    const int fd = open(held.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    const long runs = toolRuns();
    const QzfiRun import = qzfi("B", {"import", "--record", given, "--secondary", secondary});
    close(fd);
    EXPECT_EQ(import.status, 3) << import;
    EXPECT_THAT(import.err, HasSubstr("is in use by another qzfi command")) << import;
    EXPECT_EQ(toolRuns(), runs);
    EXPECT_EQ(qztest::readFile(record()), recordBefore);
    EXPECT_THAT(groups("B"), IsEmpty());
    expectStillALink();
  }

  const std::string copy = expectRightListImports("B", secondary, m_sourceSum);
  if (!copy.empty()) {
    expectReleased("B");
  }
  EXPECT_THAT(groups("B"), IsEmpty());
  expectStillALink();
  expectConsistent();
}

// The source's disks split twice, its configuration and data changed in
// between: a list that takes one disk from each split is refused, and one
// split's disks import with the source's data at that split's time.
TEST_F(EvidenceTest, SplitDisksFromTwoSplitsAreRefusedAndOneSplitImports) {
  makeSource();
  ASSERT_EQ(qzfi("A", {"prepare", "/dev/qz/dsk/dg1/vol1", "--record", record()}).status, 0);
  const Lines first = splitAt(splitTo("B"), ',');
  const std::vector<SimDisk> firstCopies = m_copies;
  // Another volume changes the private regions' update sequence number.
  tool("A", "qzassist -g dg1 make vol2 8m");
  admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "9"});
  const std::string atSecondSplit = checksum("A", "dg1", "vol1");
  ASSERT_NE(atSecondSplit, m_sourceSum);
  const std::string secondList = splitTo("B");
  const Lines second = splitAt(secondList, ',');
  const std::vector<SimDisk> secondCopies = m_copies;
  ASSERT_EQ(first.size(), 2u);
  ASSERT_EQ(second.size(), 2u);
  admin({"volume", "write", "--host", "A", "dg1", "vol1", "--seed", "8"});
  const QzfiRun deported = qzfi("A", {"deport", "--record", record()});
  ASSERT_EQ(deported.status, 0) << deported;

  const std::string sourceBefore = groupState("A", "dg1");
  const std::string recordBefore = qztest::readFile(record());
  const std::string disksBefore = admin({"disk", "list"});
  const size_t log = logLength();
  const QzfiRun mixed =
      qzfi("B", {"import", "--record", record(), "--secondary", first.at(0) + "," + second.at(1)});
  EXPECT_TRUE(refused(mixed));
  EXPECT_THAT(mixed.err,
              AnyOf(HasSubstr(first.at(0)), HasSubstr(second.at(1)),
                    HasSubstr(firstCopies.at(0).node), HasSubstr(secondCopies.at(1).node)))
      << mixed;
  EXPECT_EQ(qztest::readFile(record()), recordBefore);
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  EXPECT_THAT(groups("B"), IsEmpty());
  expectNothingChangedSince(log);
  EXPECT_EQ(admin({"disk", "list"}), disksBefore);
  expectConsistent();

  const std::string copy = expectRightListImports("B", secondList, atSecondSplit);
  if (!copy.empty()) {
    expectReleased("B");
  }
  EXPECT_THAT(groups("B"), IsEmpty());
  EXPECT_EQ(groupState("A", "dg1"), sourceBefore);
  expectConsistent();
}

}  // namespace

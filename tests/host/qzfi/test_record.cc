// The snapshot record file.
#include "record.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../tempdir.h"

namespace {

using qzfi_host::AlternateCopy;
using qzfi_host::CRecordLock;
using qzfi_host::CSnapshotRecord;
using qzfi_host::ProviderState;
using qzfi_host::RecordError;
using qzfi_host::RecordStep;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Json = nlohmann::ordered_json;

CSnapshotRecord sample() {
  CSnapshotRecord record;
  record.plugin = "qzvmfi";
  record.object = "/dev/qz/dsk/dg1/vol1";
  record.step = RecordStep::imported;
  record.ownerUid = 1001;
  record.ownerGid = 1002;
  record.subObjects = {"/dev/sdb", "/dev/sdd"};
  record.state.bytes = "fiid_dgid 1700000039.3.A\nfiid_uigid 1001 1002";
  record.deportedObject = "/dev/qz/dsk/dg1/vol1";
  record.sourceAccess = false;
  record.hasAlternate = true;
  record.alternate = {"/dev/qz/dsk/dg1_1/vol1", {"/dev/sdf", "/dev/sdg"}, {"fiid_v vol1"}, {}};
  record.earlierCopies.push_back({"/dev/qz/dsk/dg1_0/vol1", {"/dev/sdh", "/dev/sdi"}, {"old"}, {}});
  record.note("prepare", "claimed");
  return record;
}

std::string refusalOfLoading(const std::string& file) {
  try {
    CSnapshotRecord::load(file);
  } catch (const RecordError& error) {
    return error.what();
  }
  return "loaded";
}

std::string refusalOfLocking(const std::string& file) {
  try {
    CRecordLock lock;
    lock.acquire(file);
  } catch (const RecordError& error) {
    return error.what();
  }
  return "locked";
}

using Names = std::vector<std::string>;

// The names in folder, in order.
Names filesIn(const std::string& folder) {
  Names names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string refusalOf(const Json& json) {
  try {
    CSnapshotRecord::fromJson(json);
  } catch (const RecordError& error) {
    return error.what();
  }
  return "read";
}

TEST(Record, FolderOfAFileIsWhatComesBeforeItsLastSlash) {
  EXPECT_EQ("/tmp/b", qzfi_host::folderOf("/tmp/b/backup.json"));
  EXPECT_EQ("/", qzfi_host::folderOf("/backup.json"));
  EXPECT_EQ(".", qzfi_host::folderOf("backup.json"));
  EXPECT_EQ("run", qzfi_host::folderOf("run/agent.sock"));
}

TEST(Record, EveryFieldComesBackFromItsJson) {
  const CSnapshotRecord record = sample();
  const CSnapshotRecord read = CSnapshotRecord::fromJson(record.toJson());
  EXPECT_EQ(read.plugin, "qzvmfi");
  EXPECT_EQ(read.object, "/dev/qz/dsk/dg1/vol1");
  EXPECT_EQ(read.step, RecordStep::imported);
  EXPECT_EQ(read.ownerUid, 1001);
  EXPECT_EQ(read.ownerGid, 1002);
  EXPECT_THAT(read.subObjects, ElementsAre("/dev/sdb", "/dev/sdd"));
  EXPECT_EQ(read.state.bytes, record.state.bytes);
  EXPECT_EQ(read.deportedObject, "/dev/qz/dsk/dg1/vol1");
  EXPECT_FALSE(read.sourceAccess);
  ASSERT_TRUE(read.hasAlternate);
  EXPECT_EQ(read.alternate.object, "/dev/qz/dsk/dg1_1/vol1");
  EXPECT_THAT(read.alternate.secondary, ElementsAre("/dev/sdf", "/dev/sdg"));
  EXPECT_EQ(read.alternate.state.bytes, "fiid_v vol1");
  ASSERT_EQ(read.earlierCopies.size(), 1u);
  EXPECT_EQ(read.earlierCopies[0].object, "/dev/qz/dsk/dg1_0/vol1");
  ASSERT_EQ(read.events.size(), 1u);
  EXPECT_EQ(read.events[0].command, "prepare");
  EXPECT_EQ(read.events[0].detail, "claimed");
  EXPECT_EQ(read.events[0].time.size(), 20u);  // 2024-01-02T03:04:05Z
}

TEST(Record, HostsComeBackFromTheJson) {
  CSnapshotRecord record = sample();
  record.sourceHost = {"A", "0123456789abcdef0123456789abcdef"};
  record.alternate.host = {"B", "fedcba9876543210fedcba9876543210"};
  record.note("import", "built", record.alternate.host);
  const Json json = record.toJson();
  EXPECT_EQ(json["source_host"],
            Json({{"name", "A"}, {"machine_id", "0123456789abcdef0123456789abcdef"}}));
  EXPECT_EQ(json["alternate"]["host"]["name"], "B");
  EXPECT_FALSE(json["earlier_copies"][0].contains("host"));
  EXPECT_FALSE(json["events"][0].contains("host"));
  EXPECT_EQ(json["events"][1]["host"]["machine_id"], "fedcba9876543210fedcba9876543210");
  const CSnapshotRecord read = CSnapshotRecord::fromJson(json);
  EXPECT_TRUE(qzfi_host::sameHost(read.sourceHost, record.sourceHost));
  EXPECT_TRUE(qzfi_host::sameHost(read.alternate.host, record.alternate.host));
  EXPECT_FALSE(read.earlierCopies[0].host.known());
  EXPECT_FALSE(read.events[0].host.known());
  EXPECT_EQ(read.events[1].host.name, "B");
  EXPECT_EQ(qzfi_host::hostText(read.sourceHost),
            "A (machine id 0123456789abcdef0123456789abcdef)");
}

TEST(Record, ARecordWithoutHostsIsReadAsItIs) {
  const Json json = sample().toJson();
  EXPECT_FALSE(json.contains("source_host"));
  EXPECT_FALSE(json["alternate"].contains("host"));
  const CSnapshotRecord read = CSnapshotRecord::fromJson(json);
  EXPECT_FALSE(read.sourceHost.known());
  EXPECT_FALSE(read.alternate.host.known());
  Json wrong = json;
  wrong["source_host"] = "A";
  EXPECT_EQ(refusalOf(wrong), "the field \"source_host\" is not an object");
  wrong["source_host"] = Json({{"name", "A"}});
  EXPECT_EQ(refusalOf(wrong), "the field \"machine_id\" is missing");
}

TEST(Record, ThisHostIsNamedByItsMachineIdAndName) {
  const qzfi_host::HostIdentity here = qzfi_host::thisHost();
  std::ifstream file("/etc/machine-id");
  std::string id;
  std::getline(file, id);
  EXPECT_EQ(here.machineId, id);
  EXPECT_FALSE(here.name.empty());
  EXPECT_TRUE(qzfi_host::sameHost(here, qzfi_host::thisHost()));
  EXPECT_FALSE(qzfi_host::sameHost(here, {here.name, "other"}));
  EXPECT_FALSE(qzfi_host::sameHost(here, {"other", here.machineId}));
}

TEST(Record, TheJsonNamesItsFormatAndVersionFirst) {
  const Json json = sample().toJson();
  auto first = json.begin();
  EXPECT_EQ(first.key(), "format");
  EXPECT_EQ(*first, "qzfi snapshot record");
  EXPECT_EQ((++first).key(), "version");
  EXPECT_EQ(json["step"], "imported");
  EXPECT_EQ(json["owner"], Json({{"uid", 1001}, {"gid", 1002}}));
  EXPECT_EQ(json["source_access"], "off");
}

TEST(Record, ATextProviderStateIsKeptAsText) {
  const Json json = qzfi_host::providerStateJson({"fiid_v vol1\nfiid_vt set1"});
  EXPECT_EQ(json, Json({{"bytes", 24}, {"text", "fiid_v vol1\nfiid_vt set1"}}));
}

TEST(Record, AProviderStateThatIsNotUtf8TravelsAsBase64Unchanged) {
  ProviderState state{std::string("name \xff\xfe\x00 end", 12)};
  const Json json = qzfi_host::providerStateJson(state);
  ASSERT_TRUE(json.contains("base64"));
  EXPECT_FALSE(json.contains("text"));
  EXPECT_EQ(qzfi_host::providerStateOf(json).bytes, state.bytes);
}

TEST(Record, AProviderStateOfAnotherLengthIsRefused) {
  EXPECT_EQ(refusalOf([] {
              Json json = sample().toJson();
              json["provider_state"]["bytes"] = 3;
              return json;
            }()),
            "the provider state is not as long as its \"bytes\" says");
}

TEST(Record, AMissingOrWrongFieldIsNamed) {
  Json json = sample().toJson();
  json.erase("sub_objects");
  EXPECT_EQ(refusalOf(json), "the field \"sub_objects\" is missing");
  json = sample().toJson();
  json["owner"]["uid"] = "root";
  EXPECT_EQ(refusalOf(json), "the field \"uid\" is not a whole number");
  json = sample().toJson();
  json["step"] = "split";
  EXPECT_EQ(refusalOf(json), "the step \"split\" is not one of qzfi's");
  json = sample().toJson();
  json["version"] = 2;
  EXPECT_EQ(refusalOf(json), "it is a record of version 2; this qzfi reads version 1");
  EXPECT_EQ(refusalOf(Json::array()), "it is not a qzfi snapshot record");
  EXPECT_EQ(refusalOf(Json({{"format", "other"}})), "it is not a qzfi snapshot record");
}

TEST(Record, SavedAndLoadedAsAFile) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  const CSnapshotRecord read = CSnapshotRecord::load(file);
  EXPECT_EQ(read.alternate.object, "/dev/qz/dsk/dg1_1/vol1");
  // Nothing but the record is left in its folder.
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
    EXPECT_EQ(entry.path().filename(), "backup.json");
    ++files;
  }
  EXPECT_EQ(files, 1u);
  // Readable by its owner only: it describes the machine's disks.
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(Record, ANewRecordNeverReplacesAnOldOne) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  std::ofstream(file) << "an older backup's record";
  try {
    sample().save(file, true);
    ADD_FAILURE() << "replaced";
  } catch (const RecordError& error) {
    EXPECT_THAT(error.what(), HasSubstr("exists already: a new backup needs a new record"));
  }
  EXPECT_EQ(qztest::readFile(file), "an older backup's record");
  EXPECT_THAT(
      [&] {
        try {
          CSnapshotRecord::checkWritable(file, true);
        } catch (const RecordError& error) {
          return std::string(error.what());
        }
        return std::string("writable");
      }(),
      HasSubstr("exists already: a new backup needs a new record"));
  CSnapshotRecord::checkWritable(file, false);
}

TEST(Record, AnUpdateReplacesTheRecordWhole) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  CSnapshotRecord record = sample();
  record.save(file, true);
  record.step = RecordStep::released;
  record.save(file, false);
  EXPECT_EQ(CSnapshotRecord::load(file).step, RecordStep::released);
}

TEST(Record, AFolderThatCannotHoldTheRecordIsRefusedBeforeAnything) {
  qztest::TempDir dir;
  EXPECT_THROW(CSnapshotRecord::checkWritable(dir.file("absent/backup.json"), true), RecordError);
  EXPECT_THROW(sample().save(dir.file("absent/backup.json"), true), RecordError);
}

TEST(Record, LoadingSaysWhatIsWrongWithTheFile) {
  qztest::TempDir dir;
  EXPECT_THAT(refusalOfLoading(dir.file("none.json")),
              HasSubstr("the record " + dir.file("none.json") + " cannot be read"));
  std::ofstream(dir.file("bad.json")) << "{\"format\": ";
  EXPECT_THAT(refusalOfLoading(dir.file("bad.json")), HasSubstr("is not valid JSON"));
  std::ofstream(dir.file("other.json")) << "{\"format\": \"qzfi snapshot record\", \"version\": 1}";
  EXPECT_EQ(
      refusalOfLoading(dir.file("other.json")),
      "the record " + dir.file("other.json") + " cannot be used: the field \"plugin\" is missing");
}

TEST(Record, StepsHaveTheirNames) {
  EXPECT_STREQ(qzfi_host::stepName(RecordStep::prepared), "prepared");
  EXPECT_STREQ(qzfi_host::stepName(RecordStep::deported), "deported");
  EXPECT_STREQ(qzfi_host::stepName(RecordStep::moved), "moved");
  EXPECT_STREQ(qzfi_host::stepName(RecordStep::released), "released");
}

// The lists of disks pair with the sub-objects, each disk named once.
TEST(Record, DiskListsThatDoNotPairAreRefused) {
  Json json = sample().toJson();
  json["sub_objects"][1] = "/dev/sdb";
  EXPECT_EQ(refusalOf(json), "the list \"sub_objects\" names /dev/sdb twice");
  json = sample().toJson();
  json["alternate"]["secondary"].push_back("/dev/sdz");
  EXPECT_EQ(refusalOf(json),
            "the list \"alternate.secondary\" holds 3 disks for the 2 sub-objects");
  json = sample().toJson();
  json["earlier_copies"][0]["secondary"][1] = "/dev/sdh";
  EXPECT_EQ(refusalOf(json), "the list \"earlier_copies.secondary\" names /dev/sdh twice");
}

// One command at a time holds a record; the next is refused with the
// record's name and the holder's process id until the first lets go.
TEST(Record, ALockedRecordIsRefusedToAnotherCommand) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  auto first = std::make_unique<CRecordLock>();
  first->acquire(file);
  EXPECT_EQ(first->file(), file);
  EXPECT_EQ(refusalOfLocking(file),
            "the record " + file + " is in use by another qzfi command (process " +
                std::to_string(getpid()) +
                "): run this command again when it is done; nothing was changed");
  first.reset();
  CRecordLock second;
  EXPECT_NO_THROW(second.acquire(file));
  // The lock lies on the record itself: nothing else is made beside it.
  EXPECT_EQ(filesIn(dir.path()), Names{"backup.json"});
  EXPECT_EQ(CSnapshotRecord::load(file).object, "/dev/qz/dsk/dg1/vol1");
}

// A symbolic link to the record, and another path to its folder, are the
// same record: one lock, one real file.
TEST(Record, EveryPathToTheFileIsTheSameRecord) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  ASSERT_EQ(symlink(file.c_str(), dir.file("link.json").c_str()), 0);
  ASSERT_EQ(symlink(dir.path().c_str(), dir.file("folder").c_str()), 0);
  EXPECT_EQ(qzfi_host::realRecordFile(dir.file("link.json")), file);
  EXPECT_EQ(qzfi_host::realRecordFile(dir.file("folder/./backup.json")), file);
  CRecordLock held;
  held.acquire(dir.file("link.json"));
  EXPECT_EQ(held.file(), file);
  EXPECT_THAT(refusalOfLocking(file), HasSubstr("is in use by another qzfi command (process " +
                                                std::to_string(getpid()) + ")"));
  EXPECT_THAT(refusalOfLocking(dir.file("folder/backup.json")),
              HasSubstr("the record " + dir.file("folder/backup.json") + " is in use"));
}

// A record not made yet lies in its folder's real path; a link to nothing
// is no record.
TEST(Record, ARecordNotMadeYetIsNamedByItsRealFolder) {
  qztest::TempDir dir;
  ASSERT_EQ(symlink(dir.path().c_str(), dir.file("folder").c_str()), 0);
  EXPECT_EQ(qzfi_host::realRecordFile(dir.file("folder/new.json")), dir.file("new.json"));
  ASSERT_EQ(symlink(dir.file("none.json").c_str(), dir.file("dangling.json").c_str()), 0);
  try {
    qzfi_host::realRecordFile(dir.file("dangling.json"));
    ADD_FAILURE() << "a link to nothing resolved";
  } catch (const RecordError& error) {
    EXPECT_THAT(error.what(), HasSubstr("is a symbolic link to nothing usable"));
  }
}

// A write replaces the real file, never the link, and takes the lock with
// it: the new file is locked before it takes the record's name.
TEST(Record, AWriteMovesTheLockToTheNewFile) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  const std::string link = dir.file("link.json");
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  struct stat before {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  CRecordLock held;
  held.acquire(link);
  CSnapshotRecord record = CSnapshotRecord::load(held.file());
  record.step = RecordStep::released;
  record.save(held.file(), false, &held);
  struct stat after {};
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  struct stat linkInfo {};
  ASSERT_EQ(lstat(link.c_str(), &linkInfo), 0);
  EXPECT_TRUE(S_ISLNK(linkInfo.st_mode));
  EXPECT_EQ(CSnapshotRecord::load(link).step, RecordStep::released);
  EXPECT_THAT(refusalOfLocking(link), HasSubstr("is in use by another qzfi command"));
  EXPECT_THAT(refusalOfLocking(file), HasSubstr("is in use by another qzfi command"));
  EXPECT_EQ(filesIn(dir.path()), (Names{"backup.json", "link.json"}));
}

// A new record is created locked: no other command uses it before its
// creator lets go.
TEST(Record, ANewRecordIsCreatedLocked) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  CRecordLock held;
  sample().save(file, true, &held);
  EXPECT_TRUE(held.held());
  EXPECT_EQ(held.file(), file);
  EXPECT_THAT(refusalOfLocking(file), HasSubstr("is in use by another qzfi command"));
  EXPECT_EQ(filesIn(dir.path()), Names{"backup.json"});
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_nlink, 1u);
}

// A rename-based write would split two names of one file into two records.
TEST(Record, ARecordWithTwoNamesIsRefused) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  ASSERT_EQ(link(file.c_str(), dir.file("other.json").c_str()), 0);
  EXPECT_EQ(refusalOfLocking(file),
            "the record " + file +
                " has 2 names (hard links): each command replaces the record by renaming a new "
                "file over the name it was given, which would split the names into two records; "
                "keep one name (remove the other links; a symbolic link may point to the "
                "record); nothing was run");
  // The refusal lets go of the lock.
  ASSERT_EQ(unlink(dir.file("other.json").c_str()), 0);
  CRecordLock held;
  EXPECT_NO_THROW(held.acquire(file));
}

TEST(Record, TemporaryNamesAreThoseOfTheRecordsWrites) {
  EXPECT_TRUE(qzfi_host::isTemporaryOf(".backup.json.aZ09xY", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf(".backup.json.aZ09x", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf(".backup.json.aZ09xYz", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf(".backup.json.aZ0-xY", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf(".backup.json.lock", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf(".other.json.aZ09xY", "backup.json"));
  EXPECT_FALSE(qzfi_host::isTemporaryOf("backup.json.aZ09xY", "backup.json"));
}

// A killed write's temporary file is removed by the next command that
// locks the record; one that a process holds, a link, another record's
// and an old lock file stay.
TEST(Record, AKilledWritesTemporaryIsRemovedOnceTheRecordIsLocked) {
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  std::ofstream(dir.file(".backup.json.Kil1ed")) << "half a record";
  std::ofstream(dir.file(".backup.json.Held01")) << "a write going on";
  std::ofstream(dir.file(".other.json.Kil1ed")) << "another record's";
  std::ofstream(dir.file(".backup.json.lock")) << "4242";
  std::ofstream(dir.file("target")) << "not a temporary";
  ASSERT_EQ(symlink(dir.file("target").c_str(), dir.file(".backup.json.Linked").c_str()), 0);
  // A killed creation leaves its temporary as a second name of the record.
  ASSERT_EQ(link(file.c_str(), dir.file(".backup.json.Create").c_str()), 0);
  const int writer = open(dir.file(".backup.json.Held01").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(flock(writer, LOCK_EX | LOCK_NB), 0);
  CRecordLock held;
  held.acquire(file);
  EXPECT_THAT(held.removed(), ::testing::UnorderedElementsAre(dir.file(".backup.json.Kil1ed"),
                                                              dir.file(".backup.json.Create")));
  EXPECT_EQ(filesIn(dir.path()),
            (Names{".backup.json.Held01", ".backup.json.Linked", ".backup.json.lock",
                   ".other.json.Kil1ed", "backup.json", "target"}));
  EXPECT_EQ(qztest::readFile(dir.file("target")), "not a temporary");
  close(writer);
}

TEST(Record, AHolderNotInTheKernelsListIsNone) {
  EXPECT_EQ(qzfi_host::lockHolder(0, 0), 0);
  qztest::TempDir dir;
  const std::string file = dir.file("backup.json");
  sample().save(file, true);
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  struct stat info {};
  ASSERT_EQ(fstat(fd, &info), 0);
  EXPECT_EQ(qzfi_host::lockHolder(info.st_dev, info.st_ino), 0);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  EXPECT_EQ(qzfi_host::lockHolder(info.st_dev, info.st_ino), getpid());
  close(fd);
}

// A copy is never the source: its object, the object deport named, or
// any volume of the source's group.
TEST(Record, ACopyThatIsTheSourceIsRefused) {
  Json json = sample().toJson();
  json["alternate"]["object"] = "/dev/qz/dsk/dg1/vol1";
  EXPECT_EQ(refusalOf(json),
            "its copy is the source itself (alternate.object /dev/qz/dsk/dg1/vol1, object "
            "/dev/qz/dsk/dg1/vol1): a copy is always made under a new group name; nothing was "
            "run");
  json = sample().toJson();
  json["deported_object"] = "/dev/qz/dsk/dgx/volx";
  json["alternate"]["object"] = "/dev/qz/dsk/dgx/volx";
  EXPECT_EQ(refusalOf(json),
            "its copy is the source itself (alternate.object /dev/qz/dsk/dgx/volx, "
            "deported_object /dev/qz/dsk/dgx/volx): a copy is always made under a new group "
            "name; nothing was run");
  json = sample().toJson();
  json["alternate"]["object"] = "/dev/qz/rdsk/dg1/vol2";
  EXPECT_EQ(refusalOf(json),
            "it names the source's own group dg1 as its copy (alternate.object "
            "/dev/qz/rdsk/dg1/vol2, object /dev/qz/dsk/dg1/vol1): a copy is always made under "
            "a new group name; nothing was run");
  json = sample().toJson();
  json["earlier_copies"][0]["object"] = "/dev/qz/dsk/dg1/vol1_dcl";
  EXPECT_THAT(refusalOf(json), HasSubstr("it names the source's own group dg1 as its copy "
                                         "(earlier_copies[0].object /dev/qz/dsk/dg1/vol1_dcl"));
  // Groups whose names only begin alike are other groups.
  json = sample().toJson();
  json["alternate"]["object"] = "/dev/qz/dsk/dg1_/vol1";
  EXPECT_EQ(refusalOf(json), "read");
}

TEST(Record, ATextHoldingANulIsRefused) {
  const std::string nul("a\0b", 3);
  const std::vector<std::pair<std::function<void(Json&)>, std::string>> edits = {
      {[&](Json& json) { json["object"] = "/dev/qz/dsk/dg1/vol1" + nul; }, "\"object\""},
      {[&](Json& json) { json["sub_objects"][1] = "/dev/sdd" + nul; }, "\"sub_objects[1]\""},
      {[&](Json& json) { json["alternate"]["secondary"][0] = nul; }, "\"alternate.secondary[0]\""},
      {[&](Json& json) { json["provider_state"]["text"] = nul; }, "\"provider_state.text\""},
      {[&](Json& json) { json["earlier_copies"][0]["provider_state"]["text"] = nul; },
       "\"earlier_copies[0].provider_state.text\""},
      {[&](Json& json) { json["events"][0]["detail"] = nul; }, "\"events[0].detail\""},
      {[&](Json& json) { json["extra" + nul] = 1; }, "a field name"},
  };
  for (const auto& [edit, where] : edits) {
    Json json = sample().toJson();
    edit(json);
    EXPECT_EQ(refusalOf(json), (where[0] == '"' ? "the field " : "") + where +
                                   " holds a NUL character (\\u0000), which no text of a record "
                                   "may hold; nothing was run");
  }
}

// A state that holds a NUL is written as base64, so that its record is
// never refused for it.
TEST(Record, AProviderStateHoldingANulTravelsAsBase64) {
  ProviderState state{std::string("fiid_v vol1\0rest", 16)};
  const Json json = qzfi_host::providerStateJson(state);
  EXPECT_TRUE(json.contains("base64"));
  CSnapshotRecord record = sample();
  record.state = state;
  EXPECT_EQ(CSnapshotRecord::fromJson(record.toJson()).state.bytes, state.bytes);
}

}  // namespace

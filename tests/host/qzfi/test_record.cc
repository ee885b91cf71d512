// The snapshot record file.
#include "record.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

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
  record.alternate = {"/dev/qz/dsk/dg1_1/vol1", {"/dev/sdf", "/dev/sdg"}, {"fiid_v vol1"}};
  record.earlierCopies.push_back({"/dev/qz/dsk/dg1_0/vol1", {"/dev/sdh", "/dev/sdi"}, {"old"}});
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
  EXPECT_THROW(sample().save(file, true), RecordError);
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
  CRecordLock second;
  try {
    second.acquire(file);
    ADD_FAILURE() << "locked twice";
  } catch (const RecordError& error) {
    EXPECT_EQ(std::string(error.what()),
              "the record " + file + " is in use by another qzfi command (process " +
                  std::to_string(getpid()) +
                  "): run this command again when it is done; nothing was changed");
  }
  first.reset();
  EXPECT_NO_THROW(second.acquire(file));
  // The lock lies beside the record, which stays whole.
  EXPECT_TRUE(std::filesystem::exists(dir.file(".backup.json.lock")));
  EXPECT_EQ(CSnapshotRecord::load(file).object, "/dev/qz/dsk/dg1/vol1");
}

}  // namespace

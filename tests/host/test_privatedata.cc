// Per-node private data and its manager.
#include <gtest/gtest.h>
#include <qzfi/privatedata.h>

#include <cstring>
#include <string>

using namespace qzfi_pdk_4_4;

namespace {

// A plug-in's private data as the framework sees it: counts its instances so
// that the tests see when the manager lets one go.
class TestData : public CFiPrivateData {
 public:
  TestData(qzfi_objid* id, bool alternate) : CFiPrivateData(id, alternate) { ++live; }
  ~TestData() override { --live; }
  static int live;
};
int TestData::live = 0;

struct Node {
  explicit Node(const char* path) : name(path) {
    id.name = name.data();
    id.kind = QZFI_OBJID_SUBOBJ;
    id.len = static_cast<int32_t>(name.size() + 1);
    domain.objid = &id;
  }
  std::string name;
  qzfi_objid id{};
  qfi_domain domain{};
};

class PrivateDataManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    manager.registerFactory(
        CFiPrivateDataFactoryPtr(new CFiPrivateDataConcreteFactory<TestData>()));
  }
  CFiPrivateDataManager manager;
};

TEST(PrivateDataManager, WithoutFactoryCreatesNothing) {
  CFiPrivateDataManager manager;
  Node node("/dev/qz/dsk/dg/vol");
  EXPECT_EQ(nullptr, manager.create(&node.domain, 0));
  EXPECT_EQ(nullptr, node.domain.pvt);
  EXPECT_EQ(0u, manager.size());
}

TEST_F(PrivateDataManagerTest, CreatesFindsAndDropsPerNode) {
  Node first("/dev/qz/dsk/dg/vol1");
  Node second("/dev/qz/dsk/dg/vol2");

  CFiPrivateData* one = manager.create(&first.domain, 0);
  CFiPrivateData* two = manager.create(&second.domain, 1);
  ASSERT_NE(nullptr, one);
  ASSERT_NE(nullptr, two);
  EXPECT_NE(one, two);
  EXPECT_NE(nullptr, dynamic_cast<TestData*>(one));
  EXPECT_EQ(2, TestData::live);
  EXPECT_EQ(2u, manager.size());

  EXPECT_EQ(one, first.domain.pvt);
  EXPECT_EQ(one, manager.find(&first.domain));
  EXPECT_EQ(two, manager.find(&second.domain));
  EXPECT_EQ(&first.id, one->getObjid());
  EXPECT_FALSE(one->isAlternate());
  EXPECT_TRUE(two->isAlternate());

  manager.drop(&first.domain);
  EXPECT_EQ(nullptr, first.domain.pvt);
  EXPECT_EQ(nullptr, manager.find(&first.domain));
  EXPECT_EQ(two, manager.find(&second.domain));
  EXPECT_EQ(1, TestData::live);

  manager.drop(&second.domain);
  EXPECT_EQ(0, TestData::live);
  EXPECT_EQ(0u, manager.size());
}

TEST_F(PrivateDataManagerTest, CreatingAgainReplacesTheNodesData) {
  Node node("/dev/qz/dsk/dg/vol");
  manager.create(&node.domain, 0);
  CFiPrivateData* again = manager.create(&node.domain, 0);
  EXPECT_EQ(1, TestData::live);
  EXPECT_EQ(again, manager.find(&node.domain));
  EXPECT_EQ(again, node.domain.pvt);
  manager.drop(&node.domain);
}

TEST_F(PrivateDataManagerTest, UnknownAndNullNodesAreHarmless) {
  Node node("/dev/qz/dsk/dg/vol");
  EXPECT_EQ(nullptr, manager.find(&node.domain));
  EXPECT_EQ(nullptr, manager.find(nullptr));
  EXPECT_EQ(nullptr, manager.create(nullptr, 0));
  manager.drop(&node.domain);
  manager.drop(nullptr);
  EXPECT_EQ(0u, manager.size());
}

TEST(PrivateData, BaseBlobRoundTripKeepsStateSessionAndTarget) {
  CFiPrivateData data(nullptr, false);
  data.setNodeState(4);
  data.setSessionId("session 7");
  data.setConfiguredTarget("/dev/target");

  qfi_blob blob{};
  ASSERT_EQ(0, data.createBlob(&blob));
  ASSERT_NE(nullptr, blob.data);
  EXPECT_EQ(1, blob.flag);
  EXPECT_EQ(std::strlen(blob.data) + 1, blob.len);

  CFiPrivateData copy(nullptr, true);
  EXPECT_EQ(0, copy.extractFromBlob(&blob));
  EXPECT_EQ(4, copy.getNodeState());
  EXPECT_EQ("session 7", copy.getSessionId());
  EXPECT_EQ("/dev/target", copy.getConfiguredTarget());
  qzfi_free_buf(blob.data, blob.len);
}

TEST(PrivateData, ExtractRejectsNullAndCorruptBlobs) {
  CFiPrivateData data(nullptr, false);
  EXPECT_EQ(3, data.extractFromBlob(nullptr));
  qfi_blob empty{};
  EXPECT_EQ(3, data.extractFromBlob(&empty));

  char text[] = "fiid_nodestate many";
  qfi_blob corrupt{sizeof text, text, 1};
  EXPECT_EQ(1, data.extractFromBlob(&corrupt));
  EXPECT_EQ(3, data.createBlob(nullptr));
}

TEST(PrivateData, InitNeedsANodeAndAdoptsItsIdentity) {
  Node node("/dev/qz/dsk/dg/vol");
  CFiPrivateData data(nullptr, false);
  EXPECT_EQ(3, data.init(nullptr, nullptr, 0, nullptr));
  EXPECT_EQ(3, data.init(nullptr, nullptr, nullptr, false));
  EXPECT_EQ(0, data.init(&node.domain, nullptr, 0, nullptr));
  EXPECT_EQ(&node.id, data.getObjid());
}

TEST(PrivateData, TargetIsChosenFromTheConfigurationData) {
  CFiPrivateData data(nullptr, false);
  EXPECT_NE(0, data.selectTargetFromConfigData());

  char other[] = "mode";
  char otherValue[] = "fast";
  char target[] = "target";
  char targetValue[] = "/dev/sdz";
  data.configDataList().push_back({other, otherValue, 0, 0});
  data.configDataList().push_back({target, targetValue, 0, 0});
  EXPECT_EQ(0, data.selectTargetFromConfigData());
  EXPECT_EQ("/dev/sdz", data.getConfiguredTarget());
}

TEST(PrivateData, DefaultsFillOnlyMissingParameters) {
  CFiPrivateData data(nullptr, false);
  char a[] = "a";
  char b[] = "b";
  char defaultA[] = "1";
  char defaultB[] = "2";
  char chosenB[] = "9";
  data.configInfoList().push_back({a, defaultA, 0, 0});
  data.configInfoList().push_back({b, defaultB, 0, 0});
  data.configDataList().push_back({b, chosenB, 0, 0});

  data.addDefaultConfigParamsToDataList();
  ASSERT_EQ(2u, data.configDataList().size());
  EXPECT_STREQ("9", data.configDataList()[0].value);
  EXPECT_STREQ("a", data.configDataList()[1].name);
  EXPECT_STREQ("1", data.configDataList()[1].value);
}

}  // namespace

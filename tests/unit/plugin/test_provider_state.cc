// Provider state through the entry point: the node private data saved into
// a blob, and restored from one in a plug-in that has never seen the node.
#include <functional>

#include <gtest/gtest.h>

#include "exception_kinds.h"
#include "exports_env.h"

namespace {

using qzvmfi_test::caughtMessages;
using qzvmfi_test::exceptionKinds;
using qzvmfi_test::Lines;
using qzvmfi_test::OperationsTest;
using qzvmfi_test::reportedFor;
using qzvmfi_test::TestNode;

class ProviderStateTest : public OperationsTest {
 protected:
  // A fresh plug-in, as on another host: the framework's managers and the
  // plug-in are made anew.
  void restartPlugin() {
    qzvmfi_fi_pgn_fini();
    ASSERT_EQ(0, initPlugin());
    m_trace.clear();
  }

  // A provider state with every record, as the plug-in writes it: deported,
  // lists, alternate volume, group id, one disk with two private-region lines
  // (the record ends with a line feed of its own, so an empty line follows
  // it and the separator makes another), two configuration lines and the
  // owner.
  static std::string fullState() {
    return "fiid_isqzvmdeported 1\n"
           "fiid_vt set1\n"
           "fiid_v vol1 vol1_dcl\n"
           "fiid_altvol /dev/qz/dsk/dg1/vol1\n"
           "fiid_dgid 17.9.A\n"
           "fiid_volpriv sdb dg1d00 qzarr0_0 2\n"
           "Device:    qzarr0_0\n"
           "type:      auto\n"
           "\n"
           "\n"
           "fiid_dgconfig dg1 2\n"
           "dg dg1\n"
           "\tguid={1}\n"
           "\n"
           "fiid_uigid 1234 5678";
  }
};

TEST_F(ProviderStateTest, ASaveForANodeWithoutPrivateDataLeavesTheBlob) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  char text[] = "untouched";
  qfi_blob blob{77, text, 9};
  EXPECT_EQ(0, qzvmfi_fi_pgn_process_providerstate(&node.domain, &blob, QFI_PS_SAVE));
  EXPECT_EQ(77u, blob.len);
  EXPECT_EQ(text, blob.data);
  EXPECT_EQ(9, blob.flag);
  EXPECT_STREQ("untouched", text);
}

TEST_F(ProviderStateTest, ARestoreIntoANodeWithoutPrivateDataCreatesAndFillsIt) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  ASSERT_EQ(nullptr, dataOf(&node.domain));
  ASSERT_EQ(0, restoreState(&node.domain, fullState()));
  CQzVMData* data = dataOf(&node.domain);
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(1, data->getDeported());
  EXPECT_EQ(Lines{"set1"}, data->vtList());
  EXPECT_EQ((Lines{"vol1", "vol1_dcl"}), data->vList());
  EXPECT_EQ("/dev/qz/dsk/dg1/vol1", data->getAltVol());
  EXPECT_EQ("17.9.A", data->getDGId());
  EXPECT_EQ(1234, data->getOwnerUid());
  EXPECT_EQ(5678, data->getOwnerGid());
  std::string node0;
  data->getDiskDMPMap("sdb", node0);
  EXPECT_EQ("qzarr0_0", node0);
  Lines listing;
  ASSERT_EQ(0, data->getVolPrivInfoPerDiskFromFiid("qzarr0_0", listing));
  EXPECT_EQ((Lines{"Device:    qzarr0_0", "type:      auto"}), listing);
  std::string dg;
  Lines config;
  ASSERT_EQ(0, data->getDGConfigFromPD(dg, config));
  EXPECT_EQ("dg1", dg);
  EXPECT_EQ((Lines{"dg dg1\n", "\tguid={1}\n"}), config);
  EXPECT_TRUE(commands().empty());
}

// What the framework moves between hosts comes back whole in a plug-in that
// never saw the node.
TEST_F(ProviderStateTest, ASavedStateIsRestoredWholeInAFreshPlugin) {
  std::string saved;
  {
    TestNode node("/dev/qz/dsk/dg1/vol1");
    ASSERT_EQ(0, restoreState(&node.domain, fullState()));
    saved = savedState(&node.domain);
  }
  EXPECT_EQ(fullState(), saved);
  restartPlugin();
  TestNode node("/dev/qz/dsk/dg1/vol1");
  ASSERT_EQ(0, restoreState(&node.domain, saved));
  EXPECT_EQ(saved, savedState(&node.domain));
}

TEST_F(ProviderStateTest, ASaveFillsTheBlobWithTheTextAndItsTerminator) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  ASSERT_EQ(0, restoreState(&node.domain, "fiid_uigid 0 0"));
  qfi_blob blob{};
  ASSERT_EQ(0, qzvmfi_fi_pgn_process_providerstate(&node.domain, &blob, QFI_PS_SAVE));
  EXPECT_EQ(15u, blob.len);
  EXPECT_STREQ("fiid_uigid 0 0", blob.data);
  EXPECT_EQ(1, blob.flag);
  qzfi_free_buf(blob.data, blob.len);
}

// A count that runs past the end of the state is refused, not read as a
// truncated record: 3, the record and its count reported, the node keeps
// nothing of it.
TEST_F(ProviderStateTest, ARestoreOfATruncatedConfigurationIsRefused) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  EXPECT_EQ(3, restoreState(&node.domain,
                            "fiid_altvol /dev/qz/dsk/dg1/vol1\nfiid_dgconfig dg1 3\ndg dg1\n"
                            "\tguid={1}"));
  EXPECT_EQ(nullptr, dataOf(&node.domain));
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ((std::vector<qzvmfi_test::Pushed>{
                {"MSG_ERROR_INPUT_REFUSED",
                 "door",
                 {"processProviderState",
                  "the provider state (record fiid_dgconfig, field line count)", "3",
                  "its count of 3 runs past the end of the provider state: only 2 lines follow "
                  "it"}}}),
            pushed());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState blob null or private data invalid"));
}

// A state is its node's object's: a state of another group is refused.
TEST_F(ProviderStateTest, AStateOfAnotherGroupIsRefused) {
  TestNode node("/dev/qz/dsk/dg2/vol1");
  EXPECT_EQ(3, restoreState(&node.domain, fullState()));
  EXPECT_EQ(nullptr, dataOf(&node.domain));
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ(
      (std::vector<qzvmfi_test::Pushed>{
          {"MSG_ERROR_INPUT_REFUSED",
           "door",
           {"processProviderState", "the provider state (record fiid_dgconfig, field group)", "dg1",
            "the state records the group dg1, but its node's object /dev/qz/dsk/dg2/vol1 "
            "lies in the group dg2"}}}),
      pushed());
}

// The raw path of the source, and the copy's node whose state records no
// group, restore as before.
TEST_F(ProviderStateTest, TheSourcesRawPathAndACopyWithoutAGroupRestore) {
  TestNode raw("/dev/qz/rdsk/dg1/vol1");
  EXPECT_EQ(0, restoreState(&raw.domain, fullState()));
  TestNode copy("/dev/qz/dsk/dg1_1234/vol1");
  EXPECT_EQ(0, restoreState(&copy.domain, "fiid_v vol1 vol1_dcl\nfiid_uigid 1001 1002"));
  ASSERT_NE(nullptr, dataOf(&copy.domain));
  EXPECT_TRUE(pushed().empty());
}

TEST_F(ProviderStateTest, AnOperationOtherThanSaveOrRestoreReturns3) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  qfi_blob blob{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_process_providerstate(&node.domain, &blob,
                                                   static_cast<qfi_op_providerstate>(2)));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState not valid providerstate operation"));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState blob null or private data invalid"));
  EXPECT_EQ(nullptr, blob.data);
}

TEST_F(ProviderStateTest, ASaveWithoutABlobReturns3) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  ASSERT_EQ(0, restoreState(&node.domain, "fiid_uigid 0 0"));
  EXPECT_EQ(3, qzvmfi_fi_pgn_process_providerstate(&node.domain, nullptr, QFI_PS_SAVE));
  EXPECT_TRUE(
      wasTraced(1, "CQzVMPlugin::processProviderState - invalid input. provider state blob null."));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState blob null or private data invalid"));
}

TEST_F(ProviderStateTest, ANullNodeReturns3) {
  qfi_blob blob{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_process_providerstate(nullptr, &blob, QFI_PS_SAVE));
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState invalid input"));
}

// A plug-in without a trace log answers a null node with success.
TEST_F(ProviderStateTest, ANullNodeWithoutATraceLogReturns0) {
  qzfi_pdk_4_4::CFiSmartPtr<CQzVMPlugin> untraced(new CQzVMPlugin());
  qfi_blob blob{};
  EXPECT_EQ(0, untraced->processProviderState(nullptr, &blob, QFI_PS_SAVE));
}

// A provider state that names what no command may carry is refused whole:
// 3, the name and its record and field reported, nothing run, and the
// node keeps nothing of it.
TEST_F(ProviderStateTest, AStateNamingWhatNoCommandMayCarryIsRefusedWhole) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  std::string state = fullState();
  const std::string hostile = "dg1$(touch${IFS}pwned)";
  state.replace(state.find("fiid_dgconfig dg1"), 17, "fiid_dgconfig " + hostile);
  EXPECT_EQ(3, restoreState(&node.domain, state));
  EXPECT_EQ(nullptr, dataOf(&node.domain));
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ((std::vector<qzvmfi_test::Pushed>{
                {"MSG_ERROR_INVALID_NAME",
                 "door",
                 {"processProviderState", hostile,
                  "it holds a character other than letters, digits, '_', '-' and '.'",
                  "the provider state (record fiid_dgconfig, field group)"}}}),
            pushed());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState blob null or private data invalid"));
}

TEST_F(ProviderStateTest, ARefusedStateLeavesWhatTheNodeHeld) {
  TestNode node("/dev/qz/dsk/dg1/vol1");
  ASSERT_EQ(0, restoreState(&node.domain, fullState()));
  std::string twice = fullState();
  // A second record of the same disk.
  twice.insert(twice.find("fiid_dgconfig"), "fiid_volpriv sdb dg1d01 qzarr0_1 0\n");
  EXPECT_EQ(3, restoreState(&node.domain, twice));
  ASSERT_EQ(1u, pushed().size());
  EXPECT_EQ("MSG_ERROR_INPUT_REFUSED", pushed().at(0).id);
  EXPECT_EQ("the provider state (record fiid_volpriv, field OS disk)", pushed().at(0).args.at(1));
  EXPECT_EQ(fullState(), savedState(&node.domain));
}

// ===== the exception kinds =====

// Private data whose blob cannot be read or written: each raises what the
// test gives.
class ThrowingData : public CQzVMData {
 public:
  using CQzVMData::CQzVMData;
  inline static std::function<void()> raise;
  int createBlob(qfi_blob*) override {
    raise();
    return 0;
  }
  int extractFromBlob(qfi_blob*) override {
    raise();
    return 0;
  }
};

// A save and a restore each meet every kind: 6, the message pushed under
// the operation's name, and the operation's failure traced.
TEST_F(ProviderStateTest, ProcessProviderStateCatchesEveryExceptionKind) {
  qzvmfi_ctx::PrivateDataManager::instance()->registerFactory(
      qzfi_pdk_4_4::CFiPrivateDataFactoryPtr(
          new qzfi_pdk_4_4::CFiPrivateDataConcreteFactory<ThrowingData>()));
  for (const auto& kind : exceptionKinds()) {
    SCOPED_TRACE(kind.name);
    ThrowingData::raise = kind.raise;
    for (qfi_op_providerstate op : {QFI_PS_RESTORE, QFI_PS_SAVE}) {
      qzvmfi_ctx::ErrorManager::instance()->clear();
      m_trace.clear();
      TestNode node("/dev/qz/dsk/dg1/vol1");
      char text[] = "fiid_v vol1";
      qfi_blob blob{11, text, 0};
      if (op == QFI_PS_SAVE) {
        ASSERT_NE(nullptr, qzvmfi_ctx::PrivateDataManager::instance()->create(&node.domain, 0));
      }
      EXPECT_EQ(6, qzvmfi_fi_pgn_process_providerstate(&node.domain, &blob, op));
      EXPECT_EQ(reportedFor(kind, "processProviderState", "../plugin"), caughtMessages(pushed()));
      EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::processProviderState failed"));
    }
  }
  ThrowingData::raise = nullptr;
}

}  // namespace

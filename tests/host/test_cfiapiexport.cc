// The exported-entry template, driven with a plug-in that records what it
// is asked.
#include <gtest/gtest.h>
#include <qzfi/cfiapiexport.h>
#include <qzfi/pluginbase.h>

#include <cstdlib>
#include <string>
#include <vector>

using namespace qzfi_pdk_4_4;

namespace {

struct TestTag {};

class RecordingPlugin : public CFiPluginBase {
 public:
  bool delayedInitRun() const { return m_delayedInitRun != 0; }
  void setDelayedInitRun() { m_delayedInitRun = 1; }

  int delayedInit() override {
    ++delayedInits;
    return delayedInitStatus;
  }
  int quiesce(qfi_quiescenode** nodes, int count, char*) override {
    quiesced.assign(nodes, nodes + count);
    return 0;
  }
  int select(char*, qfi_splitnode**, int) override { return classic("select"); }
  int selectSnapshots(CFiSessionPtr session) override {
    return variant("selectSnapshots", session);
  }
  int prepare(char*, qfi_splitnode**, int, int flags) override {
    return classic("prepare " + std::to_string(flags));
  }
  int prepareSnapshots(CFiSessionPtr session) override {
    return variant("prepareSnapshots", session);
  }
  int make(char*, qfi_splitnode**, int, qzfi_objid***, int*) override { return classic("make"); }
  int makeSnapshots(CFiSessionPtr session) override { return variant("makeSnapshots", session); }
  int objctl(const ACE_TString& name, CFiObjctlArgs& args) override {
    calls.push_back(std::string("objctl ") + name.c_str());
    objctlInputs = args.inputs();
    for (const CFiObjctlArgs::Arg& output : objctlOutputs) {
      args.addOutput(output.name, output.value, output.type);
    }
    return objctlStatus;
  }

  int delayedInits = 0;
  int delayedInitStatus = 0;
  int classicStatus = 0;
  int variantStatus = 0;
  int objctlStatus = 0;
  std::vector<qfi_quiescenode*> quiesced;
  std::vector<std::string> calls;
  CFiSessionPtr sessionSeen;
  std::vector<CFiObjctlArgs::Arg> objctlInputs;
  std::vector<CFiObjctlArgs::Arg> objctlOutputs;

 private:
  int classic(const std::string& call) {
    calls.push_back(call);
    return classicStatus;
  }
  int variant(const std::string& call, const CFiSessionPtr& session) {
    calls.push_back(call);
    sessionSeen = session;
    return variantStatus;
  }

  unsigned char m_delayedInitRun = 0;
};

using Export = CFiApiExport<RecordingPlugin, TestTag>;
using Sessions = CFiContextSingleton<CFiSessionManager, TestTag>;

class ApiExportTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto log = Export::TraceLogSingleton::instance();
    log->setLevel(QZFI_TRACE_DETAIL);
    log->setSink([this](int, const std::string& text) { trace.push_back(text); });
  }
  void TearDown() override {
    Export::PluginSingleton::instance(true);
    Export::TraceLogSingleton::instance(true);
    Sessions::instance(true);
  }

  static RecordingPlugin& plugin() { return Export::plugin(); }

  std::vector<std::string> trace;
};

// ===== trace scope and the delayed-initialisation gate =====

TEST_F(ApiExportTest, EntriesTraceTheirScopeUnderTheTemplatesSource) {
  EXPECT_EQ(7, Export::plain("qzx_entry", [] { return 7; }));
  ASSERT_EQ(2u, trace.size());
  const std::string entering = "Entering Function qzx_entry [";
  ASSERT_EQ(0u, trace[0].rfind(entering, 0));
  const std::string where = trace[0].substr(entering.size());
  EXPECT_NE(std::string::npos, where.find(", pdk/include/cfiapiexport]"));
  EXPECT_EQ("Exiting Function qzx_entry [" + where, trace[1]);
}

TEST_F(ApiExportTest, GateRunsTheDelayedInitialisationOnceAtTheFirstGatedEntry) {
  int bodies = 0;
  auto body = [&] { return ++bodies, 0; };
  EXPECT_EQ(0, Export::plain("qzx_plain", body));
  EXPECT_EQ(0, plugin().delayedInits);
  EXPECT_FALSE(plugin().delayedInitRun());
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(0, Export::gated("qzx_gated", body));
  }
  EXPECT_EQ(1, plugin().delayedInits);
  EXPECT_TRUE(plugin().delayedInitRun());
  EXPECT_EQ(4, bodies);
}

TEST_F(ApiExportTest, FailedDelayedInitialisationFailsItsEntryAndIsNotRetried) {
  plugin().delayedInitStatus = 9;
  int bodies = 0;
  auto body = [&] { return ++bodies, 5; };
  EXPECT_EQ(1, Export::gated("qzx_gated", body));
  EXPECT_EQ(0, bodies);
  EXPECT_EQ(5, Export::gated("qzx_gated", body));
  EXPECT_EQ(1, bodies);
  EXPECT_EQ(1, plugin().delayedInits);
}

// ===== node lists =====

TEST_F(ApiExportTest, AnArrayOfNodesIsPassedOnWithItsCount) {
  qfi_quiescenode a{}, b{}, single{};
  qfi_quiescenode* nodes[] = {&a, &b};
  qfi_quiescenode* node = &single;
  const auto list = Export::nodeList(node, nodes, 2);
  EXPECT_EQ(nodes, list.nodes);
  EXPECT_EQ(2, list.count);
  plugin().quiesce(list.nodes, list.count, nullptr);
  EXPECT_EQ((std::vector<qfi_quiescenode*>{&a, &b}), plugin().quiesced);
}

TEST_F(ApiExportTest, ASingleNodeWithoutArrayIsAnArrayOfOne) {
  qfi_quiescenode single{};
  qfi_quiescenode* node = &single;
  const auto list = Export::nodeList(node, static_cast<qfi_quiescenode**>(nullptr), 0);
  EXPECT_EQ(1, list.count);
  plugin().quiesce(list.nodes, list.count, nullptr);
  EXPECT_EQ(std::vector<qfi_quiescenode*>{&single}, plugin().quiesced);
}

TEST_F(ApiExportTest, NoNodeAtAllIsAnEmptyList) {
  qfi_quiescenode* node = nullptr;
  const auto list = Export::nodeList(node, static_cast<qfi_quiescenode**>(nullptr), 0);
  EXPECT_EQ(nullptr, list.nodes);
  EXPECT_EQ(0, list.count);
}

TEST_F(ApiExportTest, ACountWithoutArrayStopsTheProcess) {
  qfi_quiescenode single{};
  qfi_quiescenode* node = &single;
  EXPECT_DEATH(Export::nodeList(node, static_cast<qfi_quiescenode**>(nullptr), 2),
               "node array missing for 2 nodes");
}

// ===== session fallback =====

class SessionFallbackTest : public ApiExportTest {
 protected:
  void SetUp() override {
    ApiExportTest::SetUp();
    a.objid = qzfi_get_objid("/dev/qz/dsk/dg1/vol1", 21, QZFI_OBJID_INTERNAL);
    b.objid = qzfi_get_objid("/dev/qz/dsk/dg1/vol2", 21, QZFI_OBJID_INTERNAL);
  }
  void TearDown() override {
    qzfi_free_objid(a.objid);
    qzfi_free_objid(b.objid);
    ApiExportTest::TearDown();
  }

  qfi_splitnode a{}, b{};
  qfi_splitnode* nodes[2] = {&a, &b};
};

TEST_F(SessionFallbackTest, AClassicAnswerOtherThanFourStands) {
  plugin().classicStatus = 6;
  EXPECT_EQ(6, Export::selectWithSession(nullptr, nodes, 2));
  EXPECT_EQ(6, Export::prepareWithSession(nullptr, nodes, 2, 3));
  qzfi_objid** ids = nullptr;
  int idCount = -1;
  EXPECT_EQ(6, Export::makeWithSession(nullptr, nodes, 2, &ids, &idCount));
  EXPECT_EQ((std::vector<std::string>{"select", "prepare 3", "make"}), plugin().calls);
  EXPECT_FALSE(Sessions::exists());
  EXPECT_EQ(-1, idCount);
}

TEST_F(SessionFallbackTest, SelectAnsweringFourRunsItsSessionVariantWithTheNodes) {
  plugin().classicStatus = QFI_E_SESSION;
  plugin().variantStatus = 2;
  EXPECT_EQ(2, Export::selectWithSession(nullptr, nodes, 2));
  EXPECT_EQ((std::vector<std::string>{"select", "selectSnapshots"}), plugin().calls);
  CFiSessionPtr session = Sessions::instance()->getSession();
  EXPECT_EQ(session, plugin().sessionSeen);
  EXPECT_EQ((std::vector<qfi_splitnode*>{&a, &b}), session->nodes());
}

TEST_F(SessionFallbackTest, PrepareAnsweringFourRunsItsSessionVariant) {
  plugin().classicStatus = QFI_E_SESSION;
  EXPECT_EQ(0, Export::prepareWithSession(nullptr, nodes, 2, 1));
  EXPECT_EQ((std::vector<std::string>{"prepare 1", "prepareSnapshots"}), plugin().calls);
  EXPECT_EQ(2u, plugin().sessionSeen->nodes().size());
}

TEST_F(SessionFallbackTest, MakeAnsweringFourHandsBackTheSnapshotsAsIdentities) {
  plugin().classicStatus = QFI_E_SESSION;
  qzfi_objid** ids = nullptr;
  int idCount = 0;
  EXPECT_EQ(0, Export::makeWithSession(nullptr, nodes, 2, &ids, &idCount));
  EXPECT_EQ((std::vector<std::string>{"make", "makeSnapshots"}), plugin().calls);
  ASSERT_EQ(2, idCount);
  EXPECT_STREQ("/dev/qz/dsk/dg1/vol1", ids[0]->name);
  EXPECT_EQ(QZFI_OBJID_SNAPSHOT, ids[1]->kind);
  EXPECT_STREQ("/dev/qz/dsk/dg1/vol2", ids[1]->name);
  for (int i = 0; i < idCount; ++i) {
    qzfi_free_objid(ids[i]);
  }
  qzfi_free_buf(ids, idCount * sizeof(qzfi_objid*));
}

TEST_F(SessionFallbackTest, MakeWhoseSessionVariantFailsExportsNothing) {
  plugin().classicStatus = QFI_E_SESSION;
  plugin().variantStatus = 6;
  qzfi_objid** ids = nullptr;
  int idCount = -1;
  EXPECT_EQ(6, Export::makeWithSession(nullptr, nodes, 2, &ids, &idCount));
  EXPECT_EQ(nullptr, ids);
  EXPECT_EQ(-1, idCount);
}

// ===== objctl =====

TEST_F(ApiExportTest, ObjctlPassesTheParsedInputsAndWritesTheOutputs) {
  plugin().objctlStatus = 12;
  plugin().objctlOutputs = {{"dg", "dg1", "string"}, {"count", "3", "int"}};
  char* output = nullptr;
  int64_t result = -1;
  EXPECT_EQ(0, Export::objctl("listDG",
                              "<OBJCTL_ARG_LIST> <OBJCTL_INPUT arg=host value=h1 type=string /> "
                              "</OBJCTL_ARG_LIST>",
                              &output, &result));
  EXPECT_EQ(12, result);
  EXPECT_EQ(std::vector<std::string>{"objctl listDG"}, plugin().calls);
  ASSERT_EQ(1u, plugin().objctlInputs.size());
  EXPECT_EQ("h1", plugin().objctlInputs[0].value);
  ASSERT_NE(nullptr, output);
  EXPECT_STREQ(
      "<OBJCTL_ARG_LIST> <OBJCTL_OUTPUT arg=dg value=dg1 type=string /> <OBJCTL_OUTPUT "
      "arg=count value=3 type=int /> </OBJCTL_ARG_LIST> ",
      output);
  std::free(output);
}

TEST_F(ApiExportTest, ObjctlWithMalformedInputIsNotCalled) {
  char* output = nullptr;
  int64_t result = -1;
  EXPECT_EQ(0, Export::objctl("listDG", "<OBJCTL_ARG_LIST> <oops", &output, &result));
  EXPECT_EQ(3, result);
  EXPECT_TRUE(plugin().calls.empty());
  EXPECT_STREQ("<OBJCTL_ARG_LIST> </OBJCTL_ARG_LIST> ", output);
  std::free(output);
}

TEST_F(ApiExportTest, ObjctlWithoutPlacesForItsResultsStillRuns) {
  EXPECT_EQ(0, Export::objctl(nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(std::vector<std::string>{"objctl "}, plugin().calls);
}

}  // namespace

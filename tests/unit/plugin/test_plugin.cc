#include "plugin/qzvm_plugin.h"

#include <dlfcn.h>

#include <functional>

#include <gtest/gtest.h>

#include "../plugin_env.h"
#include "exception_kinds.h"

// The framework's builder of provider lists, as this test program links it:
// the framework's own, unless a test has it raise an exception first.
namespace {
std::function<void()> g_providerListRaises;
}  // namespace

extern "C" int qzfi_build_providerlist_node(qfi_provider_list** list, const char* provider,
                                            char** names, int nnames) {
  if (g_providerListRaises) {
    g_providerListRaises();
  }
  using Builder = int (*)(qfi_provider_list**, const char*, char**, int);
  static const auto framework =
      reinterpret_cast<Builder>(dlsym(RTLD_NEXT, "qzfi_build_providerlist_node"));
  return framework(list, provider, names, nnames);
}

namespace {

using qzfi_pdk_4_4::CFiError;
using qzfi_pdk_4_4::CFiErrorHandler;
using qzfi_pdk_4_4::CFiErrorHandlerPtr;
using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiIcuMessagePtr;
using qzfi_pdk_4_4::CFiSmartPtr;
using qzfi_pdk_4_4::CFiUdidException;
using qzvmfi_test::PluginEnv;
using qzvmfi_test::Pushed;
using qzvmfi_test::ScopedEnv;
using qzvmfi_test::TraceLine;
using Lines = std::vector<std::string>;

const char kRpm[] = "/bin/rpm -qa ";

// A plug-in registered with the framework's managers as the init entry
// point registers it, its tools answered by the exec seam.
class PluginTest : public PluginEnv {
 protected:
  void SetUp() override {
    PluginEnv::SetUp();
    CFiExecSeam::answer(kRpm, 0, {"glibc-2.36\n", "ZOLKqzvm-8.0.0-1.x86_64\n"});
    m_plugin = CFiSmartPtr<CQzVMPlugin>(new CQzVMPlugin());
    m_plugin->setProviderName(kQzVMPluginName);
    m_plugin->setMessageIndexOffset(6000);
    auto catalog = qzvmfi_ctx::CatalogManager::instance();
    auto errors = qzvmfi_ctx::ErrorManager::instance();
    errors->registerHandler(CFiErrorHandlerPtr(new CFiErrorHandler(nullptr, "", catalog)));
    m_plugin->registerTraceLog(qzvmfi_ctx::TraceLog::instance());
    m_plugin->registerErrorManager(errors);
    m_plugin->registerCatalogManager(catalog);
    m_plugin->registerPrivateDataManager(qzvmfi_ctx::PrivateDataManager::instance());
  }

  void TearDown() override {
    m_plugin.release();
    qzvmfi_ctx::CatalogManager::instance(true);
    qzvmfi_ctx::PrivateDataManager::instance(true);
    PluginEnv::TearDown();
  }

  CQzVMPlugin& plugin() { return *m_plugin; }

  // Makes the install probe throw what thrower throws.
  template <class Thrower>
  void probeThrows(Thrower thrower) {
    // Forgets the standing answer, so that the responder gets the line.
    CFiExecSeam::disable();
    CFiExecSeam::enable();
    CFiExecSeam::setResponder([thrower](const std::string& command, CFiExecSeam::Answer&) {
      if (command == kRpm) {
        thrower();
      }
      return false;
    });
  }

  // The number the mapping gave as its line: the last argument of the
  // pushed message, which must be a number and its line.
  static void expectLineArgument(const CFiIcuMessagePtr& message) {
    const icu::Formattable& line = message->getArguments().back();
    EXPECT_EQ(icu::Formattable::kLong, line.getType());
    EXPECT_EQ(message->getLine(), line.getLong());
    EXPECT_GT(message->getLine(), 0);
  }

  bool tracedScope(const std::string& operation) const {
    return !traced("Entering Function " + operation + " [").empty();
  }

  CFiSmartPtr<CQzVMPlugin> m_plugin;
};

// ===== init =====

TEST_F(PluginTest, InitRegistersTheCatalogueAndThePrivateDataFactory) {
  EXPECT_EQ(0, plugin().init());
  EXPECT_EQ(Lines{kRpm}, CFiExecSeam::commands());
  EXPECT_TRUE(errors().empty());

  auto catalog = qzvmfi_ctx::CatalogManager::instance();
  qzfi_pdk_4_4::CFiIcuMessage failed("MSG_ERROR_INITIALIZATION_FAILED", nullptr, 0, 3, "", 0);
  EXPECT_EQ("The qzvmfi plug-in could not be initialised.", catalog->getLocalizedMessage(failed));
  EXPECT_GE(catalog->getMessageNumber(failed), 6000);

  qfi_domain node{};
  auto* data = qzvmfi_ctx::PrivateDataManager::instance()->create(&node, 0);
  EXPECT_NE(nullptr, dynamic_cast<CQzVMData*>(data));
  EXPECT_EQ(1u, traced("Entering Function init [").size());
  EXPECT_NE(std::string::npos, traced("Entering Function init [")[0].text.find(", ../plugin]"));
}

TEST_F(PluginTest, InitHandsTheEngineThePluginsTraceLog) {
  CQzVMEngine::getInstance()->registerTraceLog(qzfi_pdk_4_4::CFiTraceLogPtr());
  ASSERT_EQ(0, plugin().init());
  EXPECT_EQ(qzvmfi_ctx::TraceLog::instance(), CQzVMEngine::getInstance()->getTraceLog());
  EXPECT_EQ(1u, traced("Entering Function initEngine [").size());
  m_plugin.release();
  EXPECT_FALSE(CQzVMEngine::getInstance()->getTraceLog());
}

TEST_F(PluginTest, InitWithoutThePackageFailsWith30AndPushesOnlyTheProbesMessage) {
  CFiExecSeam::answer(kRpm, 0, {"glibc-2.36\n", "bash-5.2\n"});
  EXPECT_EQ(30, plugin().init());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::init QzVM not installed."));
  EXPECT_EQ(
      (std::vector<Pushed>{
          {"MSG_ERROR_COMMAND_FAILED", "osutil", {"isInstalled", kRpm, "glibc-2.36\nbash-5.2\n"}}}),
      pushed());
}

TEST_F(PluginTest, InitWhereRpmFailsPushesTheRunnersAndTheProbesMessages) {
  CFiExecSeam::answer(kRpm, 127, {"sh: 1: /bin/rpm: not found\n"});
  EXPECT_EQ(30, plugin().init());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::init QzVM not installed."));
  EXPECT_EQ((std::vector<Pushed>{{"MSG_ERROR_COMMAND_FAILED",
                                  "clitool",
                                  {"executeCommand", kRpm, "sh: 1: /bin/rpm: not found\n"}},
                                 {"MSG_ERROR_COMMAND_FAILED",
                                  "osutil",
                                  {"isInstalled", kRpm, "sh: 1: /bin/rpm: not found\n"}}}),
            pushed());
}

TEST_F(PluginTest, InitWhoseEngineCannotStartFailsWith30WithoutAMessageOfItsOwn) {
  ScopedEnv missing("QZFI_CONFIG_DIR", configDir() + "/none");
  EXPECT_EQ(30, plugin().init());
  EXPECT_TRUE(wasTraced(1, "CQzVMPlugin::init engine initialization failed"));
  EXPECT_TRUE(CFiExecSeam::commands().empty());
  const auto messages = pushed();
  ASSERT_EQ(1u, messages.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION", messages[0].id);
  EXPECT_EQ("engine", messages[0].source);
  EXPECT_EQ("../configuration:checkConfigFile", messages[0].args[2]);
}

TEST_F(PluginTest, InitCatchingTheCommandLayersExceptionReturns6AndPushesNothing) {
  probeThrows([] { throw CQzVMCliException("qzvm tool failed"); });
  EXPECT_EQ(6, plugin().init());
  EXPECT_TRUE(errors().empty());
}

TEST_F(PluginTest, InitCatchingAFrameworkErrorReportsItThenTheFailedInitialisation) {
  probeThrows([] { throw CFiError("MSG_FROM_PROBE", "probe broke", "../probe:run", 77); });
  EXPECT_EQ(30, plugin().init());
  EXPECT_EQ((std::vector<Pushed>{{"MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION",
                                  "../plugin",
                                  {"MSG_FROM_PROBE", "probe broke", "../probe:run", "77"}},
                                 {"MSG_ERROR_INITIALIZATION_FAILED", "../plugin", {}}}),
            pushed());
  EXPECT_EQ(icu::Formattable::kLong, errors()[0]->getArguments()[3].getType());
  EXPECT_EQ(3, errors()[1]->getSeverity());
}

TEST_F(PluginTest, InitCatchingAUdidExceptionReportsItThenTheFailedInitialisation) {
  probeThrows([] { throw CFiUdidException("udid unreadable", 21); });
  EXPECT_EQ(30, plugin().init());
  EXPECT_EQ((std::vector<Pushed>{
                {"MSG_ERROR_UDID_PARSING_EXCEPTION", "../plugin", {"udid unreadable", "21"}},
                {"MSG_ERROR_INITIALIZATION_FAILED", "../plugin", {}}}),
            pushed());
  EXPECT_EQ(icu::Formattable::kLong, errors()[0]->getArguments()[1].getType());
}

TEST_F(PluginTest, InitCatchingARuntimeErrorReportsItThenTheFailedInitialisation) {
  probeThrows([] { throw std::runtime_error("probe ran out"); });
  EXPECT_EQ(30, plugin().init());
  const auto messages = pushed();
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_RUNTIME_EXCEPTION", messages[0].id);
  EXPECT_EQ("../plugin", messages[0].source);
  ASSERT_EQ(4u, messages[0].args.size());
  EXPECT_EQ((Lines{"std::runtime_error", "probe ran out", "init"}),
            Lines(messages[0].args.begin(), messages[0].args.begin() + 3));
  expectLineArgument(errors()[0]);
  EXPECT_EQ("MSG_ERROR_INITIALIZATION_FAILED", messages[1].id);
}

TEST_F(PluginTest, InitCatchingAThrownIntReportsItThenTheFailedInitialisation) {
  probeThrows([] { throw 1234567; });
  EXPECT_EQ(30, plugin().init());
  const auto messages = pushed();
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_INT_EXCEPTION", messages[0].id);
  ASSERT_EQ(3u, messages[0].args.size());
  EXPECT_EQ((Lines{"1234567", "../plugin"}),
            Lines(messages[0].args.begin(), messages[0].args.begin() + 2));
  EXPECT_EQ(icu::Formattable::kLong, errors()[0]->getArguments()[0].getType());
  expectLineArgument(errors()[0]);
  EXPECT_EQ("MSG_ERROR_INITIALIZATION_FAILED", messages[1].id);
}

TEST_F(PluginTest, InitFailedAfterTheCommandLayersExceptionIs6WithoutAMessage) {
  EXPECT_EQ(6, CQzVMPlugin::initFailed(false));
  EXPECT_TRUE(errors().empty());
  EXPECT_EQ(30, CQzVMPlugin::initFailed(true));
  EXPECT_EQ((std::vector<Pushed>{{"MSG_ERROR_INITIALIZATION_FAILED", "../plugin", {}}}), pushed());
}

// ===== fini =====

TEST_F(PluginTest, FiniOnlyTraces) {
  m_trace.clear();
  EXPECT_EQ(0, plugin().fini());
  ASSERT_EQ(2u, m_trace.size());
  EXPECT_EQ(0u, m_trace[0].text.rfind("Entering Function fini [", 0));
  EXPECT_EQ(0u, m_trace[1].text.rfind("Exiting Function fini [", 0));
  EXPECT_TRUE(CFiExecSeam::commands().empty());
}

// ===== supportsFiType =====

TEST_F(PluginTest, SupportsFiTypeWritesNoAccessThroughTheNodesAccessRecord) {
  qfi_access access{};
  access.type = QFI_ACCESS_WRITE;
  qfi_domain node{};
  node.access = &access;
  EXPECT_EQ(0, plugin().supportsFiType(&node, nullptr));
  EXPECT_EQ(QFI_ACCESS_NONE, access.type);
  EXPECT_TRUE(
      wasTraced(3, "CQzVMPlugin::supportsFiType - supported QFI_ACCESS_NONE as fi access type"));
}

TEST_F(PluginTest, SupportsFiTypeWithANullNodeOrAccessRecordWritesNothing) {
  char fiType[] = "anything";
  EXPECT_EQ(0, plugin().supportsFiType(nullptr, fiType));
  qfi_domain node{};
  EXPECT_EQ(0, plugin().supportsFiType(&node, fiType));
  EXPECT_EQ(nullptr, node.access);
  EXPECT_TRUE(traced("CQzVMPlugin::supportsFiType").empty());
  EXPECT_EQ(2u, traced("Entering Function supportsFiType [").size());
}

// ===== getProviderInfo =====

TEST_F(PluginTest, ProviderInfoAppendsThePluginHandlingQzvmObjects) {
  char other[] = "other";
  char* otherNames[] = {other};
  qfi_provider_list* list = nullptr;
  ASSERT_EQ(0, qzfi_build_providerlist_node(&list, "otherfi", otherNames, 1));

  EXPECT_EQ(0, plugin().getProviderInfo(&list));
  ASSERT_NE(nullptr, list->next);
  const qfi_provider_list* element = list->next;
  EXPECT_STREQ("qzvmfi", element->provider);
  ASSERT_EQ(1, element->nnames);
  EXPECT_STREQ("qzvm", element->names[0]);
  EXPECT_EQ(nullptr, element->next);
  qzfi_free_providerlist(list);
}

TEST_F(PluginTest, ProviderInfoThatCannotBeBuiltIsTraced) {
  EXPECT_EQ(3, plugin().getProviderInfo(nullptr));
  EXPECT_TRUE(wasTraced(1, "Error in getting provider info"));
}

TEST_F(PluginTest, ProviderInfoCatchesEveryExceptionKind) {
  qzvmfi_test::forEachExceptionKind([&](const qzvmfi_test::ExceptionKind& kind) {
    g_providerListRaises = kind.raise;
    qfi_provider_list* list = nullptr;
    EXPECT_EQ(6, plugin().getProviderInfo(&list));
    g_providerListRaises = nullptr;
    EXPECT_EQ(nullptr, list);
    EXPECT_EQ(qzvmfi_test::reportedFor(kind, "getProviderInfo", "../plugin"),
              qzvmfi_test::caughtMessages(pushed()));
  });
}

// ===== the operations that only answer =====

TEST_F(PluginTest, AnsweringOperationsReturn0AndLeaveTheirOutputs) {
  qzfi_objid** ids = reinterpret_cast<qzfi_objid**>(&m_plugin);
  int idCount = 5;
  int count = 7;
  qfi_domain node{};
  qfi_confspec confspec{};
  EXPECT_EQ(0, plugin().make(nullptr, nullptr, 0, &ids, &idCount));
  EXPECT_EQ(0, plugin().select(nullptr, nullptr, 0));
  EXPECT_EQ(0, plugin().isReady(nullptr, nullptr, 0));
  EXPECT_EQ(0, plugin().config(&node, 1, nullptr, &confspec));
  EXPECT_EQ(0, plugin().enumerateNodes(nullptr, &count, 0, nullptr));
  EXPECT_EQ(0, plugin().enumerateFims(nullptr));
  EXPECT_EQ(reinterpret_cast<qzfi_objid**>(&m_plugin), ids);
  EXPECT_EQ(5, idCount);
  EXPECT_EQ(7, count);
  for (const char* operation :
       {"make", "select", "isReady", "config", "enumerateNodes", "enumerateFims"}) {
    EXPECT_TRUE(tracedScope(operation)) << operation;
  }
  EXPECT_TRUE(CFiExecSeam::commands().empty());
}

// ===== private data =====

TEST_F(PluginTest, PrivateDataOfANodeComesWithThePluginsTraceLog) {
  ASSERT_EQ(0, plugin().init());
  EXPECT_EQ(nullptr, plugin().GetPrivateData(nullptr));
  qfi_domain node{};
  EXPECT_EQ(nullptr, plugin().GetPrivateData(&node));

  auto* created = qzvmfi_ctx::PrivateDataManager::instance()->create(&node, 0);
  ASSERT_NE(nullptr, created);
  CQzVMData* data = plugin().GetPrivateData(&node);
  EXPECT_EQ(created, data);
  ASSERT_NE(nullptr, data);
  EXPECT_EQ(qzvmfi_ctx::TraceLog::instance(), data->getTraceLog());
}

TEST_F(PluginTest, PrivateDataNeedsAPrivateDataManager) {
  CFiSmartPtr<CQzVMPlugin> bare(new CQzVMPlugin());
  qfi_domain node{};
  node.pvt = &node;
  EXPECT_EQ(nullptr, bare->GetPrivateData(&node));
}

// ===== the delayed-initialisation flag =====

TEST_F(PluginTest, DelayedInitialisationFlagStartsClear) {
  EXPECT_FALSE(plugin().delayedInitRun());
  plugin().setDelayedInitRun();
  EXPECT_TRUE(plugin().delayedInitRun());
}

}  // namespace

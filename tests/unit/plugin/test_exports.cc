#include "plugin/exports.h"

#include <dlfcn.h>
#include <elf.h>

#include <cstdlib>
#include <functional>
#include <set>

#include <gtest/gtest.h>
#include <qzfi/cfiapiexport.h>

#include "exports_env.h"

namespace {

using qzfi_pdk_4_4::CFiExecSeam;
using qzfi_pdk_4_4::CFiIcuMessagePtr;
using qzfi_pdk_4_4::CFiSmartPtr;
using qzvmfi_test::ExportsTest;
using qzvmfi_test::kRpm;
using qzvmfi_test::Lines;
using qzvmfi_test::PluginSingleton;
using qzvmfi_test::Pushed;
using qzvmfi_test::ScopedEnv;

// Every entry point, by name.
const Lines kEntryPoints = {"qzvmfi_fi_pgn_post_deport",
                            "qzvmfi_fi_pgn_get_snapdiff",
                            "qzvmfi_fi_pgn_getSnapshotSetId",
                            "qzvmfi_fi_pgn_update_snapshot_handle",
                            "qzvmfi_fi_pgn_update_snapshot_id",
                            "qzvmfi_fi_pgn_createSnapReplicaNode",
                            "qzvmfi_fi_pgn_set_restorepaths",
                            "qzvmfi_fi_pgn_set_comp_status",
                            "qzvmfi_fi_pgn_set_op_status",
                            "qzvmfi_fi_pgn_get_app_status",
                            "qzvmfi_fi_pgn_get_backupset",
                            "qzvmfi_fi_pgn_refresh_tree",
                            "qzvmfi_fi_pgn_pre_deport_resource",
                            "qzvmfi_fi_pgn_unformat",
                            "qzvmfi_fi_pgn_is_parent_pgn",
                            "qzvmfi_fi_pgn_deport_resource",
                            "qzvmfi_fi_pgn_online_resource",
                            "qzvmfi_fi_pgn_enumerate_host_nodes",
                            "qzvmfi_fi_pgn_format",
                            "qzvmfi_fi_pgn_import_resource",
                            "qzvmfi_fi_pgn_enumerate_enclosures",
                            "qzvmfi_fi_pgn_translate_resource_names",
                            "qzvmfi_fi_pgn_start_build_alttree",
                            "qzvmfi_fi_pgn_revisit_pgn_nodes",
                            "qzvmfi_fi_pgn_res_status",
                            "qzvmfi_fi_pgn_query_valid_secondaries",
                            "qzvmfi_fi_pgn_get_status",
                            "qzvmfi_fi_pgn_resync",
                            "qzvmfi_fi_pgn_restore",
                            "qzvmfi_fi_pgn_disable_access",
                            "qzvmfi_fi_pgn_enable_access",
                            "qzvmfi_fi_pgn_del_locale_message",
                            "qzvmfi_fi_pgn_get_locale_message",
                            "qzvmfi_fi_pgn_del_last_error",
                            "qzvmfi_fi_pgn_get_last_error",
                            "qzvmfi_fi_pgn_check_node_existence",
                            "qzvmfi_fi_pgn_get_associated_nodes",
                            "qzvmfi_fi_pgn_isvalid_node_association",
                            "qzvmfi_fi_pgn_enumerate_associations",
                            "qzvmfi_fi_pgn_enumerate_fims",
                            "qzvmfi_fi_pgn_enumerate_group_nodes",
                            "qzvmfi_fi_pgn_enumerate_nodes",
                            "qzvmfi_fi_pgn_get_provider_info",
                            "qzvmfi_fi_pgn_process_providerstate",
                            "qzvmfi_fi_pgn_getattr",
                            "qzvmfi_fi_pgn_interpose",
                            "qzvmfi_fi_pgn_cache_enable",
                            "qzvmfi_fi_pgn_cache_disable",
                            "qzvmfi_fi_pgn_build_alttree",
                            "qzvmfi_fi_pgn_subobj_list",
                            "qzvmfi_fi_pgn_online",
                            "qzvmfi_fi_pgn_dispose",
                            "qzvmfi_fi_pgn_deinit_node",
                            "qzvmfi_fi_pgn_config",
                            "qzvmfi_fi_pgn_reaccess_altnode",
                            "qzvmfi_fi_pgn_reaccess_tmpobj",
                            "qzvmfi_fi_pgn_pre_prepare",
                            "qzvmfi_fi_pgn_import_tree",
                            "qzvmfi_fi_pgn_deport_tree",
                            "qzvmfi_fi_pgn_init_remnode",
                            "qzvmfi_fi_pgn_init_altnode",
                            "qzvmfi_fi_pgn_init_node",
                            "qzvmfi_fi_pgn_supports_fitype",
                            "qzvmfi_fi_pgn_claim",
                            "qzvmfi_fi_pgn_errmsg",
                            "qzvmfi_fi_pgn_preselect",
                            "qzvmfi_fi_pgn_set_import_options",
                            "qzvmfi_fi_pgn_verify_qscombos",
                            "qzvmfi_fi_pgn_isready",
                            "qzvmfi_fi_pgn_select",
                            "qzvmfi_fi_pgn_prepare",
                            "qzvmfi_fi_pgn_unquiesce",
                            "qzvmfi_fi_pgn_quiesce",
                            "qzvmfi_fi_pgn_objctl",
                            "qzvmfi_fi_pgn_fini",
                            "qzvmfi_fi_pgn_init",
                            "qzvmfi_fi_pgn_make"};

const Lines kDataSymbols = {"cfi_pgn_name_str", "cfi_pgn_name_tstr", "cfi_pgn_name_wstr",
                            "TP_STATIC_RELEASE_STR"};

// The names of the symbols that an ELF shared object defines for others.
std::set<std::string> exportedSymbols(const std::string& path) {
  const std::string image = qzvmfi_test::readFile(path);
  std::set<std::string> names;
  const auto* header = reinterpret_cast<const Elf64_Ehdr*>(image.data());
  if (image.size() < sizeof(Elf64_Ehdr) || header->e_ident[EI_CLASS] != ELFCLASS64) {
    return names;
  }
  const auto* sections = reinterpret_cast<const Elf64_Shdr*>(image.data() + header->e_shoff);
  for (int i = 0; i < header->e_shnum; ++i) {
    if (sections[i].sh_type != SHT_DYNSYM) {
      continue;
    }
    const char* strings = image.data() + sections[sections[i].sh_link].sh_offset;
    const auto* symbols = reinterpret_cast<const Elf64_Sym*>(image.data() + sections[i].sh_offset);
    for (size_t j = 0; j < sections[i].sh_size / sizeof(Elf64_Sym); ++j) {
      const Elf64_Sym& symbol = symbols[j];
      if (symbol.st_shndx != SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) != STB_LOCAL) {
        names.insert(strings + symbol.st_name);
      }
    }
  }
  return names;
}

// ===== what the library exports =====

TEST_F(ExportsTest, LibraryExportsTheEntryPointsAndNamesAndNothingElse) {
  std::set<std::string> expected(kEntryPoints.begin(), kEntryPoints.end());
  expected.insert(kDataSymbols.begin(), kDataSymbols.end());
  ASSERT_EQ(77u, kEntryPoints.size());
  ASSERT_EQ(81u, expected.size());
  EXPECT_EQ(expected, exportedSymbols(QZVMFI_LIBRARY));
}

TEST_F(ExportsTest, FrameworkFindsEveryEntryPointByNameAndStartsThePlugin) {
  void* library = dlopen(QZVMFI_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(nullptr, library) << dlerror();
  for (const std::string& name : kEntryPoints) {
    EXPECT_NE(nullptr, dlsym(library, name.c_str())) << name;
  }
  for (const std::string& name : kDataSymbols) {
    EXPECT_NE(nullptr, dlsym(library, name.c_str())) << name;
  }
  EXPECT_EQ("qzvmfi", *static_cast<std::string*>(dlsym(library, "cfi_pgn_name_str")));
  EXPECT_EQ("qzvmfi", *static_cast<std::string*>(dlsym(library, "cfi_pgn_name_tstr")));
  EXPECT_EQ(L"qzvmfi", *static_cast<std::wstring*>(dlsym(library, "cfi_pgn_name_wstr")));
  EXPECT_STREQ("\n@(#) Brovik_" QZVMFI_VERSION,
               static_cast<const char*>(dlsym(library, "TP_STATIC_RELEASE_STR")));

  using Init = int32_t (*)(qfi_startup*, qfi_version*, const char*);
  using Fini = void (*)();
  using LastError = int32_t (*)(qfi_msg_info**);
  auto init = reinterpret_cast<Init>(dlsym(library, "qzvmfi_fi_pgn_init"));
  auto fini = reinterpret_cast<Fini>(dlsym(library, "qzvmfi_fi_pgn_fini"));
  auto lastError = reinterpret_cast<LastError>(dlsym(library, "qzvmfi_fi_pgn_get_last_error"));
  ASSERT_TRUE(init && fini && lastError);
  qfi_version version{};
  EXPECT_EQ(0, init(nullptr, &version, "qzfi"));
  EXPECT_EQ(7, version.major);
  qfi_msg_info* messages = reinterpret_cast<qfi_msg_info*>(&version);
  EXPECT_EQ(0, lastError(&messages));
  EXPECT_EQ(nullptr, messages);
  fini();
  // The library keeps its own singletons: this program's copies stay unmade.
  EXPECT_FALSE(PluginSingleton::exists());
  EXPECT_EQ(Lines{kRpm}, CFiExecSeam::commands());
  EXPECT_EQ(0, dlclose(library));
}

TEST_F(ExportsTest, NameStringsAndReleaseString) {
  EXPECT_EQ("qzvmfi", cfi_pgn_name_str);
  EXPECT_EQ("qzvmfi", cfi_pgn_name_tstr);
  EXPECT_EQ(L"qzvmfi", cfi_pgn_name_wstr);
  EXPECT_EQ(std::string("\n@(#) Brovik_") + QZVMFI_VERSION, TP_STATIC_RELEASE_STR);
}

// ===== init and fini =====

TEST_F(ExportsTest, InitWritesTheInterfaceVersionAndStartsThePlugin) {
  EXPECT_EQ(0, initPlugin());
  EXPECT_EQ(7, m_version.major);
  EXPECT_EQ(0, m_version.minor);
  EXPECT_EQ(0, m_version.micro);
  EXPECT_EQ(0, m_version.build);
  EXPECT_EQ("qzvmfi", plugin().getProviderName());
  EXPECT_EQ("qzfi-test", plugin().getFimName());
  EXPECT_EQ(6000, plugin().getMessageIndexOffset());
  EXPECT_EQ(6000, qzvmfi_ctx::CatalogManager::instance()->getMessageIndexOffset());
  EXPECT_EQ(qzvmfi_ctx::TraceLog::instance(), plugin().getTraceLog());
  EXPECT_EQ(qzvmfi_ctx::ErrorManager::instance(), plugin().getErrorManager());
  EXPECT_EQ(qzvmfi_ctx::CatalogManager::instance(), plugin().getCatalogManager());
  EXPECT_EQ(qzvmfi_ctx::PrivateDataManager::instance(), plugin().getPrivateDataManager());
  EXPECT_EQ(qzvmfi_ctx::SessionManager::instance(), plugin().getSessionManager());
  EXPECT_EQ("qzvmfi", qzvmfi_ctx::TraceLog::instance()->getName());
  EXPECT_EQ(6, qzvmfi_ctx::TraceLog::instance()->getLevel());
  EXPECT_TRUE(enteredScope("qzvmfi_fi_pgn_init"));
  EXPECT_TRUE(enteredScope("init"));
  EXPECT_EQ(Lines{kRpm}, CFiExecSeam::commands());
  EXPECT_TRUE(errors().empty());
}

TEST_F(ExportsTest, InitWithoutAVersionRecordReturns7AndTouchesNothing) {
  m_trace.clear();
  EXPECT_EQ(7, qzvmfi_fi_pgn_init(nullptr, nullptr, "qzfi"));
  EXPECT_FALSE(PluginSingleton::exists());
  EXPECT_FALSE(qzvmfi_ctx::CatalogManager::exists());
  EXPECT_FALSE(qzvmfi_ctx::PrivateDataManager::exists());
  EXPECT_FALSE(qzvmfi_ctx::SessionManager::exists());
  EXPECT_TRUE(m_trace.empty());
  EXPECT_TRUE(CFiExecSeam::commands().empty());
}

TEST_F(ExportsTest, InitWritesTheVersionEvenWhenThePluginCannotStart) {
  CFiExecSeam::answer(kRpm, 0, {"glibc-2.36\n"});
  EXPECT_EQ(30, initPlugin());
  EXPECT_EQ(7, m_version.major);
  EXPECT_EQ(0, m_version.minor);
}

TEST_F(ExportsTest, InitThenFiniThenInitMakesFreshSingletons) {
  ASSERT_EQ(0, initPlugin());
  // The first deport of a plug-in has the disks rescanned.
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(nullptr, nullptr));
  CFiSmartPtr<CQzVMPlugin> first = PluginSingleton::instance();
  auto firstLog = qzvmfi_ctx::TraceLog::instance();
  auto firstErrors = qzvmfi_ctx::ErrorManager::instance();
  auto firstCatalog = qzvmfi_ctx::CatalogManager::instance();
  auto firstData = qzvmfi_ctx::PrivateDataManager::instance();
  auto firstSessions = qzvmfi_ctx::SessionManager::instance();
  ASSERT_TRUE(first->delayedInitRun());

  qzvmfi_fi_pgn_fini();
  EXPECT_TRUE(qzfi_pdk_4_4::CFiPluginBase::isShuttingDown());
  EXPECT_FALSE(PluginSingleton::exists());
  EXPECT_FALSE(qzvmfi_ctx::TraceLog::exists());
  EXPECT_FALSE(qzvmfi_ctx::ErrorManager::exists());
  EXPECT_FALSE(qzvmfi_ctx::CatalogManager::exists());
  EXPECT_FALSE(qzvmfi_ctx::PrivateDataManager::exists());
  EXPECT_FALSE(qzvmfi_ctx::SessionManager::exists());
  EXPECT_TRUE(enteredScope("qzvmfi_fi_pgn_fini"));
  EXPECT_TRUE(enteredScope("fini"));

  ASSERT_EQ(0, initPlugin());
  EXPECT_NE(first, PluginSingleton::instance());
  EXPECT_FALSE(plugin().delayedInitRun());
  EXPECT_NE(firstLog, qzvmfi_ctx::TraceLog::instance());
  EXPECT_NE(firstErrors, qzvmfi_ctx::ErrorManager::instance());
  EXPECT_NE(firstCatalog, qzvmfi_ctx::CatalogManager::instance());
  EXPECT_NE(firstData, qzvmfi_ctx::PrivateDataManager::instance());
  EXPECT_NE(firstSessions, qzvmfi_ctx::SessionManager::instance());
  EXPECT_EQ(qzvmfi_ctx::TraceLog::instance(), CQzVMEngine::getInstance()->getTraceLog());
  EXPECT_EQ((Lines{kRpm, "/usr/sbin/qzdisk   scandisks ", kRpm}), CFiExecSeam::commands());
}

TEST_F(ExportsTest, InitTakesTheNativeLanguageOfTheStartupRecord) {
  char language[] = "de";
  qfi_locale locale{language};
  qfi_startup startup{};
  startup.locale = &locale;
  ASSERT_EQ(0, initPlugin(&startup));
  EXPECT_EQ("de", qzvmfi_ctx::CatalogManager::instance()->getNativeLanguage());
}

TEST_F(ExportsTest, InitWithoutANativeLanguageKeepsTheCataloguesOwn) {
  qfi_locale locale{nullptr};
  qfi_startup startup{};
  startup.locale = &locale;
  ASSERT_EQ(0, initPlugin(&startup));
  EXPECT_EQ("", qzvmfi_ctx::CatalogManager::instance()->getNativeLanguage());
}

TEST_F(ExportsTest, InitWithoutAConfigurationFolderFailsWithTheFrameworksError) {
  ScopedEnv missing("QZFI_CONFIG_DIR", configDir() + "/none");
  EXPECT_EQ(30, initPlugin());
  EXPECT_EQ(7, m_version.major);
  const auto messages = pushed();
  ASSERT_EQ(2u, messages.size());
  EXPECT_EQ("MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION", messages[0].id);
  EXPECT_EQ("pdk/include/cfiapiexport", messages[0].source);
  EXPECT_EQ("../configuration:checkConfigFile", messages[0].args[2]);
  EXPECT_EQ((Pushed{"MSG_ERROR_INITIALIZATION_FAILED", "../plugin", {}}), messages[1]);
  EXPECT_FALSE(PluginSingleton::exists());
}

// The plug-in object cannot be built without its configuration file: the
// framework still reads why init failed, and supportsFiType answers 0.
TEST_F(ExportsTest, APluginThatCannotBeBuiltStillTellsWhy) {
  ScopedEnv missing("QZFI_CONFIG_DIR", configDir() + "/none");
  EXPECT_EQ(30, initPlugin());
  qfi_domain domain{};
  EXPECT_EQ(0, qzvmfi_fi_pgn_supports_fitype(&domain, nullptr));
  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  std::vector<std::string> ids;
  std::string texts;
  for (const qfi_msg_info* message = list; message != nullptr; message = message->next) {
    ids.emplace_back(message->id);
    texts += std::string(message->text != nullptr ? message->text : "") + "\n";
  }
  EXPECT_EQ(0, qzvmfi_fi_pgn_del_last_error(&list));
  // Newest first.
  EXPECT_EQ((Lines{"MSG_ERROR_INITIALIZATION_FAILED", "MSG_ERROR_UNHANDLED_FIERROR_EXCEPTION"}),
            ids);
  EXPECT_NE(std::string::npos,
            texts.find("Serious error, the directory for the config file could not be "
                       "determined or doesn't exist."))
      << texts;
  EXPECT_NE(std::string::npos, texts.find("The qzvmfi plug-in could not be initialised.")) << texts;
  EXPECT_EQ(nullptr, list);
  EXPECT_EQ(3, qzvmfi_fi_pgn_get_last_error(nullptr));
  EXPECT_FALSE(PluginSingleton::exists());
}

// ===== messages as the framework reads them =====

TEST_F(ExportsTest, ToolBytesReachTheFrameworkAsTheToolPrintedThem) {
  const std::string listing = "caf\xe9-1.0 \xff\xfe\n\xc3\xa9t\xc3\xa9-2.0\n";
  CFiExecSeam::answer(kRpm, 0, {"caf\xe9-1.0 \xff\xfe\n", "\xc3\xa9t\xc3\xa9-2.0\n"});
  ASSERT_EQ(30, initPlugin());

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("MSG_ERROR_COMMAND_FAILED", list->id);
  EXPECT_EQ(6000 + qzfi_pdk_4_4::CFiMessageCatalogFactory("root", "qzvmfi")
                       .indexOf("MSG_ERROR_COMMAND_FAILED"),
            list->msgid);
  ASSERT_EQ(3, list->nargs);
  EXPECT_EQ(listing, std::string(list->args[2]));
  const std::string text =
      "isInstalled: a volume manager command failed: /bin/rpm -qa  Output: " + listing;
  EXPECT_EQ(text, std::string(list->text));

  int code = 0;
  char* localized = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_locale_message(&code, list, "", &localized));
  EXPECT_EQ(text, std::string(localized));
  EXPECT_EQ(list->msgid, code);
  EXPECT_EQ(0, qzvmfi_fi_pgn_del_locale_message(&localized));
  EXPECT_EQ(0, qzvmfi_fi_pgn_del_last_error(&list));
  EXPECT_EQ(nullptr, list);
}

TEST_F(ExportsTest, NumbersReachTheFrameworkWithoutGrouping) {
  CFiExecSeam::disable();
  CFiExecSeam::enable();
  CFiExecSeam::setResponder(
      [](const std::string&, CFiExecSeam::Answer&) -> bool { throw 1234567; });
  ASSERT_EQ(30, initPlugin());

  qfi_msg_info* list = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  ASSERT_NE(nullptr, list);
  ASSERT_NE(nullptr, list->next);
  const qfi_msg_info* thrown = list->next;
  EXPECT_STREQ("MSG_ERROR_UNHANDLED_INT_EXCEPTION", thrown->id);
  const std::string line = std::to_string(thrown->line);
  EXPECT_EQ("1234567", std::string(thrown->args[0]));
  EXPECT_EQ(line, std::string(thrown->args[2]));
  EXPECT_EQ("Unhandled integer exception 1234567 (../plugin, line " + line + ").",
            std::string(thrown->text));
  EXPECT_STREQ("The qzvmfi plug-in could not be initialised.", list->text);

  char* localized = nullptr;
  ASSERT_EQ(0, qzvmfi_fi_pgn_get_locale_message(nullptr, list->next, "", &localized));
  EXPECT_EQ(std::string(thrown->text), std::string(localized));
  qzvmfi_fi_pgn_del_locale_message(&localized);
  qzvmfi_fi_pgn_del_last_error(&list);
}

// ===== the delayed-initialisation gate =====

TEST_F(ExportsTest, TheFirstGatedEntryRunsTheDelayedInitialisation) {
  ASSERT_EQ(0, initPlugin());
  qfi_msg_info* list = nullptr;
  EXPECT_EQ(0, qzvmfi_fi_pgn_get_last_error(&list));
  EXPECT_FALSE(plugin().delayedInitRun());
  EXPECT_EQ(0, qzvmfi_fi_pgn_post_deport(nullptr, nullptr));
  EXPECT_TRUE(plugin().delayedInitRun());
  EXPECT_EQ(0, qzvmfi_fi_pgn_pre_prepare(nullptr));
  EXPECT_TRUE(plugin().delayedInitRun());
}

// ===== argument checks =====

TEST_F(ExportsTest, ClaimWithANullPointerReturns0WithoutCalling) {
  ASSERT_EQ(0, initPlugin());
  qzfi_objid object{};
  qzfi_objid** secondary = nullptr;
  int count = 5;
  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(nullptr, &secondary, &count));
  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(&object, nullptr, &count));
  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(&object, &secondary, nullptr));
  EXPECT_EQ(5, count);
  EXPECT_FALSE(enteredScope("claim"));
  EXPECT_EQ(3u, traced("Entering Function qzvmfi_fi_pgn_claim [").size());

  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(&object, &secondary, &count));
  EXPECT_TRUE(enteredScope("claim"));
  EXPECT_EQ(0, count);
  // claim is plain: the gate has not run.
  EXPECT_FALSE(plugin().delayedInitRun());
}

TEST_F(ExportsTest, ProviderInfoWithoutAListReturns3) {
  ASSERT_EQ(0, initPlugin());
  EXPECT_EQ(3, qzvmfi_fi_pgn_get_provider_info(nullptr));
  EXPECT_FALSE(enteredScope("getProviderInfo"));

  qfi_provider_list* list = nullptr;
  EXPECT_EQ(0, qzvmfi_fi_pgn_get_provider_info(&list));
  ASSERT_NE(nullptr, list);
  EXPECT_STREQ("qzvmfi", list->provider);
  EXPECT_STREQ("qzvm", list->names[0]);
  qzfi_free_providerlist(list);
}

TEST_F(ExportsTest, EnumerateNodesWithoutAListReturns3) {
  ASSERT_EQ(0, initPlugin());
  int count = 0;
  EXPECT_EQ(3, qzvmfi_fi_pgn_enumerate_nodes(nullptr, &count, 0, nullptr));
  EXPECT_FALSE(enteredScope("enumerateNodes"));
  qfi_node_list* list = nullptr;
  EXPECT_EQ(0, qzvmfi_fi_pgn_enumerate_nodes(&list, &count, 0, nullptr));
  EXPECT_TRUE(enteredScope("enumerateNodes"));
}

TEST_F(ExportsTest, SubobjListCallsOnlyWithAllThreePointers) {
  ASSERT_EQ(0, initPlugin());
  qfi_domain node{};
  qzfi_objid** subobjs = nullptr;
  int count = 5;
  EXPECT_EQ(3, qzvmfi_fi_pgn_subobj_list(nullptr, &subobjs, &count));
  EXPECT_EQ(3, qzvmfi_fi_pgn_subobj_list(&node, nullptr, &count));
  EXPECT_EQ(3, qzvmfi_fi_pgn_subobj_list(&node, &subobjs, nullptr));
  EXPECT_EQ(5, count);
  EXPECT_FALSE(enteredScope("subobjList"));
  EXPECT_EQ(0, qzvmfi_fi_pgn_subobj_list(&node, &subobjs, &count));
  EXPECT_EQ(0, count);
  EXPECT_TRUE(enteredScope("subobjList"));
}

TEST_F(ExportsTest, ConfigCallsOnlyWithANodeAndAConfigurationRecord) {
  ASSERT_EQ(0, initPlugin());
  qfi_domain node{};
  qfi_confspec confspec{};
  EXPECT_EQ(3, qzvmfi_fi_pgn_config(nullptr, 0, nullptr, &confspec));
  EXPECT_EQ(3, qzvmfi_fi_pgn_config(&node, 0, nullptr, nullptr));
  EXPECT_FALSE(enteredScope("config"));
  EXPECT_EQ(0, qzvmfi_fi_pgn_config(&node, 0, nullptr, &confspec));
  EXPECT_TRUE(enteredScope("config"));
}

TEST_F(ExportsTest, TranslateResourceNamesChecksItsNameArrays) {
  ASSERT_EQ(0, initPlugin());
  char name[] = "/dev/sdb";
  char* names[] = {name};
  char* out[] = {nullptr};
  EXPECT_EQ(3, qzvmfi_fi_pgn_translate_resource_names(names, -1, out));
  EXPECT_EQ(3, qzvmfi_fi_pgn_translate_resource_names(nullptr, 1, out));
  EXPECT_EQ(3, qzvmfi_fi_pgn_translate_resource_names(names, 1, nullptr));
  EXPECT_EQ(0, qzvmfi_fi_pgn_translate_resource_names(nullptr, 0, nullptr));
  EXPECT_EQ(0, qzvmfi_fi_pgn_translate_resource_names(names, 1, out));
}

TEST_F(ExportsTest, GatedEntryChecksComeAfterTheGate) {
  ASSERT_EQ(0, initPlugin());
  EXPECT_EQ(3, qzvmfi_fi_pgn_config(nullptr, 0, nullptr, nullptr));
  EXPECT_TRUE(plugin().delayedInitRun());
}

TEST_F(ExportsTest, QuiesceWithoutArrayButWithACountStopsTheProcess) {
  ASSERT_EQ(0, initPlugin());
  qfi_quiescenode node{};
  EXPECT_DEATH(qzvmfi_fi_pgn_quiesce(&node, nullptr, 2, nullptr), "node array missing for 2 nodes");
}

TEST_F(ExportsTest, QuiesceWithOneNodeAndNoArrayQuiescesThatNode) {
  ASSERT_EQ(0, initPlugin());
  qfi_quiescenode node{};
  EXPECT_EQ(0, qzvmfi_fi_pgn_quiesce(&node, nullptr, 0, nullptr));
  EXPECT_EQ(1, node.state);
  qzvmfi_fi_pgn_unquiesce(&node, nullptr, 0);
  EXPECT_EQ(0, node.state);
  EXPECT_TRUE(enteredScope("qzvmfi_fi_pgn_unquiesce"));
  // With an array, its nodes are the ones quiesced, not the single one.
  qfi_quiescenode a{}, b{}, single{};
  qfi_quiescenode* nodes[] = {&a, &b};
  EXPECT_EQ(0, qzvmfi_fi_pgn_quiesce(&single, nodes, 2, nullptr));
  EXPECT_EQ((std::vector<int32_t>{1, 1, 0}),
            (std::vector<int32_t>{a.state, b.state, single.state}));
}

TEST_F(ExportsTest, PreselectAddsTheSplitNodesToTheSession) {
  ASSERT_EQ(0, initPlugin());
  qfi_splitnode a{}, b{}, single{};
  qfi_splitnode* nodes[] = {&a, &b};
  EXPECT_EQ(0, qzvmfi_fi_pgn_preselect(&single, nullptr, nullptr, 0));
  EXPECT_EQ(0, qzvmfi_fi_pgn_preselect(&single, nullptr, nodes, 2));
  EXPECT_EQ(0, qzvmfi_fi_pgn_preselect(nullptr, nullptr, nullptr, 0));
  EXPECT_EQ((std::vector<qfi_splitnode*>{&single, &a, &b}),
            qzvmfi_ctx::SessionManager::instance()->getSession()->nodes());
  EXPECT_DEATH(qzvmfi_fi_pgn_preselect(&single, nullptr, nullptr, 1),
               "node array missing for 1 nodes");
}

TEST_F(ExportsTest, SelectAndMakeAnswerWithoutTheSession) {
  ASSERT_EQ(0, initPlugin());
  qfi_splitnode single{};
  qzfi_objid** ids = reinterpret_cast<qzfi_objid**>(&single);
  int idCount = 9;
  EXPECT_EQ(0, qzvmfi_fi_pgn_select(nullptr, &single, nullptr, 0));
  EXPECT_EQ(0, qzvmfi_fi_pgn_prepare(nullptr, &single, nullptr, 0, 0));
  EXPECT_EQ(0, qzvmfi_fi_pgn_make(nullptr, &single, nullptr, 0, &ids, &idCount));
  EXPECT_EQ(0, qzvmfi_fi_pgn_isready(nullptr, &single, nullptr, 0));
  EXPECT_EQ(reinterpret_cast<qzfi_objid**>(&single), ids);
  EXPECT_EQ(9, idCount);
  EXPECT_TRUE(qzvmfi_ctx::SessionManager::instance()->getSession()->nodes().empty());
  for (const char* operation : {"select", "make", "isReady"}) {
    EXPECT_TRUE(enteredScope(operation)) << operation;
  }
}

TEST_F(ExportsTest, ObjctlWithoutOutputArgumentsGivesTheEmptyList) {
  ASSERT_EQ(0, initPlugin());
  char* output = nullptr;
  int64_t result = -1;
  EXPECT_EQ(0, qzvmfi_fi_pgn_objctl("status", "", &output, &result));
  EXPECT_EQ(0, result);
  ASSERT_NE(nullptr, output);
  EXPECT_STREQ("<OBJCTL_ARG_LIST> </OBJCTL_ARG_LIST> ", output);
  std::free(output);
}

TEST_F(ExportsTest, SupportsFiTypeWithNullInputsWritesNothing) {
  ASSERT_EQ(0, initPlugin());
  EXPECT_EQ(0, qzvmfi_fi_pgn_supports_fitype(nullptr, nullptr));
  qfi_domain node{};
  EXPECT_EQ(0, qzvmfi_fi_pgn_supports_fitype(&node, nullptr));
  qfi_access access{QFI_ACCESS_READ, 0, nullptr, nullptr};
  node.access = &access;
  EXPECT_EQ(0, qzvmfi_fi_pgn_supports_fitype(&node, nullptr));
  EXPECT_EQ(QFI_ACCESS_NONE, access.type);
}

// ===== every entry point reaches its operation =====

struct Reach {
  const char* entry;
  const char* operation;  // the plug-in's own scope, or null for the base's
  std::function<int()> call;
};

TEST_F(ExportsTest, EveryEntryPointReachesItsOperation) {
  ASSERT_EQ(0, initPlugin());
  qfi_domain node{};
  // A node that names a volume: the operations that split its path need it.
  char volumePath[] = "/dev/qz/dsk/dg1/vol1";
  qzfi_objid volumeId{volumePath, 3, sizeof volumePath};
  qfi_domain volumeNode{};
  volumeNode.objid = &volumeId;
  qfi_splitnode split{};
  qfi_quiescenode quiesce{};
  qfi_snapreplica_ele element{};
  qfi_msg_info* messages = nullptr;
  char* text = nullptr;
  char const* status = nullptr;
  qzfi_objid** ids = nullptr;
  qzfi_objid* id = nullptr;
  int count = 0;
  long number = 0;
  qfi_confspec confspec{};
  qfi_attributes attributes{};
  qfi_bkupset set{};
  qfi_node_list* nodes = nullptr;
  qfi_provider_list* providers = nullptr;
  int64_t result = 0;
  const std::vector<Reach> table = {
      {"post_deport", "postDeport", [&] { return qzvmfi_fi_pgn_post_deport(&node, &node); }},
      {"get_snapdiff", nullptr,
       [&] { return qzvmfi_fi_pgn_get_snapdiff(&node, &element, &element, nullptr); }},
      {"getSnapshotSetId", nullptr, [&] { return qzvmfi_fi_pgn_getSnapshotSetId(&node, &text); }},
      {"update_snapshot_handle", nullptr,
       [&] { return qzvmfi_fi_pgn_update_snapshot_handle(&element); }},
      {"update_snapshot_id", nullptr,
       [&] { return qzvmfi_fi_pgn_update_snapshot_id(&node, &node, &element, 0); }},
      {"createSnapReplicaNode", nullptr,
       [&] { return qzvmfi_fi_pgn_createSnapReplicaNode(&node, &element); }},
      {"set_restorepaths", nullptr,
       [&] { return qzvmfi_fi_pgn_set_restorepaths(&node, nullptr, 0); }},
      {"set_comp_status", nullptr,
       [&] { return qzvmfi_fi_pgn_set_comp_status(&node, 0, nullptr, 0); }},
      {"set_op_status", nullptr, [&] { return qzvmfi_fi_pgn_set_op_status(&node, 0); }},
      {"get_app_status", nullptr, [&] { return qzvmfi_fi_pgn_get_app_status(&node, 0, nullptr); }},
      {"get_backupset", nullptr,
       [&] { return qzvmfi_fi_pgn_get_backupset(&node, 0, nullptr, 0, &set); }},
      {"refresh_tree", nullptr,
       [&] { return qzvmfi_fi_pgn_refresh_tree(&node, 0, 0, nullptr, 0, &count, nullptr, 0); }},
      {"pre_deport_resource", nullptr,
       [&] { return qzvmfi_fi_pgn_pre_deport_resource(nullptr, 0, nullptr); }},
      {"unformat", "unformat", [&] { return qzvmfi_fi_pgn_unformat(nullptr, 0, 0); }},
      {"is_parent_pgn", "isParentPgn",
       [&] { return qzvmfi_fi_pgn_is_parent_pgn(nullptr, &count, 0); }},
      {"deport_resource", nullptr,
       [&] { return qzvmfi_fi_pgn_deport_resource(nullptr, nullptr, nullptr, nullptr, 0); }},
      {"online_resource", "onlineResource",
       [&] {
         return qzvmfi_fi_pgn_online_resource(nullptr, 0, nullptr, nullptr, nullptr, nullptr, 0,
                                              nullptr, nullptr);
       }},
      {"enumerate_host_nodes", nullptr,
       [&] { return qzvmfi_fi_pgn_enumerate_host_nodes(nullptr, &count, nullptr); }},
      {"format", "format",
       [&] {
         return qzvmfi_fi_pgn_format(nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr);
       }},
      {"import_resource", nullptr,
       [&] {
         return qzvmfi_fi_pgn_import_resource(nullptr, nullptr, nullptr, nullptr, 0, &text,
                                              nullptr);
       }},
      {"enumerate_enclosures", nullptr,
       [&] { return qzvmfi_fi_pgn_enumerate_enclosures(nullptr, &count, nullptr); }},
      {"translate_resource_names", nullptr,
       [&] { return qzvmfi_fi_pgn_translate_resource_names(nullptr, 0, nullptr); }},
      {"start_build_alttree", nullptr,
       [&] { return qzvmfi_fi_pgn_start_build_alttree(&node, nullptr, nullptr); }},
      {"revisit_pgn_nodes", nullptr, [&] { return qzvmfi_fi_pgn_revisit_pgn_nodes(nullptr); }},
      {"res_status", nullptr,
       [&] { return qzvmfi_fi_pgn_res_status(nullptr, 0, &number, &messages); }},
      {"query_valid_secondaries", nullptr,
       [&] { return qzvmfi_fi_pgn_query_valid_secondaries(nullptr, &ids, &number); }},
      {"get_status", nullptr,
       [&] { return qzvmfi_fi_pgn_get_status(nullptr, nullptr, 0, nullptr, 0, &number); }},
      {"resync", nullptr,
       [&] { return qzvmfi_fi_pgn_resync(nullptr, nullptr, 0, nullptr, nullptr, 0, &number); }},
      {"restore", nullptr,
       [&] {
         return qzvmfi_fi_pgn_restore(nullptr, nullptr, 0, nullptr, nullptr, nullptr, &number, 0,
                                      &number);
       }},
      {"disable_access", "disableAccess", [&] { return qzvmfi_fi_pgn_disable_access(nullptr, 0); }},
      {"enable_access", "enableAccess",
       [&] { return qzvmfi_fi_pgn_enable_access(nullptr, 0, 0, 1); }},
      {"del_locale_message", nullptr, [&] { return qzvmfi_fi_pgn_del_locale_message(&text); }},
      {"get_locale_message", "getLocaleMessage",
       [&] { return qzvmfi_fi_pgn_get_locale_message(nullptr, nullptr, nullptr, &text); }},
      {"del_last_error", "delLastError", [&] { return qzvmfi_fi_pgn_del_last_error(&messages); }},
      {"get_last_error", "getLastError", [&] { return qzvmfi_fi_pgn_get_last_error(&messages); }},
      {"check_node_existence", "checkNodeExistence",
       [&] { return qzvmfi_fi_pgn_check_node_existence(&node, &count); }},
      {"get_associated_nodes", nullptr,
       [&] { return qzvmfi_fi_pgn_get_associated_nodes(nullptr, &nodes); }},
      {"isvalid_node_association", nullptr,
       [&] { return qzvmfi_fi_pgn_isvalid_node_association(nullptr, &count); }},
      {"enumerate_associations", nullptr,
       [&] { return qzvmfi_fi_pgn_enumerate_associations(nullptr); }},
      {"enumerate_fims", "enumerateFims", [&] { return qzvmfi_fi_pgn_enumerate_fims(nullptr); }},
      {"enumerate_group_nodes", nullptr,
       [&] { return qzvmfi_fi_pgn_enumerate_group_nodes(nullptr); }},
      {"enumerate_nodes", "enumerateNodes",
       [&] { return qzvmfi_fi_pgn_enumerate_nodes(&nodes, &count, 0, nullptr); }},
      {"get_provider_info", "getProviderInfo",
       [&] {
         const int got = qzvmfi_fi_pgn_get_provider_info(&providers);
         qzfi_free_providerlist(providers);
         return got;
       }},
      {"process_providerstate", "processProviderState",
       [&] { return qzvmfi_fi_pgn_process_providerstate(&node, nullptr, QFI_PS_SAVE); }},
      {"getattr", nullptr,
       [&] { return qzvmfi_fi_pgn_getattr(&node, &node, &split, &attributes); }},
      {"interpose", nullptr, [&] { return qzvmfi_fi_pgn_interpose(&node, nullptr, &ids, &count); }},
      {"cache_enable", nullptr, [&] { return qzvmfi_fi_pgn_cache_enable(&node, 0); }},
      {"cache_disable", nullptr, [&] { return qzvmfi_fi_pgn_cache_disable(&node, 0); }},
      {"build_alttree", "buildAltTree",
       [&] { return qzvmfi_fi_pgn_build_alttree(&volumeNode, nullptr, nullptr, nullptr, 0, &id); }},
      {"subobj_list", "subobjList", [&] { return qzvmfi_fi_pgn_subobj_list(&node, &ids, &count); }},
      {"online", "online", [&] { return qzvmfi_fi_pgn_online(&node, &node, 1, QFI_DISP_NONE); }},
      {"dispose", "dispose",
       [&] { return qzvmfi_fi_pgn_dispose(&node, &node, nullptr, QFI_DISP_NONE); }},
      {"deinit_node", "deInitNode", [&] { return qzvmfi_fi_pgn_deinit_node(&node); }},
      {"config", "config", [&] { return qzvmfi_fi_pgn_config(&node, 0, nullptr, &confspec); }},
      {"reaccess_altnode", nullptr,
       [&] {
         return qzvmfi_fi_pgn_reaccess_altnode(&node, nullptr, nullptr, nullptr, nullptr, nullptr,
                                               0, QFI_INTENT_NONE);
       }},
      {"reaccess_tmpobj", nullptr,
       [&] {
         return qzvmfi_fi_pgn_reaccess_tmpobj(&node, nullptr, nullptr, &node, nullptr,
                                              QFI_INTENT_NONE);
       }},
      {"pre_prepare", nullptr, [&] { return qzvmfi_fi_pgn_pre_prepare(&node); }},
      {"import_tree", "importTreeNode",
       [&] { return qzvmfi_fi_pgn_import_tree(&node, nullptr, nullptr, 0, &id); }},
      {"deport_tree", "deportTree",
       [&] { return qzvmfi_fi_pgn_deport_tree(&node, &node, nullptr); }},
      {"init_remnode", "initAltNode",
       [&] { return qzvmfi_fi_pgn_init_remnode(&node, &node, &node, false); }},
      {"init_altnode", "initAltNode",
       [&] { return qzvmfi_fi_pgn_init_altnode(&node, &node, &node, false); }},
      {"init_node", "initNode",
       [&] { return qzvmfi_fi_pgn_init_node(&node, nullptr, 0, nullptr); }},
      {"supports_fitype", "supportsFiType",
       [&] { return qzvmfi_fi_pgn_supports_fitype(&node, nullptr); }},
      {"claim", "claim",
       [&] {
         qzfi_objid object{};
         return qzvmfi_fi_pgn_claim(&object, &ids, &count);
       }},
      {"errmsg", nullptr, [&] { return qzvmfi_fi_pgn_errmsg(3, &status); }},
      {"preselect", nullptr, [&] { return qzvmfi_fi_pgn_preselect(nullptr, nullptr, nullptr, 0); }},
      {"set_import_options", nullptr,
       [&] { return qzvmfi_fi_pgn_set_import_options(&split, nullptr, 0, nullptr, 0, nullptr); }},
      {"verify_qscombos", nullptr,
       [&] { return qzvmfi_fi_pgn_verify_qscombos(&split, nullptr, 0); }},
      {"isready", "isReady", [&] { return qzvmfi_fi_pgn_isready(nullptr, &split, nullptr, 0); }},
      {"select", "select", [&] { return qzvmfi_fi_pgn_select(nullptr, &split, nullptr, 0); }},
      {"prepare", nullptr, [&] { return qzvmfi_fi_pgn_prepare(nullptr, &split, nullptr, 0, 0); }},
      {"unquiesce", nullptr,
       [&] {
         qzvmfi_fi_pgn_unquiesce(&quiesce, nullptr, 0);
         return 0;
       }},
      {"quiesce", nullptr, [&] { return qzvmfi_fi_pgn_quiesce(&quiesce, nullptr, 0, nullptr); }},
      {"objctl", nullptr,
       [&] {
         const int got = qzvmfi_fi_pgn_objctl("status", nullptr, &text, &result);
         std::free(text);
         text = nullptr;
         return got;
       }},
      {"make", "make",
       [&] { return qzvmfi_fi_pgn_make(nullptr, &split, nullptr, 0, &ids, &count); }},
  };
  ASSERT_EQ(kEntryPoints.size() - 2, table.size());  // all but init and fini
  // A node without an object has no volume to initialise.
  const std::set<std::string> failing = {"init_node", "init_altnode", "init_remnode"};
  for (const Reach& reach : table) {
    m_trace.clear();
    const std::string entry = std::string("qzvmfi_fi_pgn_") + reach.entry;
    const int got = reach.call();
    if (failing.count(reach.entry) != 0) {
      EXPECT_EQ(6, got) << entry;
    } else {
      EXPECT_TRUE(got == 0 || got == 3) << entry << " returned " << got;
    }
    ASSERT_FALSE(m_trace.empty()) << entry;
    EXPECT_EQ(0u, m_trace.front().text.rfind("Entering Function " + entry + " [", 0)) << entry;
    EXPECT_NE(std::string::npos, m_trace.front().text.find(", pdk/include/cfiapiexport]")) << entry;
    if (reach.operation != nullptr) {
      EXPECT_TRUE(enteredScope(reach.operation)) << entry << " -> " << reach.operation;
    }
  }
  qzvmfi_fi_pgn_del_last_error(&messages);
}

}  // namespace

// ===== the door =====

namespace {

using qzvmfi_test::OperationsTest;
using qzvmfi_test::TestNode;
using qzvmfi_test::TestNodeList;
using qzvmfi_test::TestObjids;

class DoorTest : public OperationsTest {
 protected:
  // The call refused with 3, the message pushed, nothing run.
  void expectRefused(int status, const Pushed& message) {
    EXPECT_EQ(3, status);
    EXPECT_EQ(std::vector<Pushed>{message}, pushed());
    EXPECT_TRUE(commands().empty()) << commands().front();
    qzvmfi_ctx::ErrorManager::instance()->clear();
    CFiExecSeam::clearCommands();
  }

  static constexpr const char* kShell =
      "it holds a character other than letters, digits, '_', '-' and '.'";
};

TEST_F(DoorTest, ObjectPathsThatNoVolumeCanHaveAreRefusedBeforeAnythingRuns) {
  const std::string hostile = "/dev/qz/dsk/dg1$(touch${IFS}pwned)/vol1";
  TestNode node(hostile);
  TestNode good(m_path);
  const Pushed message{"MSG_ERROR_INVALID_NAME", "door", {"", hostile, kShell, "the object path"}};
  const auto named = [&message](const char* operation) {
    Pushed named = message;
    named.args[0] = operation;
    return named;
  };
  qfi_accessnode access{};
  int exists = 0;
  expectRefused(qzvmfi_fi_pgn_deport_tree(&node.domain, nullptr, &access), named("deportTree"));
  expectRefused(qzvmfi_fi_pgn_check_node_existence(&node.domain, &exists),
                named("checkNodeExistence"));
  expectRefused(qzvmfi_fi_pgn_init_node(&node.domain, nullptr, 0, node.objid()), named("initNode"));
  expectRefused(
      qzvmfi_fi_pgn_online(&good.domain, &node.domain, 2, QFI_DISP_NONE),
      {"MSG_ERROR_INVALID_NAME", "door", {"online", hostile, kShell, "the alternate object path"}});
  TestNodeList list;
  list.add(&node.domain);
  expectRefused(qzvmfi_fi_pgn_disable_access(list.get(), 0), named("disableAccess"));
  expectRefused(qzvmfi_fi_pgn_enable_access(list.get(), 0, 0, 0), named("enableAccess"));
  // Asked whether such a path is its own, the plug-in answers no.
  qzfi_objid** secondary = nullptr;
  int count = 0;
  EXPECT_EQ(0, qzvmfi_fi_pgn_claim(node.objid(), &secondary, &count));
  EXPECT_TRUE(commands().empty());
  EXPECT_TRUE(pushed().empty());
}

TEST_F(DoorTest, DiskListsOfTheAlternateTreeAreCheckedAndPaired) {
  TestNode node(m_path);
  TestObjids primary({"/dev/sdb", "/dev/sdc"});
  TestObjids swappedTwice({"/dev/sdf", "/dev/sdf"});
  TestObjids shorter({"/dev/sdf"});
  TestObjids hostile({"/dev/sdf", "/dev/sd g"});
  qzfi_objid* out[2] = {};
  expectRefused(qzvmfi_fi_pgn_import_tree(&node.domain, primary.get(), swappedTwice.get(), 2, out),
                {"MSG_ERROR_INPUT_REFUSED",
                 "door",
                 {"importTreeNode", "the secondary disk list", "sdf", "the disk is named twice"}});
  expectRefused(qzvmfi_fi_pgn_import_tree(&node.domain, primary.get(), shorter.get(), 2, out),
                {"MSG_ERROR_INPUT_REFUSED",
                 "door",
                 {"importTreeNode", "the secondary disk list", "2 primary and 1 secondary disks",
                  "each primary disk pairs with the secondary disk at its place"}});
  expectRefused(
      qzvmfi_fi_pgn_build_alttree(&node.domain, nullptr, primary.get(), hostile.get(), 2, out),
      {"MSG_ERROR_INVALID_NAME",
       "door",
       {"buildAltTree", "sd g", kShell, "the secondary disk list"}});
}

TEST_F(DoorTest, DiskListsOfResourcesAreChecked) {
  char sdb[] = "/dev/sdb";
  char hostile[] = "/dev/sdb;reboot";
  char* twice[] = {sdb, sdb, nullptr};
  char* bad[] = {hostile, nullptr};
  char** paths = nullptr;
  int count = 0;
  expectRefused(qzvmfi_fi_pgn_unformat(twice, 2, 0),
                {"MSG_ERROR_INPUT_REFUSED",
                 "door",
                 {"unformat", "the disk list", "sdb", "the disk is named twice"}});
  expectRefused(
      qzvmfi_fi_pgn_online_resource(bad, 1, nullptr, nullptr, nullptr, nullptr, 0, &paths, &count),
      {"MSG_ERROR_INVALID_NAME",
       "door",
       {"onlineResource", "sdb;reboot", kShell, "the disk list"}});
  char* one[] = {sdb, nullptr};
  char volume[] = "vol 1";
  expectRefused(qzvmfi_fi_pgn_format(one, 1, volume, nullptr, nullptr, 1, &paths, &count),
                {"MSG_ERROR_INVALID_NAME", "door", {"format", "vol 1", kShell, "the volume name"}});
  char options[] = "diskGroup=../dg";
  expectRefused(qzvmfi_fi_pgn_format(one, 1, nullptr, nullptr, options, 1, &paths, &count),
                {"MSG_ERROR_INVALID_NAME",
                 "door",
                 {"format", "../dg", "it begins with '-' or '.'", "the option diskGroup"}});
}

}  // namespace
